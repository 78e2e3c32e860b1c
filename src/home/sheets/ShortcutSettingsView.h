#pragma once

#include "core/ProductPreferences.h"
#include "shortcut/GlobalShortcut.h"

#include <QDialog>

#include <functional>
#include <optional>

class QCheckBox;
class QLabel;
class QPushButton;

namespace dictora {

class ShortcutCaptureField;

// The sheet in which the user presses a new global shortcut and applies it.
class ShortcutSettingsView : public QDialog {
    Q_OBJECT
public:
    enum class Feedback { none, failure, permissionRequired, waitingForPermission };

    using UpdateAction = std::function<ShortcutUpdateResult(const GlobalShortcut &)>;

    ShortcutSettingsView(ProductPreferences &preferences, UpdateAction onUpdate,
                         std::function<void()> onContinueAccessibility, QWidget *parent = nullptr);

    std::optional<GlobalShortcut> candidate() const { return m_candidate; }
    Feedback feedback() const { return m_feedback; }
    QString feedbackText() const;
    QString validationMessage() const;
    QString currentText() const;
    bool canUpdate() const;

    void setCandidate(const std::optional<GlobalShortcut> &candidate);
    // The "Update" button.
    void applyCandidate();
    // The "Continue" button of the permission notice.
    void continueAccessibility();
    // The desktop turned the waiting candidate down: say so, the old key stays.
    void updateRefused(const QString &reason);

    // Where the desktop owns the key: what it reports as bound, or the line
    // the user adds to the compositor's configuration; an optional button
    // that sets it up. Empty text hides the section.
    void setDesktopBinding(const QString &text, const QString &actionLabel = {}, std::function<void()> action = {});
    QString desktopBindingText() const;

private:
    void setFeedback(Feedback feedback, const QString &failure = {});
    void refresh();

    ProductPreferences &m_preferences;
    UpdateAction m_onUpdate;
    std::function<void()> m_onContinueAccessibility;
    std::optional<GlobalShortcut> m_candidate;
    Feedback m_feedback = Feedback::none;
    QString m_failure;
    bool m_keyRejected = false;

    std::function<void()> m_desktopAction;

    QLabel *m_current;
    QCheckBox *m_holdToTalk;
    QLabel *m_desktopBinding;
    QPushButton *m_desktopActionButton;
    ShortcutCaptureField *m_field;
    QLabel *m_validation;
    QWidget *m_feedbackRow;
    QLabel *m_feedbackIcon;
    QLabel *m_feedbackText;
    QPushButton *m_continue;
    QPushButton *m_cancel;
    QPushButton *m_update;
};

} // namespace dictora
