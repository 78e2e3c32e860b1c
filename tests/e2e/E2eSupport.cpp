#include "E2eSupport.h"

#include "support/TestSupport.h"

#include <csignal>
#include <cstdio>

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QPixmap>
#include <QRegularExpression>
#include <QScreen>
#include <QSettings>
#include <QStandardPaths>
#include <QTest>
#include <QUuid>

namespace dictora::test::e2e {

QString dictoraBinary() { return QStringLiteral(DICTORA_E2E_DICTORA); }
QString scriptedBinary() { return QStringLiteral(DICTORA_E2E_SCRIPTED); }

QString testData()
{
    QString dir = qEnvironmentVariable("DICTORA_SHARED_TESTDATA");
    if (dir.isEmpty())
        dir = QStringLiteral(DICTORA_E2E_TESTDATA);
    return QFileInfo(dir).isDir() ? QDir(dir).absolutePath() : QString();
}

ModelContract emptyWeightModel()
{
    return ModelContract{QStringLiteral("for-tests-ggml-tiny.en.bin"), 586836,
        QStringLiteral("dd6b7796204a1cdf7164666423034e6e1a7a3e9f5c22327b4b7974c4584bd82d"),
        // Nothing listens on the discard port: a download attempt fails at once.
        QStringLiteral("http://127.0.0.1:9/for-tests-ggml-tiny.en.bin")};
}

QString testModelPath(const QString &fileName) { return QDir(testData()).filePath(QStringLiteral("models/") + fileName); }

QString speechClip(const QString &dir, double seconds, QString *why)
{
    const QString path = QDir(dir).filePath(QStringLiteral("speech-%1s.wav").arg(seconds));
    const QString speech = QDir(testData()).filePath(QStringLiteral("speech/jfk.wav"));
    const QStringList trim{speech, path, QStringLiteral("trim"), QStringLiteral("0"), QString::number(seconds)};
    return runTool(QStringLiteral("sox"), trim, why) ? path : QString();
}

bool playIntoMicrophone(const QString &wavFile, QString *why)
{
    const QString sink = qEnvironmentVariable("WITH_PULSE_SINK", QStringLiteral("vmic_sink"));
    return runTool(QStringLiteral("paplay"), {QStringLiteral("-d"), sink, wavFile}, why);
}

bool runTool(const QString &program, const QStringList &arguments, QString *why, int timeoutMs)
{
    // The event loop keeps turning meanwhile: the test process owns X resources too.
    const ProgramRun tool = runProgram(program, arguments, {}, QProcessEnvironment::systemEnvironment(), timeoutMs);
    if (tool.exitCode == 0)
        return true;
    *why = QStringLiteral("%1 failed (%2): %3%4").arg(program).arg(tool.exitCode).arg(tool.out, tool.err);
    return false;
}

namespace {

QString artifactFolder(const QString &testName)
{
    QStringList parts = testName.split(u'/');
    for (QString &part : parts)
        part.replace(QRegularExpression(QStringLiteral("[^A-Za-z0-9_.-]+")), QStringLiteral("_"));
    return QDir(QStringLiteral(DICTORA_E2E_ARTIFACTS)).filePath(parts.join(u'/'));
}

} // namespace

void pressShortcut(x11::FakeKeyboard &keyboard) { keyboard.chord({}, keyboard.keycode("grave")); }

// --- DictoraRun -------------------------------------------------------------

DictoraRun::DictoraRun()
    : m_env(QProcessEnvironment::systemEnvironment())
{
    const QDir root(m_root.path());
    for (const char *sub : {"data/Dictora/Models", "config/Dictora", "runtime", "home"})
        root.mkpath(QLatin1String(sub));
    QFile::setPermissions(root.filePath(QStringLiteral("runtime")),
        QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    m_env.insert(QStringLiteral("XDG_DATA_HOME"), root.filePath(QStringLiteral("data")));
    m_env.insert(QStringLiteral("XDG_CONFIG_HOME"), root.filePath(QStringLiteral("config")));
    m_env.insert(QStringLiteral("XDG_RUNTIME_DIR"), root.filePath(QStringLiteral("runtime")));
    // No development copy of a model in a real home may stand in for ours.
    m_env.insert(QStringLiteral("HOME"), root.filePath(QStringLiteral("home")));
    m_env.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    m_env.remove(QStringLiteral("DICTORA_SCRIPTED_TRANSCRIPT"));
    // The voice-activity model as the product knows it, fetched from nowhere:
    // a test that wants it copies it into Models/.
    const QString vad = root.filePath(QStringLiteral("vad-contract.json"));
    writeFile(vad, R"({"fileName":"ggml-silero-v6.2.0.bin","bytes":885098,)"
                   R"("sha256":"2aa269b785eeb53a82983a20501ddf7c1d9c48e33ab63a41391ac6c9f7fb6987","url":"http://127.0.0.1:9/vad"})");
    m_env.insert(QStringLiteral("DICTORA_VAD_CONTRACT"), vad);
}

DictoraRun::~DictoraRun() { stop(); }

QString DictoraRun::dataDirectory() const { return QDir(m_root.path()).filePath(QStringLiteral("data/Dictora")); }
QString DictoraRun::logPath() const { return QDir(dataDirectory()).filePath(QStringLiteral("runtime.log")); }
QString DictoraRun::journalPath() const { return QDir(dataDirectory()).filePath(QStringLiteral("transcripts.jsonl")); }

void DictoraRun::writeSettings(const QVariantMap &values)
{
    QSettings settings(QDir(m_root.path()).filePath(QStringLiteral("config/Dictora/Dictora.ini")), QSettings::IniFormat);
    settings.setValue(QStringLiteral("onboarding.completed"), true);
    for (auto it = values.begin(); it != values.end(); ++it)
        settings.setValue(it.key(), it.value());
    settings.sync();
}

bool DictoraRun::useModel(const ModelContract &contract, bool installModel, QString *why)
{
    if (installModel) {
        const QString source = testModelPath(contract.fileName);
        const QString target = QDir(dataDirectory()).filePath(QStringLiteral("Models/") + contract.fileName);
        if (!QFile::copy(source, target)) {
            *why = QStringLiteral("cannot copy %1 to %2").arg(source, target);
            return false;
        }
    }
    const QJsonObject json{{QStringLiteral("fileName"), contract.fileName}, {QStringLiteral("bytes"), contract.bytes},
        {QStringLiteral("sha256"), contract.sha256}, {QStringLiteral("url"), contract.url}};
    const QString path = QDir(m_root.path()).filePath(QStringLiteral("model-contract.json"));
    if (!writeFile(path, QJsonDocument(json).toJson())) {
        *why = QStringLiteral("cannot write ") + path;
        return false;
    }
    m_env.insert(QStringLiteral("DICTORA_MODEL_CONTRACT"), path);
    return true;
}

void DictoraRun::writeSnippets(const QList<QPair<QString, QString>> &triggerAndExpansion)
{
    QJsonArray entries;
    for (const auto &[trigger, expansion] : triggerAndExpansion) {
        entries.append(QJsonObject{{QStringLiteral("id"), QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper()},
            {QStringLiteral("trigger"), trigger}, {QStringLiteral("expansion"), expansion}});
    }
    writeFile(QDir(dataDirectory()).filePath(QStringLiteral("snippets.json")), QJsonDocument(entries).toJson());
}

bool DictoraRun::start(const QString &binary, QString *why)
{
    const int started = countLines(QStringLiteral("app started dataDirectory="));
    const int installed = countLines(QStringLiteral("global shortcut event tap installed"));
    m_readyBefore = countLines(QStringLiteral("mandatory accuracy model loaded and ready"));
    m_process = std::make_unique<QProcess>();
    m_process->setProcessEnvironment(m_env);
    m_process->setProcessChannelMode(QProcess::MergedChannels);
    QObject::connect(m_process.get(), &QProcess::readyRead, [this] { m_output += m_process->readAll(); });
    m_process->start(binary, {});
    if (!m_process->waitForStarted(10000)) {
        *why = QStringLiteral("cannot start %1: %2").arg(binary, m_process->errorString());
        return false;
    }
    return waitForLines(QStringLiteral("app started dataDirectory="), started + 1, 30000, why)
        && waitForLines(QStringLiteral("global shortcut event tap installed"), installed + 1, 30000, why);
}

bool DictoraRun::waitUntilModelReady(QString *why)
{
    return waitForLines(QStringLiteral("mandatory accuracy model loaded and ready"), m_readyBefore + 1, 60000, why);
}

qint64 DictoraRun::pid() const { return m_process ? m_process->processId() : 0; }

bool DictoraRun::isRunning() const { return m_process && m_process->state() != QProcess::NotRunning; }

bool DictoraRun::stop(QString *why)
{
    if (!isRunning())
        return true;
    m_process->terminate();
    if (!m_process->waitForFinished(10000)) {
        m_process->kill();
        m_process->waitForFinished(5000);
        if (why)
            *why = QStringLiteral("dictora ignored SIGTERM and was killed");
        return false;
    }
    m_output += m_process->readAll();
    if (m_process->exitStatus() != QProcess::NormalExit || m_process->exitCode() != 0) {
        if (why)
            *why = QStringLiteral("dictora ended with status %1 (%2):\n%3")
                       .arg(m_process->exitCode())
                       .arg(m_process->exitStatus() == QProcess::NormalExit ? "exit" : "crash")
                       .arg(QString::fromLocal8Bit(m_output));
        return false;
    }
    return true;
}

int DictoraRun::runVerb(const QString &binary, const QStringList &arguments, QString *output)
{
    const ProgramRun verb = runProgram(binary, arguments, {}, m_env, 30000);
    if (output)
        *output = verb.out + verb.err;
    return verb.exitCode;
}

QString DictoraRun::logText() const { return QString::fromUtf8(readFile(logPath())); }

int DictoraRun::countLines(const QString &prefix) const
{
    const QStringList all = messages();
    return int(std::count_if(all.begin(), all.end(), [&](const QString &m) { return m.startsWith(prefix); }));
}

bool DictoraRun::waitForLines(const QString &prefix, int count, int timeoutMs, QString *why)
{
    QDeadlineTimer deadline(timeoutMs);
    while (countLines(prefix) < count) {
        if (!isRunning()) {
            *why = QStringLiteral("dictora ended before logging \"%1\":\n%2\nlog:\n%3")
                       .arg(prefix, programOutput(), logText());
            return false;
        }
        if (deadline.hasExpired()) {
            *why = QStringLiteral("no \"%1\" line #%2 within %3 ms; log:\n%4").arg(prefix).arg(count).arg(timeoutMs).arg(logText());
            return false;
        }
        QTest::qWait(20);
    }
    return true;
}

QList<QJsonObject> DictoraRun::records(QString *why) const
{
    QList<QJsonObject> result;
    for (const QByteArray &line : readFile(journalPath()).split('\n')) {
        if (line.trimmed().isEmpty())
            continue;
        const QJsonDocument doc = QJsonDocument::fromJson(line);
        if (!doc.isObject()) {
            if (why)
                *why = QStringLiteral("journal line is not a JSON object: ") + QString::fromUtf8(line);
            continue;
        }
        result.append(doc.object());
    }
    return result;
}

QString DictoraRun::programOutput()
{
    if (m_process)
        m_output += m_process->readAll();
    return QString::fromLocal8Bit(m_output);
}

void DictoraRun::keepArtifacts(const QString &folder)
{
    // The artifact folder is root's while the Sway runs go as Sway's user:
    // there the test output gets the log instead.
    if (!QDir().mkpath(folder) || !QFileInfo(folder).isWritable()) {
        qWarning().noquote() << "runtime log:\n" << logText() << "\nprogram output:\n" << programOutput();
        return;
    }
    const QDir out(folder);
    for (const QString &source : {logPath(), journalPath(), QDir(dataDirectory()).filePath(QStringLiteral("snippets.json")),
             QDir(m_root.path()).filePath(QStringLiteral("config/Dictora/Dictora.ini"))}) {
        QFile::remove(out.filePath(QFileInfo(source).fileName()));
        QFile::copy(source, out.filePath(QFileInfo(source).fileName()));
    }
    writeFile(out.filePath(QStringLiteral("dictora-output.txt")), programOutput().toUtf8());
    if (qobject_cast<QGuiApplication *>(QCoreApplication::instance()) && QGuiApplication::primaryScreen())
        QGuiApplication::primaryScreen()->grabWindow(0).save(out.filePath(QStringLiteral("screen.png")));
    qWarning("artifacts kept in %s", qPrintable(folder));
}

// --- the shared fixture ----------------------------------------------------------

int checkEnvironment()
{
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        return rigMissing("needs an X display: run under tests/support/x11/with-x");
    if (qEnvironmentVariableIsEmpty("PULSE_SERVER"))
        return rigMissing("needs a sound server: run under tests/support/pulse/with-pulse");
    if (testData().isEmpty())
        return skipAll("../shared/testdata is not beside the repository");
    for (const char *tool : {"l3afpad", "xterm", "xdotool", "paplay", "sox"}) {
        if (QStandardPaths::findExecutable(QLatin1String(tool)).isEmpty())
            return rigMissing((QByteArray(tool) + " is not installed").constData());
    }
    for (const QString &binary : {dictoraBinary(), scriptedBinary()}) {
        if (!QFileInfo(binary).isExecutable()) {
            std::fprintf(stderr, "FAIL: %s has not been built\n", qPrintable(binary));
            return 1;
        }
    }
    // The editor and terminal save what they receive as UTF-8 only in a UTF-8 locale.
    qputenv("LC_ALL", "C.UTF-8");
    return 0;
}

bool E2eCase::beginCase(const ModelContract &model, bool installModel, QString *why)
{
    scratch = std::make_unique<QTemporaryDir>();
    run = std::make_unique<DictoraRun>();
    if (!scratch->isValid() || !run->isValid()) {
        *why = QStringLiteral("cannot create temporary folders");
        return false;
    }
    if (!keyboard.isOpen()) {
        *why = QStringLiteral("no XTEST keyboard on the display");
        return false;
    }
    run->writeSettings();
    return run->useModel(model, installModel, why);
}

void E2eCase::endCase()
{
    if (run && QTest::currentTestFailed()) {
        QString name = QCoreApplication::applicationName() + u'/' + QLatin1String(QTest::currentTestFunction());
        if (QTest::currentDataTag())
            name += u'/' + QLatin1String(QTest::currentDataTag());
        run->keepArtifacts(artifactFolder(name));
    }
    run.reset();
    scratch.reset();
}

bool E2eCase::startScripted(const QString &transcript, QString *why)
{
    if (!transcript.isNull())
        run->setEnvironment(QStringLiteral("DICTORA_SCRIPTED_TRANSCRIPT"), transcript);
    return run->start(scriptedBinary(), why) && run->waitUntilModelReady(why);
}

bool E2eCase::verb(const QString &name, QString *why)
{
    QString output;
    if (run->runVerb(dictoraBinary(), {name}, &output) == 0)
        return true;
    *why = QStringLiteral("dictora %1 failed: %2").arg(name, output);
    return false;
}

bool E2eCase::toggleUntil(const QString &prefix, QString *why)
{
    const int seen = run->countLines(prefix);
    return verb(QStringLiteral("toggle"), why) && run->waitForLines(prefix, seen + 1, 60000, why);
}

bool E2eCase::startDictation(int ordinal, QString *why)
{
    pressShortcut(keyboard);
    return run->waitForLines(QStringLiteral("recording started session="), ordinal, 30000, why);
}

void E2eCase::tapBeforeProgramReacts()
{
    const pid_t pid = pid_t(run->pid());
    ::kill(pid, SIGSTOP);
    pressShortcut(keyboard);
    ::kill(pid, SIGCONT);
}

bool E2eCase::finishDictation(int ordinal, double speechSeconds, QString *why)
{
    const QString clip = speechClip(scratch->path(), speechSeconds, why);
    if (clip.isEmpty() || !playIntoMicrophone(clip, why))
        return false;
    tapBeforeProgramReacts();
    return run->waitForLines(QStringLiteral("recording completed outcome="), ordinal, 120000, why);
}

} // namespace dictora::test::e2e
