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
// the target window and type into it.
class PermissionProbe {
public:
    virtual ~PermissionProbe() = default;

    // `shortcut`, when given, contributes its last install result: a key
    // another program already owns needs the user's attention too.
    virtual PermissionCheck accessibility(const ShortcutBackend *shortcut) = 0;
};

} // namespace dictora
