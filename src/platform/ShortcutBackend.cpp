#include "platform/ShortcutBackend.h"

namespace dictora {

ShortcutBackend::ShortcutBackend(QObject *parent)
    : QObject(parent)
{
}

ShortcutBackend::~ShortcutBackend() = default;

} // namespace dictora
