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

} // namespace dictora
