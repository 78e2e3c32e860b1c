#pragma once

#include <QFont>
#include <QString>

namespace dictora {

// The family of the display face of headlines and big buttons.
inline constexpr auto kDisplayFontFamily = "Londrina Solid Black";

// Adds the fonts built into the program to the application's font database.
// Call once after the QApplication exists; false when the display face is
// missing or unreadable (the UI then uses a bold system font).
bool registerBundledFonts();

// True once registerBundledFonts() has loaded the display face.
bool displayFontAvailable();

// The display face at the given pixel size, or a bold system font.
QFont displayFont(int pixelSize);

} // namespace dictora
