#include "onboarding/OnboardingModel.h"

namespace dictora {

const QList<OnboardingStage> &allOnboardingStages()
{
    static const QList<OnboardingStage> all{OnboardingStage::permissions, OnboardingStage::microphonePosition,
        OnboardingStage::snippets, OnboardingStage::practice, OnboardingStage::savedProof,
        OnboardingStage::searchProof, OnboardingStage::ready};
    return all;
}

OnboardingModel::OnboardingModel(bool isPresented, QObject *parent) : QObject(parent), m_presented(isPresented) {}

template<typename T>
static bool assign(T &field, const T &value)
{
    if (field == value)
        return false;
    field = value;
    return true;
}

void OnboardingModel::setPresented(bool presented)
{
    if (assign(m_presented, presented))
        Q_EMIT changed();
}

void OnboardingModel::setStage(OnboardingStage stage)
{
    if (assign(m_stage, stage))
        Q_EMIT changed();
}

void OnboardingModel::setPermissions(const OnboardingPermissionSnapshot &permissions)
{
    if (assign(m_permissions, permissions))
        Q_EMIT changed();
}

void OnboardingModel::setRequestingPermissions(bool requesting)
{
    if (assign(m_requesting, requesting))
        Q_EMIT changed();
}

void OnboardingModel::setAccuracyModelReady(bool ready)
{
    if (assign(m_modelReady, ready))
        Q_EMIT changed();
}

void OnboardingModel::showPracticeWhenReady()
{
    if (!m_presented || !m_permissions.bothAuthorized() || m_stage != OnboardingStage::permissions)
        return;
    if (!m_completedConfiguration)
        setStage(OnboardingStage::microphonePosition);
    else if (m_modelReady)
        setStage(OnboardingStage::practice);
}

void OnboardingModel::finishConfiguration()
{
    m_completedConfiguration = true;
    setStage(OnboardingStage::permissions);
    showPracticeWhenReady();
}

void OnboardingModel::completePractice(const QString &transcript, const QDateTime &savedAt)
{
    const QString trimmed = transcript.trimmed();
    if (trimmed.isEmpty())
        return;
    m_practiceTranscript = trimmed;
    m_practiceSavedAt = savedAt;
    m_stage = OnboardingStage::savedProof;
    Q_EMIT changed();
}

} // namespace dictora
