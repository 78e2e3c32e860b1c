#pragma once

#include "shortcut/GlobalShortcut.h"

#include <QList>
#include <QMutex>
#include <QObject>
#include <QSettings>
#include <QThreadPool>
#include <QVariantMap>

namespace dictora {

enum class ScreenAnchor { topLeft, topMiddle, topRight, bottomLeft, bottomMiddle, bottomRight };
enum class OverlaySize { small, medium, large };

QString rawValue(ScreenAnchor anchor);
QString rawValue(OverlaySize size);
const QList<ScreenAnchor> &allScreenAnchors();
const QList<OverlaySize> &allOverlaySizes();
std::optional<ScreenAnchor> screenAnchorFromRaw(const QString &raw);

// The user's settings. Each property is read once from the store at
// construction (nothing written back) and written through on every change,
// to the store's file, by a writer thread of its own: QSettings syncs the
// file to disk, which the GUI thread must not wait for. The last of quick
// changes wins; the destructor waits until everything is written.
class ProductPreferences : public QObject {
    Q_OBJECT

public:
    static constexpr auto kLocationKey = "overlay.microphone.location";
    static constexpr auto kSizeKey = "overlay.microphone.size";
    static constexpr auto kOpacityKey = "overlay.microphone.opacity";
    static constexpr auto kShowsIconKey = "overlay.microphone.showsIcon";
    static constexpr auto kOnboardingKey = "onboarding.completed";
    static constexpr auto kShortcutKey = "keyboard.shortcut.v1";
    static constexpr auto kFormattingKey = "transcription.formatting.enabled";
    static constexpr auto kSnippetsKey = "transcription.snippets.enabled";
    static constexpr auto kHoldToTalkKey = "keyboard.shortcut.holdToTalk";
    static constexpr auto kStartAtLoginKey = "application.startAtLogin.enabled";
    static constexpr auto kLanguageKey = "transcription.language";
    static constexpr auto kVocabularyKey = "transcription.vocabulary";
    static constexpr auto kRestoreClipboardKey = "paste.restoreClipboard";
    static constexpr auto kMicrophoneSourceKey = "audio.microphone.source";
    static constexpr auto kDefaultLanguage = "en";
    static constexpr auto kAutomaticLanguage = "auto";
    static constexpr auto kCaptureTailKey = "audio.capture.tailMilliseconds";
    static constexpr auto kLivePreviewKey = "overlay.livePreview.enabled";
    static constexpr int kDefaultCaptureTailMilliseconds = 250;
    static constexpr int kMaximumCaptureTailMilliseconds = 2000;
    static constexpr double kMinimumOpacity = 0.2;
    static constexpr double kMaximumOpacity = 1.0;

    // The store must outlive the preferences.
    explicit ProductPreferences(QSettings &defaults, QObject *parent = nullptr);
    ~ProductPreferences() override;

    ScreenAnchor microphoneLocation() const { return m_location; }
    OverlaySize microphoneSize() const { return m_size; }
    double microphoneOpacity() const { return m_opacity; }
    bool showsMicrophoneIcon() const { return m_showsIcon; }
    bool hasCompletedOnboarding() const { return m_completedOnboarding; }
    GlobalShortcut keyboardShortcut() const { return m_shortcut; }
    bool formattingEnabled() const { return m_formatting; }
    bool snippetsEnabled() const { return m_snippets; }
    // Off: the shortcut toggles. On: holding it records until it is released.
    bool holdToTalk() const { return m_holdToTalk; }
    bool startsAtLogin() const { return m_startsAtLogin; }
    // "en" (the default), "auto" to let recognition detect it, or another code of the model's list.
    QString language() const { return m_language; }
    // Names and terms the user dictates often, one per entry.
    QStringList vocabulary() const { return m_vocabulary; }
    // Off by default: a paste leaves the transcript on the clipboard.
    bool restoresClipboard() const { return m_restoresClipboard; }
    // The sound server's name of the chosen input; empty: the system default.
    QString microphoneSource() const { return m_microphoneSource; }
    // How long capture goes on after the stop press, so a last word is kept.
    int captureTailMilliseconds() const { return m_captureTailMs; }
    // The text recognised so far, shown beside the indicator while recording.
    // Unset: on where recognition runs faster than real time (a GPU).
    std::optional<bool> livePreview() const { return m_livePreview; }

    void setMicrophoneLocation(ScreenAnchor value);
    void setMicrophoneSize(OverlaySize value);
    void setMicrophoneOpacity(double value);
    void setShowsMicrophoneIcon(bool value);
    void setHasCompletedOnboarding(bool value);
    void setKeyboardShortcut(const GlobalShortcut &value);
    void setFormattingEnabled(bool value);
    void setSnippetsEnabled(bool value);
    void setHoldToTalk(bool value);
    // Only records the choice; StartAtLogin writes the autostart entry.
    void setStartsAtLogin(bool value);
    // Anything but a plain lower-case code or "auto" is stored as "en".
    void setLanguage(const QString &value);
    // Entries are trimmed; empty and repeated ones are dropped.
    void setVocabulary(const QStringList &value);
    void setRestoresClipboard(bool value);
    void setMicrophoneSource(const QString &value);

    static QString validLanguage(const QString &value);
    static QStringList cleanVocabulary(const QStringList &value);
    // The vocabulary as the recogniser's prompt: the terms, comma-separated.
    static QString vocabularyPrompt(const QStringList &terms) { return cleanVocabulary(terms).join(QStringLiteral(", ")); }

    static double clampOpacity(double value);

Q_SIGNALS:
    void microphoneLocationChanged(dictora::ScreenAnchor value);
    void microphoneSizeChanged(dictora::OverlaySize value);
    void microphoneOpacityChanged(double value);
    void showsMicrophoneIconChanged(bool value);
    void hasCompletedOnboardingChanged(bool value);
    void keyboardShortcutChanged(const dictora::GlobalShortcut &value);
    void formattingEnabledChanged(bool value);
    void snippetsEnabledChanged(bool value);
    void holdToTalkChanged(bool value);
    void startsAtLoginChanged(bool value);
    void languageChanged(const QString &value);
    void vocabularyChanged(const QStringList &value);
    void restoresClipboardChanged(bool value);
    void microphoneSourceChanged(const QString &value);

private:
    void store(const char *key, const QVariant &value);
    void writePending(); // on the writer thread

    QString m_file;
    QSettings::Format m_format;
    QMutex m_pendingMutex;
    QVariantMap m_pending; // guarded by m_pendingMutex
    QThreadPool m_writer;  // one thread, so writes land in order
    ScreenAnchor m_location = ScreenAnchor::bottomMiddle;
    OverlaySize m_size = OverlaySize::medium;
    double m_opacity = 0.9;
    bool m_showsIcon = true;
    bool m_completedOnboarding = false;
    GlobalShortcut m_shortcut = GlobalShortcut::defaultShortcut();
    bool m_formatting = true;
    bool m_snippets = true;
    bool m_holdToTalk = false;
    bool m_startsAtLogin = false;
    QString m_language = QString::fromLatin1(kDefaultLanguage);
    QStringList m_vocabulary;
    bool m_restoresClipboard = false;
    QString m_microphoneSource;
    int m_captureTailMs = kDefaultCaptureTailMilliseconds;
    std::optional<bool> m_livePreview;
};

} // namespace dictora
