#include "support/controller/ControllerRig.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <cmath>

namespace dictora::test {

namespace {
// Answers come back from the event loop, as from the real threads.
void later(std::function<void()> f) { QTimer::singleShot(0, std::move(f)); }
} // namespace

void FakeSpeech::answer(qint64 ms, Done done)
{
    QMetaObject::invokeMethod(this, [this, ms, done] {
        if (error.isEmpty())
            done(Result{text, ms, {}}, QString());
        else
            done(std::nullopt, error);
    }, Qt::QueuedConnection);
}

void FakeSpeech::transcribe(std::vector<float>, Done done)
{
    ++transcribeCalls;
    answer(420, std::move(done));
}

SpeechPort::SampleSink FakeSpeech::beginStream()
{
    if (!streams)
        return {};
    ++begun;
    streamed.clear();
    return [this](const float *samples, size_t count) { streamed.insert(streamed.end(), samples, samples + count); };
}

void FakeSpeech::finishStream(Done done)
{
    ++finished;
    answer(250, std::move(done));
}

void FakeMicrophone::start(Listeners l, Started done)
{
    ++starts;
    if (!startError.isEmpty()) {
        later([this, done] { done(startError); });
        return;
    }
    listeners = std::move(l);
    isOpen = true;
    m_pendingStart = std::move(done);
    if (!holdStart)
        later([this] { open(); });
}

void FakeMicrophone::open()
{
    if (auto done = std::exchange(m_pendingStart, {}))
        done(std::nullopt);
}

void FakeMicrophone::fail(const QString &error)
{
    isOpen = false;
    listeners = {};
    if (auto done = std::exchange(m_pendingStart, {}))
        done(error);
}

void FakeMicrophone::capture(const std::vector<float> &samples)
{
    if (isOpen && listeners.onSamples)
        listeners.onSamples(samples.data(), samples.size());
}

void FakeMicrophone::stop(Stopped done)
{
    ++stops;
    capture(recording);
    isOpen = false;
    listeners = {};
    later([this, done] { done({recording, rms}); });
}

void FakeMicrophone::cancel()
{
    ++cancels;
    isOpen = false;
    listeners = {};
    m_pendingStart = {};
}

void FakeMicrophone::requestPermission(Answered done) { later([this, done] { done(permitted); }); }

void FakeMicrophone::checkStatus(StatusDone done)
{
    later([this, done] {
        done({permitted ? OnboardingPermissionStatus::authorized : OnboardingPermissionStatus::denied, {}});
    });
}

void FakePaster::paste(const QString &text, const PasteTarget &, Pasted done)
{
    pasted << text;
    later([done] { done(12); });
}

ControllerRig::ControllerRig(bool onboarded)
{
    log.install();
    preferences.setHasCompletedOnboarding(onboarded);
    writeFile(dir.filePath(QStringLiteral("snippets.json")),
        R"([{"id":"7B0D7A52-3C4B-4E8A-9B1C-2D3E4F5A6B7C","trigger":"my address","expansion":"1 Main Street"}])");
    snippets = std::make_unique<SnippetStore>(dir.filePath(QStringLiteral("snippets.json")));
    build();
}

void ControllerRig::build(std::optional<TranscriptJournal> other)
{
    controller.reset();
    controller = std::make_unique<DictoraController>(state, preferences,
        DictoraController::Collaborators{speech, microphone, paster, shortcut, permissions, *snippets,
            other.value_or(journal()), dir.path(), {}, 40, 40, 10, 20});
    controller->shortcutGesture().setClock([this] { return now; });
}

TranscriptJournal ControllerRig::journal() const
{
    return TranscriptJournal(dir.filePath(QStringLiteral("transcripts.jsonl")));
}

QStringList ControllerRig::logMessages() const
{
    return test::logMessages(QString::fromUtf8(readFile(log.filePath())));
}

bool ControllerRig::dictate()
{
    controller->toggleRecording();
    if (!QTest::qWaitFor([&] { return state.phase() != DictoraPhase::preparing(); }, 5000))
        return false;
    if (!state.phase().is(DictoraPhase::Kind::recording))
        return false;
    QSignalSpy finished(controller.get(), &DictoraController::dictationFinished);
    shortcut.press();
    return finished.count() > 0 || finished.wait(5000);
}

bool ControllerRig::waitFinished(int ms)
{
    QSignalSpy finished(controller.get(), &DictoraController::dictationFinished);
    return finished.wait(ms);
}

} // namespace dictora::test
