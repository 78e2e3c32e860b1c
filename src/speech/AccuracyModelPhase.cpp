#include "speech/AccuracyModelPhase.h"

namespace dictora {

QString AccuracyModelPhase::statusText() const
{
    switch (m_kind) {
    case Kind::checking:
        return QStringLiteral("Checking the accuracy model…");
    case Kind::copyingBundledDevelopmentAsset:
        return QStringLiteral("Preparing the accuracy model…");
    case Kind::downloading:
        return QStringLiteral("Downloading the accuracy model…");
    case Kind::verifying:
        return QStringLiteral("Verifying every byte…");
    case Kind::loading:
        return QStringLiteral("Starting the local speech engine…");
    case Kind::ready:
        return QStringLiteral("Accuracy model ready");
    case Kind::retrying:
        return QStringLiteral("Retrying automatically: ") + m_message;
    case Kind::needsAttention:
        return QStringLiteral("Download paused: ") + m_message;
    }
    return {};
}

QString AccuracyModelPhase::rawValue() const
{
    switch (m_kind) {
    case Kind::checking:
        return QStringLiteral("checking");
    case Kind::copyingBundledDevelopmentAsset:
        return QStringLiteral("copyingBundledDevelopmentAsset");
    case Kind::downloading:
        return QStringLiteral("downloading");
    case Kind::verifying:
        return QStringLiteral("verifying");
    case Kind::loading:
        return QStringLiteral("loading");
    case Kind::ready:
        return QStringLiteral("ready");
    case Kind::retrying:
        return QStringLiteral("retrying");
    case Kind::needsAttention:
        return QStringLiteral("needsAttention");
    }
    return {};
}

} // namespace dictora
