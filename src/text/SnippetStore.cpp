#include "text/SnippetStore.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>

namespace dictora {

SnippetStore::SnippetStore(const QString &fileName, QObject *parent)
    : QObject(parent), m_fileName(fileName)
{
    LoadResult loaded = load(fileName);
    m_entries = std::move(loaded.entries);
    m_loadProblem = std::move(loaded.problem);
    m_keepUnreadableFile = !m_loadProblem.isEmpty();
}

SnippetStore::LoadResult SnippetStore::load(const QString &fileName)
{
    QFile file(fileName);
    if (!file.exists())
        return {};
    if (!file.open(QIODevice::ReadOnly))
        return {{}, QStringLiteral("cannot read %1: %2").arg(fileName, file.errorString())};
    // Thousands of snippets are a few hundred kilobytes; anything this big is not ours.
    constexpr qint64 kLargestFile = 16 << 20;
    if (file.size() > kLargestFile)
        return {{}, QStringLiteral("%1 is too large to be a snippets file (%2 bytes)").arg(fileName).arg(file.size())};
    QString problem;
    const auto entries = decode(file.readAll(), &problem);
    if (!entries)
        return {{}, QStringLiteral("%1 %2").arg(fileName, problem)};
    return {*entries, {}};
}

QByteArray SnippetStore::encode(const SnippetEntries &entries)
{
    QJsonArray array;
    for (const SnippetEntry &entry : entries)
        array.append(entry.toJson());
    return QJsonDocument(array).toJson(QJsonDocument::Indented);
}

std::optional<SnippetEntries> SnippetStore::decode(const QByteArray &json, QString *problem)
{
    const auto fail = [problem](const QString &why) -> std::optional<SnippetEntries> {
        if (problem)
            *problem = why;
        return std::nullopt;
    };
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError)
        return fail(QStringLiteral("is not valid JSON (%1 at offset %2)").arg(error.errorString()).arg(error.offset));
    if (!doc.isArray())
        return fail(QStringLiteral("is not a list of snippets"));
    SnippetEntries entries;
    const QJsonArray array = doc.array();
    for (qsizetype i = 0; i < array.size(); ++i) {
        const auto entry = array.at(i).isObject() ? SnippetEntry::fromJson(array.at(i).toObject()) : std::nullopt;
        if (!entry)
            return fail(QStringLiteral("has a malformed snippet at index %1").arg(i));
        entries.append(*entry);
    }
    return entries;
}

void SnippetStore::setEntries(const SnippetEntries &entries)
{
    m_entries = entries;
    changed();
}

SnippetEntry SnippetStore::add()
{
    const SnippetEntry entry = SnippetEntry::create();
    m_entries.append(entry);
    changed();
    return entry;
}

void SnippetStore::remove(const SnippetEntry &entry)
{
    m_entries.removeIf([&](const SnippetEntry &e) { return e.id == entry.id; });
    changed();
}

bool SnippetStore::setTrigger(const QUuid &id, const QString &trigger)
{
    for (SnippetEntry &entry : m_entries) {
        if (entry.id == id) {
            entry.trigger = trigger;
            changed();
            return true;
        }
    }
    return false;
}

bool SnippetStore::setExpansion(const QUuid &id, const QString &expansion)
{
    for (SnippetEntry &entry : m_entries) {
        if (entry.id == id) {
            entry.expansion = expansion;
            changed();
            return true;
        }
    }
    return false;
}

void SnippetStore::changed()
{
    save();
    Q_EMIT entriesChanged();
}

void SnippetStore::setAsideUnreadableFile()
{
    m_keepUnreadableFile = false;
    if (!QFileInfo::exists(m_fileName))
        return;
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    QString target = m_fileName + QStringLiteral(".unreadable-") + stamp;
    for (int n = 2; QFileInfo::exists(target); ++n)
        target = m_fileName + QStringLiteral(".unreadable-%1-%2").arg(stamp).arg(n);
    if (!QFile::copy(m_fileName, target))
        m_keepUnreadableFile = true; // try again at the next save rather than lose it
}

void SnippetStore::save()
{
    if (m_keepUnreadableFile) {
        setAsideUnreadableFile();
        if (m_keepUnreadableFile) {
            m_lastSaveError = QStringLiteral("cannot keep a copy of the unreadable %1").arg(m_fileName);
            return;
        }
    }
    const QString directory = QFileInfo(m_fileName).absolutePath();
    if (!QFileInfo::exists(directory)) {
        if (!QDir().mkpath(directory)) {
            m_lastSaveError = QStringLiteral("cannot create %1").arg(directory);
            return;
        }
        QFile::setPermissions(directory, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    QSaveFile file(m_fileName);
    if (!file.open(QIODevice::WriteOnly)) {
        m_lastSaveError = QStringLiteral("cannot write %1: %2").arg(m_fileName, file.errorString());
        return;
    }
    const QByteArray bytes = encode(m_entries);
    if (file.write(bytes) != bytes.size() || !file.commit()) {
        m_lastSaveError = QStringLiteral("cannot write %1: %2").arg(m_fileName, file.errorString());
        return;
    }
    QFile::setPermissions(m_fileName, QFile::ReadOwner | QFile::WriteOwner);
    m_lastSaveError.clear();
}

} // namespace dictora
