#include "text/BasicFormatter.h"

#include <QtTest>

using dictora::BasicFormatter;

class BasicFormatterTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void format_data()
    {
        QTest::addColumn<QString>("raw");
        QTest::addColumn<QString>("expected");

        // Fillers.
        QTest::newRow("fillers with comma") << "um so we should uh, leave now" << "So we should leave now";
        QTest::newRow("stretched fillers and ; :") << "Um, UMMM; uhhh: okay" << "Okay";
        QTest::newRow("filler at the end") << "so um" << "So";
        QTest::newRow("filler before period") << "um." << ".";
        QTest::newRow("words containing fillers stay") << "umbrella drum uh-oh hum_bug" << "Umbrella drum uh-oh hum_bug";
        QTest::newRow("filler before a bracket stays") << "well um) fine" << "Well um) fine";
        QTest::newRow("only fillers") << "um uh umm" << "";

        // Spacing and punctuation.
        QTest::newRow("space around punctuation") << "hello , world .how are you" << "Hello, world. How are you";
        QTest::newRow("missing space after comma") << "yes,no" << "Yes, no";
        QTest::newRow("comma before sentence end") << "wait ,." << "Wait.";
        QTest::newRow("newlines and tabs collapse") << "first\n\n second\tthird  " << "First second third";
        QTest::newRow("empty") << "" << "";
        QTest::newRow("whitespace only") << " \n\t  \r\n" << "";
        QTest::newRow("decimal is spaced") << "pi is 3.14" << "Pi is 3. 14";
        QTest::newRow("abbreviation is spaced") << "e.g. this" << "E. G. This";
        QTest::newRow("digit consumes capital") << "wait. 3 apples" << "Wait. 3 apples";
        QTest::newRow("every sentence mark capitalises") << "hello. world! why? yes" << "Hello. World! Why? Yes";
        QTest::newRow("quotes keep the capital for the word") << "\"quoted\" start. \"next\"" << "\"Quoted\" start. \"Next\"";
        QTest::newRow("nothing is lower-cased") << "iPhone. ALREADY. upper" << "IPhone. ALREADY. Upper";
        QTest::newRow("ellipsis") << "wait... what" << "Wait... What";

        // Time of day.
        QTest::newRow("upper-case p.m.") << "meet me at 3 P.M. ok" << "Meet me at 3 p.m. ok";
        QTest::newRow("a.m. starts the text") << "A.M. is early. p.m.is late" << "a.m. is early. p.m.is late";
        QTest::newRow("a.m. inside a word is not protected") << "3a.m. ok" << "3a. M. Ok";

        // Unicode.
        QTest::newRow("emoji then word") << QString::fromUtf8("🎉 party time. éclair") << QString::fromUtf8("🎉 Party time. Éclair");
        QTest::newRow("decomposed accent") << QStringLiteral("ok. e\u0301te\u0301") << QStringLiteral("Ok. E\u0301te\u0301");
        QTest::newRow("full upper-casing") << QString::fromUtf8("straße. ßig") << QString::fromUtf8("Straße. SSig");
        QTest::newRow("Cyrillic and Greek") << QString::fromUtf8("привет. ελα") << QString::fromUtf8("Привет. Ελα");

        // Spoken lists.
        QTest::newRow("three bullet points")
            << "Okay, here are three bullet points: one, milk. Two, eggs. Three, bread. Thanks."
            << "Here are some bullet points:\n\n1. Milk\n2. Eggs\n3. Bread\n\nThanks.";
        QTest::newRow("numbered with leading prose")
            << "Notes first. Here are two numbered points one apples two pears"
            << "Notes first.\n\nHere are some numbered points:\n\n1. Apples\n2. Pears";
        QTest::newRow("skipped number leaves prose")
            << "Here are some bullet points one apples three pears"
            << "Here are some bullet points one apples three pears";
        QTest::newRow("empty item refuses the list")
            << "Here are bullet points: one, , two, pears" << "Here are bullet points: one,, two, pears";
        QTest::newRow("to stands for two")
            << "here are bullet points one apples to pears three plums"
            << "Here are some bullet points:\n\n1. Apples\n2. Pears\n3. Plums";
        QTest::newRow("two preferred over an earlier to")
            << "here are bullet points one go to the shop two buy milk"
            << "Here are some bullet points:\n\n1. Go to the shop\n2. Buy milk";
        QTest::newRow("lone to where two is expected is taken")
            << "here are bullet points one talk to Anna three call Bob"
            << "Here are some bullet points:\n\n1. Talk\n2. Anna\n3. Call Bob";
        QTest::newRow("too is no marker")
            << "here are bullet points one me too two you" << "Here are some bullet points:\n\n1. Me too\n2. You";
        QTest::newRow("to after item two is skipped")
            << "here are numbered points one wake up two go to work three sleep"
            << "Here are some numbered points:\n\n1. Wake up\n2. Go to work\n3. Sleep";
        QTest::newRow("a single item is no list")
            << "here are bullet points one apples" << "Here are bullet points one apples";
        QTest::newRow("number word in the header only") << "here are two bullet points" << "Here are two bullet points";
        QTest::newRow("text between header and list")
            << "here are bullet points about food one apples two pears"
            << "Here are bullet points about food one apples two pears";
        QTest::newRow("list not starting at one after header")
            << "here are bullet points two one apples two pears" << "Here are bullet points two one apples two pears";
        QTest::newRow("leading prose keeps its comma")
            << "So, here are numbered points: one, call mom. two, buy milk."
            << "So,\n\nHere are some numbered points:\n\n1. Call mom\n2. Buy milk";
        QTest::newRow("markers followed by periods")
            << "here are bullet points: one. apples. two. pears."
            << "Here are some bullet points:\n\n1. Apples\n2. Pears";
        QTest::newRow("singular point and okay prefix")
            << "Okay here is one numbered point one apples two pears"
            << "Here are some numbered points:\n\n1. Apples\n2. Pears";
        QTest::newRow("number words inside words are not markers")
            << "here are bullet points one someone called two tone done"
            << "Here are some bullet points:\n\n1. Someone called\n2. Tone done";
        QTest::newRow("style word is lower-cased")
            << "HERE ARE NUMBERED POINTS ONE RED TWO BLUE"
            << "Here are some numbered points:\n\n1. RED\n2. BLUE";
        QTest::newRow("trailing prose after the last item")
            << "here are bullet points one tea two coffee! see you at 9 a.m. tomorrow"
            << "Here are some bullet points:\n\n1. Tea\n2. Coffee\n\nSee you at 9 a.m. tomorrow";
        QTest::newRow("fillers inside a list")
            << "um here are bullet points: one, uh, apples, two, pears"
            << "Here are some bullet points:\n\n1. Apples\n2. Pears";
        QTest::newRow("ten items at most")
            << "here are bullet points one a two b three c four d five e six f seven g eight h nine i ten j one k. Done"
            << "Here are some bullet points:\n\n1. A\n2. B\n3. C\n4. D\n5. E\n6. F\n7. G\n8. H\n9. I\n10. J one k\n\nDone";
        QTest::newRow("a.m. ending an item loses its period")
            << "here are bullet points one wake at 7 a.m. two run"
            << "Here are some bullet points:\n\n1. Wake at 7 a.m\n2. Run";
        QTest::newRow("a.m. in the last item ends it")
            << "here are bullet points one run two wake at 7 a.m. daily"
            << "Here are some bullet points:\n\n1. Run\n2. Wake at 7 a\n\nM. Daily";
    }

    void format()
    {
        QFETCH(QString, raw);
        QFETCH(QString, expected);
        QCOMPARE(BasicFormatter::format(raw), expected);
    }

    void formatTranscript_data()
    {
        QTest::addColumn<QString>("raw");
        QTest::addColumn<bool>("enabled");
        QTest::addColumn<QString>("language");
        QTest::addColumn<QString>("expected");
        QTest::newRow("on") << "  um hello ,world \n" << true << "" << "Hello, world";
        QTest::newRow("off only trims") << "  um hello ,world \n" << false << "" << "um hello ,world";
        QTest::newRow("off keeps inner newlines") << "\n a\n\nb \t" << false << "" << "a\n\nb";
        // English rules stay English: "um" is a word elsewhere, lists and case are the speaker's.
        QTest::newRow("German keeps words and case") << " um  die drei punkte ,eins \n" << true << "de" << "um die drei punkte, eins";
        QTest::newRow("French keeps space before ?") << "  ça va ? oui . " << true << "fr" << QString::fromUtf8("ça va ? oui.");
        QTest::newRow("other language, off only trims") << " a  b " << false << "de" << "a  b";
    }

    void formatTranscript()
    {
        QFETCH(QString, raw);
        QFETCH(bool, enabled);
        QFETCH(QString, language);
        QFETCH(QString, expected);
        QCOMPARE(BasicFormatter::formatTranscript(raw, enabled, language), expected);
    }

    void capitalizeFirstLetter_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected");
        QTest::newRow("after digits") << "123 abc def" << "123 Abc def";
        QTest::newRow("no letters") << "!!! 42" << "!!! 42";
        QTest::newRow("after emoji") << QString::fromUtf8("👍🏽 ok") << QString::fromUtf8("👍🏽 Ok");
        QTest::newRow("sharp s") << QString::fromUtf8("ßa") << "SSa";
    }

    void capitalizeFirstLetter()
    {
        QFETCH(QString, text);
        QFETCH(QString, expected);
        QCOMPARE(BasicFormatter::capitalizeFirstLetter(text), expected);
    }

    void longSpokenList()
    {
        // A long dictation with a list inside it still yields the list, prose first.
        QString intro;
        for (int i = 0; i < 2000; ++i)
            intro += QStringLiteral("this is filler prose number %1. ").arg(i);
        const QString raw = intro + QStringLiteral("here are bullet points: one, apples, two, pears.");
        const QString out = BasicFormatter::format(raw);
        QVERIFY(out.endsWith(QStringLiteral("\n\nHere are some bullet points:\n\n1. Apples\n2. Pears")));
        QVERIFY(out.startsWith(QStringLiteral("This is filler prose number 0. This")));
    }
};

QTEST_GUILESS_MAIN(BasicFormatterTest)
#include "tst_basic_formatter.moc"
