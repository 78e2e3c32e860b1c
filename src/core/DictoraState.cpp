#include "core/DictoraState.h"

namespace dictora {

DictoraState::DictoraState(QObject *parent) : QObject(parent)
{
    qRegisterMetaType<dictora::DictoraPhase>();
    qRegisterMetaType<dictora::AudioMeterLevels>();
}

void DictoraState::setPhase(const DictoraPhase &phase)
{
    if (m_phase == phase)
        return;
    m_phase = phase;
    Q_EMIT phaseChanged(m_phase);
}

void DictoraState::setLastTranscript(const QString &text)
{
    // Every completed dictation replaces it, also with an identical text.
    m_lastTranscript = text;
    Q_EMIT lastTranscriptChanged(m_lastTranscript);
}

void DictoraState::setPreviewText(const QString &text)
{
    if (m_previewText == text)
        return;
    m_previewText = text;
    Q_EMIT previewTextChanged(m_previewText);
}

void DictoraState::setMeterLevels(const AudioMeterLevels &levels)
{
    if (m_meterLevels == levels)
        return;
    m_meterLevels = levels;
    Q_EMIT meterLevelsChanged(m_meterLevels);
}

void DictoraState::setListeningDotPhase(int phase)
{
    phase = ((phase % 3) + 3) % 3;
    if (m_listeningDotPhase == phase)
        return;
    m_listeningDotPhase = phase;
    Q_EMIT listeningDotPhaseChanged(m_listeningDotPhase);
}

} // namespace dictora
