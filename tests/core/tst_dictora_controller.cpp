#include "core/session/DictoraController.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using namespace dictora;

namespace {

class FakeSpeech : public SpeechPort {
public:
    bool ready = true;
    int startCalls = 0;
    int transcribeCalls = 0;
    QString text;
    QString error; // non-empty: transcription fails
    bool isReady() const override { return ready; }
    void startAutomatically() override { ++startCalls; }
    void transcribe(std::vector<float>, Done done) override
    {
        ++transcribeCalls;
        QMetaObject::invokeMethod(this, [this, done] {
            if (error.isEmpty())
                done(Result{text, 420}, QString());
            else
                done(std::nullopt, error);
        }, Qt::QueuedConnection);
    }
};

// Answers come back from the event loop, as from the real capture thread.
void later(std::function<void()> f)
{
    QTimer::singleShot(0, std::move(f));
}

class FakeMicrophone : public MicrophonePort {
public:
    bool permitted = true;
    QString startError;
    size_t sampleCount = 16000;
    float rms = 0.1f;
    int cancels = 0;
    std::function<void(AudioMeterLevels)> meter;
    void start(Listeners listeners, Started done) override
    {
        if (startError.isEmpty())
            meter = std::move(listeners.onMeterLevels);
        later([this, done] { done(startError.isEmpty() ? std::nullopt : std::optional<QString>(startError)); });
    }
    void stop(Stopped done) override
    {
        later([this, done] { done({std::vector<float>(sampleCount, 0.1f), rms}); });
    }
    void cancel() override { ++cancels; }
    void requestPermission(Answered done) override
    {
        later([this, done] { done(permitted); });
    }
    void checkStatus(StatusDone done) override
    {
        later([this, done] {
            done({permitted ? OnboardingPermissionStatus::authorized : OnboardingPermissionStatus::denied, {}});
        });
    }
};

class FakePaster : public PasterPort {
public:
    std::optional<PasteTarget> target = PasteTarget{TargetApplication{QStringLiteral("Mousepad"), QStringLiteral("Mousepad"), 4242}, {77}};
    QStringList pasted;
    std::optional<PasteTarget> captureTarget() override { return target; }
    void paste(const QString &text, const PasteTarget &, Pasted done) override
    {
        pasted << text;
        later([done] { done(12); });
    }
};

class FakeShortcut : public ShortcutBackend {
public:
    bool accepts = true;
    QList<GlobalShortcut> installed;
    bool install(const GlobalShortcut &s) override
    {
        installed << s;
        return accepts;
    }
    bool verifyInstalled(const GlobalShortcut &) const override { return accepts; }
    void uninstall() override {}
    QString failureReason() const override { return accepts ? QString() : QStringLiteral("key is grabbed by another program"); }
    void press() { Q_EMIT pressed(); }
};

class FakePermissions : public PermissionProbe {
public:
    bool trusted = true;
    PermissionCheck accessibility(const ShortcutBackend *) override
    {
        return trusted ? PermissionCheck::granted() : PermissionCheck::needsAttention(QStringLiteral("no"));
    }
};

// One controller over fakes for the platform parts and real files for the rest.
struct Rig {
    QTemporaryDir dir;
    QSettings settings{dir.filePath(QStringLiteral("Dictora.conf")), QSettings::IniFormat};
    DictoraState state;
    ProductPreferences preferences{settings};
    FakeSpeech speech;
    FakeMicrophone microphone;
    FakePaster paster;
    FakeShortcut shortcut;
    FakePermissions permissions;
    RuntimeLog log{dir.filePath(QStringLiteral("runtime.log"))};
    TranscriptJournal journal{dir.filePath(QStringLiteral("transcripts.jsonl"))};
    std::unique_ptr<SnippetStore> snippets;
    std::unique_ptr<DictoraController> controller;

    explicit Rig(bool onboarded = true)
    {
        preferences.setHasCompletedOnboarding(onboarded);
        QFile f(dir.filePath(QStringLiteral("snippets.json")));
        f.open(QIODevice::WriteOnly);
        f.write(R"([{"id":"7B0D7A52-3C4B-4E8A-9B1C-2D3E4F5A6B7C","trigger":"my address","expansion":"1 Main Street"}])");
        f.close();
        snippets = std::make_unique<SnippetStore>(dir.filePath(QStringLiteral("snippets.json")));
        controller = std::make_unique<DictoraController>(state, preferences,
            DictoraController::Collaborators{speech, microphone, paster, shortcut, permissions, *snippets, journal,
                log, dir.path(), {}, 40, 40, 10, 20});
    }

    QStringList logMessages() const
    {
        QFile f(log.filePath());
        f.open(QIODevice::ReadOnly);
        QStringList out;
        for (const QString &line : QString::fromUtf8(f.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            out << line.mid(line.indexOf(QLatin1String("] ")) + 2);
        return out;
    }

    // One press to start, one to stop; waits until the dictation is saved.
    bool dictate()
    {
        controller->toggleRecording();
        if (!QTest::qWaitFor([&] { return state.phase() != DictoraPhase::preparing(); }, 5000))
            return false;
        if (!state.phase().is(DictoraPhase::Kind::recording))
            return false;
        QSignalSpy finished(controller.get(), &DictoraController::dictationFinished);
        shortcut.press();
        return finished.wait(5000);
    }
};

} // namespace

class DictoraControllerTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void outcomes_data()
    {
        QTest::addColumn<QString>("spoken");
        QTest::addColumn<int>("samples");
        QTest::addColumn<double>("rms");
        QTest::addColumn<bool>("hasTarget");
        QTest::addColumn<bool>("formatting");
        QTest::addColumn<bool>("snippetsOn");
        QTest::addColumn<QString>("outcome");
        QTest::addColumn<QString>("transcript");
        QTest::addColumn<bool>("transcribed");
        QTest::newRow("pasted, formatted, snippet")
            << "um send it to my address please" << 16000 << 0.1 << true << true << true << "pasted" << "Send it to 1 Main Street please" << true;
        QTest::newRow("formatting off only trims")
            << "  um send it  \n" << 16000 << 0.1 << true << false << true << "pasted" << "um send it" << true;
        QTest::newRow("snippets off")
            << "my address" << 16000 << 0.1 << true << true << false << "pasted" << "My address" << true;
        QTest::newRow("1599 samples is silence") << "words" << 1599 << 0.1 << true << true << true << "empty" << "" << false;
        QTest::newRow("rms just below floor is silence") << "words" << 16000 << 0.00149 << true << true << true << "empty" << "" << false;
        QTest::newRow("nothing recognised") << "" << 16000 << 0.1 << true << true << true << "empty" << "" << true;
        QTest::newRow("no target fails but returns to idle") << "hello" << 16000 << 0.1 << false << true << true << "failed" << "Hello" << true;
    }
    void outcomes()
    {
        QFETCH(QString, spoken);
        QFETCH(int, samples);
        QFETCH(double, rms);
        QFETCH(bool, hasTarget);
        QFETCH(bool, formatting);
        QFETCH(bool, snippetsOn);
        QFETCH(QString, outcome);
        QFETCH(QString, transcript);
        QFETCH(bool, transcribed);
        Rig rig;
        rig.controller->start();
        rig.speech.text = spoken;
        rig.microphone.sampleCount = size_t(samples);
        rig.microphone.rms = float(rms);
        if (!hasTarget)
            rig.paster.target.reset();
        rig.preferences.setFormattingEnabled(formatting);
        rig.preferences.setSnippetsEnabled(snippetsOn);

        QVERIFY(rig.dictate());
        QCOMPARE(rig.state.phase(), DictoraPhase::idle());
        QCOMPARE(rig.speech.transcribeCalls, transcribed ? 1 : 0);
        QCOMPARE(rig.state.lastTranscript(), transcript);
        const auto records = rig.journal.readAll();
        QCOMPARE(records.size(), 1);
        const TranscriptRecord &r = records.first();
        QCOMPARE(rawValue(r.outcome), outcome);
        QCOMPARE(r.transcript, transcript);
        QCOMPARE(r.earsDurationMilliseconds, std::optional<qint64>(transcribed ? 420 : 0));
        QCOMPARE(r.transcriptionEngine, std::optional<QString>(QStringLiteral("exact-local-large-v3-turbo-q5_0")));
        QCOMPARE(r.language, std::optional<QString>(QStringLiteral("en"))); // the recogniser did not say: the setting's
        QCOMPARE(r.targetApplication.has_value(), hasTarget);
        QCOMPARE(r.pasteDispatchDurationMilliseconds, outcome == QLatin1String("pasted") ? 12 : 0);
        QCOMPARE(rig.paster.pasted, outcome == QLatin1String("pasted") ? QStringList{transcript} : QStringList{});
        if (outcome == QLatin1String("failed"))
            QCOMPARE(r.error, std::optional<QString>(QString::fromLatin1(DictoraController::kNoTargetMessage)));
        QVERIFY(r.recordingStartedAt <= r.recordingEndedAt && r.recordingEndedAt <= r.savedAt);
        QVERIFY(r.finalizationDurationMilliseconds >= r.earsDurationMilliseconds.value_or(0));

        const QStringList log = rig.logMessages();
        const QStringList expectedOrder{QStringLiteral("recording started session=") + uuidString(r.id),
            QStringLiteral("stop key accepted; finalizing speech"), QStringLiteral("accurate local finalization returned"),
            QStringLiteral("journal append begin"), QStringLiteral("journal append complete"),
            QStringLiteral("overlay returned to idle"), QStringLiteral("recording completed outcome=") + outcome};
        qsizetype at = 0;
        for (const QString &expected : expectedOrder) {
            while (at < log.size() && !log.at(at).startsWith(expected))
                ++at;
            QVERIFY2(at < log.size(), qPrintable(QStringLiteral("missing or out of order: ") + expected + QLatin1Char('\n') + log.join(QLatin1Char('\n'))));
        }
    }

    void refusals_data()
    {
        QTest::addColumn<QString>("what");
        QTest::addColumn<QString>("phaseMessage");
        QTest::addColumn<QString>("logLine");
        QTest::newRow("model not ready") << "model" << "The accuracy model is finishing automatically" << "recording blocked because mandatory accuracy model is not ready";
        QTest::newRow("microphone denied") << "permission" << "Allow Microphone" << "microphone permission denied";
        QTest::newRow("capture fails to start") << "start" << "No microphone is available." << "recording start failed error=No microphone is available.";
    }
    void refusals()
    {
        QFETCH(QString, what);
        QFETCH(QString, phaseMessage);
        QFETCH(QString, logLine);
        Rig rig;
        rig.controller->start();
        rig.speech.ready = what != QLatin1String("model");
        rig.microphone.permitted = what != QLatin1String("permission");
        if (what == QLatin1String("start"))
            rig.microphone.startError = QStringLiteral("No microphone is available.");
        const int startsBefore = rig.speech.startCalls;
        rig.controller->toggleRecording();
        QTRY_VERIFY(!rig.state.phase().is(DictoraPhase::Kind::preparing));
        QTRY_VERIFY(!rig.controller->isOperationInFlight());
        QCOMPARE(rig.state.phase(), DictoraPhase::error(phaseMessage));
        QVERIFY(rig.logMessages().contains(logLine));
        QCOMPARE(rig.speech.startCalls, startsBefore + (what == QLatin1String("model") ? 1 : 0));
        QCOMPARE(rig.microphone.cancels, what == QLatin1String("start") ? 1 : 0);
        QVERIFY(rig.journal.readAll().isEmpty());
        // The next press tries again from the error phase.
        rig.speech.ready = rig.microphone.permitted = true;
        rig.microphone.startError.clear();
        QVERIFY(rig.dictate());
        QCOMPARE(rig.journal.readAll().size(), 1);
    }

    void transcriptionFailureIsJournaledAndShown()
    {
        Rig rig;
        rig.controller->start();
        rig.speech.error = QStringLiteral("Local transcription failed (code -3). No substitute transcript was pasted.");
        QVERIFY(rig.dictate());
        QCOMPARE(rig.state.phase(), DictoraPhase::error(rig.speech.error));
        const auto records = rig.journal.readAll();
        QCOMPARE(records.size(), 1);
        QCOMPARE(records.first().outcome, TranscriptOutcome::failed);
        QCOMPARE(records.first().error, std::optional<QString>(rig.speech.error));
        QVERIFY(!records.first().earsDurationMilliseconds);
        QVERIFY(rig.paster.pasted.isEmpty());
        QVERIFY(rig.logMessages().contains(QStringLiteral("failed recording archived without transcript")));
        QCOMPARE(rig.microphone.cancels, 1);
    }

    void pressesWhileBusyAreDropped()
    {
        Rig rig;
        rig.controller->start();
        rig.speech.text = QStringLiteral("one");
        rig.controller->toggleRecording(); // preparing, waiting for the permission answer
        rig.controller->toggleRecording();
        rig.controller->toggleRecording();
        QTRY_COMPARE(rig.state.phase(), DictoraPhase::recording());
        QSignalSpy finished(rig.controller.get(), &DictoraController::dictationFinished);
        rig.shortcut.press(); // finalizing, recognition pending
        rig.shortcut.press();
        QVERIFY(finished.wait(5000));
        QTest::qWait(100);
        QCOMPARE(rig.speech.transcribeCalls, 1);
        QCOMPARE(rig.journal.readAll().size(), 1);
        QCOMPARE(rig.state.phase(), DictoraPhase::idle());
    }

    void meterOnlyWhileRecordingAndDotsCycle()
    {
        Rig rig;
        rig.controller->start();
        rig.controller->toggleRecording();
        QTRY_COMPARE(rig.state.phase(), DictoraPhase::recording());
        QSignalSpy dots(&rig.state, &DictoraState::listeningDotPhaseChanged);
        QVERIFY(dots.wait(1000));
        rig.microphone.meter({0.2f, 0.3f, 0.1f, 0.6f});
        QCOMPARE(rig.state.meterLevels(), (AudioMeterLevels{0.2f, 0.3f, 0.1f, 0.6f}));
        QCOMPARE(rig.logMessages().count(QStringLiteral("pcm meter active")), 1);
        QSignalSpy finished(rig.controller.get(), &DictoraController::dictationFinished);
        rig.shortcut.press();
        rig.microphone.meter({0.9f, 0.9f, 0.9f, 0.9f}); // late level after stop is ignored
        QCOMPARE(rig.state.meterLevels(), AudioMeterLevels::zero());
        QVERIFY(finished.wait(5000));
        QCOMPARE(rig.state.listeningDotPhase(), 0);
    }

    void shortcutRetriesUntilInstalled()
    {
        Rig rig;
        rig.shortcut.accepts = false;
        rig.controller->start();
        QCOMPARE(rig.state.phase(), DictoraPhase::needsAccessibility());
        QTRY_VERIFY(rig.shortcut.installed.size() >= 3); // retried on the timer
        QCOMPARE(rig.logMessages().filter(QStringLiteral("waiting for Accessibility permission")).size(), 1);
        rig.shortcut.accepts = true;
        QTRY_COMPARE(rig.state.phase(), DictoraPhase::idle());
        const int installs = rig.shortcut.installed.size();
        QTest::qWait(150);
        QCOMPARE(rig.shortcut.installed.size(), installs); // timer stopped
        QVERIFY(rig.logMessages().contains(QStringLiteral("global shortcut event tap installed shortcut=`")));
    }

    void updateShortcut_data()
    {
        QTest::addColumn<int>("modifiers");
        QTest::addColumn<bool>("grabWorks");
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("message");
        QTest::newRow("valid and grabbed") << 6 << true << int(ShortcutUpdateResult::Kind::updated) << "";
        QTest::newRow("one modifier") << 1 << true << int(ShortcutUpdateResult::Kind::failed) << "Use at least two modifier keys so normal typing stays untouched.";
        QTest::newRow("grab refused rolls back") << 6 << false << int(ShortcutUpdateResult::Kind::failed) << "That shortcut could not be activated. Your previous shortcut still works.";
    }
    void updateShortcut()
    {
        QFETCH(int, modifiers);
        QFETCH(bool, grabWorks);
        QFETCH(int, kind);
        QFETCH(QString, message);
        Rig rig;
        rig.controller->start();
        const GlobalShortcut candidate{40, {std::uint8_t(modifiers)}, QStringLiteral("K")};
        rig.shortcut.accepts = grabWorks;
        const ShortcutUpdateResult result = rig.controller->updateKeyboardShortcut(candidate);
        QCOMPARE(int(result.kind), kind);
        QCOMPARE(result.message, message);
        const bool updated = kind == int(ShortcutUpdateResult::Kind::updated);
        QCOMPARE(rig.preferences.keyboardShortcut(), updated ? candidate : GlobalShortcut::defaultShortcut());
        if (!grabWorks)
            QCOMPARE(rig.shortcut.installed.last(), GlobalShortcut::defaultShortcut());
    }

    void practiceIsSavedNotPasted()
    {
        Rig rig(false);
        rig.controller->start();
        OnboardingModel &onboarding = rig.controller->onboarding();
        QVERIFY(onboarding.isPresented());
        onboarding.setStage(OnboardingStage::practice);
        rig.speech.text = QStringLiteral("testing one two");
        QVERIFY(rig.dictate());
        const auto records = rig.journal.readAll();
        QCOMPARE(records.first().outcome, TranscriptOutcome::practice);
        QVERIFY(!records.first().targetApplication);
        QVERIFY(rig.paster.pasted.isEmpty());
        QCOMPARE(onboarding.stage(), OnboardingStage::savedProof);
        QCOMPARE(onboarding.practiceTranscript(), records.first().transcript);

        onboarding.setStage(OnboardingStage::ready);
        rig.controller->finishOnboarding();
        QVERIFY(!onboarding.isPresented());
        QVERIFY(rig.preferences.hasCompletedOnboarding());
    }

    void journalUnavailableAtStart()
    {
        Rig rig;
        // A file where the journal's folder should be.
        QFile blocker(rig.dir.filePath(QStringLiteral("blocked")));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        rig.controller = std::make_unique<DictoraController>(rig.state, rig.preferences,
            DictoraController::Collaborators{rig.speech, rig.microphone, rig.paster, rig.shortcut, rig.permissions,
                *rig.snippets, TranscriptJournal(blocker.fileName() + QStringLiteral("/transcripts.jsonl")), rig.log,
                rig.dir.path(), {}, 40, 40, 10, 20});
        rig.controller->start();
        QCOMPARE(rig.state.phase(), DictoraPhase::error(QStringLiteral("State journal unavailable")));
        // A dictation still ends as an error, never silently.
        rig.speech.text = QStringLiteral("hello");
        QVERIFY(rig.dictate());
        QVERIFY(rig.state.phase().is(DictoraPhase::Kind::error));
        QVERIFY(rig.logMessages().filter(QStringLiteral("failed recording archive unavailable error=")).size() == 1);
    }
};

QTEST_GUILESS_MAIN(DictoraControllerTest)
#include "tst_dictora_controller.moc"
