// The Dictation sheet writes each choice into the preferences, and shows a
// chosen microphone that is not plugged in rather than silently the default.
#include "core/ProductPreferences.h"
#include "home/sheets/RecognitionSettingsView.h"

#include <QComboBox>
#include <QProgressBar>
#include <QTemporaryDir>
#include <QtTest>

using namespace dictora;

class DictationSheetTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void microphoneChoice_data()
    {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<QString>("shown");
        QTest::newRow("system default") << QString() << QStringLiteral("System default");
        QTest::newRow("a listed input") << QStringLiteral("usb_mic") << QStringLiteral("USB Microphone");
        QTest::newRow("unplugged") << QStringLiteral("gone_mic")
                                   << QStringLiteral("gone_mic (not connected: the default is used)");
    }
    void microphoneChoice()
    {
        QFETCH(QString, stored);
        QFETCH(QString, shown);
        QTemporaryDir dir;
        QSettings settings(dir.filePath(QStringLiteral("s.ini")), QSettings::IniFormat);
        ProductPreferences preferences(settings);
        preferences.setMicrophoneSource(stored);
        RecognitionSettingsView::Choices choices;
        choices.microphones = {{QStringLiteral("usb_mic"), QStringLiteral("USB Microphone")},
            {QStringLiteral("builtin"), QStringLiteral("Built-in Audio")}};
        RecognitionSettingsView sheet(preferences, choices);
        QCOMPARE(sheet.microphoneBox()->currentText(), shown);

        // Picking another is stored at once; the system default stores nothing.
        for (const int index : {2, 0}) {
            Q_EMIT sheet.microphoneBox()->activated(index);
            QTRY_COMPARE(ProductPreferences(settings).microphoneSource(), index == 2 ? QStringLiteral("builtin") : QString());
        }
        sheet.showLevel(0.42f);
        QCOMPARE(sheet.levelMeter()->value(), 42);
        sheet.showLevel(3.f);
        QCOMPARE(sheet.levelMeter()->value(), 100);
    }
};

QTEST_MAIN(DictationSheetTest)
#include "tst_dictation_sheet.moc"
