#include "text/paste/PasteService.h"

#include "platform/Clipboard.h"
#include "platform/WindowTracker.h"

#include <QPointer>

namespace dictora {

PasteService::PasteService(const RuntimeLog &log, WindowTracker &windows, KeystrokeSender &keystrokes,
                           std::unique_ptr<Clipboard> clipboard, QObject *parent)
    : QObject(parent),
      m_log(log),
      m_windows(windows),
      m_keystrokes(keystrokes),
      m_clipboard(std::move(clipboard))
{
    m_poll.setInterval(pollInterval);
    m_poll.setTimerType(Qt::PreciseTimer);
    connect(&m_poll, &QTimer::timeout, this, &PasteService::advance);
    if (m_clipboard) {
        connect(m_clipboard.get(), &ClipboardReadWatcher::textRead, this, &PasteService::onTextRead);
        connect(m_clipboard.get(), &ClipboardReadWatcher::offerSeen, this, [this](const QString &selection) {
            if (m_busy && !m_queue.empty() && m_queue.front().step == Step::handingOver) {
                m_queue.front().awaitedOffers.removeAll(selection);
                advance();
            }
        });
    }
    m_restore.setSingleShot(true);
    connect(&m_restore, &QTimer::timeout, this, &PasteService::restoreClipboard);
}

PasteService::~PasteService() = default;

std::optional<PasteTarget> PasteService::captureTarget()
{
    if (auto window = m_windows.frontmostOtherApplication())
        return pasteTargetFor(*window);
    return std::nullopt;
}

void PasteService::paste(const QString &text, const PasteTarget &target, Done done)
{
    Request request;
    request.text = text;
    request.target = target;
    request.keystroke = pasteKeystrokeFor(target);
    // Where Ctrl+V depends on the layout group active at that moment,
    // Shift+Insert (with both selections set) pastes whatever the group.
    if (!m_keystrokes.pastesWithVOnEveryLayout())
        request.keystroke = PasteKeystroke::shiftInsert;
    request.done = std::move(done);
    request.elapsed.start();
    m_queue.push_back(std::move(request));
    if (!m_busy)
        begin();
}

bool PasteService::copy(const QString &text)
{
    return m_clipboard && m_clipboard->setText(text, false);
}

void PasteService::begin()
{
    m_busy = true;
    ++m_requestSerial;
    const Request &request = m_queue.front();
    m_log.write(QStringLiteral("paste begin target=") + request.target.application.name
                + QStringLiteral(" chars=") + QString::number(request.text.size()));
    if (!request.target.window.isNull() && !m_windows.isActive(request.target.window)) {
        m_windows.requestActivation(request.target.window);
        enter(Step::activating);
    } else {
        enter(Step::releasingKeys);
    }
}

void PasteService::enter(Step step)
{
    Request &request = m_queue.front();
    request.step = step;
    request.stepElapsed.start();
    advance();
}

// One poll: moves the front request on as far as it can go now.
void PasteService::advance()
{
    if (!m_busy || m_queue.empty()) {
        m_poll.stop();
        return;
    }
    Request &request = m_queue.front();
    switch (request.step) {
    case Step::activating: {
        const bool active = m_windows.isActive(request.target.window);
        if (!active && request.stepElapsed.elapsed() < activationTimeout.count())
            break;
        m_log.write(QStringLiteral("paste target reactivated ok=")
                    + (active ? QStringLiteral("true") : QStringLiteral("false")));
        enter(Step::releasingKeys);
        return;
    }
    case Step::releasingKeys:
        // The user's own Ctrl/Alt/Shift would turn the paste into another
        // command, and the held shortcut key sends every key to its grab.
        if (m_keystrokes.anyKeyHeld()) {
            if (request.stepElapsed.elapsed() < keyReleaseTimeout.count())
                break;
            m_log.write(QStringLiteral("paste keys still held; sending anyway"));
        }
        offer();
        return;
    case Step::saving:
        if (request.stepElapsed.elapsed() < saveTimeout.count())
            break;
        m_log.write(QStringLiteral("clipboard not saved: its owner did not answer"));
        install();
        return;
    case Step::handingOver:
        // A keystroke that beats the compositor would paste the old clipboard.
        if (!request.awaitedOffers.isEmpty() && request.stepElapsed.elapsed() < handOverTimeout.count())
            break;
        m_log.write(QStringLiteral("paste clipboard handed over ok=")
                    + (request.awaitedOffers.isEmpty() ? QStringLiteral("true") : QStringLiteral("false")));
        enter(Step::announcing);
        return;
    case Step::announcing:
        if (request.stepElapsed.elapsed() < m_clipboard->announceDelay().count())
            break;
        type();
        return;
    case Step::typing:
        return; // the sender answers
    }
    if (!m_poll.isActive())
        m_poll.start();
}

void PasteService::offer()
{
    // A restore still waiting keeps what the user had, not our last text.
    if (!m_clipboard || !m_restores || m_saved) {
        install();
        return;
    }
    enter(Step::saving);
    QPointer<PasteService> self(this);
    const quint64 request = m_requestSerial;
    m_clipboard->readContents([self, request](ClipboardContents contents) {
        // Too late: the paste went on without it.
        if (!self || self->m_requestSerial != request || self->m_queue.empty()
            || self->m_queue.front().step != Step::saving)
            return;
        self->m_log.write(QStringLiteral("clipboard saved formats=%1").arg(contents.formats.size()));
        self->m_saved = std::move(contents);
        self->install();
    });
}

void PasteService::install()
{
    Request &request = m_queue.front();
    // Terminals paste the primary selection on Shift+Insert, editors the clipboard.
    const bool alsoPrimary = request.keystroke == PasteKeystroke::shiftInsert;
    const bool offered = m_clipboard && m_clipboard->setText(request.text, alsoPrimary);
    m_log.write(QStringLiteral("pasteboard transcript installed"));
    if (offered && m_clipboard->handsOver()) {
        request.awaitedOffers = alsoPrimary ? QStringList{QStringLiteral("clipboard"), QStringLiteral("primary")}
                                            : QStringList{QStringLiteral("clipboard")};
        enter(Step::handingOver);
        return;
    }
    type();
}

void PasteService::type()
{
    m_poll.stop();
    Request &request = m_queue.front();
    request.step = Step::typing;
    m_lastPaste = request.elapsed;
    m_awaitingRead = m_clipboard && m_clipboard->isWatching();
    const PasteKeystroke keystroke = request.keystroke;
    QPointer<PasteService> self(this);
    m_keystrokes.sendThen(keystroke, [self, keystroke](const QString &error) {
        if (!self)
            return;
        if (error.isEmpty()) {
            self->m_log.write(QStringLiteral("paste keystroke sent keystroke=") + keystrokeName(keystroke));
        } else {
            self->m_awaitingRead = false;
            self->m_log.write(QStringLiteral("paste keystroke failed keystroke=") + keystrokeName(keystroke)
                              + QStringLiteral(" error=") + error);
        }
        self->finish(error);
    });
}

void PasteService::finish(const QString &error)
{
    Request request = std::move(m_queue.front());
    m_queue.pop_front();
    m_busy = false;
    m_lastError = error;
    m_log.write(QStringLiteral("command-v posted to pid=")
                + QString::number(request.target.application.processIdentifier));
    const qint64 dispatchMs = request.elapsed.elapsed();
    if (m_saved)
        m_restore.start(restoreTimeout);

    // `done` may start the next dictation step, or destroy us.
    QPointer<PasteService> self(this);
    if (request.done)
        request.done(dispatchMs);
    if (self && !m_busy && !m_queue.empty())
        begin();
}

void PasteService::onTextRead(const QString &selection)
{
    if (!m_awaitingRead)
        return;
    m_awaitingRead = false;
    m_log.write(QStringLiteral("paste delivered to target selection=") + selection);
    if (m_saved)
        m_restore.start(restoreAfterRead);
    Q_EMIT delivered(m_lastPaste.elapsed());
}

void PasteService::restoreClipboard()
{
    if (!m_saved || !m_clipboard)
        return;
    // Another paste on its way puts it back after its own.
    if (m_busy || !m_queue.empty())
        return;
    const ClipboardContents saved = std::exchange(m_saved, std::nullopt).value();
    // An empty clipboard stays empty rather than keeping the transcript.
    const bool restored = m_clipboard->restore(saved);
    m_log.write(QStringLiteral("clipboard restored formats=%1 ok=%2")
                    .arg(saved.formats.size())
                    .arg(restored ? QStringLiteral("true") : QStringLiteral("false")));
}

} // namespace dictora
