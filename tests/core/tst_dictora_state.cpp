#include "core/DictoraState.h"

#include <QSignalSpy>
#include <QtTest>

using namespace dictora;

class DictoraStateTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void newStateIsIdle()
    {
        DictoraState state;
        QCOMPARE(state.phase(), DictoraPhase::idle());
        QCOMPARE(state.lastTranscript(), QString());
        QCOMPARE(state.meterLevels(), AudioMeterLevels::zero());
        QCOMPARE(state.listeningDotPhase(), 0);
    }

    void phaseEquality_data()
    {
        QTest::addColumn<DictoraPhase>("a");
        QTest::addColumn<DictoraPhase>("b");
        QTest::addColumn<bool>("equal");
        QTest::newRow("same error") << DictoraPhase::error("x") << DictoraPhase::error("x") << true;
        QTest::newRow("other error") << DictoraPhase::error("x") << DictoraPhase::error("y") << false;
        QTest::newRow("error vs idle") << DictoraPhase::error("x") << DictoraPhase::idle() << false;
        QTest::newRow("empty error vs idle") << DictoraPhase::error("") << DictoraPhase::idle() << false;
        QTest::newRow("recording") << DictoraPhase::recording() << DictoraPhase::recording() << true;
    }
    void phaseEquality()
    {
        QFETCH(DictoraPhase, a);
        QFETCH(DictoraPhase, b);
        QFETCH(bool, equal);
        QCOMPARE(a == b, equal);
    }

    void labels_data()
    {
        QTest::addColumn<DictoraPhase>("phase");
        QTest::addColumn<QString>("label");
        QTest::newRow("idle") << DictoraPhase::idle() << "Ready";
        QTest::newRow("preparing") << DictoraPhase::preparing() << "Preparing microphone";
        QTest::newRow("recording") << DictoraPhase::recording() << QString::fromUtf8("Recording — use your shortcut to paste");
        QTest::newRow("finalizing") << DictoraPhase::finalizing() << "Transcribing";
        QTest::newRow("accessibility") << DictoraPhase::needsAccessibility() << "Allow Accessibility";
        QTest::newRow("error") << DictoraPhase::error("Allow Microphone") << "Allow Microphone";
    }
    void labels()
    {
        QFETCH(DictoraPhase, phase);
        QFETCH(QString, label);
        QCOMPARE(phase.label(), label);
    }

    void signalsOnlyOnChange()
    {
        DictoraState state;
        QSignalSpy phase(&state, &DictoraState::phaseChanged);
        QSignalSpy levels(&state, &DictoraState::meterLevelsChanged);
        QSignalSpy dots(&state, &DictoraState::listeningDotPhaseChanged);
        QSignalSpy transcript(&state, &DictoraState::lastTranscriptChanged);
        state.setPhase(DictoraPhase::idle());
        state.setPhase(DictoraPhase::error("a"));
        state.setPhase(DictoraPhase::error("b"));
        QCOMPARE(phase.count(), 2);
        state.setMeterLevels({0.5f, 0, 0, 0});
        state.setMeterLevels({0.5f, 0, 0, 0});
        QCOMPARE(levels.count(), 1);
        state.setListeningDotPhase(1);
        state.setListeningDotPhase(4); // wraps to 1
        QCOMPARE(dots.count(), 1);
        QCOMPARE(state.listeningDotPhase(), 1);
        // Every completed dictation replaces the transcript, even with the same (empty) text.
        state.setLastTranscript(QString());
        state.setLastTranscript(QString());
        QCOMPARE(transcript.count(), 2);
    }
};

QTEST_GUILESS_MAIN(DictoraStateTest)
#include "tst_dictora_state.moc"
