#include "text/paste/PasteService.h"

#include "platform/PlatformServices.h"

namespace dictora {

PasteService::PasteService(const RuntimeLog &log, QObject *parent)
    : QObject(parent),
      m_log(log),
      m_ownedWindows(Platform::createWindowTracker()),
      m_ownedKeystrokes(Platform::createKeystrokeSender()),
      m_windows(*m_ownedWindows),
      m_keystrokes(*m_ownedKeystrokes),
      m_clipboard(Platform::createClipboard())
{
    connect(m_clipboard.get(), &ClipboardReadWatcher::textRead, this, &PasteService::onTextRead);
}

PasteService::PasteService(const RuntimeLog &log, WindowTracker &windows, KeystrokeSender &keystrokes,
                           QObject *parent)
    : QObject(parent),
      m_log(log),
      m_windows(windows),
      m_keystrokes(keystrokes),
      m_clipboard(Platform::createClipboard())
{
    connect(m_clipboard.get(), &ClipboardReadWatcher::textRead, this, &PasteService::onTextRead);
}

PasteService::~PasteService() = default;

std::optional<PasteTarget> PasteService::captureTarget()
{
    if (auto window = m_windows.frontmostOtherApplication())
        return pasteTargetFor(*window);
    return std::nullopt;
}

std::int64_t PasteService::paste(const QString &text, const PasteTarget &target)
{
    QElapsedTimer elapsed;
    elapsed.start();
    m_log.write(QStringLiteral("paste begin target=") + target.application.name
                + QStringLiteral(" chars=") + QString::number(text.size()));

    const PasteKeystroke keystroke =
        pasteKeystrokeForWindowClass(target.application.bundleIdentifier.value_or(QString()));
    // xterm and urxvt paste the primary selection on Shift+Insert.
    m_clipboard->setText(text, keystroke == PasteKeystroke::shiftInsert);
    m_log.write(QStringLiteral("pasteboard transcript installed"));

    if (!target.window.isNull() && !m_windows.isActive(target.window)) {
        const bool active = m_windows.activate(target.window, activationTimeout);
        m_log.write(QStringLiteral("paste target reactivated ok=")
                    + (active ? QStringLiteral("true") : QStringLiteral("false")));
    }
    if (!m_keystrokes.waitForKeysReleased(keyReleaseTimeout))
        m_log.write(QStringLiteral("paste keys still held; sending anyway"));

    m_lastPaste = elapsed;
    m_awaitingRead = m_clipboard->isWatching();
    if (!m_keystrokes.send(keystroke)) {
        m_awaitingRead = false;
        QString reason = m_keystrokes.failureReason();
        m_log.write(QStringLiteral("paste keystroke failed keystroke=") + keystrokeName(keystroke)
                    + (reason.isEmpty() ? QString() : QStringLiteral(" error=") + reason));
    } else {
        m_log.write(QStringLiteral("paste keystroke sent keystroke=") + keystrokeName(keystroke));
    }
    m_log.write(QStringLiteral("command-v posted to pid=")
                + QString::number(target.application.processIdentifier));
    return elapsed.elapsed();
}

void PasteService::onTextRead(const QString &selection)
{
    if (!m_awaitingRead)
        return;
    m_awaitingRead = false;
    m_log.write(QStringLiteral("paste delivered to target selection=") + selection);
    Q_EMIT delivered(m_lastPaste.elapsed());
}

} // namespace dictora
