#pragma once

#include "core/AudioMeterLevels.h"
#include "core/DictoraPhase.h"

#include <QObject>

namespace dictora {

// The one observable dictation state. Only the controller writes it; views
// observe the change signals. Main thread only.
class DictoraState : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString phaseLabel READ phaseLabel NOTIFY phaseChanged)
    Q_PROPERTY(QString lastTranscript READ lastTranscript WRITE setLastTranscript NOTIFY lastTranscriptChanged)
    Q_PROPERTY(int listeningDotPhase READ listeningDotPhase WRITE setListeningDotPhase NOTIFY listeningDotPhaseChanged)

public:
    explicit DictoraState(QObject *parent = nullptr);

    DictoraPhase phase() const { return m_phase; }
    QString phaseLabel() const { return m_phase.label(); }
    QString lastTranscript() const { return m_lastTranscript; }
    AudioMeterLevels meterLevels() const { return m_meterLevels; }
    int listeningDotPhase() const { return m_listeningDotPhase; }
    // What was recognised so far while recording; shown, never pasted.
    QString previewText() const { return m_previewText; }

    void setPhase(const DictoraPhase &phase);
    void setLastTranscript(const QString &text);
    void setMeterLevels(const AudioMeterLevels &levels);
    void setListeningDotPhase(int phase);
    void setPreviewText(const QString &text);

Q_SIGNALS:
    void phaseChanged(const dictora::DictoraPhase &phase);
    void lastTranscriptChanged(const QString &text);
    void meterLevelsChanged(const dictora::AudioMeterLevels &levels);
    void listeningDotPhaseChanged(int phase);
    void previewTextChanged(const QString &text);

private:
    DictoraPhase m_phase = DictoraPhase::idle();
    QString m_lastTranscript;
    AudioMeterLevels m_meterLevels;
    int m_listeningDotPhase = 0;
    QString m_previewText;
};

} // namespace dictora
