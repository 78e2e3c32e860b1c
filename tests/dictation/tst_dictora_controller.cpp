#include "support/controller/ControllerRig.h"
#include "support/TestSupport.h"

#include <QSignalSpy>
#include <QtTest>

using namespace dictora;
using namespace dictora::test;
using Kind = DictoraPhase::Kind;

namespace {

// Lets the controller's asynchronous steps run until it waits on the
// script again: on a held microphone start, or in a settled phase.
bool settle(ControllerRig &rig)
{
    return QTest::qWaitFor([&] {
        const Kind kind = rig.state.phase().kind();
        return kind != Kind::finalizing && (kind != Kind::preparing || rig.microphone.startPending());
    }, 5000);
}

} // namespace

class DictoraControllerTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void outcomes_data()
    {
        QTest::addColumn<QString>("spoken");
        QTest::addColumn<int>("samples");
        QTest::addColumn<double>("rms");
        QTest::addColumn<QString>("target"); // "editor", "none", or "refuses" the keystroke
        QTest::addColumn<bool>("formatting");
        QTest::addColumn<bool>("snippetsOn");
        QTest::addColumn<QString>("outcome");
        QTest::addColumn<QString>("transcript");
        QTest::addColumn<bool>("transcribed");
        QTest::newRow("pasted, formatted, snippet")
            << "um send it to my address please" << 16000 << 0.1 << "editor" << true << true << "pasted" << "Send it to 1 Main Street please" << true;
        QTest::newRow("formatting off only trims")
            << "  um send it  \n" << 16000 << 0.1 << "editor" << false << true << "pasted" << "um send it" << true;
        QTest::newRow("snippets off")
            << "my address" << 16000 << 0.1 << "editor" << true << false << "pasted" << "My address" << true;
        QTest::newRow("1599 samples is silence") << "words" << 1599 << 0.1 << "editor" << true << true << "empty" << "" << false;
        QTest::newRow("rms just below floor is silence") << "words" << 16000 << 0.00149 << "editor" << true << true << "empty" << "" << false;
        QTest::newRow("nothing recognised") << "" << 16000 << 0.1 << "editor" << true << true << "empty" << "" << true;
        QTest::newRow("no target fails but returns to idle") << "hello" << 16000 << 0.1 << "none" << true << true << "failed" << "Hello" << true;
        // A keystroke the desktop refused is a failed dictation, with its reason.
        QTest::newRow("refused keystroke fails") << "hello" << 16000 << 0.1 << "refuses" << true << true << "failed" << "Hello" << true;
    }
    void outcomes()
    {
        QFETCH(QString, spoken);
        QFETCH(int, samples);
        QFETCH(double, rms);
        QFETCH(QString, target);
        QFETCH(bool, formatting);
        QFETCH(bool, snippetsOn);
        QFETCH(QString, outcome);
        QFETCH(QString, transcript);
        QFETCH(bool, transcribed);
        ControllerRig rig;
        rig.controller->start();
        rig.speech.text = spoken;
        rig.microphone.recording.assign(size_t(samples), 0.1f);
        rig.microphone.rms = float(rms);
        if (target == QLatin1String("none"))
            rig.paster.target.reset();
        if (target == QLatin1String("refuses"))
            rig.paster.error = QStringLiteral("no XTEST");
        rig.preferences.setFormattingEnabled(formatting);
        rig.preferences.setSnippetsEnabled(snippetsOn);

        QVERIFY(rig.dictate());
        QCOMPARE(rig.state.phase(), DictoraPhase::idle());
        QCOMPARE(rig.speech.transcribeCalls, transcribed ? 1 : 0);
        QCOMPARE(rig.state.lastTranscript(), transcript);
        const auto records = rig.journal().readAll();
        QCOMPARE(records.size(), 1);
        const TranscriptRecord &r = records.first();
        QCOMPARE(rawValue(r.outcome), outcome);
        QCOMPARE(r.transcript, transcript);
        QCOMPARE(r.earsDurationMilliseconds, std::optional<qint64>(transcribed ? 420 : 0));
        QCOMPARE(r.transcriptionEngine, std::optional<QString>(QStringLiteral("exact-local-large-v3-turbo-q5_0")));
        QCOMPARE(r.language, std::optional<QString>(QStringLiteral("en"))); // the recogniser did not say: the setting's
        QCOMPARE(r.targetApplication.has_value(), target != QLatin1String("none"));
        const bool pasteTried = target != QLatin1String("none") && !transcript.isEmpty();
        QCOMPARE(r.pasteDispatchDurationMilliseconds, pasteTried ? 12 : 0);
        QCOMPARE(rig.paster.pasted, pasteTried ? QStringList{transcript} : QStringList{});
        if (outcome == QLatin1String("failed"))
            QCOMPARE(r.error, std::optional<QString>(target == QLatin1String("none")
                    ? QString::fromLatin1(DictoraController::kNoTargetMessage) : QStringLiteral("no XTEST")));
        QVERIFY(r.recordingStartedAt <= r.recordingEndedAt && r.recordingEndedAt <= r.savedAt);
        QVERIFY(r.finalizationDurationMilliseconds >= r.earsDurationMilliseconds.value_or(0));

        QString why;
        QVERIFY2(linesInOrder(rig.logMessages(),
                     {QStringLiteral("recording started session=") + uuidString(r.id),
                         QStringLiteral("stop key accepted; finalizing speech"), QStringLiteral("accurate local finalization returned"),
                         QStringLiteral("journal append begin"), QStringLiteral("journal append complete"),
                         QStringLiteral("overlay returned to idle"), QStringLiteral("recording completed outcome=") + outcome},
                     &why),
            qPrintable(why));
    }

    // The shortcut's key going down and up, with and without hold to talk;
    // "open" and "fail" answer a microphone that is slow to start.
    void gestures_data()
    {
        QTest::addColumn<bool>("holdToTalk");
        QTest::addColumn<QString>("script");
        QTest::addColumn<QString>("phase");
        QTest::addColumn<int>("records");
        QTest::newRow("toggle: press starts") << false << "down open +800 up" << "recording" << 0;
        QTest::newRow("toggle: second press stops") << false << "down open +800 up +2000 down +50 up" << "idle" << 1;
        QTest::newRow("hold: held records until release") << true << "down open +800 up" << "idle" << 1;
        QTest::newRow("hold: exactly the threshold counts as held") << true << "down open +300 up" << "idle" << 1;
        QTest::newRow("hold: a tap keeps recording") << true << "down open +120 up" << "recording" << 0;
        QTest::newRow("hold: a tap, then a press stops") << true << "down open +120 up +3000 down +80 up" << "idle" << 1;
        QTest::newRow("hold: a long stop press stops once") << true << "down open +100 up +2000 down +900 up" << "idle" << 1;
        QTest::newRow("hold: released while the mic opens stops once it records") << true << "down +500 up open" << "idle" << 1;
        QTest::newRow("hold: tapped while the mic opens keeps recording") << true << "down +100 up open" << "recording" << 0;
        QTest::newRow("hold: start failed, release does not start again") << true << "down fail +600 up" << "error" << 0;
        QTest::newRow("hold: mic failed after release, nothing pending") << true << "down +600 up fail" << "error" << 0;
        QTest::newRow("hold: release without press") << true << "up up" << "idle" << 0;
        QTest::newRow("hold: press from error starts again") << true << "down fail +600 up +100 down open +700 up" << "idle" << 1;
    }
    void gestures()
    {
        QFETCH(bool, holdToTalk);
        QFETCH(QString, script);
        QFETCH(QString, phase);
        QFETCH(int, records);
        ControllerRig rig;
        rig.preferences.setHoldToTalk(holdToTalk);
        rig.microphone.holdStart = true;
        rig.speech.text = QStringLiteral("hello");
        rig.controller->start();
        for (const QString &step : script.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
            if (step == QLatin1String("down"))
                rig.shortcut.press();
            else if (step == QLatin1String("up"))
                rig.shortcut.release();
            else if (step == QLatin1String("open"))
                rig.microphone.open();
            else if (step == QLatin1String("fail"))
                rig.microphone.fail(QStringLiteral("No microphone is available."));
            else if (step.startsWith(QLatin1Char('+')))
                rig.now += step.mid(1).toLongLong();
            QVERIFY(settle(rig));
        }
        QCOMPARE(DictoraPhase::name(rig.state.phase().kind()), phase);
        QCOMPARE(rig.journal().readAll().size(), records);
        QCOMPARE(rig.microphone.isOpen, phase == QLatin1String("recording"));
    }

    // Every way out of a recording closes the microphone and the recognition
    // stream exactly once, and the next dictation records again.
    void everyExitClosesTheMicrophoneOnce_data()
    {
        QTest::addColumn<QString>("exit");
        QTest::addColumn<QString>("phase");
        QTest::newRow("stop") << "stop" << "idle";
        QTest::newRow("shortcut lost") << "lost" << "needsAccessibility";
        QTest::newRow("recognition fails") << "recognition" << "error";
        QTest::newRow("quit") << "quit" << "";
    }
    void everyExitClosesTheMicrophoneOnce()
    {
        QFETCH(QString, exit);
        QFETCH(QString, phase);
        ControllerRig rig;
        rig.speech.streams = true;
        rig.speech.text = QStringLiteral("kept words");
        rig.controller->start();
        rig.controller->toggleRecording();
        QTRY_COMPARE(rig.state.phase(), DictoraPhase::recording());
        if (exit == QLatin1String("stop")) {
            rig.shortcut.press();
        } else if (exit == QLatin1String("lost")) {
            rig.shortcut.accepts = false;
            rig.controller->installCurrentShortcutSilently();
        } else if (exit == QLatin1String("recognition")) {
            rig.speech.error = QStringLiteral("Local transcription failed (code -3). No substitute transcript was pasted.");
            rig.shortcut.press();
        } else {
            rig.controller.reset();
        }
        if (!phase.isEmpty())
            QTRY_COMPARE(DictoraPhase::name(rig.state.phase().kind()), phase);
        QTest::qWait(100);
        QVERIFY(!rig.microphone.isOpen);
        QCOMPARE(rig.microphone.stops + rig.microphone.cancels, 1);
        QCOMPARE(rig.speech.finished + rig.speech.cancelled, 1);
        if (!rig.controller)
            return;
        // Words said before the shortcut went are kept; a failed recognition
        // is journaled with its reason and nothing is pasted.
        if (exit == QLatin1String("lost"))
            QCOMPARE(rig.journal().readAll().value(0).transcript, QStringLiteral("Kept words"));
        if (exit == QLatin1String("recognition")) {
            const TranscriptRecord failed = rig.journal().readAll().value(0);
            QCOMPARE(rig.state.phase(), DictoraPhase::error(rig.speech.error));
            QCOMPARE(failed.outcome, TranscriptOutcome::failed);
            QCOMPARE(failed.error, std::optional<QString>(rig.speech.error));
            QVERIFY(!failed.earsDurationMilliseconds);
            QVERIFY(rig.paster.pasted.isEmpty());
            QVERIFY(rig.logMessages().contains(QStringLiteral("failed recording archived without transcript")));
        }
        rig.shortcut.accepts = true;
        rig.speech.error.clear();
        rig.controller->installCurrentShortcutSilently();
        rig.speech.text = QStringLiteral("next one");
        QVERIFY(rig.dictate());
        QCOMPARE(rig.journal().readAll().last().transcript, QStringLiteral("Next one"));
        QCOMPARE(rig.microphone.stops + rig.microphone.cancels, 2);
    }

    // A port that recognises while recording: it sees every captured sample,
    // the stop asks only for the rest, and silence discards its work.
    void stream_data()
    {
        QTest::addColumn<int>("samples");
        QTest::addColumn<float>("level");
        QTest::addColumn<QString>("outcome");
        QTest::addColumn<bool>("finishes");
        QTest::newRow("speech: the rest is recognised") << 48000 << 0.1f << "pasted" << true;
        QTest::newRow("silence: the chunks are discarded") << 48000 << 0.001f << "empty" << false;
        QTest::newRow("too short: discarded") << 1599 << 0.1f << "empty" << false;
    }
    void stream()
    {
        QFETCH(int, samples);
        QFETCH(float, level);
        QFETCH(QString, outcome);
        QFETCH(bool, finishes);
        ControllerRig rig;
        rig.speech.streams = true;
        rig.speech.text = QStringLiteral("first chunk second chunk");
        rig.microphone.recording.assign(size_t(samples), level);
        rig.microphone.rms = level;
        rig.controller->start();
        QVERIFY(rig.dictate());
        QVERIFY(rig.speech.streamed == rig.microphone.recording);
        QCOMPARE(rig.speech.transcribeCalls, 0); // never recognised twice
        QCOMPARE(rig.speech.finished, finishes ? 1 : 0);
        QCOMPARE(rig.speech.cancelled, finishes ? 0 : 1);
        const auto records = rig.journal().readAll();
        QCOMPARE(records.size(), 1);
        QCOMPARE(rawValue(records.first().outcome), outcome);
        if (finishes) {
            QCOMPARE(records.first().transcript, QStringLiteral("First chunk second chunk"));
            QCOMPARE(records.first().earsDurationMilliseconds, std::optional<qint64>(250));
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
        ControllerRig rig;
        rig.controller->start();
        rig.speech.ready = what != QLatin1String("model");
        rig.microphone.permitted = what != QLatin1String("permission");
        if (what == QLatin1String("start"))
            rig.microphone.startError = QStringLiteral("No microphone is available.");
        const int startsBefore = rig.speech.startCalls;
        rig.controller->toggleRecording();
        QTRY_VERIFY(!rig.state.phase().is(DictoraPhase::Kind::preparing));
        QCOMPARE(rig.state.phase(), DictoraPhase::error(phaseMessage));
        QVERIFY(rig.logMessages().contains(logLine));
        QCOMPARE(rig.speech.startCalls, startsBefore + (what == QLatin1String("model") ? 1 : 0));
        QCOMPARE(rig.microphone.cancels, what == QLatin1String("start") ? 1 : 0);
        QVERIFY(rig.journal().readAll().isEmpty());
        // The next press tries again from the error phase.
        rig.speech.ready = rig.microphone.permitted = true;
        rig.microphone.startError.clear();
        QVERIFY(rig.dictate());
        QCOMPARE(rig.journal().readAll().size(), 1);
    }

    void pressesWhileBusyAreDropped()
    {
        ControllerRig rig;
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
        QCOMPARE(rig.journal().readAll().size(), 1);
        QCOMPARE(rig.state.phase(), DictoraPhase::idle());
    }

    void meterOnlyWhileRecordingAndDotsCycle()
    {
        ControllerRig rig;
        rig.controller->start();
        rig.controller->toggleRecording();
        QTRY_COMPARE(rig.state.phase(), DictoraPhase::recording());
        QSignalSpy dots(&rig.state, &DictoraState::listeningDotPhaseChanged);
        QVERIFY(dots.wait(1000));
        const auto meter = rig.microphone.listeners.onMeterLevels;
        meter({0.2f, 0.3f, 0.1f, 0.6f});
        QCOMPARE(rig.state.meterLevels(), (AudioMeterLevels{0.2f, 0.3f, 0.1f, 0.6f}));
        QCOMPARE(rig.logMessages().count(QStringLiteral("pcm meter active")), 1);
        QSignalSpy finished(rig.controller.get(), &DictoraController::dictationFinished);
        rig.shortcut.press();
        meter({0.9f, 0.9f, 0.9f, 0.9f}); // late level after stop is ignored
        QCOMPARE(rig.state.meterLevels(), AudioMeterLevels::zero());
        QVERIFY(finished.wait(5000));
        QCOMPARE(rig.state.listeningDotPhase(), 0);
    }

    // An error on show does not hide a lost shortcut: it is asked for again.
    void shortcutLostAfterAnError()
    {
        ControllerRig rig;
        rig.controller->start();
        rig.microphone.permitted = false;
        rig.controller->toggleRecording();
        QTRY_COMPARE(rig.state.phase(), DictoraPhase::error(QStringLiteral("Allow Microphone")));
        rig.shortcut.accepts = false;
        rig.controller->installCurrentShortcutSilently();
        QTRY_COMPARE(rig.state.phase(), DictoraPhase::needsAccessibility());
    }

    void shortcutRetriesUntilInstalled()
    {
        ControllerRig rig;
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
        QTest::addColumn<QString>("desktopAnswer"); // a desktop that binds later: "binds" or "refuses"
        QTest::newRow("valid and grabbed") << 6 << true << int(ShortcutUpdateResult::Kind::updated) << "" << "";
        QTest::newRow("one modifier") << 1 << true << int(ShortcutUpdateResult::Kind::failed) << "Use at least two modifier keys so normal typing stays untouched." << "";
        QTest::newRow("grab refused rolls back") << 6 << false << int(ShortcutUpdateResult::Kind::failed) << "That shortcut could not be activated. Your previous shortcut still works." << "";
        const int waiting = int(ShortcutUpdateResult::Kind::waitingForDesktop);
        QTest::newRow("the desktop asks, then binds") << 6 << false << waiting << "" << "binds";
        QTest::newRow("the desktop asks, then refuses: the old key stays") << 6 << false << waiting << "" << "refuses";
    }
    void updateShortcut()
    {
        QFETCH(int, modifiers);
        QFETCH(bool, grabWorks);
        QFETCH(int, kind);
        QFETCH(QString, message);
        QFETCH(QString, desktopAnswer);
        ControllerRig rig;
        rig.controller->start();
        const GlobalShortcut candidate{40, {std::uint8_t(modifiers)}, QStringLiteral("K")};
        rig.shortcut.accepts = grabWorks;
        rig.shortcut.awaiting = !desktopAnswer.isEmpty();
        const ShortcutUpdateResult result = rig.controller->updateKeyboardShortcut(candidate);
        QCOMPARE(int(result.kind), kind);
        QCOMPARE(result.message, message);
        QSignalSpy refused(rig.controller.get(), &DictoraController::shortcutUpdateRefused);
        if (rig.shortcut.awaiting) {
            QCOMPARE(rig.preferences.keyboardShortcut(), GlobalShortcut::defaultShortcut());
            rig.shortcut.awaiting = false;
            rig.shortcut.accepts = true;
            if (desktopAnswer == QLatin1String("refuses"))
                rig.shortcut.refused = candidate;
            Q_EMIT rig.shortcut.installationChanged();
        }
        QCOMPARE(refused.size(), desktopAnswer == QLatin1String("refuses") ? 1 : 0);
        const bool updated = kind == int(ShortcutUpdateResult::Kind::updated) || desktopAnswer == QLatin1String("binds");
        QCOMPARE(rig.preferences.keyboardShortcut(), updated ? candidate : GlobalShortcut::defaultShortcut());
        if (!updated)
            QCOMPARE(rig.shortcut.installed.last(), GlobalShortcut::defaultShortcut());
    }

    void practiceIsSavedNotPasted()
    {
        ControllerRig rig(false);
        rig.controller->start();
        OnboardingModel &onboarding = rig.controller->onboarding();
        QVERIFY(onboarding.isPresented());
        onboarding.setStage(OnboardingStage::practice);
        rig.speech.text = QStringLiteral("testing one two");
        QVERIFY(rig.dictate());
        const auto records = rig.journal().readAll();
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
        ControllerRig rig;
        // A file where the journal's folder should be.
        const QString blocker = rig.dir.filePath(QStringLiteral("blocked"));
        QVERIFY(test::writeFile(blocker, {}));
        rig.build(TranscriptJournal(blocker + QStringLiteral("/transcripts.jsonl")));
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
