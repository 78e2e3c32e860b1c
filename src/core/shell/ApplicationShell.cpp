#include "core/shell/ApplicationShell.h"

#include "core/DataPaths.h"
#include "core/RuntimeLog.h"
#include "core/SingleInstance.h"
#include "core/session/DictoraController.h"
#include "history/HistoryStore.h"
#include "history/TranscriptJournal.h"
#include "home/HomeWindow.h"
#include "home/Style.h"
#include "home/sheets/ShortcutSettingsView.h"
#include "home/sheets/SnippetsSettingsView.h"
#include "onboarding/ui/BundledFonts.h"
#include "onboarding/ui/OnboardingView.h"
#include "overlay/DictoraStatusItemController.h"
#include "overlay/MicOverlayPanel.h"
#include "platform/PlatformServices.h"
#include "platform/portal/PortalPlatform.h"
#include "speech/AccuracyModelManager.h"
#include "audio/AudioCaptureService.h"
#include "text/paste/PasteService.h"
#include "text/SnippetStore.h"

#include <QApplication>
#include <QProcess>
#include <QSettings>
#include <QSocketNotifier>
#include <QStandardPaths>

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
    QObject::connect(notifier, &QSocketNotifier::activated, &app, [] { QCoreApplication::exit(0); });
    struct sigaction action{};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
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

} // namespace

int runApplication(int argc, char **argv, const SpeechPortFactory &speechFactory)
{
    QApplication app(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Dictora"));
    QApplication::setApplicationName(QStringLiteral("Dictora"));
    QApplication::setQuitOnLastWindowClosed(false);
    QGuiApplication::setDesktopFileName(QStringLiteral("dictora"));
    registerBundledFonts();
    Style::apply(app);

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
    } catch (const Error &e) {
        std::fprintf(stderr, "dictora: %s\n", qPrintable(e.description()));
        return 1;
    }

    QSettings settings(DataPaths::settingsFile(), QSettings::IniFormat);
    DictoraState state;
    ProductPreferences preferences(settings);
    RuntimeLog log(DataPaths::logFile());
    const TranscriptJournal journal(DataPaths::journalFile());
    SnippetStore snippets(DataPaths::snippetsFile());

    AccuracyModelManager model(modelOptions, &log);
    const std::unique_ptr<SpeechPort> speech = speechFactory(model);
    AudioCaptureService capture(&log);
    CaptureMicrophonePort microphone(capture);
    PasteService pasteService(log);
    ServicePasterPort paster(pasteService);
    const std::unique_ptr<ShortcutBackend> shortcut = Platform::createShortcutBackend();
    const std::unique_ptr<PermissionProbe> permissions = Platform::createPermissionProbe();

    HistoryStore history(journal);
    HomeWindow window(state, preferences, history);
    MicOverlayPanel overlay(state, preferences);
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
        DictoraController::Collaborators{*speech, microphone, paster, *shortcut, *permissions, snippets, journal, log,
            DataPaths::dataDirectory(), views});

    // Settings sheets and the first-run walk, all driven through the controller.
    QObject::connect(&window, &HomeWindow::shortcutSheetRequested, &window, [&] {
        auto *sheet = new ShortcutSettingsView(preferences,
            [&controller](const GlobalShortcut &candidate) { return controller.updateKeyboardShortcut(candidate); },
            [&controller] { controller.continueAccessibility(); }, &window);
        const PortalPlatform::BindingHint hint =
            PortalPlatform::bindingHint(*shortcut, preferences.keyboardShortcut(), preferences.holdToTalk());
        sheet->setDesktopBinding(hint.text, hint.actionLabel, hint.action);
        sheet->setAttribute(Qt::WA_DeleteOnClose);
        sheet->open();
    });
    const auto openSnippets = [&] {
        auto *sheet = new SnippetsSettingsView(snippets, preferences, &window);
        sheet->setAttribute(Qt::WA_DeleteOnClose);
        sheet->open();
    };
    QObject::connect(&window, &HomeWindow::snippetsSheetRequested, &window, openSnippets);

    OnboardingActions onboardingActions;
    onboardingActions.requestMicrophone = [&controller] { controller.requestOnboardingMicrophonePermission(); };
    onboardingActions.openMicrophoneSettings = [&log] { openSoundSettings(log); };
    // What the desktop needs (portal consent, a binding, uinput access), then another try.
    onboardingActions.openAccessibilitySettings = [&] {
        const PermissionCheck check = permissions->accessibility(shortcut.get());
        const QString advice = PortalPlatform::runPermissionAction(
            check.action, shortcut.get(), nullptr, preferences.keyboardShortcut(), preferences.holdToTalk());
        if (!advice.isEmpty())
            log.write(QStringLiteral("permission step needs the user: ") + advice);
        controller.continueAccessibility();
    };
    onboardingActions.accessibilityButtonText = [&] {
        return PortalPlatform::permissionActionLabel(permissions->accessibility(shortcut.get()).action);
    };
    onboardingActions.retryDownload = [&model] { model.retryManually(); };
    onboardingActions.openSnippets = openSnippets;
    onboardingActions.finish = [&controller] { controller.finishOnboarding(); };
    onboardingActions.microphoneReason = [&capture] { return capture.microphoneStatus().reason; };
    onboardingActions.accessibilityReason = [&] { return permissions->accessibility(shortcut.get()).reason; };
    auto *onboardingView = new OnboardingView(controller.onboarding(), state, preferences, &history, onboardingActions);
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

    DictoraStatusItemController tray({[&window] { window.present(); }, [] { QCoreApplication::exit(0); }});
    if (!tray.install())
        log.write(QStringLiteral("status item unavailable: the desktop has no system tray; start dictora again to show its window"));

    SingleInstanceServer instance(socketPath, [&](const QString &command) {
        if (command == QLatin1String("show")) {
            log.write(QStringLiteral("second launch; showing main window"));
            window.present();
            return QStringLiteral("ok");
        }
        if (command == QLatin1String("toggle")) {
            controller.toggleRecording();
            return QStringLiteral("ok");
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
    if (!instance.listen(&failure)) {
        std::fprintf(stderr, "dictora: cannot listen on %s: %s\n", qPrintable(socketPath), qPrintable(failure));
        return 1;
    }
    quitOnTerminationSignals(app);

    controller.start();
    showModelStatus();
    const int rc = app.exec();
    log.write(QStringLiteral("app quit"));
    return rc;
}

} // namespace dictora
