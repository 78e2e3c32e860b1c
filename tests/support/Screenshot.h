#pragma once

#include <QCoreApplication>
#include <QDir>
#include <QTest>
#include <QWidget>

namespace dictora::test {

// Saves what the widget shows as <folder>/<name>[-<data tag>].png for the
// README's gallery, once the layouts have caught up with the texts just set.
inline bool saveScreenshot(QWidget &widget, const QString &folder, const QString &name)
{
    QString file = name;
    if (QTest::currentDataTag())
        file += u'-' + QString::fromLatin1(QTest::currentDataTag()).replace(u' ', u'-');
    QDir().mkpath(folder);
    QCoreApplication::processEvents();
    return widget.grab().save(folder + u'/' + file + QStringLiteral(".png"));
}

} // namespace dictora::test
