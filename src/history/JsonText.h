#pragma once

#include <QByteArray>
#include <QString>

namespace dictora::JsonText {

// A JSON string literal, quotes included: control characters and the two
// mandatory characters escaped, "/" and non-ASCII text left as UTF-8.
void appendString(QByteArray &out, const QString &value);
QByteArray string(const QString &value);

} // namespace dictora::JsonText
