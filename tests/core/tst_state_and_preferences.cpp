#include "core/DictoraState.h"
#include "core/ProductPreferences.h"
#include "support/TestSupport.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using namespace dictora;

class StateAndPreferencesTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    int m_case = 0;
    // A fresh file per case: QSettings caches files by path within a process.
    QString iniPath() const { return m_dir.filePath(QStringLiteral("Dictora-%1.conf").arg(m_case)); }

    // Writes raw INI text, as a user or an older version may have left it.
    void writeIni(const QByteArray &body)
    {
        QVERIFY(dictora::test::writeFile(iniPath(), "[General]\n" + body));
    }

private Q_SLOTS:
    void init() { ++m_case; }

    void readsStoredText_data()
    {
        QTest::addColumn<QByteArray>("ini");
        QTest::addColumn<QString>("location");
        QTest::addColumn<QString>("size");
        QTest::addColumn<double>("opacity");
        QTest::addColumn<bool>("snippets");
        QTest::newRow("nothing stored") << QByteArray() << "bottomMiddle" << "medium" << 0.9 << true;
        QTest::newRow("opacity below floor") << QByteArray("overlay.microphone.opacity=0.1\n") << "bottomMiddle" << "medium" << 0.2 << true;
        QTest::newRow("opacity above ceiling") << QByteArray("overlay.microphone.opacity=1.5\n") << "bottomMiddle" << "medium" << 1.0 << true;
        QTest::newRow("opacity as text") << QByteArray("overlay.microphone.opacity=dim\n") << "bottomMiddle" << "medium" << 0.9 << true;
        QTest::newRow("opacity in range") << QByteArray("overlay.microphone.opacity=0.55\n") << "bottomMiddle" << "medium" << 0.55 << true;
        QTest::newRow("unknown anchor") << QByteArray("overlay.microphone.location=center\n") << "bottomMiddle" << "medium" << 0.9 << true;
        QTest::newRow("anchor is case-sensitive") << QByteArray("overlay.microphone.location=TopLeft\n") << "bottomMiddle" << "medium" << 0.9 << true;
        QTest::newRow("unknown size") << QByteArray("overlay.microphone.size=huge\n") << "bottomMiddle" << "medium" << 0.9 << true;
        QTest::newRow("small") << QByteArray("overlay.microphone.size=small\n") << "bottomMiddle" << "small" << 0.9 << true;
        QTest::newRow("snippets off") << QByteArray("transcription.snippets.enabled=false\n") << "bottomMiddle" << "medium" << 0.9 << false;
        QTest::newRow("snippets garbage means on") << QByteArray("transcription.snippets.enabled=maybe\n") << "bottomMiddle" << "medium" << 0.9 << true;
    }
    void readsStoredText()
    {
        QFETCH(QByteArray, ini);
        QFETCH(QString, location);
        QFETCH(QString, size);
        QFETCH(double, opacity);
        QFETCH(bool, snippets);
        writeIni(ini);
        QSettings s(iniPath(), QSettings::IniFormat);
        const QStringList stored = s.allKeys();
        ProductPreferences p(s);
        QCOMPARE((QVariantList{rawValue(p.microphoneLocation()), rawValue(p.microphoneSize()), p.microphoneOpacity(), p.snippetsEnabled()}),
            (QVariantList{location, size, opacity, snippets}));
        QCOMPARE(s.allKeys(), stored); // reading, even a fall-back, writes nothing back
    }

    // Language and vocabulary: what is stored is what recognition can use.
    void recognitionSettings_data()
    {
        QTest::addColumn<QByteArray>("ini");
        QTest::addColumn<QString>("language");
        QTest::addColumn<QStringList>("vocabulary");
        QTest::newRow("missing: English, no terms") << QByteArray() << "en" << QStringList();
        QTest::newRow("automatic") << QByteArray("transcription.language=auto\n") << "auto" << QStringList();
        QTest::newRow("chosen code") << QByteArray("transcription.language=yue\n") << "yue" << QStringList();
        QTest::newRow("not a code") << QByteArray("transcription.language=German\n") << "en" << QStringList();
        QTest::newRow("terms cleaned") << QByteArray("transcription.vocabulary=Kubernetes, , Aoife  Walsh, Kubernetes\n")
                                       << "en" << QStringList{"Kubernetes", "Aoife Walsh"};
    }
    void recognitionSettings()
    {
        QFETCH(QByteArray, ini);
        QFETCH(QString, language);
        QFETCH(QStringList, vocabulary);
        writeIni(ini);
        QSettings s(iniPath(), QSettings::IniFormat);
        {
            ProductPreferences p(s);
            QCOMPARE(p.language(), language);
            QCOMPARE(p.vocabulary(), vocabulary);
            p.setLanguage(QStringLiteral("de"));
            p.setVocabulary(vocabulary + QStringList{" Dictora ", ""});
        } // written by the time it is gone
        ProductPreferences reread(s);
        QCOMPARE(reread.language(), QStringLiteral("de"));
        QCOMPARE(reread.vocabulary(), vocabulary + QStringList{"Dictora"});
        QCOMPARE(ProductPreferences::vocabularyPrompt(reread.vocabulary()), (vocabulary + QStringList{"Dictora"}).join(", "));
    }

    void storedShortcutFallsBack_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("isDefault");
        // Which stored values fall back is tst_global_shortcut's.
        QTest::newRow("valid ctrl+alt+K") << QByteArray(R"({"keyCode":40,"modifiers":6,"keyLabel":"K"})") << false;
        QTest::newRow("one modifier fails validation") << QByteArray(R"({"keyCode":40,"modifiers":1,"keyLabel":"K"})") << true;
    }
    void storedShortcutFallsBack()
    {
        QFETCH(QByteArray, json);
        QFETCH(bool, isDefault);
        {
            QSettings s(iniPath(), QSettings::IniFormat);
            s.setValue(QLatin1String(ProductPreferences::kShortcutKey), QString::fromUtf8(json));
        }
        QSettings s(iniPath(), QSettings::IniFormat);
        ProductPreferences p(s);
        QCOMPARE(p.keyboardShortcut() == GlobalShortcut::defaultShortcut(), isDefault);
        // A fall-back never rewrites what is stored.
        QCOMPARE(s.value(QLatin1String(ProductPreferences::kShortcutKey)).toString().toUtf8(), json);
    }

    void writesSurviveReload()
    {
        const GlobalShortcut shortcut{40, {GlobalShortcutModifiers::control | GlobalShortcutModifiers::option}, QStringLiteral("K")};
        {
            QSettings s(iniPath(), QSettings::IniFormat);
            ProductPreferences p(s);
            p.setMicrophoneLocation(ScreenAnchor::topLeft);
            p.setMicrophoneSize(OverlaySize::large);
            p.setMicrophoneOpacity(0.05);
            p.setShowsMicrophoneIcon(false);
            p.setHasCompletedOnboarding(true);
            p.setKeyboardShortcut(shortcut);
            p.setFormattingEnabled(false);
            p.setSnippetsEnabled(false);
            QCOMPARE(p.microphoneOpacity(), 0.2);
        }
        QSettings s(iniPath(), QSettings::IniFormat);
        ProductPreferences p(s);
        QCOMPARE(p.keyboardShortcut(), shortcut);
        QCOMPARE((QVariantList{rawValue(p.microphoneLocation()), rawValue(p.microphoneSize()), p.microphoneOpacity(),
                     p.showsMicrophoneIcon(), p.hasCompletedOnboarding(), p.formattingEnabled(), p.snippetsEnabled()}),
            (QVariantList{"topLeft", "large", 0.2, false, true, false, false}));
    }

    // The state the widgets observe signals only real changes.
    void stateSignalsOnlyOnChange()
    {
        DictoraState state;
        QSignalSpy phase(&state, &DictoraState::phaseChanged);
        QSignalSpy levels(&state, &DictoraState::meterLevelsChanged);
        QSignalSpy dots(&state, &DictoraState::listeningDotPhaseChanged);
        QSignalSpy transcript(&state, &DictoraState::lastTranscriptChanged);
        state.setPhase(DictoraPhase::idle());
        state.setPhase(DictoraPhase::error("a"));
        state.setPhase(DictoraPhase::error("b"));
        QCOMPARE(phase.count(), 2);
        state.setMeterLevels({0.5f, 0, 0, 0});
        state.setMeterLevels({0.5f, 0, 0, 0});
        QCOMPARE(levels.count(), 1);
        state.setListeningDotPhase(1);
        state.setListeningDotPhase(4); // wraps to 1
        QCOMPARE(dots.count(), 1);
        QCOMPARE(state.listeningDotPhase(), 1);
        // Every completed dictation replaces the transcript, even with the same (empty) text.
        state.setLastTranscript(QString());
        state.setLastTranscript(QString());
        QCOMPARE(transcript.count(), 2);
    }
};

QTEST_GUILESS_MAIN(StateAndPreferencesTest)
#include "tst_state_and_preferences.moc"
