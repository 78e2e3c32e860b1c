#include "app/Doctor.h"

#include "audio/AudioCaptureThread.h"
#include "core/Async.h"
#include "core/DataPaths.h"
#include "core/ProductPreferences.h"
#include "app/ProductionPorts.h"
#include "platform/services/PlatformServices.h"
#include "core/Error.h"
#include "platform/KeystrokeSender.h"
#include "platform/PermissionProbe.h"
#include "platform/ShortcutBackend.h"
#include "platform/WindowTracker.h"
#include "speech/AccurateSpeechEngine.h"
#include "speech/ModelVerifier.h"

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QGuiApplication>
#include <QSettings>
#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QRegularExpression>
#include <QStorageInfo>
#include <QTemporaryFile>
#include <QTimer>

#include <algorithm>
#include <cmath>

namespace dictora {

namespace {

using Status = DiagnosticCheck::Status;

// Below the level the controller treats as silence, nothing was heard.
constexpr float kSilenceRms = 0.0015f;

DiagnosticCheck check(const char *id, const char *title, QString mechanism, Status status, QString detail,
    QString advice = {}, bool required = true)
{
    return {QString::fromLatin1(id), QString::fromLatin1(title), std::move(mechanism), status, std::move(detail),
        std::move(advice), required};
}

QString megabytes(qint64 bytes)
{
    return QStringLiteral("%1 MB").arg(QString::number(double(bytes) / (1024.0 * 1024.0), 'f', 1));
}

QString dbfs(float rms)
{
    return QStringLiteral("%1 dBFS").arg(qRound(20.0 * std::log10(std::max(double(rms), 1e-6))));
}

// What the file checks found, off the GUI thread.
struct FileFindings {
    PermissionCheck access;
    bool modelExists = false;
    qint64 modelBytes = 0;
    bool modelVerified = false;
    QString dataProblem;
    qint64 freeBytes = -1;
    SpeechDeviceChoice device;
};

} // namespace

struct Doctor::Run {
    DiagnosticCheck shortcut, windows, clipboard, keystroke, access, microphone, model, device, data;
    int pending = 0;
    bool modelVerified = false;
    SpeechDeviceChoice choice;
};

Doctor::Doctor(Parts parts, QObject *parent) : QObject(parent), m_parts(std::move(parts)) {}

Doctor::~Doctor() = default;

QString Doctor::backendFor(const QStringList &report, const QString &service)
{
    const QRegularExpression line(QStringLiteral("service=%1 backend=(\\S+)").arg(QRegularExpression::escape(service)));
    for (const QString &entry : report)
        if (const QRegularExpressionMatch match = line.match(entry); match.hasMatch())
            return match.captured(1);
    return {};
}

void Doctor::run(Done done)
{
    m_waiting.append(std::move(done));
    if (m_run)
        return;
    m_run = std::make_shared<Run>();
    m_run->pending = 3;
    m_run->windows = windowCheck();
    m_run->clipboard = clipboardCheck();
    m_run->keystroke = keystrokeCheck();
    checkShortcut();
    testMicrophone();
    checkFilesElsewhere();
}

void Doctor::finish()
{
    if (!m_run || --m_run->pending > 0)
        return;
    DiagnosticReport report;
    const Run &r = *m_run;
    report.checks = {r.shortcut, r.windows, r.clipboard, r.keystroke, r.access, r.microphone, r.model, r.device, r.data};
    m_run.reset();
    const QList<Done> waiting = std::exchange(m_waiting, {});
    for (const Done &done : waiting)
        done(report);
}

void Doctor::checkShortcut()
{
    const QString backend = backendFor(m_parts.backendReport, QStringLiteral("shortcut"));
    const QString key = m_parts.shortcutKey.displayText();
    QString who = QStringLiteral("Dictora's own key grab");
    QString fix = QStringLiteral("Free the key in the program that holds it, or choose another in the Keyboard Shortcut sheet.");
    if (backend == QLatin1String("desktop-binding")) {
        who = QStringLiteral("a binding in the desktop's settings running \"dictora toggle\"");
        fix = QStringLiteral("Add the binding the Keyboard Shortcut sheet shows to your desktop's configuration.");
    } else if (backend == QLatin1String("portal-global-shortcuts")) {
        who = QStringLiteral("the desktop's global shortcuts portal");
        fix = QStringLiteral("Confirm the shortcut in the desktop's dialog (Keyboard Shortcut sheet), or pick a free key.");
    }
    // Binding through the portal may put the desktop's dialog in front of
    // the user: from outside the running program the desktop is only asked what it has.
    if (!m_parts.shortcutHeldHere && backend == QLatin1String("portal-global-shortcuts")) {
        const std::shared_ptr<Run> run = m_run;
        m_parts.shortcut.reportBinding(m_parts.shortcutKey,
            [this, run, backend, key, who, fix](const ShortcutBackend::BindingReport &report) {
                if (run != m_run)
                    return;
                if (!report.answered)
                    run->shortcut = check("shortcut", "Shortcut", backend, Status::warning,
                        QStringLiteral("%1, not checked: Dictora is not running").arg(key),
                        QStringLiteral("Start Dictora and run the check again."), false);
                else if (report.bound)
                    run->shortcut = check("shortcut", "Shortcut", backend, Status::ok,
                        QStringLiteral("%1, bound by %2 (it names the key: %3)").arg(key, who, report.description));
                else
                    run->shortcut = check("shortcut", "Shortcut", backend, Status::failed,
                        QStringLiteral("%1 is not bound: %2").arg(key, report.problem),
                        QStringLiteral("Start Dictora and confirm the shortcut in the desktop's dialog."));
                finish();
            });
        return;
    }
    m_run->shortcut = shortcutBoundHere(backend, key, who, fix);
    finish();
}

DiagnosticCheck Doctor::shortcutBoundHere(const QString &backend, const QString &key, const QString &who, const QString &fix)
{
    bool bound = false;
    if (m_parts.shortcutHeldHere) {
        bound = m_parts.shortcut.verifyInstalled(m_parts.shortcutKey);
    } else {
        bound = m_parts.shortcut.install(m_parts.shortcutKey);
        m_parts.shortcut.uninstall();
    }
    if (bound)
        return check("shortcut", "Shortcut", backend, Status::ok, QStringLiteral("%1, bound by %2").arg(key, who));
    const QString reason = m_parts.shortcut.failureReason();
    return check("shortcut", "Shortcut", backend, Status::failed,
        QStringLiteral("%1 is not bound%2").arg(key, reason.isEmpty() ? QString() : QStringLiteral(": ") + reason), fix);
}

DiagnosticCheck Doctor::windowCheck()
{
    const QString backend = backendFor(m_parts.backendReport, QStringLiteral("window-tracker"));
    if (const std::optional<FrontmostWindow> window = m_parts.windows.frontmostWindow()) {
        return check("target-window", "Target window", backend, Status::ok,
            QStringLiteral("the focused window is %1 (%2)").arg(window->applicationName, window->windowClass), {}, false);
    }
    return check("target-window", "Target window", backend, Status::warning,
        QStringLiteral("no window has the focus now"),
        QStringLiteral("Click into the window you dictate into before pressing the shortcut."), false);
}

DiagnosticCheck Doctor::clipboardCheck()
{
    const QString backend = backendFor(m_parts.backendReport, QStringLiteral("clipboard"));
    if (m_parts.hasClipboard)
        return check("clipboard", "Clipboard", backend, Status::ok, QStringLiteral("Dictora can offer the text to paste"));
    return check("clipboard", "Clipboard", backend, Status::failed, QStringLiteral("no clipboard is reachable"),
        QStringLiteral("Run Dictora inside your desktop session, where DISPLAY or WAYLAND_DISPLAY is set."));
}

DiagnosticCheck Doctor::keystrokeCheck()
{
    const QString backend = backendFor(m_parts.backendReport, QStringLiteral("paste-keystroke"));
    const QString reason = m_parts.keystrokes.failureReason();
    if (reason.isEmpty())
        return check("keystroke", "Paste keystroke", backend, Status::ok, QStringLiteral("Dictora can type the paste keys"));
    return check("keystroke", "Paste keystroke", backend, Status::failed, reason,
        QStringLiteral("Allow Dictora to type in the first-run guide's permission step, then run this again."));
}

void Doctor::testMicrophone()
{
    const QString name = m_parts.microphoneName.isEmpty() ? QStringLiteral("the system default") : m_parts.microphoneName;
    if (m_parts.microphoneBusy && m_parts.microphoneBusy()) {
        m_run->microphone = check("microphone", "Microphone", name, Status::warning,
            QStringLiteral("not tested: a dictation is recording"), QStringLiteral("Run the check again when it ends."));
        finish();
        return;
    }
    if (m_parts.microphoneName.isEmpty() || !m_parts.listMicrophones) {
        recordMicrophone(name, {});
        return;
    }
    QPointer<Doctor> self(this);
    m_parts.listMicrophones([self, name](const QStringList &names) {
        if (self)
            self->recordMicrophone(name, names.contains(self->m_parts.microphoneName) ? QString()
                : QStringLiteral("the chosen microphone is not connected, so the default input was tested"));
    });
}

// Three seconds from the input a dictation would use now; `missing` says the chosen one is not there.
void Doctor::recordMicrophone(const QString &name, const QString &missing)
{
    auto peak = std::make_shared<float>(0.f);
    MicrophonePort::Listeners listeners;
    listeners.onMeterLevels = [peak](AudioMeterLevels levels) {
        *peak = std::max({*peak, levels.first, levels.second, levels.third, levels.fourth});
    };
    QPointer<Doctor> self(this);
    m_parts.microphone.start(listeners, [this, self, name, peak, missing](std::optional<QString> error) {
        if (!self)
            return;
        if (error) {
            m_run->microphone = check("microphone", "Microphone", name, Status::failed, *error,
                QStringLiteral("Connect a microphone and check that the sound settings list it as an input."));
            finish();
            return;
        }
        QTimer::singleShot(m_parts.microphoneTestMs, this, [this, name, peak, missing] {
            m_parts.microphone.stop([this, name, peak, missing](MicrophonePort::Captured captured) {
                const QString level = QStringLiteral("%1 s recorded, level %2 (meter peak %3%)")
                                          .arg(double(captured.samples.size()) / 16000.0, 0, 'f', 1)
                                          .arg(dbfs(captured.rmsLevel))
                                          .arg(qRound(*peak * 100));
                // A missing chosen input matters more than a quiet test.
                if (!missing.isEmpty()) {
                    m_run->microphone = check("microphone", "Microphone", name, Status::warning,
                        level + QStringLiteral("; ") + missing,
                        QStringLiteral("Plug the chosen microphone in, or choose another in the Dictation sheet."));
                } else if (captured.rmsLevel < kSilenceRms) {
                    m_run->microphone = check("microphone", "Microphone", name, Status::warning,
                        level + QStringLiteral(": only silence"),
                        QStringLiteral("Speak during the test; if you did, check that the input is not muted or turned down."));
                } else {
                    m_run->microphone = check("microphone", "Microphone", name, Status::ok, level);
                }
                finish();
            });
        });
    });
}

void Doctor::checkFilesElsewhere()
{
    PermissionProbe *permissions = &m_parts.permissions;
    const AccuracyModelContract contract = m_parts.contract;
    const QString modelPath = m_parts.modelPath;
    const QString dataDirectory = m_parts.dataDirectory;
    const QString journalPath = m_parts.journalPath;
    const SpeechDevicePreference preference = m_parts.devicePreference;
    runElsewhere(
        this,
        [=]() {
            FileFindings f;
            try {
                f.access = permissions->accessibility(nullptr);
                const QFileInfo model(modelPath);
                f.modelExists = model.isFile();
                f.modelBytes = f.modelExists ? model.size() : 0;
                f.modelVerified = f.modelExists && ModelVerifier::isValidModel(modelPath, contract);
                f.device = chooseSpeechDevice(availableComputeDevices(), speechDevicePreferenceFromEnvironment(preference));
                if (!QDir().mkpath(dataDirectory)) {
                    f.dataProblem = QStringLiteral("the folder cannot be created");
                } else {
                    QTemporaryFile probe(QDir(dataDirectory).filePath(QStringLiteral(".doctor-XXXXXX")));
                    if (!probe.open())
                        f.dataProblem = QStringLiteral("the folder is not writable: ") + probe.errorString();
                    QFile journal(journalPath);
                    if (f.dataProblem.isEmpty() && journal.exists() && !journal.open(QIODevice::Append))
                        f.dataProblem = QStringLiteral("the journal is not writable: ") + journal.errorString();
                    f.freeBytes = QStorageInfo(dataDirectory).bytesAvailable();
                }
            } catch (...) {
                f.dataProblem = errorMessage(std::current_exception());
            }
            return f;
        },
        [this](FileFindings f) {
            Run &r = *m_run;
            const QString accessBackend = backendFor(m_parts.backendReport, QStringLiteral("permissions"));
            r.access = f.access.authorized
                           ? check("desktop-access", "Desktop access", accessBackend, Status::ok,
                               QStringLiteral("the desktop lets Dictora take the shortcut and type"))
                           : check("desktop-access", "Desktop access", accessBackend, Status::failed, f.access.reason,
                               QStringLiteral("Open Dictora's first-run guide at its permission step and follow it."));
            const QString fetch = QStringLiteral("Start Dictora to download it, or install a copy with \"dictora model install FILE\".");
            if (!f.modelExists)
                r.model = check("model", "Speech model", m_parts.contract.fileName, Status::failed,
                    QStringLiteral("not installed at %1").arg(m_parts.modelPath), fetch);
            else if (!f.modelVerified)
                r.model = check("model", "Speech model", m_parts.contract.fileName, Status::failed,
                    QStringLiteral("%1 installed, but it does not match the expected model").arg(megabytes(f.modelBytes)),
                    fetch);
            else
                r.model = check("model", "Speech model", m_parts.contract.fileName, Status::ok,
                    QStringLiteral("installed and verified, %1").arg(megabytes(f.modelBytes)));
            if (!f.dataProblem.isEmpty())
                r.data = check("data", "Data folder", m_parts.dataDirectory, Status::failed, f.dataProblem,
                    QStringLiteral("Make the folder and its files writable by you."));
            else if (f.freeBytes >= 0 && f.freeBytes < kLowSpaceBytes)
                r.data = check("data", "Data folder", m_parts.dataDirectory, Status::failed,
                    QStringLiteral("writable, but only %1 free").arg(megabytes(f.freeBytes)),
                    QStringLiteral("Free some space on that disk so new dictations can be saved."));
            else
                r.data = check("data", "Data folder", m_parts.dataDirectory, Status::ok,
                    QStringLiteral("folder and journal writable, %1 free").arg(megabytes(f.freeBytes)));
            r.modelVerified = f.modelVerified;
            r.choice = f.device;
            timeRecognition();
        });
}

// One second of silence twice: the second run is a warm recognition.
void Doctor::timeRecognition()
{
    const SpeechDeviceChoice choice = m_run->choice;
    const QString automatic = choice.useGpu ? QStringLiteral("chose %1").arg(choice.name)
                                            : QStringLiteral("chose the CPU") + (choice.reason.isEmpty() ? QString() : QStringLiteral(": ") + choice.reason);
    const auto report = [this, automatic](Status status, const QString &device, const QString &detail, const QString &advice) {
        m_run->device = check("device", "Recognition device", device, status,
            detail + QStringLiteral(" (%1 %2)").arg(rawValue(m_parts.devicePreference), automatic), advice);
        finish();
    };
    AccurateSpeechEngine *engine = m_parts.engine;
    if (engine && engine->deviceName().isEmpty()) {
        report(Status::warning, choice.name, QStringLiteral("not timed: the model is still loading"),
            QStringLiteral("Run the check again in a moment."));
        return;
    }
    if (!engine) {
        if (!m_run->modelVerified) {
            report(Status::warning, choice.name, QStringLiteral("not timed: the model is not ready"),
                QStringLiteral("Fix the speech model first."));
            return;
        }
        if (!m_ownEngine)
            m_ownEngine = std::make_unique<AccurateSpeechEngine>(m_parts.devicePreference);
        engine = m_ownEngine.get();
    }
    const auto failed = [report, choice](const QString &error) {
        report(Status::failed, choice.name, QStringLiteral("recognition failed: ") + error,
            QStringLiteral("Choose the CPU in Settings, or update the graphics driver."));
    };
    const auto timeTwice = [this, engine, report, failed] {
        whenReady(engine->transcribe(std::vector<float>(AccurateSpeechEngine::kWarmUpSamples, 0.f), 16000), this,
            [this, engine, report, failed](QFuture<AccurateSpeechResult> cold) {
                try {
                    cold.result();
                } catch (...) {
                    failed(errorMessage(std::current_exception()));
                    return;
                }
                whenReady(engine->transcribe(std::vector<float>(AccurateSpeechEngine::kWarmUpSamples, 0.f), 16000), this,
                    [engine, report, failed](QFuture<AccurateSpeechResult> warm) {
                        try {
                            const AccurateSpeechResult result = warm.result();
                            report(Status::ok, engine->deviceName(),
                                QStringLiteral("one warm recognition of a second took %1 ms").arg(result.durationMilliseconds),
                                {});
                        } catch (...) {
                            failed(errorMessage(std::current_exception()));
                        }
                    });
            });
    };
    if (engine != m_ownEngine.get() || !engine->deviceName().isEmpty()) {
        timeTwice();
        return;
    }
    whenReady(engine->load(m_parts.modelPath), this, [timeTwice, failed](QFuture<void> loaded) {
        try {
            loaded.waitForFinished();
        } catch (...) {
            failed(errorMessage(std::current_exception()));
            return;
        }
        timeTwice();
    });
}

std::function<void(std::function<void(QStringList)>)> Doctor::inputNames(AudioCaptureThread &capture)
{
    return [&capture](std::function<void(QStringList)> done) {
        whenReady(capture.listSources(), &capture,
            [done = std::move(done)](QFuture<QList<PulseCaptureEngine::Source>> listed) {
                QStringList names;
                for (const PulseCaptureEngine::Source &source : listed.result())
                    names.append(source.name);
                done(names);
            });
    };
}

// Without a running program: the same services, made here for the check.
DiagnosticReport Doctor::checkHere()
{
    QSettings settings(DataPaths::settingsFile(), QSettings::IniFormat);
    ProductPreferences preferences(settings);
    const std::unique_ptr<ShortcutBackend> shortcut = Platform::createShortcutBackend();
    const std::unique_ptr<WindowTracker> windows = Platform::createWindowTracker();
    const std::unique_ptr<KeystrokeSender> keystrokes = Platform::createKeystrokeSender();
    const std::unique_ptr<PermissionProbe> permissions = Platform::createPermissionProbe();
    const bool gui = qobject_cast<QGuiApplication *>(QCoreApplication::instance()) != nullptr;
    std::unique_ptr<Clipboard> clipboard;
    if (gui)
        clipboard = Platform::createClipboard();
    AudioCaptureThread capture;
    capture.setChosenSource(preferences.microphoneSource());
    CaptureMicrophonePort microphone(capture);

    AccuracyModelContract contract;
    try {
        contract = AccuracyModelContract::current();
    } catch (const Error &) {
        contract = AccuracyModelContract::product();
    }
    Doctor doctor({Platform::takeBackendReport(), *shortcut, preferences.keyboardShortcut(), false, *windows,
        *keystrokes, *permissions, gui, microphone, preferences.microphoneSource(), inputNames(capture), {}, contract,
        contract.installedPath(), nullptr,
        speechDevicePreferenceFromString(settings.value(QLatin1String(kSpeechDeviceSettingKey)).toString())
            .value_or(SpeechDevicePreference::automatic),
        DataPaths::dataDirectory(), DataPaths::journalFile()});
    DiagnosticReport result;
    QEventLoop loop;
    doctor.run([&result, &loop](const DiagnosticReport &report) {
        result = report;
        loop.quit();
    });
    loop.exec();
    return result;
}

} // namespace dictora
