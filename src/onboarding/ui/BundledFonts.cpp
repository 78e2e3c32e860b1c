#include "onboarding/ui/BundledFonts.h"

#include <QFontDatabase>
#include <QStringList>

namespace dictora {

namespace {
QString g_family;
bool g_registered = false;
}

bool registerBundledFonts()
{
    if (g_registered)
        return !g_family.isEmpty();
    g_registered = true;
#ifdef DICTORA_BUNDLED_DISPLAY_FONT
    const int id = QFontDatabase::addApplicationFont(QStringLiteral(":/dictora/fonts/LondrinaSolid-Black.woff"));
    if (id >= 0) {
        const QStringList families = QFontDatabase::applicationFontFamilies(id);
        if (!families.isEmpty())
            g_family = families.first();
    }
#endif
    return !g_family.isEmpty();
}

bool displayFontAvailable()
{
    return !g_family.isEmpty();
}

QFont displayFont(int pixelSize)
{
    QFont font;
    if (!g_family.isEmpty()) {
        font.setFamilies({g_family});
        font.setWeight(QFont::Black);
    } else {
        font.setWeight(QFont::Bold);
    }
    font.setPixelSize(pixelSize);
    return font;
}

} // namespace dictora
