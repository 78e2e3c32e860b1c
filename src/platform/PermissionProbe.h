#pragma once

#include <QString>

namespace dictora {

class ShortcutBackend;

struct PermissionCheck {
    bool authorized = false;
    QString reason; // for the user; empty when authorized

    static PermissionCheck granted() { return {true, {}}; }
    static PermissionCheck needsAttention(const QString &why) { return {false, why}; }
};

// What the desktop must offer before dictation can take the shortcut, know
// the target window and type into it. A check may be slow (it asks the
// desktop), so it runs off the GUI thread: implementations are thread-safe
// and share no connection with the GUI thread.
class PermissionProbe {
public:
    virtual ~PermissionProbe() = default;

    // `shortcut`, when given, contributes its last install result: a key
    // another program already owns needs the user's attention too. Off the
    // GUI thread pass nullptr and combine the backend's failureReason() there.
    virtual PermissionCheck accessibility(const ShortcutBackend *shortcut) = 0;
};

} // namespace dictora
