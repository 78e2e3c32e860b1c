#include "X11TestSupport.h"

#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

namespace dictora::test::x11 {

struct FakeKeyboard::Private {
    Display *display = nullptr;
};

FakeKeyboard::FakeKeyboard()
    : d(std::make_unique<Private>())
{
    d->display = XOpenDisplay(nullptr);
}

FakeKeyboard::~FakeKeyboard()
{
    if (d->display)
        XCloseDisplay(d->display);
}

bool FakeKeyboard::isOpen() const
{
    return d->display != nullptr;
}

int FakeKeyboard::keycode(const char *keysymName) const
{
    const KeySym sym = XStringToKeysym(keysymName);
    return sym == NoSymbol ? 0 : XKeysymToKeycode(d->display, sym);
}

void FakeKeyboard::press(int keycode)
{
    XTestFakeKeyEvent(d->display, keycode, True, CurrentTime);
    XSync(d->display, False);
}

void FakeKeyboard::release(int keycode)
{
    XTestFakeKeyEvent(d->display, keycode, False, CurrentTime);
    XSync(d->display, False);
}

void FakeKeyboard::chord(const QStringList &modifierKeysyms, int keycode)
{
    QList<int> held;
    for (const QString &name : modifierKeysyms) {
        const int code = this->keycode(name.toLatin1().constData());
        press(code);
        held.prepend(code);
    }
    press(keycode);
    release(keycode);
    for (int code : held)
        release(code);
}

void FakeKeyboard::setCapsLock(bool on)
{
    XkbLockModifiers(d->display, XkbUseCoreKbd, LockMask, on ? LockMask : 0);
    XSync(d->display, False);
}

void FakeKeyboard::setNumLock(bool on)
{
    const int index = numLockModifierIndex();
    if (index < 0)
        return;
    const unsigned int mask = 1u << index;
    XkbLockModifiers(d->display, XkbUseCoreKbd, mask, on ? mask : 0);
    XSync(d->display, False);
}

QString FakeKeyboard::windowTitle(quint64 window) const
{
    Atom type = 0;
    int format = 0;
    unsigned long count = 0, remaining = 0;
    unsigned char *data = nullptr;
    QString title;
    XSync(d->display, False);
    XErrorHandler previous = XSetErrorHandler([](Display *, XErrorEvent *) { return 0; });
    if (XGetWindowProperty(d->display, window, XInternAtom(d->display, "_NET_WM_NAME", False), 0, 1024, False,
                           AnyPropertyType, &type, &format, &count, &remaining, &data) == Success
        && data && format == 8) {
        title = QString::fromUtf8(reinterpret_cast<const char *>(data), static_cast<qsizetype>(count));
    }
    if (data)
        XFree(data);
    XSync(d->display, False);
    XSetErrorHandler(previous);
    return title;
}

int FakeKeyboard::numLockModifierIndex() const
{
    XModifierKeymap *map = XGetModifierMapping(d->display);
    const KeyCode numLock = XKeysymToKeycode(d->display, XK_Num_Lock);
    int found = -1;
    for (int modifier = 0; modifier < 8 && numLock; ++modifier) {
        for (int i = 0; i < map->max_keypermod; ++i) {
            if (map->modifiermap[modifier * map->max_keypermod + i] == numLock)
                found = modifier;
        }
    }
    XFreeModifiermap(map);
    return found;
}

bool FakeKeyboard::moveNumLockTo(int modifierIndex)
{
    const KeyCode numLock = XKeysymToKeycode(d->display, XK_Num_Lock);
    XModifierKeymap *map = XGetModifierMapping(d->display);
    for (int modifier = 0; modifier < 8; ++modifier) {
        for (int i = 0; i < map->max_keypermod; ++i) {
            if (map->modifiermap[modifier * map->max_keypermod + i] == numLock)
                map->modifiermap[modifier * map->max_keypermod + i] = 0;
        }
    }
    map = XInsertModifiermapEntry(map, numLock, modifierIndex);
    const int status = XSetModifierMapping(d->display, map);
    XFreeModifiermap(map);
    XSync(d->display, False);
    return status == MappingSuccess;
}

namespace {
int g_foreignGrabError = 0;
int recordError(Display *, XErrorEvent *event)
{
    g_foreignGrabError = event->error_code;
    return 0;
}
} // namespace

ForeignGrab::ForeignGrab(int keycode, unsigned int modifiers)
    : m_keycode(keycode), m_modifiers(modifiers)
{
    Display *display = XOpenDisplay(nullptr);
    m_display = display;
    if (!display)
        return;
    XSync(display, False);
    g_foreignGrabError = 0;
    XErrorHandler previous = XSetErrorHandler(recordError);
    XGrabKey(display, keycode, modifiers, DefaultRootWindow(display), False, GrabModeAsync, GrabModeAsync);
    XSync(display, False);
    XSetErrorHandler(previous);
    m_held = g_foreignGrabError == 0;
}

ForeignGrab::~ForeignGrab()
{
    auto *display = static_cast<Display *>(m_display);
    if (!display)
        return;
    if (m_held)
        XUngrabKey(display, m_keycode, m_modifiers, DefaultRootWindow(display));
    XCloseDisplay(display);
}

ChildProgram::ChildProgram(const QString &program, const QStringList &arguments)
{
    m_process.setProcessChannelMode(QProcess::SeparateChannels);
    m_process.start(program, arguments);
}

ChildProgram::~ChildProgram()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(3000)) {
        m_process.kill();
        m_process.waitForFinished(3000);
    }
}

bool ChildProgram::waitStarted()
{
    return m_process.waitForStarted(10000);
}

QString ChildProgram::errorOutput()
{
    return QString::fromLocal8Bit(m_process.readAllStandardError());
}

void unmapMissingWindow(_XDisplay *display)
{
    XUnmapWindow(display, 0x7ffffff0);
}

} // namespace dictora::test::x11
