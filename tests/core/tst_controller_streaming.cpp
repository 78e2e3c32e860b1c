// The controller's path for a speech port that recognises while recording:
// the capture's samples go to the port's sink, the stop asks only for the
// rest, the record's finalisation time counts only that wait, and silence or
// a failure discards the stream's work.
#include "core/session/DictoraController.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

using namespace dictora;

namespace {

class StreamingSpeech : public SpeechPort {
public:
    std::vector<float> streamed;
    int begun = 0, finished = 0, cancelled = 0, wholeRecordings = 0;
    QString error;
    bool isReady() const override { return true; }
    void startAutomatically() override {}
    void transcribe(std::vector<float>, Done done) override
    {
        ++wholeRecordings;
        done(Result{QStringLiteral("whole"), 1}, QString());
    }
    SampleSink beginStream() override
    {
        ++begun;
        streamed.clear();
        return [this](const float *samples, size_t count) { streamed.insert(streamed.end(), samples, samples + count); };
    }
    void finishStream(Done done) override
    {
        ++finished;
        QMetaObject::invokeMethod(this, [this, done] {
            if (error.isEmpty())
                done(Result{QStringLiteral("first chunk second chunk"), 250}, QString());
            else
                done(std::nullopt, error);
        }, Qt::QueuedConnection);
    }
    void cancelStream() override { ++cancelled; }
};

// Hands the sink what it "captures", as the real capture does, and the same at the stop.
class StreamingMicrophone : public MicrophonePort {
public:
    std::function<void(const float *, size_t)> sink;
    std::vector<float> recording;
    QString startError;
    void start(Listeners listeners, Started done) override
    {
        if (startError.isEmpty())
            sink = std::move(listeners.onSamples);
        QTimer::singleShot(0, [this, done] {
            done(startError.isEmpty() ? std::nullopt : std::optional<QString>(startError));
        });
    }
    void stop(Stopped done) override
    {
        if (sink)
            sink(recording.data(), recording.size());
        sink = {};
        float sum = 0;
        for (float v : recording)
            sum += v * v;
        Captured captured{recording, recording.empty() ? 0.0f : std::sqrt(sum / float(recording.size()))};
        QTimer::singleShot(0, [captured, done] { done(captured); });
    }
    void cancel() override { sink = {}; }
    void requestPermission(Answered done) override { QTimer::singleShot(0, [done] { done(true); }); }
    void checkStatus(StatusDone done) override
    {
        QTimer::singleShot(0, [done] { done({OnboardingPermissionStatus::authorized, {}}); });
    }
};

class NoPaster : public PasterPort {
public:
    std::optional<PasteTarget> captureTarget() override
    {
        return PasteTarget{TargetApplication{QStringLiteral("Mousepad"), QStringLiteral("Mousepad"), 4242}, {77}};
    }
    void paste(const QString &, const PasteTarget &, Pasted done) override
    {
        QTimer::singleShot(0, [done] { done(3); });
    }
};

class Shortcut : public ShortcutBackend {
public:
    bool install(const GlobalShortcut &) override { return true; }
    bool verifyInstalled(const GlobalShortcut &) const override { return true; }
    void uninstall() override {}
    QString failureReason() const override { return {}; }
    void press() { Q_EMIT pressed(); }
};

class Permissions : public PermissionProbe {
public:
    PermissionCheck accessibility(const ShortcutBackend *) override { return PermissionCheck::granted(); }
};

// The controller over the streaming fakes, with real files for the rest.
struct Rig {
    QTemporaryDir dir;
    QSettings settings{dir.filePath(QStringLiteral("settings.ini")), QSettings::IniFormat};
    DictoraState state;
    ProductPreferences preferences{settings};
    StreamingSpeech speech;
    StreamingMicrophone microphone;
    NoPaster paster;
    Shortcut shortcut;
    Permissions permissions;
    RuntimeLog log{dir.filePath(QStringLiteral("runtime.log"))};
    TranscriptJournal journal{dir.filePath(QStringLiteral("transcripts.jsonl"))};
    SnippetStore snippets{dir.filePath(QStringLiteral("snippets.json"))};
    std::unique_ptr<DictoraController> controller;

    Rig()
    {
        preferences.setHasCompletedOnboarding(true);
    }
    void start()
    {
        controller = std::make_unique<DictoraController>(state, preferences,
            DictoraController::Collaborators{speech, microphone, paster, shortcut, permissions, snippets, journal, log,
                dir.path(), {}, 40, 40, 10, 20});
        controller->start();
        controller->toggleRecording();
    }
};

} // namespace

class ControllerStreamingTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void stream_data()
    {
        QTest::addColumn<int>("samples");
        QTest::addColumn<float>("level");
        QTest::addColumn<QString>("error");
        QTest::addColumn<QString>("outcome");
        QTest::addColumn<bool>("finishes");
        QTest::newRow("speech: the rest is recognised") << 48000 << 0.1f << QString() << "pasted" << true;
        QTest::newRow("silence: the chunks are discarded") << 48000 << 0.001f << QString() << "empty" << false;
        QTest::newRow("too short: discarded") << 1599 << 0.1f << QString() << "empty" << false;
        QTest::newRow("a failed chunk fails the dictation")
            << 48000 << 0.1f << QStringLiteral("Local transcription failed (code -3). No substitute transcript was pasted.")
            << "failed" << true;
    }
    void stream()
    {
        QFETCH(int, samples);
        QFETCH(float, level);
        QFETCH(QString, error);
        QFETCH(QString, outcome);
        QFETCH(bool, finishes);
        Rig rig;
        rig.speech.error = error;
        for (int i = 0; i < samples; ++i)
            rig.microphone.recording.push_back(i % 2 ? level : -level);
        rig.start();
        QTRY_VERIFY(rig.state.phase().is(DictoraPhase::Kind::recording));
        QCOMPARE(rig.speech.begun, 1);
        QTRY_VERIFY(rig.microphone.sink);
        QSignalSpy done(rig.controller.get(), &DictoraController::dictationFinished);
        rig.shortcut.press();
        QVERIFY(done.wait(5000));

        QVERIFY(rig.speech.streamed == rig.microphone.recording); // the port saw every captured sample
        QCOMPARE(rig.speech.wholeRecordings, 0);                  // never recognised twice
        QCOMPARE(rig.speech.finished, finishes ? 1 : 0);
        QCOMPARE(rig.speech.cancelled, finishes ? 0 : 1); // a finished stream has nothing left to discard
        const auto records = rig.journal.readAll();
        QCOMPARE(records.size(), 1);
        QCOMPARE(rawValue(records.first().outcome), outcome);
        if (outcome == QLatin1String("pasted")) {
            QCOMPARE(records.first().transcript, QStringLiteral("First chunk second chunk"));
            QCOMPARE(records.first().earsDurationMilliseconds, std::optional<qint64>(250));
            QVERIFY(records.first().finalizationDurationMilliseconds >= 250);
        }
    }

    void startFailureDiscardsTheStream()
    {
        Rig rig;
        rig.microphone.startError = QStringLiteral("No microphone is available.");
        rig.start();
        QTRY_VERIFY(rig.state.phase().is(DictoraPhase::Kind::error));
        QCOMPARE(rig.speech.begun, 1);
        QCOMPARE(rig.speech.cancelled, 1);
        QCOMPARE(rig.speech.finished, 0);
    }
};

QTEST_GUILESS_MAIN(ControllerStreamingTest)

#include "tst_controller_streaming.moc"
