#include "home/HistoryListModel.h"

#include "history/HistoryStore.h"
#include "history/TranscriptPresentation.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QLocale>
#include <QMimeData>

namespace dictora {

void copyPlainText(const QString &text)
{
    // A fresh QMimeData with text only, so no rich-text flavour rides along.
    auto *mime = new QMimeData;
    mime->setText(text);
    QGuiApplication::clipboard()->setMimeData(mime, QClipboard::Clipboard);
}

HistoryListModel::HistoryListModel(HistoryStore &store, QObject *parent)
    : QAbstractListModel(parent), m_store(store)
{
    m_copiedTimer.setSingleShot(true);
    m_copiedTimer.setInterval(kCopiedFeedbackMs);
    connect(&m_copiedTimer, &QTimer::timeout, this, [this] {
        const QUuid was = m_copied;
        m_copied = QUuid();
        for (int row = 0; row < m_rows.size(); ++row) {
            if (record(row).id == was) {
                Q_EMIT dataChanged(index(row), index(row), {CopiedRole});
                break;
            }
        }
    });
    connect(&m_store, &HistoryStore::recordsChanged, this, &HistoryListModel::refresh);
    connect(&m_store, &HistoryStore::queryChanged, this, &HistoryListModel::refresh);
    connect(&m_store, &HistoryStore::filtersChanged, this, &HistoryListModel::refresh);
    refresh();
}

void HistoryListModel::refresh()
{
    beginResetModel();
    m_index = m_store.index();
    m_rows = m_store.filteredIndexes();
    endResetModel();
    Q_EMIT refreshed();
}

int HistoryListModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_rows.size());
}

QString HistoryListModel::savedAtText(const TranscriptRecord &record, QLocale::FormatType format)
{
    return QLocale().toString(record.savedAt.toLocalTime(), format);
}

QString HistoryListModel::applicationText(const TranscriptRecord &record)
{
    if (record.targetApplication && !record.targetApplication->name.isEmpty())
        return record.targetApplication->name;
    return QStringLiteral("No application");
}

QString HistoryListModel::earsText(const TranscriptRecord &record)
{
    if (!record.earsDurationMilliseconds)
        return QString();
    return QStringLiteral("ears ") + QString::number(*record.earsDurationMilliseconds) + QStringLiteral("ms");
}

QStringList HistoryListModel::badges(const TranscriptRecord &record)
{
    QStringList out;
    if (record.transcriptionEngine && record.transcriptionEngine->startsWith(QLatin1String("exact-local")))
        out << QStringLiteral("Exact local");
    if (record.outcome == TranscriptOutcome::recovered)
        out << QStringLiteral("Recovered");
    return out;
}

QVariant HistoryListModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= m_rows.size())
        return {};
    const TranscriptRecord &r = record(index.row());
    switch (role) {
    case Qt::DisplayRole:
    case PreviewRole:
        return TranscriptPresentation::rowPreview(r.transcript, 9, 6);
    case Qt::AccessibleTextRole:
        return savedAtText(r, QLocale::ShortFormat) + QStringLiteral(", ") + applicationText(r) + QStringLiteral(", ")
            + r.transcript;
    case SavedAtTextRole:
        return savedAtText(r, QLocale::ShortFormat);
    case ApplicationRole:
        return applicationText(r);
    case DurationRole:
        return TranscriptPresentation::durationLabel(r.recordingDurationMilliseconds);
    case EarsRole:
        return earsText(r);
    case BadgesRole:
        return badges(r);
    case TranscriptRole:
        return r.transcript;
    case CopiedRole:
        return !m_copied.isNull() && r.id == m_copied;
    default:
        return {};
    }
}

HistoryListModel::EmptyState HistoryListModel::emptyState() const
{
    if (!m_rows.isEmpty())
        return EmptyState::none;
    return m_store.records().isEmpty() ? EmptyState::noRecords : EmptyState::noMatches;
}

void HistoryListModel::copyTranscript(int row)
{
    if (row < 0 || row >= m_rows.size())
        return;
    copyPlainText(record(row).transcript);
    const QUuid previous = m_copied;
    m_copied = record(row).id;
    for (int i = 0; i < m_rows.size(); ++i) {
        if (record(i).id == previous || i == row)
            Q_EMIT dataChanged(index(i), index(i), {CopiedRole});
    }
    m_copiedTimer.start();
}

} // namespace dictora
