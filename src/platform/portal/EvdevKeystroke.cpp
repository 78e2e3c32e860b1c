#include "platform/portal/EvdevKeystroke.h"

namespace dictora::portal {

QList<KeyTransition> keySequence(PasteKeystroke keystroke, int keyForV)
{
    QList<int> modifiers;
    int key = keyForV;
    switch (keystroke) {
    case PasteKeystroke::controlV:
        modifiers = {Evdev::leftCtrl};
        break;
    case PasteKeystroke::controlShiftV:
        modifiers = {Evdev::leftCtrl, Evdev::leftShift};
        break;
    case PasteKeystroke::shiftInsert:
        modifiers = {Evdev::leftShift};
        key = Evdev::insert;
        break;
    }
    QList<KeyTransition> sequence;
    for (int m : modifiers)
        sequence << KeyTransition{m, true};
    sequence << KeyTransition{key, true} << KeyTransition{key, false};
    for (auto it = modifiers.crbegin(); it != modifiers.crend(); ++it)
        sequence << KeyTransition{*it, false};
    return sequence;
}

} // namespace dictora::portal
