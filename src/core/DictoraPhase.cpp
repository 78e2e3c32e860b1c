#include "core/DictoraPhase.h"

namespace dictora {

QString DictoraPhase::label() const
{
    switch (m_kind) {
    case Kind::error: return m_message;
    case Kind::idle: return QStringLiteral("Ready");
    case Kind::preparing: return QStringLiteral("Preparing microphone");
    case Kind::recording: return QStringLiteral("Recording — use your shortcut to paste");
    case Kind::finalizing: return QStringLiteral("Transcribing");
    case Kind::needsAccessibility: return QStringLiteral("Allow Accessibility");
    }
    return {};
}

QString DictoraPhase::name(Kind kind)
{
    switch (kind) {
    case Kind::error: return QStringLiteral("error");
    case Kind::idle: return QStringLiteral("idle");
    case Kind::preparing: return QStringLiteral("preparing");
    case Kind::recording: return QStringLiteral("recording");
    case Kind::finalizing: return QStringLiteral("finalizing");
    case Kind::needsAccessibility: return QStringLiteral("needsAccessibility");
    }
    return {};
}

} // namespace dictora
