#pragma once

#include <QByteArray>
#include <QString>

#include <exception>

namespace dictora {

// Base of every component error: carries the user-facing description that
// the controller shows and logs as it stands.
class Error : public std::exception {
public:
    explicit Error(QString description)
        : m_description(std::move(description)), m_utf8(m_description.toUtf8())
    {
    }
    const QString &description() const noexcept { return m_description; }
    const char *what() const noexcept override { return m_utf8.constData(); }

private:
    QString m_description;
    QByteArray m_utf8;
};

// The one place an exception becomes the text shown and logged: a
// component error's own description, else what() of a standard exception.
QString errorMessage(const std::exception_ptr &error);

} // namespace dictora
