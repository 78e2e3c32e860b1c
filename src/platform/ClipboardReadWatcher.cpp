#include "platform/ClipboardReadWatcher.h"

namespace dictora {

ClipboardReadWatcher::ClipboardReadWatcher(QObject *parent)
    : QObject(parent)
{
}

ClipboardReadWatcher::~ClipboardReadWatcher() = default;

} // namespace dictora
