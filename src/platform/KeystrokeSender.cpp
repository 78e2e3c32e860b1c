#include "platform/KeystrokeSender.h"

namespace dictora {

QString keystrokeName(PasteKeystroke keystroke)
{
    switch (keystroke) {
    case PasteKeystroke::controlV:
        return QStringLiteral("ctrl+v");
    case PasteKeystroke::controlShiftV:
        return QStringLiteral("ctrl+shift+v");
    case PasteKeystroke::shiftInsert:
        return QStringLiteral("shift+insert");
    }
    return QStringLiteral("ctrl+v");
}

KeystrokeSender::~KeystrokeSender() = default;

void KeystrokeSender::sendThen(PasteKeystroke keystroke, Sent done)
{
    const bool sent = send(keystroke);
    const QString reason = failureReason();
    if (done)
        done(sent ? QString() : reason.isEmpty() ? QStringLiteral("The paste keystroke could not be typed.") : reason);
}

} // namespace dictora
