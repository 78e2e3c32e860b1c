#pragma once

#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QVariantMap>

#include "X11TestSupport.h"
#include "support/TestSupport.h"

#include <memory>

// Drives the real Dictora executables from outside, the way a user's desktop
// does: its own data and config folders, a real X display and sound server
// (from the with-x and with-pulse wrappers), real editors as paste targets.
namespace dictora::test::e2e {

QString dictoraBinary();
QString scriptedBinary();
// ../shared/testdata, or empty when it is not beside the repository.
QString testData();

struct ModelContract {
    QString fileName;
    qint64 bytes = 0;
    QString sha256;
    QString url;
};
// The empty-weight tiny.en test model: loads and recognises nothing.
ModelContract emptyWeightModel();
QString testModelPath(const QString &fileName);

// A speech clip of the given length cut from the shared recording into dir.
QString speechClip(const QString &dir, double seconds, QString *why);
// Plays a WAV file into the virtual microphone and returns once it has drained.
bool playIntoMicrophone(const QString &wavFile, QString *why);
// Runs a helper tool (sox, paplay, xdotool) to its end; false with its output in *why.
bool runTool(const QString &program, const QStringList &arguments, QString *why, int timeoutMs = 60000);

using dictora::test::linesInOrder;

// One installation of Dictora in a throw-away home, and the running process.
class DictoraRun {
public:
    DictoraRun();
    ~DictoraRun();
    DictoraRun(const DictoraRun &) = delete;
    DictoraRun &operator=(const DictoraRun &) = delete;

    bool isValid() const { return m_root.isValid(); }
    QString root() const { return m_root.path(); }
    QString dataDirectory() const;
    QString logPath() const;
    QString journalPath() const;

    // Dictora.ini (QSettings INI); onboarding is marked completed unless values say otherwise.
    void writeSettings(const QVariantMap &values = {});
    // Writes the contract file; with installModel the model file is put in
    // place beforehand, so nothing is downloaded.
    bool useModel(const ModelContract &contract, bool installModel, QString *why);
    void writeSnippets(const QList<QPair<QString, QString>> &triggerAndExpansion);
    void setEnvironment(const QString &name, const QString &value) { m_env.insert(name, value); }

    // Starts the program; waits until the log has this start and the shortcut held.
    bool start(const QString &binary, QString *why);
    // Waits for the model of the latest start.
    bool waitUntilModelReady(QString *why);
    qint64 pid() const;
    bool isRunning() const;
    // SIGTERM, as a desktop session ends it; false if it had to be killed or exited badly.
    bool stop(QString *why = nullptr);

    // Runs the same installation's command line (e.g. "toggle") to its end.
    int runVerb(const QString &binary, const QStringList &arguments, QString *output = nullptr);

    QString logText() const;
    QStringList messages() const { return logMessages(logText()); }
    int countLines(const QString &prefix) const;
    // Waits until at least `count` lines start with prefix; fails early once the program ended.
    bool waitForLines(const QString &prefix, int count, int timeoutMs, QString *why);
    QList<QJsonObject> records(QString *why = nullptr) const;
    QString programOutput();

    // The log, journal, program output and a screenshot, for a failed test.
    void keepArtifacts(const QString &folder);

private:
    QTemporaryDir m_root;
    QProcessEnvironment m_env;
    std::unique_ptr<QProcess> m_process;
    QByteArray m_output;
    int m_readyBefore = 0;
};

using x11::activeWindow;
using x11::Terminal;
using x11::TextEditor;
using x11::windowPid;

// Taps the default shortcut, the key left of 1.
void pressShortcut(x11::FakeKeyboard &keyboard);

// 0 when the run can go on; else it printed why (a display, sound server, the
// test data, editor or terminal missing) and this is the exit code.
int checkEnvironment();

// What every run owns: the keyboard, a scratch folder and the installation,
// whose files are kept when the test function fails.
class E2eCase : public QObject {
    Q_OBJECT
protected:
    x11::FakeKeyboard keyboard;
    std::unique_ptr<QTemporaryDir> scratch;
    std::unique_ptr<DictoraRun> run;
    QString why; // what the step that failed said

    // A fresh scratch folder and installation for one test function or row.
    bool beginCase(const ModelContract &model, bool installModel, QString *why);
    // Keeps the artifacts (in <build>/tests/e2e/artifacts/<test>) when the
    // function failed, then stops the program.
    void endCase();
    // Starts the scripted program hearing `transcript` (its default when null); waits for the model.
    bool startScripted(const QString &transcript, QString *why);
    // "dictora <name>" (toggle, press, release) to the running program; why
    // gets what it printed when it fails.
    bool verb(const QString &name, QString *why);
    // "dictora toggle", then waits for one more log line starting with prefix.
    bool toggleUntil(const QString &prefix, QString *why);
    // Presses the shortcut and waits for the recording to start.
    bool startDictation(int ordinal, QString *why);
    // Plays speech, taps again (over before the program sees it, as when a
    // real recogniser takes longer than a key press) and waits for the end.
    bool finishDictation(int ordinal, double speechSeconds, QString *why);
    // Pauses the program for a tap of the shortcut, so the key is up again
    // before the program handles the press.
    void tapBeforeProgramReacts();
};

} // namespace dictora::test::e2e

#define DICTORA_E2E_TEST_MAIN(TestClass)                                   \
    int main(int argc, char **argv)                                        \
    {                                                                      \
        if (const int skip = dictora::test::e2e::checkEnvironment())       \
            return skip;                                                   \
        QGuiApplication app(argc, argv);                                   \
        TestClass tc;                                                      \
        return QTest::qExec(&tc, argc, argv);                              \
    }
