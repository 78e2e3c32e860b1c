#pragma once

#include "platform/Clipboard.h"
#include "platform/KeystrokeSender.h"
#include "platform/PermissionProbe.h"
#include "platform/WindowTracker.h"

#include <QString>

#include <memory>

// The wlroots backends. Each create function returns nothing, with the
// reason in *why, when the compositor lacks what the backend needs, so the
// factory can fall back to the next choice.
namespace dictora::WaylandPlatform {
std::unique_ptr<WindowTracker> createWindowTracker(QString *why);
std::unique_ptr<KeystrokeSender> createKeystrokeSender(QString *why);
std::unique_ptr<Clipboard> createClipboard(QObject *parent, QString *why);
std::unique_ptr<PermissionProbe> createPermissionProbe(QString *why);
// Whether the compositor offers a protocol by its interface name (a short roundtrip).
bool offers(const char *interface);
} // namespace dictora::WaylandPlatform
