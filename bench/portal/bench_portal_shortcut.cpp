// Key down to recording started through the portal path: the fake portal's
// Activated signal, the GlobalShortcuts backend, the hold/toggle gesture, the
// controller and the real microphone capture on a private PulseAudio server.
// Prints median and worst over the runs.
#include "support/ReRunUnder.h"
#include "FakePortal.h"
#include "audio/AudioCaptureThread.h"
#include "core/DictoraState.h"
#include "core/ProductPreferences.h"
#include "core/RuntimeLog.h"
#include "dictation/DictoraController.h"
#include "app/ProductionPorts.h"
#include "history/TranscriptJournal.h"
#include "platform/portal/PortalShortcutBackend.h"
#include "text/SnippetStore.h"

#include <QCoreApplication>
#include <QDBusPendingReply>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <unistd.h>

using namespace dictora;

namespace {

qint64 monotonicNs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return qint64(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

class ReadySpeech : public SpeechPort {
public:
    bool isReady() const override { return true; }
    void startAutomatically() override {}
    void transcribe(std::vector<float>, Done done) override { done(Result{}, {}); }
};

class NoTarget : public PasterPort {
public:
    std::optional<PasteTarget> captureTarget() override { return std::nullopt; }
    void paste(const QString &, const PasteTarget &, Pasted done) override { done(0); }
};

class Granted : public PermissionProbe {
public:
    PermissionCheck accessibility(const ShortcutBackend *) override { return PermissionCheck::granted(); }
};

void printFigures(const char *what, std::vector<double> ms)
{
    std::sort(ms.begin(), ms.end());
    const double median = ms.size() % 2 ? ms[ms.size() / 2] : (ms[ms.size() / 2 - 1] + ms[ms.size() / 2]) / 2;
    std::printf("%-44s median %7.2f ms   worst %7.2f ms   best %7.2f ms\n", what, median, ms.back(), ms.front());
}

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("PULSE_SERVER"))
        return dictora::bench::reRunUnder(DICTORA_WITH_PULSE, argc, argv);
    QCoreApplication app(argc, argv);
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20;
    if (const QString why = test::FakePortal::unavailableReason(); !why.isEmpty()) {
        std::printf("bench_portal_shortcut: skipped, %s\n", qPrintable(why));
        return 0;
    }
    test::FakePortal portal;
    if (!portal.start()) {
        std::fprintf(stderr, "bench_portal_shortcut: %s\n", qPrintable(portal.errorText()));
        return 1;
    }

    QTemporaryDir dir;
    QSettings settings(dir.filePath(QStringLiteral("Dictora.conf")), QSettings::IniFormat);
    DictoraState state;
    ProductPreferences preferences(settings);
    preferences.setHasCompletedOnboarding(true);
    RuntimeLog log(dir.filePath(QStringLiteral("runtime.log")));
    SnippetStore snippets(dir.filePath(QStringLiteral("snippets.json")));
    ReadySpeech speech;
    AudioCaptureThread capture(&log);
    CaptureMicrophonePort microphone(capture);
    NoTarget paster;
    Granted permissions;
    portal::PortalShortcutBackend shortcut(portal.connect(QStringLiteral("dictora")));
    DictoraController controller(state, preferences,
        DictoraController::Collaborators{speech, microphone, paster, shortcut, permissions, snippets,
            TranscriptJournal(dir.filePath(QStringLiteral("transcripts.jsonl"))), dir.path(), {}});

    QSignalSpy bound(&shortcut, &ShortcutBackend::installationChanged);
    controller.start();
    if (!QTest::qWaitFor([&] { return shortcut.verifyInstalled(preferences.keyboardShortcut()); }, 10000)) {
        std::fprintf(stderr, "bench_portal_shortcut: the shortcut was not bound: %s\n", qPrintable(shortcut.failureReason()));
        return 1;
    }

    qint64 pressedAt = 0, recordingAt = 0;
    QObject::connect(&shortcut, &ShortcutBackend::pressed, [&] { pressedAt = monotonicNs(); });
    QObject::connect(&state, &DictoraState::phaseChanged, [&](const DictoraPhase &phase) {
        if (phase.is(DictoraPhase::Kind::recording))
            recordingAt = monotonicNs();
    });

    std::vector<double> toRecording, toPressed;
    for (int run = 0; run < runs; ++run) {
        pressedAt = recordingAt = 0;
        QDBusPendingReply<qint64> emitted = portal.pressAsync();
        if (!QTest::qWaitFor([&] { return recordingAt != 0; }, 10000)) {
            std::fprintf(stderr, "bench_portal_shortcut: run %d never recorded (%s)\n", run, qPrintable(state.phase().label()));
            return 1;
        }
        emitted.waitForFinished();
        if (emitted.isError()) {
            std::fprintf(stderr, "bench_portal_shortcut: %s\n", qPrintable(emitted.error().message()));
            return 1;
        }
        toRecording.push_back((recordingAt - emitted.value()) / 1e6);
        toPressed.push_back((pressedAt - emitted.value()) / 1e6);
        portal.release();
        QTest::qWait(150); // a short recording
        QSignalSpy finished(&controller, &DictoraController::dictationFinished);
        portal.pressAsync();
        if (!finished.wait(10000)) {
            std::fprintf(stderr, "bench_portal_shortcut: run %d did not finish\n", run);
            return 1;
        }
        portal.release();
        QTest::qWait(50);
    }
    std::printf("portal key down to recording started, %d runs (fake portal on a private bus, real capture)\n", runs);
    printFigures("Activated signal -> backend pressed()", toPressed);
    printFigures("Activated signal -> phase recording", toRecording);
    return 0;
}
