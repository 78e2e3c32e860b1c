#include "core/ProductPreferences.h"

#include "core/Async.h"

#include <QRegularExpression>

#include <algorithm>
#include <cmath>

namespace dictora {

namespace {

// An INI store hands every value back as text, so "is a number" and "is a
// boolean" are decided on the text as well as on the in-memory type.
std::optional<double> readNumber(const QVariant &v)
{
    switch (v.typeId()) {
    case QMetaType::Double:
    case QMetaType::Float:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return v.toDouble();
    case QMetaType::QString: {
        bool ok = false;
        const double d = v.toString().trimmed().toDouble(&ok);
        if (ok && std::isfinite(d))
            return d;
        return std::nullopt;
    }
    default:
        return std::nullopt;
    }
}

std::optional<bool> readBool(const QVariant &v)
{
    if (v.typeId() == QMetaType::Bool)
        return v.toBool();
    if (v.typeId() == QMetaType::QString) {
        const QString s = v.toString();
        if (s == QLatin1String("true"))
            return true;
        if (s == QLatin1String("false"))
            return false;
    }
    return std::nullopt;
}

} // namespace

QString rawValue(ScreenAnchor anchor)
{
    switch (anchor) {
    case ScreenAnchor::topLeft: return QStringLiteral("topLeft");
    case ScreenAnchor::topMiddle: return QStringLiteral("topMiddle");
    case ScreenAnchor::topRight: return QStringLiteral("topRight");
    case ScreenAnchor::bottomLeft: return QStringLiteral("bottomLeft");
    case ScreenAnchor::bottomMiddle: return QStringLiteral("bottomMiddle");
    case ScreenAnchor::bottomRight: return QStringLiteral("bottomRight");
    }
    return {};
}

QString rawValue(OverlaySize size)
{
    switch (size) {
    case OverlaySize::small: return QStringLiteral("small");
    case OverlaySize::medium: return QStringLiteral("medium");
    case OverlaySize::large: return QStringLiteral("large");
    }
    return {};
}

const QList<ScreenAnchor> &allScreenAnchors()
{
    static const QList<ScreenAnchor> all{ScreenAnchor::topLeft, ScreenAnchor::topMiddle,
        ScreenAnchor::topRight, ScreenAnchor::bottomLeft, ScreenAnchor::bottomMiddle,
        ScreenAnchor::bottomRight};
    return all;
}

const QList<OverlaySize> &allOverlaySizes()
{
    static const QList<OverlaySize> all{OverlaySize::small, OverlaySize::medium, OverlaySize::large};
    return all;
}

std::optional<ScreenAnchor> screenAnchorFromRaw(const QString &raw)
{
    for (ScreenAnchor a : allScreenAnchors())
        if (rawValue(a) == raw)
            return a;
    return std::nullopt;
}

ProductPreferences::ProductPreferences(QSettings &defaults, QObject *parent)
    : QObject(parent), m_file(defaults.fileName()), m_format(defaults.format())
{
    m_writer.setMaxThreadCount(1);
    const auto value = [&](const char *key) { return defaults.value(QLatin1String(key)); };

    m_location = screenAnchorFromRaw(value(kLocationKey).toString()).value_or(ScreenAnchor::bottomMiddle);

    const QString size = value(kSizeKey).toString();
    m_size = size == QLatin1String("small") ? OverlaySize::small
        : size == QLatin1String("large")    ? OverlaySize::large
                                            : OverlaySize::medium;

    m_opacity = clampOpacity(readNumber(value(kOpacityKey)).value_or(0.9));
    m_showsIcon = readBool(value(kShowsIconKey)).value_or(true);
    m_completedOnboarding = value(kOnboardingKey).toBool();
    m_shortcut = GlobalShortcut::loadOrDefault(value(kShortcutKey).toString().toUtf8());
    m_formatting = readBool(value(kFormattingKey)).value_or(true);
    m_snippets = readBool(value(kSnippetsKey)).value_or(true);
    m_holdToTalk = readBool(value(kHoldToTalkKey)).value_or(false);
    m_startsAtLogin = readBool(value(kStartAtLoginKey)).value_or(false);
    m_language = validLanguage(value(kLanguageKey).toString());
    m_vocabulary = cleanVocabulary(value(kVocabularyKey).toStringList());
    m_restoresClipboard = readBool(value(kRestoreClipboardKey)).value_or(false);
    m_microphoneSource = value(kMicrophoneSourceKey).toString().trimmed();
    m_captureTailMs = int(std::clamp(readNumber(value(kCaptureTailKey)).value_or(kDefaultCaptureTailMilliseconds), 0.0,
        double(kMaximumCaptureTailMilliseconds)));
    m_livePreview = readBool(value(kLivePreviewKey));
}

void ProductPreferences::setRestoresClipboard(bool value)
{
    if (value == m_restoresClipboard)
        return;
    m_restoresClipboard = value;
    store(kRestoreClipboardKey, value);
    Q_EMIT restoresClipboardChanged(value);
}

void ProductPreferences::setMicrophoneSource(const QString &value)
{
    const QString source = value.trimmed();
    if (source == m_microphoneSource)
        return;
    m_microphoneSource = source;
    store(kMicrophoneSourceKey, source);
    Q_EMIT microphoneSourceChanged(source);
}

QString ProductPreferences::validLanguage(const QString &value)
{
    static const QRegularExpression code(QStringLiteral("^([a-z]{2,3}|auto)$"));
    return code.match(value).hasMatch() ? value : QString::fromLatin1(kDefaultLanguage);
}

QStringList ProductPreferences::cleanVocabulary(const QStringList &value)
{
    QStringList clean;
    for (const QString &entry : value) {
        const QString term = entry.simplified();
        if (!term.isEmpty() && !clean.contains(term))
            clean.append(term);
    }
    return clean;
}

void ProductPreferences::setLanguage(const QString &value)
{
    const QString language = validLanguage(value);
    if (language == m_language)
        return;
    m_language = language;
    store(kLanguageKey, language);
    Q_EMIT languageChanged(language);
}

void ProductPreferences::setVocabulary(const QStringList &value)
{
    const QStringList vocabulary = cleanVocabulary(value);
    if (vocabulary == m_vocabulary)
        return;
    m_vocabulary = vocabulary;
    store(kVocabularyKey, vocabulary);
    Q_EMIT vocabularyChanged(vocabulary);
}

double ProductPreferences::clampOpacity(double value)
{
    if (!(value > kMinimumOpacity)) // also catches NaN
        return kMinimumOpacity;
    if (value > kMaximumOpacity)
        return kMaximumOpacity;
    return value;
}

ProductPreferences::~ProductPreferences()
{
    m_writer.waitForDone();
}

void ProductPreferences::store(const char *key, const QVariant &value)
{
    bool queued = false;
    {
        const QMutexLocker lock(&m_pendingMutex);
        queued = !m_pending.isEmpty();
        m_pending.insert(QLatin1String(key), value);
    }
    if (!queued)
        runElsewhere(&m_writer, this, [this] { writePending(); }, [] {});
}

void ProductPreferences::writePending()
{
    QVariantMap values;
    {
        const QMutexLocker lock(&m_pendingMutex);
        values.swap(m_pending);
    }
    if (values.isEmpty())
        return;
    // Its own object on this thread: QSettings objects over one file share
    // what they hold, and each may be used on its own thread.
    QSettings file(m_file, m_format);
    for (auto it = values.cbegin(); it != values.cend(); ++it)
        file.setValue(it.key(), it.value());
    file.sync();
}

void ProductPreferences::setMicrophoneLocation(ScreenAnchor value)
{
    m_location = value;
    store(kLocationKey, rawValue(value));
    Q_EMIT microphoneLocationChanged(value);
}

void ProductPreferences::setMicrophoneSize(OverlaySize value)
{
    m_size = value;
    store(kSizeKey, rawValue(value));
    Q_EMIT microphoneSizeChanged(value);
}

void ProductPreferences::setMicrophoneOpacity(double value)
{
    m_opacity = clampOpacity(value);
    store(kOpacityKey, m_opacity);
    Q_EMIT microphoneOpacityChanged(m_opacity);
}

void ProductPreferences::setShowsMicrophoneIcon(bool value)
{
    m_showsIcon = value;
    store(kShowsIconKey, value);
    Q_EMIT showsMicrophoneIconChanged(value);
}

void ProductPreferences::setHasCompletedOnboarding(bool value)
{
    m_completedOnboarding = value;
    store(kOnboardingKey, value);
    Q_EMIT hasCompletedOnboardingChanged(value);
}

void ProductPreferences::setKeyboardShortcut(const GlobalShortcut &value)
{
    m_shortcut = value;
    // The JSON is kept as text: an INI file would otherwise hold an opaque byte array.
    store(kShortcutKey, QString::fromUtf8(value.toJson()));
    Q_EMIT keyboardShortcutChanged(value);
}

void ProductPreferences::setFormattingEnabled(bool value)
{
    m_formatting = value;
    store(kFormattingKey, value);
    Q_EMIT formattingEnabledChanged(value);
}

void ProductPreferences::setSnippetsEnabled(bool value)
{
    m_snippets = value;
    store(kSnippetsKey, value);
    Q_EMIT snippetsEnabledChanged(value);
}

void ProductPreferences::setHoldToTalk(bool value)
{
    m_holdToTalk = value;
    store(kHoldToTalkKey, value);
    Q_EMIT holdToTalkChanged(value);
}

void ProductPreferences::setStartsAtLogin(bool value)
{
    if (m_startsAtLogin == value)
        return;
    m_startsAtLogin = value;
    store(kStartAtLoginKey, value);
    Q_EMIT startsAtLoginChanged(value);
}

} // namespace dictora
