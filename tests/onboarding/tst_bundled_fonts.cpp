#include "onboarding/ui/BundledFonts.h"

#include <QApplication>
#include <QFile>
#include <QFontInfo>
#include <QtTest>

using namespace dictora;

class BundledFontsTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    // Runs first: before registration the headline face is a bold system font.
    void fallsBackToBoldBeforeRegistration()
    {
        QVERIFY(!displayFontAvailable());
        const QFont font = displayFont(40);
        QCOMPARE(font.weight(), QFont::Bold);
        QCOMPARE(font.pixelSize(), 40);
        QVERIFY(!QFontInfo(font).family().contains(QStringLiteral("Londrina")));
    }

    void registersTheEmbeddedFace()
    {
        if (!QFile::exists(QStringLiteral(":/dictora/fonts/LondrinaSolid-Black.woff")))
            QSKIP("this build embeds no display font");
        QVERIFY(registerBundledFonts());
        QVERIFY(displayFontAvailable());
        // Twice is harmless.
        QVERIFY(registerBundledFonts());
        const QFontInfo info(displayFont(40));
        QCOMPARE(info.family(), QString::fromLatin1(kDisplayFontFamily));
        QCOMPARE(info.pixelSize(), 40);
    }
};

QTEST_MAIN(BundledFontsTest)
#include "tst_bundled_fonts.moc"
