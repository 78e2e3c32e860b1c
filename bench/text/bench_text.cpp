// Formatting and snippet throughput on a long dictation. Prints its figures.
#include "text/BasicFormatter.h"
#include "text/SnippetExpander.h"

#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QStringList>

#include <cstdio>

using namespace dictora;

namespace {

// `words` spoken words: prose with fillers, loose punctuation, times of day,
// snippet triggers, and a spoken list at the end.
QString makeDictation(int words)
{
    static const char *const vocabulary[] = {
        "the", "meeting", "we", "should", "probably", "move", "budget", "review", "to", "friday", "because",
        "team", "is", "travelling", "and", "btw", "numbers", "look", "fine", "asap", "please", "check",
        "report", "before", "lunch", "client", "wants", "draft", "signal", "one", "three", "project"};
    constexpr int vocabularySize = int(sizeof(vocabulary) / sizeof(vocabulary[0]));
    const QString list = QStringLiteral("okay here are three bullet points: one, call the client. two, um, send the draft."
                                        " three, book the room. thanks");
    const qsizetype listWords = list.count(u' ') + 1;
    QRandomGenerator random(42);
    QStringList out;
    int sentenceLength = 0;
    while (out.size() < words - listWords) {
        const quint32 roll = random.bounded(100);
        if (roll < 6)
            out << QStringLiteral("um");
        else if (roll < 9)
            out << QStringLiteral("uh,");
        else if (roll < 10)
            out << QStringLiteral("a.m.");
        out << QString::fromLatin1(vocabulary[random.bounded(vocabularySize)]);
        if (++sentenceLength > 8 && random.bounded(4) == 0) {
            out.last() += random.bounded(3) == 0 ? QStringLiteral(" ,") : QStringLiteral(" .");
            sentenceLength = 0;
        }
    }
    out << list;
    return out.join(u' ');
}

SnippetEntries makeSnippets()
{
    SnippetEntries entries;
    const QList<QPair<QString, QString>> pairs{
        {"btw", "by the way"}, {"asap", "as soon as possible"}, {"sig", "Best regards."},
        {"brb", "be right back"}, {"fyi", "for your information"}, {"tbd", "to be decided"}};
    for (const auto &pair : pairs)
        entries.append(SnippetEntry::create(pair.first, pair.second));
    for (int i = 0; i < 14; ++i) // triggers that never occur still cost a full search
        entries.append(SnippetEntry::create(QStringLiteral("zq%1x").arg(i), QStringLiteral("unused")));
    return entries;
}

template <typename Work>
double secondsPerRun(Work work, int minimumRuns)
{
    QElapsedTimer timer;
    timer.start();
    int runs = 0;
    while (runs < minimumRuns || timer.elapsed() < 1000) {
        work();
        ++runs;
    }
    return double(timer.nsecsElapsed()) / 1e9 / runs;
}

} // namespace

int main()
{
    const QString dictation = makeDictation(5000);
    const qsizetype chars = dictation.size();
    const qsizetype words = dictation.split(QRegularExpression(QStringLiteral("[\\s,.:]+")), Qt::SkipEmptyParts).size();

    QString formatted;
    const double formatSeconds = secondsPerRun([&] { formatted = BasicFormatter::format(dictation); }, 5);
    const SnippetEntries snippets = makeSnippets();
    QString expanded;
    const double snippetSeconds = secondsPerRun([&] { expanded = SnippetExpander::apply(formatted, snippets); }, 5);

    std::printf("dictation: %lld words, %lld UTF-16 characters\n", static_cast<long long>(words),
                static_cast<long long>(chars));
    std::printf("format:   %.2f ms per dictation, %.2f M characters/s\n", formatSeconds * 1e3,
                double(chars) / formatSeconds / 1e6);
    std::printf("snippets: %.2f ms per dictation (%lld entries), %.2f M characters/s\n", snippetSeconds * 1e3,
                static_cast<long long>(snippets.size()), double(formatted.size()) / snippetSeconds / 1e6);
    std::printf("output ends with a list: %s\n",
                formatted.contains(QStringLiteral("Here are some bullet points:\n\n1. ")) ? "yes" : "no");
    return 0;
}
