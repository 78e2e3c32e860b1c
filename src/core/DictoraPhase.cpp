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

} // namespace dictora
