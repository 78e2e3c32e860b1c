// Latency of the X11 desktop path, measured against a real X server:
//  - shortcut: the key press has reached the server (XTEST event + XSync) to
//    the backend's `pressed` signal in this process;
//  - paste: PasteService::paste() called to the target application reading
//    the clipboard (its SelectionRequest arriving here), for xterm (primary
//    selection, Shift+Insert) and, when installed, l3afpad (clipboard, Ctrl+V).
// Run under tests/support/x11/with-x.
#include "X11TestSupport.h"
#include "platform/x11/X11ClipboardReadWatcher.h"
#include "platform/x11/X11KeystrokeSender.h"
#include "platform/x11/X11ShortcutBackend.h"
#include "platform/x11/X11WindowTracker.h"
#include "platform/Clipboard.h"
#include "text/paste/PasteService.h"

#include <QApplication>
#include <QFile>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>

#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

using namespace dictora;
using Clock = std::chrono::steady_clock;

namespace {
constexpr int kRuns = 50;

void report(const char *what, std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    const double median = samples.size() % 2 ? samples[samples.size() / 2]
                                             : (samples[samples.size() / 2 - 1] + samples[samples.size() / 2]) / 2;
    std::printf("%-52s runs=%zu median=%.3f ms worst=%.3f ms\n", what, samples.size(), median, samples.back());
}

double msSince(Clock::time_point start, Clock::time_point end)
{
    return std::chrono::duration<double, std::milli>(end - start).count();
}

template <typename Predicate>
bool spinUntil(Predicate done, int timeoutMs = 10000)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (Clock::now() > deadline)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
    return true;
}

bool benchShortcut()
{
    x11::X11ShortcutBackend backend;
    if (!backend.install(GlobalShortcut::defaultShortcut())) {
        std::printf("shortcut: install failed: %s\n", qPrintable(backend.failureReason()));
        return false;
    }
    Clock::time_point signalled;
    bool fired = false;
    QObject::connect(&backend, &ShortcutBackend::pressed, [&] {
        signalled = Clock::now();
        fired = true;
    });
    Display *keyboard = XOpenDisplay(nullptr);
    const int grave = 41 + 8;
    std::vector<double> fromServer, fromSend;
    for (int run = 0; run < kRuns + 3; ++run) {
        fired = false;
        const auto sent = Clock::now();
        XTestFakeKeyEvent(keyboard, grave, True, CurrentTime);
        XSync(keyboard, False);
        const auto atServer = Clock::now();
        if (!spinUntil([&] { return fired; })) {
            std::printf("shortcut: no pressed signal\n");
            XCloseDisplay(keyboard);
            return false;
        }
        XTestFakeKeyEvent(keyboard, grave, False, CurrentTime);
        XSync(keyboard, False);
        backend.processPendingEvents();
        if (run < 3)
            continue; // warm-up
        fromServer.push_back(msSince(atServer, signalled));
        fromSend.push_back(msSince(sent, signalled));
    }
    XCloseDisplay(keyboard);
    report("shortcut: key press at server -> pressed signal", fromServer);
    report("shortcut: XTEST call -> pressed signal", fromSend);
    return true;
}

bool benchPaste(const QString &kind, const QTemporaryDir &dir)
{
    if (QStandardPaths::findExecutable(kind).isEmpty()) {
        std::printf("paste into %s: not installed, skipped\n", qPrintable(kind));
        return true;
    }
    using dictora::test::x11::ChildProgram;
    using dictora::test::x11::FakeKeyboard;
    const QString file = dir.filePath(kind + QStringLiteral(".txt"));
    QFile(file).open(QIODevice::WriteOnly);
    RuntimeLog log(dir.filePath(kind + QStringLiteral(".log")));
    dictora::x11::X11WindowTracker windows;
    dictora::x11::X11KeystrokeSender keys;
    PasteService service(log, windows, keys,
        std::make_unique<dictora::QtClipboard>(std::make_unique<dictora::x11::X11ClipboardReadWatcher>()));
    FakeKeyboard keyboard;

    std::unique_ptr<ChildProgram> program;
    if (kind == QLatin1String("xterm"))
        program = std::make_unique<ChildProgram>(
            kind, QStringList{"-e", "sh", "-c", QStringLiteral("stty -icanon -echo; exec cat > '%1'").arg(file)});
    else
        program = std::make_unique<ChildProgram>(kind, QStringList{file});
    program->waitStarted();
    std::optional<PasteTarget> target;
    if (!spinUntil([&] {
            target = service.captureTarget();
            return target && target->application.processIdentifier == program->pid();
        }, 20000)) {
        std::printf("paste into %s: it never became active\n", qPrintable(kind));
        return false;
    }
    // Keys typed before a new window listens are lost: type until one lands.
    const bool ready = spinUntil([&] {
        if (kind == QLatin1String("xterm")) {
            keyboard.chord({"Control_L"}, keyboard.keycode("b"));
            QThread::msleep(50);
            QFile f(file);
            return f.open(QIODevice::ReadOnly) && f.size() > 0;
        }
        keyboard.chord({}, keyboard.keycode("x"));
        QThread::msleep(50);
        return keyboard.windowTitle(target->window.value).startsWith(u'*');
    }, 20000);
    if (!ready) {
        std::printf("paste into %s: it never took keys\n", qPrintable(kind));
        return false;
    }

    Clock::time_point read;
    bool delivered = false;
    QObject::connect(&service, &PasteService::delivered, [&] {
        read = Clock::now();
        delivered = true;
    });
    std::vector<double> toRead, dispatch;
    for (int run = 0; run < kRuns + 3; ++run) {
        delivered = false;
        const auto start = Clock::now();
        Clock::time_point end;
        bool dispatched = false;
        service.paste(QStringLiteral("benchmark dictation %1 ").arg(run), *target, [&](qint64) {
            end = Clock::now();
            dispatched = true;
        });
        if (!spinUntil([&] { return dispatched && delivered; })) {
            std::printf("paste into %s: run %d never read\n", qPrintable(kind), run);
            return false;
        }
        if (run < 3)
            continue;
        dispatch.push_back(msSince(start, end));
        toRead.push_back(msSince(start, read));
    }
    report(qPrintable(QStringLiteral("paste into %1: paste() -> keystroke sent (dispatch)").arg(kind)), dispatch);
    report(qPrintable(QStringLiteral("paste into %1: paste() -> target reads").arg(kind)), toRead);
    return true;
}
} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY")) {
        std::printf("bench_x11 needs an X display: run it under tests/support/x11/with-x\n");
        return 77;
    }
    QApplication app(argc, argv);
    QTemporaryDir dir;
    bool ok = benchShortcut();
    ok = benchPaste(QStringLiteral("xterm"), dir) && ok;
    ok = benchPaste(QStringLiteral("l3afpad"), dir) && ok;
    return ok ? 0 : 1;
}
