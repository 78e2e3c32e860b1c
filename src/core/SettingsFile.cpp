#include "core/SettingsFile.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QStringDecoder>

namespace dictora::SettingsFile {

namespace {

// A few keys of short values; a megabyte is already absurd.
constexpr qint64 kLargestFile = 1 << 20;

} // namespace

QString problem(const QString &path)
{
    const QFileInfo info(path);
    if (!info.exists())
        return {};
    if (!info.isFile())
        return QStringLiteral("%1 is not a file").arg(path);
    if (info.size() > kLargestFile)
        return QStringLiteral("%1 is too large to be a settings file (%2 bytes)").arg(path).arg(info.size());
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
    const QByteArray bytes = file.readAll();
    if (bytes.contains('\0'))
        return QStringLiteral("%1 holds binary data").arg(path);
    QStringDecoder utf8(QStringDecoder::Utf8);
    const QString text = utf8.decode(bytes);
    if (utf8.hasError())
        return QStringLiteral("%1 is not valid UTF-8").arg(path);
    int lineNumber = 0;
    for (QStringView line : QStringView(text).split(u'\n')) {
        ++lineNumber;
        line = line.trimmed();
        if (line.isEmpty() || line.startsWith(u';') || line.startsWith(u'#') || line.contains(u'='))
            continue;
        const QStringView inner = line.size() >= 2 ? line.mid(1, line.size() - 2) : QStringView();
        if (line.startsWith(u'[') && line.endsWith(u']') && !inner.contains(u'[') && !inner.contains(u']'))
            continue;
        return QStringLiteral("%1 line %2 is not a setting").arg(path).arg(lineNumber);
    }
    return {};
}

QString setAsideIfUnreadable(const QString &path)
{
    const QString why = problem(path);
    if (why.isEmpty())
        return {};
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    QString target = path + QStringLiteral(".unreadable-") + stamp;
    for (int n = 2; QFileInfo::exists(target); ++n)
        target = path + QStringLiteral(".unreadable-%1-%2").arg(stamp).arg(n);
    if (QFile::rename(path, target))
        return QStringLiteral("settings file unreadable, defaults used; the old file is kept as %1 (%2)").arg(target, why);
    return QStringLiteral("settings file unreadable and could not be moved aside; defaults used, nothing saved (%1)").arg(why);
}

QString readablePathOrNull(const QString &path, QString *problemText)
{
    const QString why = problem(path);
    if (problemText)
        *problemText = why;
    return why.isEmpty() ? path : QStringLiteral("/dev/null");
}

} // namespace dictora::SettingsFile
