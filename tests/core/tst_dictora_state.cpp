#include "core/DictoraState.h"

#include <QSignalSpy>
#include <QtTest>

using namespace dictora;

class DictoraStateTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
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
