#include "X11TestSupport.h"

#include "support/TestSupport.h"

#include <QDeadlineTimer>
#include <QTest>

#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

namespace dictora::test::x11 {

int FakeKeyboard::keycode(const char *keysymName) const
{
    const KeySym sym = XStringToKeysym(keysymName);
    return sym == NoSymbol ? 0 : XKeysymToKeycode(m_x.display(), sym);
}

void FakeKeyboard::press(int keycode)
{
    XTestFakeKeyEvent(m_x.display(), keycode, True, CurrentTime);
    XSync(m_x.display(), False);
}

void FakeKeyboard::release(int keycode)
{
    XTestFakeKeyEvent(m_x.display(), keycode, False, CurrentTime);
    XSync(m_x.display(), False);
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

void FakeKeyboard::setLocks(bool on)
{
    const int numLock = numLockModifierIndex();
    const unsigned int mask = LockMask | (numLock < 0 ? 0u : 1u << numLock);
    XkbLockModifiers(m_x.display(), XkbUseCoreKbd, mask, on ? mask : 0);
    XSync(m_x.display(), False);
}

QString FakeKeyboard::windowTitle(quint64 window) const
{
    return QString::fromUtf8(m_x.property8(window, m_x.atom("_NET_WM_NAME")).value_or(QByteArray()));
}

namespace {
// Num_Lock's key in the modifier map: the modifier index of its last entry, or -1; cleared if asked.
int findNumLock(XModifierKeymap *map, KeyCode numLock, bool clear)
{
    int found = -1;
    for (int slot = 0; numLock && slot < 8 * map->max_keypermod; ++slot) {
        if (map->modifiermap[slot] == numLock) {
            found = slot / map->max_keypermod;
            if (clear)
                map->modifiermap[slot] = 0;
        }
    }
    return found;
}
} // namespace

int FakeKeyboard::numLockModifierIndex() const
{
    XModifierKeymap *map = XGetModifierMapping(m_x.display());
    const int found = findNumLock(map, XKeysymToKeycode(m_x.display(), XK_Num_Lock), false);
    XFreeModifiermap(map);
    return found;
}

bool FakeKeyboard::moveNumLockTo(int modifierIndex)
{
    const KeyCode numLock = XKeysymToKeycode(m_x.display(), XK_Num_Lock);
    XModifierKeymap *map = XGetModifierMapping(m_x.display());
    findNumLock(map, numLock, true);
    map = XInsertModifiermapEntry(map, numLock, modifierIndex);
    const int status = XSetModifierMapping(m_x.display(), map);
    XFreeModifiermap(map);
    XSync(m_x.display(), False);
    return status == MappingSuccess;
}

ForeignGrab::ForeignGrab(int keycode, unsigned int modifiers)
    : m_keycode(keycode), m_modifiers(modifiers)
{
    if (!m_x.isOpen())
        return;
    dictora::x11::XErrorTrap trap(m_x.display());
    XGrabKey(m_x.display(), keycode, modifiers, m_x.rootWindow(), False, GrabModeAsync, GrabModeAsync);
    m_held = trap.sync() == 0;
}

ForeignGrab::~ForeignGrab()
{
    if (m_held)
        XUngrabKey(m_x.display(), m_keycode, m_modifiers, m_x.rootWindow());
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

QList<quint64> windowProperty(quint64 window, const char *name)
{
    static Display *display = XOpenDisplay(nullptr);
    QList<quint64> items;
    if (!display)
        return items;
    Atom type = None;
    int format = 0;
    unsigned long count = 0, after = 0;
    unsigned char *data = nullptr;
    XSync(display, False);
    if (XGetWindowProperty(display, window ? Window(window) : DefaultRootWindow(display),
            XInternAtom(display, name, False), 0, 1024, False, AnyPropertyType, &type, &format, &count, &after, &data)
            == Success
        && data && format == 32) {
        for (unsigned long i = 0; i < count; ++i)
            items.append(reinterpret_cast<const unsigned long *>(data)[i] & 0xFFFFFFFFUL); // Xlib widens to long
    }
    if (data)
        XFree(data);
    return items;
}

quint64 activeWindow() { return windowProperty(0, "_NET_ACTIVE_WINDOW").value(0); }

qint64 windowPid(quint64 window) { return window ? qint64(windowProperty(window, "_NET_WM_PID").value(0)) : 0; }

namespace {
QString readText(const QString &path) { return QString::fromUtf8(readFile(path)); }
} // namespace

TextEditor::TextEditor(FakeKeyboard &keyboard, const QString &file) : m_keyboard(keyboard), m_file(file) {}

TextEditor::~TextEditor() = default;

qint64 TextEditor::pid() const { return m_program ? m_program->pid() : 0; }

bool TextEditor::start(QString *why)
{
    if (!writeFile(m_file, {})) {
        *why = QStringLiteral("cannot create ") + m_file;
        return false;
    }
    m_program = std::make_unique<ChildProgram>(QStringLiteral("l3afpad"), QStringList{m_file});
    if (!m_program->waitStarted()) {
        *why = QStringLiteral("l3afpad did not start");
        return false;
    }
    QDeadlineTimer deadline(30000);
    while (windowPid(activeWindow()) != m_program->pid()) {
        if (deadline.hasExpired()) {
            *why = QStringLiteral("l3afpad never became the active window: ") + m_program->errorOutput();
            return false;
        }
        QTest::qWait(50);
    }
    m_window = activeWindow();
    // A freshly mapped editor can be active before its text view takes keys;
    // a typed character marks the document modified ("*" in the title) once
    // it does, and is erased again.
    while (!m_keyboard.windowTitle(m_window).startsWith(u'*')) {
        if (deadline.hasExpired()) {
            *why = QStringLiteral("l3afpad never took a key");
            return false;
        }
        m_keyboard.chord({}, m_keyboard.keycode("x"));
        QTest::qWait(100);
    }
    m_keyboard.chord({QStringLiteral("Control_L")}, m_keyboard.keycode("a"));
    m_keyboard.chord({}, m_keyboard.keycode("BackSpace"));
    return true;
}

bool TextEditor::readBack(const QString &expected, QString *actual)
{
    // The save may come before the paste is inserted: save until it shows.
    QDeadlineTimer deadline(20000);
    while (!deadline.hasExpired()) {
        m_keyboard.chord({QStringLiteral("Control_L")}, m_keyboard.keycode("s"));
        QTest::qWait(250);
        *actual = readText(m_file);
        if (*actual == expected)
            return true;
    }
    return false;
}

Terminal::Terminal(FakeKeyboard &keyboard, const QString &file) : m_keyboard(keyboard), m_file(file) {}

Terminal::~Terminal() = default;

qint64 Terminal::pid() const { return m_program ? m_program->pid() : 0; }

bool Terminal::start(QString *why)
{
    // Non-canonical mode hands every character to cat at once.
    m_program = std::make_unique<ChildProgram>(QStringLiteral("xterm"),
        QStringList{QStringLiteral("-e"), QStringLiteral("sh"), QStringLiteral("-c"),
            QStringLiteral("stty -icanon -echo; exec cat > '%1'").arg(m_file)});
    if (!m_program->waitStarted()) {
        *why = QStringLiteral("xterm did not start");
        return false;
    }
    // Ctrl+B reaches cat as byte 2 once the terminal has the focus.
    QDeadlineTimer deadline(30000);
    while (readText(m_file).isEmpty()) {
        if (deadline.hasExpired()) {
            *why = QStringLiteral("xterm never took a key: ") + m_program->errorOutput();
            return false;
        }
        m_keyboard.chord({QStringLiteral("Control_L")}, m_keyboard.keycode("b"));
        QTest::qWait(100);
    }
    return true;
}

QString Terminal::received() const { return readText(m_file).remove(QChar(2)); }

bool Terminal::waitFor(const QString &expected, int timeoutMs) const
{
    return QTest::qWaitFor([&] { return received() == expected; }, timeoutMs);
}

void unmapMissingWindow(_XDisplay *display)
{
    XUnmapWindow(display, 0x7ffffff0);
}

} // namespace dictora::test::x11
