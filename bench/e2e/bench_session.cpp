// The GUI thread's stalls over a whole session of the real program
// (dictora-scripted, whose recogniser returns a fixed text): start-up, the
// first-run guide's permission polling, the settings a user changes, and 20
// dictations pasted into an editor; on X11 (Xvfb and openbox) and on a
// headless Sway. The program measures its own event loop
// (DICTORA_MEASURE_GUI_STALLS=session) and says, step by step, its longest
// stall and what it was doing then. Started bare, it runs itself once under
// each desktop's wrappers; `--desktop x11` or `--desktop sway` picks one.
#include "E2eSupport.h"
#include "SwaySupport.h"

#include "core/SingleInstance.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QGuiApplication>
#include <QJsonObject>
#include <QProcess>
#include <QTest>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <vector>

using namespace dictora::test::e2e;
using dictora::test::x11::FakeKeyboard;
namespace sway = dictora::test::sway;

namespace {

constexpr int kDictations = 20;
constexpr qint64 kTargetMs = 16;

struct Step {
    QString group; // what kind of step, for the summary
    QString name;
    qint64 longestMs = 0;
    QString during; // the program's own word for what it was doing
};

int fail(const QString &why)
{
    std::fprintf(stderr, "bench_session: %s\n", qPrintable(why));
    return 1;
}

class Session {
public:
    explicit Session(DictoraRun &run) : m_run(run) {}

    std::optional<QString> ask(const QString &command)
    {
        return dictora::sendToRunningInstance(
            QDir(m_run.root()).filePath(QStringLiteral("runtime/dictora.socket")), command, 10000);
    }
    // Closes the step that has run since the last one: the program's longest stall meanwhile.
    bool measure(const QString &group, const QString &name, QString *why)
    {
        const std::optional<QString> answer = ask(QStringLiteral("gui-stalls"));
        if (!answer || !answer->startsWith(QLatin1String("longest="))) {
            *why = QStringLiteral("no stall report after %1: %2").arg(name, answer.value_or(QStringLiteral("no answer")));
            return false;
        }
        const QString during = answer->section(QStringLiteral(" during="), 1);
        m_steps.push_back({group, name, answer->section(QLatin1Char(' '), 0, 0).mid(8).toLongLong(), during});
        return true;
    }
    const std::vector<Step> &steps() const { return m_steps; }

private:
    DictoraRun &m_run;
    std::vector<Step> m_steps;
};

void report(const char *desktop, const std::vector<Step> &steps)
{
    std::map<QString, std::vector<qint64>> byGroup;
    std::vector<qint64> all;
    const Step *worst = &steps.front();
    for (const Step &step : steps) {
        byGroup[step.group].push_back(step.longestMs);
        all.push_back(step.longestMs);
        if (step.longestMs > worst->longestMs)
            worst = &step;
    }
    std::sort(all.begin(), all.end());
    std::printf("%s: GUI thread longest stall per step (%zu steps, target <= %lld ms)\n", desktop, steps.size(),
        kTargetMs);
    for (auto &[group, values] : byGroup) {
        std::sort(values.begin(), values.end());
        std::printf("  %-28s steps=%-3zu median=%lld worst=%lld ms\n", qPrintable(group), values.size(),
            values[values.size() / 2], values.back());
    }
    std::printf("  %-28s steps=%-3zu median=%lld worst=%lld ms\n", "whole session", all.size(), all[all.size() / 2],
        all.back());
    std::printf("  worst: %lld ms in \"%s\", while %s\n", worst->longestMs, qPrintable(worst->name),
        qPrintable(worst->during.isEmpty() ? QStringLiteral("(unnamed)") : worst->during));
    for (const Step &step : steps) {
        if (step.longestMs > kTargetMs)
            std::printf("  over target: %lld ms in \"%s\", while %s\n", step.longestMs, qPrintable(step.name),
                qPrintable(step.during));
    }
}

// The changes a user makes in the appearance, snippets and shortcut sheets.
const QList<QPair<QString, QString>> &settingsChanges()
{
    static const QList<QPair<QString, QString>> changes{
        {QStringLiteral("overlay.microphone.location"), QStringLiteral("topLeft")},
        {QStringLiteral("overlay.microphone.location"), QStringLiteral("bottomRight")},
        {QStringLiteral("overlay.microphone.location"), QStringLiteral("bottomMiddle")},
        {QStringLiteral("overlay.microphone.size"), QStringLiteral("large")},
        {QStringLiteral("overlay.microphone.size"), QStringLiteral("medium")},
        {QStringLiteral("overlay.microphone.opacity"), QStringLiteral("0.6")},
        {QStringLiteral("overlay.microphone.showsIcon"), QStringLiteral("false")},
        {QStringLiteral("overlay.microphone.showsIcon"), QStringLiteral("true")},
        {QStringLiteral("transcription.formatting.enabled"), QStringLiteral("false")},
        {QStringLiteral("transcription.formatting.enabled"), QStringLiteral("true")},
        {QStringLiteral("transcription.snippets.enabled"), QStringLiteral("false")},
        {QStringLiteral("transcription.snippets.enabled"), QStringLiteral("true")},
        {QStringLiteral("keyboard.shortcut.v1"), QStringLiteral(R"({"keyCode":40,"modifiers":6,"keyLabel":"K"})")},
        {QStringLiteral("keyboard.shortcut.v1"), QStringLiteral(R"({"keyCode":50,"modifiers":0,"keyLabel":"`"})")},
    };
    return changes;
}

int runSession(const QString &desktop)
{
    const bool onX11 = desktop == QLatin1String("x11");
    QTemporaryDir scratch;
    DictoraRun run;
    Session session(run);
    QString why;
    run.writeSettings({{QStringLiteral("onboarding.completed"), false}});
    if (!run.useModel(emptyWeightModel(), true, &why))
        return fail(why);
    const QString text = QStringLiteral("Please send the invoice today.");
    run.setEnvironment(QStringLiteral("DICTORA_SCRIPTED_TRANSCRIPT"), text);
    run.setEnvironment(QStringLiteral("DICTORA_MEASURE_GUI_STALLS"), QStringLiteral("session"));
    if (!onX11)
        run.setEnvironment(QStringLiteral("QT_QPA_PLATFORM"), QString());
    const QString clip = speechClip(scratch.path(), 1.0, &why);
    if (clip.isEmpty() || !run.start(scriptedBinary(), &why) || !run.waitUntilModelReady(&why)
        || !session.measure(QStringLiteral("start-up"), QStringLiteral("start-up to model ready"), &why))
        return fail(why);

    // The first-run guide polls the permissions every 0.75 s while it is shown.
    QTest::qWait(6000);
    if (!session.measure(QStringLiteral("onboarding polling"), QStringLiteral("6 s of the first-run guide"), &why))
        return fail(why);

    for (const auto &[key, value] : settingsChanges()) {
        const std::optional<QString> answer = session.ask(QStringLiteral("set %1 %2").arg(key, value));
        if (answer != QStringLiteral("ok"))
            std::printf("  (%s=%s: %s)\n", qPrintable(key), qPrintable(value),
                qPrintable(answer.value_or(QStringLiteral("no answer"))));
        QTest::qWait(400); // the indicator moves and redraws meanwhile
        if (!session.measure(QStringLiteral("settings changes"), key + QLatin1Char('=') + value, &why))
            return fail(why);
    }
    if (session.ask(QStringLiteral("finish-onboarding")) != QStringLiteral("ok"))
        return fail(QStringLiteral("the first-run guide did not finish"));
    QTest::qWait(1000);
    if (!session.measure(QStringLiteral("onboarding finished"), QStringLiteral("first-run guide finished"), &why))
        return fail(why);

    std::unique_ptr<FakeKeyboard> keyboard;
    std::unique_ptr<TextEditor> editor;
    std::unique_ptr<sway::Foot> foot;
    if (onX11) {
        keyboard = std::make_unique<FakeKeyboard>();
        editor = std::make_unique<TextEditor>(*keyboard, scratch.filePath(QStringLiteral("editor.txt")));
        if (!editor->start(&why))
            return fail(why);
    } else {
        // Named foot so it is taken for the terminal it is (Ctrl+Shift+V).
        foot = std::make_unique<sway::Foot>(QStringLiteral("foot"), scratch.filePath(QStringLiteral("target.txt")));
        if (!foot->start(&why))
            return fail(why);
    }
    // X11: the key as the user presses it. Sway: the desktop's binding runs
    // `dictora toggle`, which writes this to the instance socket.
    const auto press = [&] {
        if (keyboard)
            pressShortcut(*keyboard);
        else
            session.ask(QStringLiteral("toggle"));
    };
    int pasted = 0;
    for (int i = 1; i <= kDictations; ++i) {
        press();
        if (!run.waitForLines(QStringLiteral("recording started session="), i, 30000, &why)
            || !playIntoMicrophone(clip, &why))
            return fail(QStringLiteral("dictation %1 did not start: %2\n%3").arg(i).arg(why, run.logText()));
        press();
        // The journal is appended before "recording completed" is logged.
        if (!run.waitForLines(QStringLiteral("recording completed outcome="), i, 30000, &why) || run.records().size() < i)
            return fail(QStringLiteral("dictation %1 did not finish: %2\n%3").arg(i).arg(why, run.logText()));
        pasted += run.records().at(i - 1).value(QStringLiteral("outcome")).toString() == QLatin1String("pasted");
        if (!session.measure(QStringLiteral("dictations"), QStringLiteral("dictation %1").arg(i), &why))
            return fail(why);
    }
    const char *name = onX11 ? "x11 (Xvfb, openbox)" : "sway (headless)";
    report(name, session.steps());
    std::printf("  dictations pasted: %d of %d\n", pasted, kDictations);
    run.stop();
    return 0;
}

// Runs this program again under one desktop's wrappers; its output goes straight through.
int runUnder(const char *self, const QString &desktop)
{
    QStringList arguments{QStringLiteral(DICTORA_E2E_WITH_PULSE)};
    arguments << QFileInfo(QString::fromLocal8Bit(self)).absoluteFilePath() << QStringLiteral("--desktop") << desktop;
    const QString wrapper = desktop == QLatin1String("x11") ? QStringLiteral(DICTORA_E2E_WITH_X)
                                                            : QStringLiteral(DICTORA_E2E_WITH_SWAY);
    QProcess child;
    child.setProcessChannelMode(QProcess::ForwardedChannels);
    child.start(wrapper, arguments);
    if (!child.waitForFinished(-1) || child.exitStatus() != QProcess::NormalExit)
        return fail(QStringLiteral("the %1 run did not end normally").arg(desktop));
    return child.exitCode();
}

} // namespace

int main(int argc, char **argv)
{
    QString desktop;
    for (int i = 1; i + 1 < argc; ++i) {
        if (qstrcmp(argv[i], "--desktop") == 0)
            desktop = QString::fromLocal8Bit(argv[i + 1]);
    }
    const bool wrapped = desktop == QLatin1String("x11") ? !qEnvironmentVariableIsEmpty("DISPLAY")
                                                         : !qEnvironmentVariableIsEmpty("SWAYSOCK");
    if (desktop.isEmpty() || !wrapped || qEnvironmentVariableIsEmpty("PULSE_SERVER")) {
        if (!qEnvironmentVariableIsEmpty("DICTORA_BENCH_WRAPPED"))
            return fail(QStringLiteral("the wrappers gave no display or sound server"));
        qputenv("DICTORA_BENCH_WRAPPED", "1");
        QCoreApplication app(argc, argv);
        int rc = 0;
        for (const QString &each : desktop.isEmpty() ? QStringList{QStringLiteral("x11"), QStringLiteral("sway")}
                                                     : QStringList{desktop})
            rc = std::max(rc, runUnder(argv[0], each));
        return rc;
    }
    if (testData().isEmpty())
        return fail(QStringLiteral("../shared/testdata is not beside the repository"));
    qputenv("LC_ALL", "C.UTF-8");
    if (desktop == QLatin1String("x11")) {
        if (const int skip = checkEnvironment())
            return skip == 77 ? 0 : skip;
        QGuiApplication app(argc, argv);
        return runSession(desktop);
    }
    QCoreApplication app(argc, argv); // it shows no window of its own
    return runSession(desktop);
}
