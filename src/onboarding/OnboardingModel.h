#pragma once

#include <QDateTime>
#include <QList>
#include <QObject>

#include <optional>

namespace dictora {

enum class OnboardingStage { permissions, microphonePosition, snippets, practice, savedProof, searchProof, ready };
const QList<OnboardingStage> &allOnboardingStages();

enum class OnboardingPermissionStatus { notDetermined = 0, denied = 1, authorized = 2 };

struct OnboardingPermissionSnapshot {
    OnboardingPermissionStatus microphone = OnboardingPermissionStatus::notDetermined;
    OnboardingPermissionStatus accessibility = OnboardingPermissionStatus::notDetermined;
    bool bothAuthorized() const
    {
        return microphone == OnboardingPermissionStatus::authorized
            && accessibility == OnboardingPermissionStatus::authorized;
    }
    friend bool operator==(const OnboardingPermissionSnapshot &, const OnboardingPermissionSnapshot &) = default;
};

// The first-run walk. Main thread only; the controller feeds it permissions
// and model readiness, the screens move it forward.
class OnboardingModel : public QObject {
    Q_OBJECT
public:
    explicit OnboardingModel(bool isPresented, QObject *parent = nullptr);

    bool isPresented() const { return m_presented; }
    OnboardingStage stage() const { return m_stage; }
    OnboardingPermissionSnapshot permissions() const { return m_permissions; }
    bool isRequestingPermissions() const { return m_requesting; }
    QString practiceTranscript() const { return m_practiceTranscript; }
    std::optional<QDateTime> practiceSavedAt() const { return m_practiceSavedAt; }
    bool accuracyModelReady() const { return m_modelReady; }

    void setPresented(bool presented);
    void setStage(OnboardingStage stage);
    void setPermissions(const OnboardingPermissionSnapshot &permissions);
    void setRequestingPermissions(bool requesting);
    void setAccuracyModelReady(bool ready);

    // Leaves the permission screen once both are granted: first through
    // placement and snippets, then to practice when the model is ready.
    void showPracticeWhenReady();
    // The action at the end of the snippets screen.
    void finishConfiguration();
    // A blank practice text changes nothing; the user can try again.
    void completePractice(const QString &transcript, const QDateTime &savedAt);

Q_SIGNALS:
    void changed();

private:
    bool m_presented;
    OnboardingStage m_stage = OnboardingStage::permissions;
    OnboardingPermissionSnapshot m_permissions;
    bool m_requesting = false;
    QString m_practiceTranscript;
    std::optional<QDateTime> m_practiceSavedAt;
    bool m_modelReady = false;
    bool m_completedConfiguration = false;
};

} // namespace dictora
