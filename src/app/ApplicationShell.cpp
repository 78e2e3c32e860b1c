#include "app/ApplicationShell.h"

#include "core/Async.h"
#include "core/DataPaths.h"
#include "core/GuiStallWatch.h"
#include "core/RuntimeLog.h"
#include "core/SettingsFile.h"
#include "core/SingleInstance.h"
#include "app/Doctor.h"
#include "dictation/DictoraController.h"
#include "history/HistoryStore.h"
#include "history/PendingJournal.h"
#include "history/TranscriptJournal.h"
#include "home/HomeWindow.h"
#include "home/Style.h"
#include "home/sheets/DiagnosticsSheet.h"
#include "home/sheets/RecognitionSettingsView.h"
#include "home/sheets/ShortcutSettingsView.h"
#include "home/sheets/SnippetsSettingsView.h"
#include "onboarding/ui/BundledFonts.h"
#include "onboarding/ui/OnboardingView.h"
#include "overlay/DictoraStatusItemController.h"
#include "overlay/MicIndicatorView.h"
#include "overlay/MicOverlayPanel.h"
#include "platform/services/PlatformServices.h"
#include "speech/AccuracyModelManager.h"
#include "speech/AccurateSpeechEngine.h"
#include "audio/AudioCaptureThread.h"
#include "text/paste/LastDictation.h"
#include "text/paste/PasteService.h"
#include "text/SnippetStore.h"

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QProcess>
#include <QSettings>
#include <QSocketNotifier>
#include <QThreadPool>
#include <QTimer>
#include <QStandardPaths>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

namespace dictora {

namespace {

int signalPipe[2] = {-1, -1};

void onTerminationSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] auto n = ::write(signalPipe[1], &byte, 1);
}

// SIGTERM and SIGINT end the event loop normally, so the instance socket is removed.
void quitOnTerminationSignals(QCoreApplication &app)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0)
        return;
    auto *notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &app);
    // exit(), not quit(): the indicator refuses to close, which would veto a quit.
    QObject::connect(notifier, &QSocketNotifier::activated, &app, [] {
        // Each signal once: a later one must still reach a question asked while quitting.
        char byte = 0;
        [[maybe_unused]] auto n = ::read(signalPipe[0], &byte, 1);
        QCoreApplication::exit(0);
    });
    struct sigaction action{};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    // A file-size limit (ulimit -f) must fail the write, not kill the process
    // with dictations still in memory.
    std::signal(SIGXFSZ, SIG_IGN);
}

// Dictations the journal refused are still in memory: one more try, then the
// user decides. A further SIGTERM while the question is open counts as Quit.
void settlePendingRecordsBeforeQuit(PendingJournal &pending, const RuntimeLog &log)
{
    for (;;) {
        QString error;
        try {
            pending.flush();
        } catch (const Error &e) {
            error = e.description();
        }
        const qsizetype count = pending.count();
        if (count == 0)
            return;
        log.write(QStringLiteral("quitting with unsaved dictations pending=%1 error=%2").arg(count).arg(error));
        QMessageBox box(QMessageBox::Warning, QStringLiteral("Dictations Not Saved"),
            QStringLiteral("%1 dictation(s) could not be saved to your History: %2\n\n"
                           "Free some space or fix the data folder, then choose Try Again. "
                           "If you quit now they are lost.")
                .arg(count)
                .arg(error));
        QString texts;
        for (const TranscriptRecord &record : pending.pending())
            texts += record.transcript + QLatin1Char('\n');
        box.setDetailedText(texts);
        QPushButton *retry = box.addButton(QStringLiteral("Try Again"), QMessageBox::AcceptRole);
        QPushButton *quit = box.addButton(QStringLiteral("Quit Anyway"), QMessageBox::DestructiveRole);
        box.setDefaultButton(retry);
        log.write(QStringLiteral("quit notice shown pending=%1").arg(count));
        box.exec();
        if (box.clickedButton() == retry)
            continue;
        if (box.clickedButton() != quit) {
            // Closed by a signal: one last try before leaving.
            try {
                pending.flush();
            } catch (const Error &) {
            }
        }
        const QList<TranscriptRecord> lost = pending.pending();
        if (lost.isEmpty())
            return;
        // Last resort: the session's own log keeps them.
        for (const TranscriptRecord &record : lost)
            std::fprintf(stderr, "dictora: unsaved dictation: %s\n", record.toJsonLine().constData());
        log.write(QStringLiteral("app quit with unsaved dictations count=%1").arg(lost.size()));
        return;
    }
}

void openSoundSettings(const RuntimeLog &log)
{
    const QList<QStringList> launchers{{QStringLiteral("gnome-control-center"), QStringLiteral("sound")},
        {QStringLiteral("systemsettings"), QStringLiteral("kcm_pulseaudio")}, {QStringLiteral("pavucontrol")}};
    for (const QStringList &launcher : launchers) {
        if (QStandardPaths::findExecutable(launcher.first()).isEmpty())
            continue;
        QProcess::startDetached(launcher.first(), launcher.mid(1));
        return;
    }
    log.write(QStringLiteral("no sound settings application found"));
}

// A setting changed as its sheet would change it; "ok" or what went wrong.
QString applyMeasuredSetting(ProductPreferences &preferences, DictoraController &controller, const QString &key,
    const QString &value)
{
    const bool on = value == QLatin1String("true");
    if (key == QLatin1String(ProductPreferences::kLocationKey) && screenAnchorFromRaw(value))
        preferences.setMicrophoneLocation(*screenAnchorFromRaw(value));
    else if (key == QLatin1String(ProductPreferences::kSizeKey))
        preferences.setMicrophoneSize(value == rawValue(OverlaySize::large) ? OverlaySize::large
                : value == rawValue(OverlaySize::small)                 ? OverlaySize::small
                                                                         : OverlaySize::medium);
    else if (key == QLatin1String(ProductPreferences::kOpacityKey))
        preferences.setMicrophoneOpacity(value.toDouble());
    else if (key == QLatin1String(ProductPreferences::kShowsIconKey))
        preferences.setShowsMicrophoneIcon(on);
    else if (key == QLatin1String(ProductPreferences::kFormattingKey))
        preferences.setFormattingEnabled(on);
    else if (key == QLatin1String(ProductPreferences::kSnippetsKey))
        preferences.setSnippetsEnabled(on);
    else if (key == QLatin1String(ProductPreferences::kShortcutKey) && GlobalShortcut::fromJson(value.toUtf8())) {
        const ShortcutUpdateResult result = controller.updateKeyboardShortcut(*GlobalShortcut::fromJson(value.toUtf8()));
        // Both complete later, once the desktop has answered (or is found to allow it).
        if (result.kind == ShortcutUpdateResult::Kind::waitingForDesktop
            || result.kind == ShortcutUpdateResult::Kind::needsAccessibility)
            return QStringLiteral("waiting");
        return result.kind == ShortcutUpdateResult::Kind::updated ? QStringLiteral("ok")
                                                                 : QStringLiteral("error: ") + result.message;
    } else
        return QStringLiteral("error: cannot set ") + key;
    return QStringLiteral("ok");
}

} // namespace

int runApplication(int argc, char **argv, const SpeechPortFactory &speechFactory)
{
    Platform::chooseQtPlatform();
    QApplication app(argc, argv);
    Platform::restoreInheritedEnvironment();
    QApplication::setOrganizationName(QStringLiteral("Dictora"));
    QApplication::setApplicationName(QStringLiteral("Dictora"));
    QApplication::setQuitOnLastWindowClosed(false);
    QGuiApplication::setDesktopFileName(QStringLiteral("com.dictora.Dictora"));

    const QString socketPath = DataPaths::instanceSocket();
    if (sendToRunningInstance(socketPath, QStringLiteral("show"))) {
        std::fprintf(stdout, "Dictora is already running; showing its window.\n");
        return 0;
    }

    QString failure;
    if (!DataPaths::ensureDataDirectory(&failure)) {
        std::fprintf(stderr, "dictora: the data directory is unavailable: %s\n", qPrintable(failure));
        return 1;
    }
    AccuracyModelManager::Options modelOptions;
    try {
        modelOptions.contract = AccuracyModelContract::current();
        modelOptions.voiceActivity = VoiceActivityModel::current();
    } catch (const Error &e) {
        std::fprintf(stderr, "dictora: %s\n", qPrintable(e.description()));
        return 1;
    }

    RuntimeLog log(DataPaths::logFile());
    log.install();
    // The portal answers while the fonts and the rest are prepared.
    Platform::probeDesktopSoon();
    registerBundledFonts();
    Style::apply(app);
    if (const QString moved = SettingsFile::setAsideIfUnreadable(DataPaths::settingsFile()); !moved.isEmpty()) {
        log.write(moved);
        std::fprintf(stderr, "dictora: %s\n", qPrintable(moved));
    }
    QSettings settings(DataPaths::settingsFile(), QSettings::IniFormat);
    DictoraState state;
    ProductPreferences preferences(settings);
    const TranscriptJournal journal(DataPaths::journalFile());
    PendingJournal::of(journal).setLog([&log](const QString &message) { log.write(message); });
    SnippetStore snippets(DataPaths::snippetsFile());
    if (!snippets.loadProblem().isEmpty())
        log.write(QStringLiteral("snippets file unreadable, starting without snippets; a copy is kept before the next save: ")
            + snippets.loadProblem());

    modelOptions.devicePreference =
        speechDevicePreferenceFromString(settings.value(QLatin1String(kSpeechDeviceSettingKey)).toString())
            .value_or(SpeechDevicePreference::automatic);
    AccuracyModelManager model(modelOptions, &log);
    const std::unique_ptr<SpeechPort> recogniser = speechFactory(model);
    // The preview costs a recognition a second: by default only where that is cheap (a GPU).
    VoiceGatedSpeechPort speech(*recogniser, model.voiceActivityModel(), log,
        [&preferences, &model] { return preferences.livePreview().value_or(model.engine().usesGpu()); });
    AudioCaptureThread capture(&log);
    CaptureMicrophonePort microphone(capture, [&preferences] { return preferences.captureTailMilliseconds(); });
    const std::unique_ptr<WindowTracker> windows = Platform::createWindowTracker();
    const std::unique_ptr<KeystrokeSender> keystrokes = Platform::createKeystrokeSender();
    PasteService pasteService(log, *windows, *keystrokes, Platform::createClipboard());
    ServicePasterPort paster(pasteService);
    pasteService.setRestoresClipboard(preferences.restoresClipboard());
    QObject::connect(&preferences, &ProductPreferences::restoresClipboardChanged, &pasteService,
        &PasteService::setRestoresClipboard);
    const std::unique_ptr<ShortcutBackend> shortcut = Platform::createShortcutBackend();
    const std::unique_ptr<DesktopIntegration> desktop = Platform::createDesktopIntegration(*shortcut, *keystrokes);
    const std::unique_ptr<OverlayWindowHints> overlayHints = Platform::createOverlayWindowHints();
    const QStringList backendReport = Platform::takeBackendReport();
    for (const QString &line : backendReport)
        log.write(line);

    HistoryStore history(journal);
    HomeWindow window(state, preferences, history);
    MicOverlayPanel overlay(state, preferences, overlayHints.get());
    // The chosen input from the next recording on; when it is missing the
    // default is heard and the indicator says so.
    capture.setChosenSource(preferences.microphoneSource());
    QObject::connect(&preferences, &ProductPreferences::microphoneSourceChanged, &capture,
        &AudioCaptureThread::setChosenSource);
    QObject::connect(&capture, &AudioCaptureThread::notice, &overlay, [&log, &overlay](const QString &text) {
        log.write(QStringLiteral("microphone notice text=") + text);
        overlay.showNotice(text);
    });
    const auto showModelStatus = [&] {
        const AccuracyModelPhase phase = model.phase();
        const bool downloading = phase.kind() == AccuracyModelPhase::Kind::downloading;
        const bool needsAttention = phase.kind() == AccuracyModelPhase::Kind::needsAttention;
        window.setModelPreparation(phase.isReady() ? QString() : phase.statusText(),
            downloading ? std::optional<double>(model.progress()) : std::nullopt, needsAttention);
    };
    QObject::connect(&model, &AccuracyModelManager::phaseChanged, &window, showModelStatus);
    QObject::connect(&model, &AccuracyModelManager::progressChanged, &window, showModelStatus);
    QObject::connect(&window, &HomeWindow::retryDownloadRequested, &model, &AccuracyModelManager::retryManually);

    ViewPorts views;
    views.repositionOverlay = [&overlay](ScreenAnchor anchor) { overlay.reposition(anchor); };
    views.showOverlay = [&overlay] { overlay.show(); };
    views.showMainWindow = [&window] { window.present(); };
    views.refreshHistoryIfVisible = [&window] { window.refreshIfVisible(); };
    views.openSettings = [&log](const QString &) { openSoundSettings(log); };

    DictoraController controller(state, preferences,
        DictoraController::Collaborators{speech, microphone, paster, *shortcut, desktop->permissions(), snippets, journal,
            DataPaths::dataDirectory(), views});

    // Where the desktop asks before Dictora may type, ask now rather than at
    // the first paste; during the first run the onboarding asks.
    if (!controller.onboarding().isPresented())
        desktop->prepareTyping();

    // Settings sheets and the first-run walk, all driven through the controller.
    QObject::connect(&window, &HomeWindow::shortcutSheetRequested, &window, [&] {
        auto *sheet = new ShortcutSettingsView(preferences,
            [&controller](const GlobalShortcut &candidate) { return controller.updateKeyboardShortcut(candidate); },
            [&controller] { controller.continueAccessibility(); }, &window);
        const DesktopIntegration::BindingHint hint =
            desktop->bindingHint(preferences.keyboardShortcut(), preferences.holdToTalk());
        sheet->setDesktopBinding(hint.text, hint.actionLabel, hint.action);
        QObject::connect(&controller, &DictoraController::shortcutUpdateRefused, sheet, &ShortcutSettingsView::updateRefused);
        sheet->setAttribute(Qt::WA_DeleteOnClose);
        sheet->open();
    });
    const auto openSnippets = [&] {
        auto *sheet = new SnippetsSettingsView(snippets, preferences, &window);
        sheet->setAttribute(Qt::WA_DeleteOnClose);
        sheet->open();
    };
    QObject::connect(&window, &HomeWindow::snippetsSheetRequested, &window, openSnippets);

    // Language and vocabulary reach the recogniser from the next dictation on.
    const auto applyRecognitionOptions = [&] {
        model.engine().setRecognitionOptions(
            {preferences.language(), ProductPreferences::vocabularyPrompt(preferences.vocabulary())});
        log.write(QStringLiteral("recognition options language=%1 vocabularyTerms=%2")
                      .arg(preferences.language())
                      .arg(preferences.vocabulary().size()));
    };
    applyRecognitionOptions();
    QObject::connect(&preferences, &ProductPreferences::languageChanged, &window, applyRecognitionOptions);
    QObject::connect(&preferences, &ProductPreferences::vocabularyChanged, &window, applyRecognitionOptions);
    const auto openVocabulary = [&](QWidget *parent) {
        auto *sheet = new VocabularySheet(preferences,
            [&model, &window](const QString &prompt, std::function<void(int, int)> done) {
                whenReady(model.engine().measurePrompt(prompt), &window,
                    [done = std::move(done)](QFuture<AccurateSpeechEngine::PromptFit> fit) {
                        done(fit.result().tokens, fit.result().limit);
                    });
            },
            parent);
        sheet->setAttribute(Qt::WA_DeleteOnClose);
        sheet->open();
    };
    // A new device takes effect by loading the model again; dictations queue behind the load.
    const auto chooseDevice = [&](const QString &value) {
        settings.setValue(QLatin1String(kSpeechDeviceSettingKey), value);
        const SpeechDevicePreference preference = speechDevicePreferenceFromEnvironment(
            speechDevicePreferenceFromString(value).value_or(SpeechDevicePreference::automatic));
        model.engine().setDevicePreference(preference, speechDeviceGpuIndex(value));
        modelOptions.devicePreference = preference;
        log.write(QStringLiteral("speech device chosen setting=") + value);
        if (!model.phase().isReady())
            return; // the coming load uses it
        whenReady(model.engine().load(model.installedPath()), &window, [&log, &model](QFuture<void> loaded) {
            try {
                loaded.waitForFinished();
                log.write(QStringLiteral("speech device switched device=") + model.engine().deviceName());
            } catch (...) {
                log.write(QStringLiteral("speech device switch failed error=") + errorMessage(std::current_exception()));
            }
        });
    };
    const auto openRecognitionSheet = [&](const QList<ComputeDevice> &devices,
                                          const QList<PulseCaptureEngine::Source> &sources) {
        RecognitionSettingsView::Choices choices;
        for (const PulseCaptureEngine::Source &source : sources)
            choices.microphones.append({source.name, source.description});
        for (const SpeechLanguage &language : speechLanguages())
            choices.languages.append({language.code, language.name});
        choices.devices.append({QStringLiteral("auto"), QStringLiteral("Automatic")});
        choices.devices.append(usableGpus(devices));
        choices.devices.append({QStringLiteral("cpu"), QStringLiteral("CPU")});
        choices.device = settings.value(QLatin1String(kSpeechDeviceSettingKey), QStringLiteral("auto")).toString();
        const SpeechDeviceChoice automatic = chooseSpeechDevice(devices, SpeechDevicePreference::automatic);
        choices.automaticDevice = automatic.useGpu
            ? QStringLiteral("Automatic uses %1, the fastest GPU found.").arg(automatic.name)
            : QStringLiteral("Automatic uses the CPU: %1.").arg(automatic.reason);
        const QString now = model.engine().deviceName();
        if (!now.isEmpty())
            choices.automaticDevice += QStringLiteral(" Recognition runs on %1 now.").arg(now == QLatin1String("cpu") ? QStringLiteral("the CPU") : now);
        choices.chooseDevice = chooseDevice;
        auto *sheet = new RecognitionSettingsView(preferences, choices, &window);
        sheet->setAttribute(Qt::WA_DeleteOnClose);
        QObject::connect(sheet, &RecognitionSettingsView::vocabularyRequested, sheet, [&, sheet] { openVocabulary(sheet); });
        // The chosen input's live level, on a connection of its own while the sheet is open.
        auto *probe = new AudioCaptureThread(nullptr, sheet);
        const auto listen = [probe, sheet, &preferences] {
            probe->cancel();
            sheet->showLevel(0);
            probe->setChosenSource(preferences.microphoneSource());
            // A microphone that will not open simply shows no level.
            static_cast<void>(probe->start([sheet](AudioMeterLevels levels) {
                sheet->showLevel(std::max({levels.first, levels.second, levels.third, levels.fourth}));
            }, {}));
        };
        listen();
        QObject::connect(&preferences, &ProductPreferences::microphoneSourceChanged, sheet, listen);
        probe->watchSources([sheet, listen](const QList<PulseCaptureEngine::Source> &now) {
            QList<QPair<QString, QString>> microphones;
            for (const PulseCaptureEngine::Source &source : now)
                microphones.append({source.name, source.description});
            sheet->setMicrophones(microphones);
            listen(); // the chosen input may be back, or the default another one
        });
        sheet->open();
    };
    QObject::connect(&window, &HomeWindow::recognitionSheetRequested, &window, [&] {
        // Listing the devices may start a GPU driver, and the sound server is asked on its own thread.
        runElsewhere(&window, [] { return availableComputeDevices(); }, [&](QList<ComputeDevice> devices) {
            whenReady(capture.listSources(), &window, [&, devices](QFuture<QList<PulseCaptureEngine::Source>> listed) {
                openRecognitionSheet(devices, listed.result());
            });
        });
    });

    // The doctor over this program's own services; one per run.
    const auto diagnose = [&](std::function<void(const DiagnosticReport &)> done) {
        auto *doctor = new Doctor({backendReport, *shortcut, preferences.keyboardShortcut(), true, *windows, *keystrokes,
            desktop->permissions(), true, microphone, preferences.microphoneSource(), Doctor::inputNames(capture),
            [&state] {
                const DictoraPhase::Kind now = state.phase().kind();
                return now == DictoraPhase::Kind::preparing || now == DictoraPhase::Kind::recording
                    || now == DictoraPhase::Kind::finalizing;
            },
            model.contract(), model.installedPath(), model.phase().isReady() ? &model.engine() : nullptr,
            modelOptions.devicePreference, DataPaths::dataDirectory(), journal.filePath()}, &window);
        doctor->run([doctor, done = std::move(done)](const DiagnosticReport &report) {
            done(report);
            doctor->deleteLater();
        });
    };
    QObject::connect(&window, &HomeWindow::diagnosticsSheetRequested, &window, [&] {
        auto *sheet = new DiagnosticsSheet(diagnose, &window);
        sheet->setAttribute(Qt::WA_DeleteOnClose);
        sheet->open();
        sheet->check();
    });

    OnboardingActions onboardingActions;
    onboardingActions.requestMicrophone = [&controller] { controller.requestOnboardingMicrophonePermission(); };
    onboardingActions.openMicrophoneSettings = [&log] { openSoundSettings(log); };
    // What the desktop needs (portal consent, a binding, uinput access), then another try.
    onboardingActions.openAccessibilitySettings = [&] {
        desktop->runPermissionAction(controller.readiness().accessibilityAction(), preferences.keyboardShortcut(),
            preferences.holdToTalk(), [&log, &controller](const QString &advice) {
                if (!advice.isEmpty())
                    log.write(QStringLiteral("permission step needs the user: ") + advice);
                controller.continueAccessibility();
            });
    };
    onboardingActions.accessibilityButtonText = [&] {
        return desktop->permissionActionLabel(controller.readiness().accessibilityAction());
    };
    onboardingActions.retryDownload = [&model] { model.retryManually(); };
    onboardingActions.openSnippets = openSnippets;
    onboardingActions.finish = [&controller] { controller.finishOnboarding(); };
    // The last answers of the checks the readiness monitor runs off this thread.
    onboardingActions.microphoneReason = [&controller] { return controller.readiness().microphoneReason(); };
    onboardingActions.accessibilityReason = [&controller] { return controller.readiness().accessibilityReason(); };
    auto *onboardingView = new OnboardingView(controller.onboarding(), state, preferences, journal, onboardingActions);
    window.setOnboardingView(onboardingView);
    const auto followOnboarding = [&window, &controller] {
        window.setOnboardingPresented(controller.onboarding().isPresented());
    };
    QObject::connect(&controller.onboarding(), &OnboardingModel::changed, &window, followOnboarding);
    followOnboarding();
    const auto showModelToOnboarding = [&model, onboardingView] {
        const AccuracyModelPhase phase = model.phase();
        ModelPreparation preparation;
        if (phase.kind() == AccuracyModelPhase::Kind::downloading)
            preparation.percent = qRound(model.progress() * 100);
        preparation.failed = phase.kind() == AccuracyModelPhase::Kind::needsAttention;
        onboardingView->setModelPreparation(preparation);
    };
    QObject::connect(&model, &AccuracyModelManager::phaseChanged, onboardingView, showModelToOnboarding);
    QObject::connect(&model, &AccuracyModelManager::progressChanged, onboardingView, showModelToOnboarding);

    // The last dictation again: from the tray, History and the command line.
    LastDictation lastDictation(journal, pasteService, log);
    std::function<void(const QString &)> tellPasteProblem;
    DictoraStatusItemController::Actions trayActions{[&window] { window.present(); }, [] { QCoreApplication::exit(0); }};
    trayActions.pasteLastDictation = [&] { lastDictation.pasteLast(tellPasteProblem); };
    DictoraStatusItemController tray(trayActions);
    tellPasteProblem = [&](const QString &error) {
        if (error.isEmpty())
            return;
        log.write(QStringLiteral("paste again failed error=") + error);
        if (tray.showNotice(QStringLiteral("Nothing Pasted"), error))
            return;
        window.present();
        auto *box = new QMessageBox(QMessageBox::Information, QStringLiteral("Nothing Pasted"), error, QMessageBox::Ok, &window);
        box->setAttribute(Qt::WA_DeleteOnClose);
        box->open();
    };
    // History steps aside so the paste reaches the window beneath it.
    QObject::connect(&window, &HomeWindow::pasteRecordRequested, &window, [&](const TranscriptRecord &record) {
        window.showMinimized();
        lastDictation.paste(record, tellPasteProblem);
    });
    if (!tray.install())
        log.write(QStringLiteral("status item unavailable: the desktop has no system tray; start dictora again to show its window"));

    // For the stall test and the benchmarks: the longest time the event loop
    // went unserved during each dictation, in the log; or, with "session",
    // over the whole run, asked for (and restarted) on the instance socket.
    std::unique_ptr<GuiStallWatch> stallWatch;
    const QByteArray stallMeasure = qgetenv("DICTORA_MEASURE_GUI_STALLS");
    const bool wholeSession = stallMeasure == "session";
    if (!stallMeasure.isEmpty()) {
        stallWatch = std::make_unique<GuiStallWatch>();
        QObject::connect(&state, &DictoraState::phaseChanged, stallWatch.get(), [&](const DictoraPhase &phase) {
            stallWatch->setActivity(QStringLiteral("phase ") + phase.label());
            // Otherwise its heartbeat runs only from the press to the saved record, so idle stays idle.
            if (!wholeSession && phase.is(DictoraPhase::Kind::preparing))
                stallWatch->start();
        });
        QObject::connect(&controller, &DictoraController::dictationFinished, stallWatch.get(), [&] {
            log.write(QStringLiteral("gui thread longest stall ms=%1").arg(stallWatch->longestStallMs()));
            if (!wholeSession)
                stallWatch->stop();
        });
        if (wholeSession) {
            stallWatch->setActivity(QStringLiteral("start-up"));
            stallWatch->traceEvents();
            QTimer::singleShot(0, stallWatch.get(), [&] { stallWatch->start(); });
        }
    }
    // What the session benchmark asks of a measured run: the stall report, and
    // the changes a user makes in the settings sheets and the first-run guide.
    const auto measuredSessionCommand = [&](const QString &command) -> std::optional<QString> {
        if (!wholeSession)
            return std::nullopt;
        if (command == QLatin1String("gui-stalls")) {
            const QString answer = QStringLiteral("longest=%1 during=%2")
                                       .arg(stallWatch->longestStallMs())
                                       .arg(stallWatch->longestStallContext());
            stallWatch->reset();
            return answer;
        }
        if (command == QLatin1String("finish-onboarding")) {
            stallWatch->setActivity(command);
            controller.finishOnboarding();
            return QStringLiteral("ok");
        }
        if (!command.startsWith(QLatin1String("set ")))
            return std::nullopt;
        const QString key = command.section(QLatin1Char(' '), 1, 1);
        const QString value = command.section(QLatin1Char(' '), 2);
        stallWatch->setActivity(QStringLiteral("setting ") + key);
        return applyMeasuredSetting(preferences, controller, key, value);
    };

    SingleInstanceServer instance(socketPath, [&](const QString &command) {
        if (const std::optional<QString> answer = measuredSessionCommand(command))
            return *answer;
        if (command == QLatin1String("show")) {
            log.write(QStringLiteral("second launch; showing main window"));
            window.present();
            return QStringLiteral("ok");
        }
        if (command == QLatin1String("toggle")) {
            controller.toggleRecording();
            return QStringLiteral("ok");
        }
        if (command == QLatin1String("model-installed")) {
            model.adoptInstalledModel();
            return QStringLiteral("ok");
        }
        if (command == QLatin1String("model-status")) {
            const AccuracyModelPhase phase = model.phase();
            if (phase.kind() == AccuracyModelPhase::Kind::downloading)
                return QStringLiteral("%1 %2%").arg(phase.statusText()).arg(qRound(model.progress() * 100));
            return phase.statusText();
        }
        if (command == QLatin1String("press")) {
            controller.shortcutGesture().press();
            return QStringLiteral("ok");
        }
        if (command == QLatin1String("release")) {
            controller.shortcutGesture().release();
            return QStringLiteral("ok");
        }
        return QStringLiteral("error: unknown command ") + command;
    });
    instance.setDeferredCommand(QStringLiteral("doctor"), [&diagnose](const SingleInstanceServer::Reply &reply) {
        diagnose([reply](const DiagnosticReport &report) { reply(QString::fromUtf8(report.toJson())); });
    });
    for (const QString &command : {QStringLiteral("paste-last"), QStringLiteral("copy-last")}) {
        instance.setDeferredCommand(command, [&lastDictation, command](const SingleInstanceServer::Reply &reply) {
            const auto answer = [reply](const QString &error) {
                reply(error.isEmpty() ? QStringLiteral("ok") : QStringLiteral("error: ") + error);
            };
            if (command == QLatin1String("paste-last"))
                lastDictation.pasteLast(answer);
            else
                lastDictation.copyLast(answer);
        });
    }
    if (!instance.listen(&failure)) {
        std::fprintf(stderr, "dictora: cannot listen on %s: %s\n", qPrintable(socketPath), qPrintable(failure));
        return 1;
    }
    quitOnTerminationSignals(app);

    controller.start();
    showModelStatus();
    // The first paint loads the fonts, their shaping and the painter's caches
    // (90 ms on X11): done once here, before the loop, not in its first frames.
    overlay.hostingView()->grab();
    const int rc = app.exec();
    // Work still running elsewhere uses the services below; let it end first.
    QThreadPool::globalInstance()->waitForDone();
    settlePendingRecordsBeforeQuit(PendingJournal::of(journal), log);
    PendingJournal::of(journal).setLog({});
    log.write(QStringLiteral("app quit"));
    return rc;
}

} // namespace dictora
