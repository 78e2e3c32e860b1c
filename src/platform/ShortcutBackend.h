#pragma once

#include "shortcut/GlobalShortcut.h"

#include <QObject>
#include <QString>

#include <functional>

namespace dictora {

// A system-wide key binding for one shortcut. `pressed` fires once per key
// press of exactly that chord and `released` once when that key comes up;
// held-key repeats fire neither.
class ShortcutBackend : public QObject {
    Q_OBJECT
public:
    explicit ShortcutBackend(QObject *parent = nullptr);
    ~ShortcutBackend() override;

    // True when the shortcut is active afterwards. Installing the shortcut
    // that is already active does nothing and succeeds.
    virtual bool install(const GlobalShortcut &shortcut) = 0;
    // True only while exactly this shortcut is bound and working.
    virtual bool verifyInstalled(const GlobalShortcut &shortcut) const = 0;
    // Safe to call when nothing is installed.
    virtual void uninstall() = 0;
    // Why the last install failed, in words for the user; empty after success.
    virtual QString failureReason() const = 0;
    // What the button beside that reason does (a PermissionAction); empty
    // when retrying is all there is to do.
    virtual QString attentionAction() const { return {}; }
    // True while the desktop has been asked to bind and has not answered
    // (it may be showing a dialog); installationChanged() follows its answer.
    virtual bool isAwaitingDesktop() const { return false; }

    // What the desktop reports bound for `shortcut`, asked without binding
    // or showing anything: for a check from outside the running program.
    struct BindingReport {
        bool answered = false; // false: this backend cannot tell without binding
        bool bound = false;
        QString description; // the key as the desktop names it
        QString problem;     // why the desktop did not answer
    };
    virtual void reportBinding(const GlobalShortcut &shortcut, std::function<void(BindingReport)> done)
    {
        Q_UNUSED(shortcut);
        done({});
    }

Q_SIGNALS:
    void pressed();
    void released();
    // The binding became active or stopped working without an install() call
    // (a backend whose binding completes after a consent dialog); listeners
    // verify again.
    void installationChanged();
};

} // namespace dictora
