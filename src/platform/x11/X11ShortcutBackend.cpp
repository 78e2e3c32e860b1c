#include "platform/x11/X11ShortcutBackend.h"

#include "platform/x11/XConnection.h"
#include "shortcut/KeyCodes.h"

#include <QAbstractEventDispatcher>
#include <QMetaObject>
#include <QSocketNotifier>
#include <QThread>

#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/keysym.h>

namespace dictora::x11 {

namespace {

unsigned int x11Modifiers(GlobalShortcutModifiers modifiers)
{
    unsigned int mask = 0;
    if (modifiers.contains(GlobalShortcutModifiers::control))
        mask |= ControlMask;
    if (modifiers.contains(GlobalShortcutModifiers::option))
        mask |= Mod1Mask;
    if (modifiers.contains(GlobalShortcutModifiers::shift))
        mask |= ShiftMask;
    if (modifiers.contains(GlobalShortcutModifiers::command))
        mask |= Mod4Mask;
    return mask;
}

constexpr std::uint8_t kKnownModifierBits = GlobalShortcutModifiers::command
                                            | GlobalShortcutModifiers::control
                                            | GlobalShortcutModifiers::option
                                            | GlobalShortcutModifiers::shift;

// The modifier bit NumLock sets in this keymap (usually Mod2, but layouts
// and xmodmap can move it); 0 when no key carries NumLock. The core modifier
// mapping is asked first: it is a round trip, so never stale after a change.
unsigned int numLockMask(Display *display)
{
    unsigned int mask = 0;
    const KeyCode numLock = XKeysymToKeycode(display, XK_Num_Lock);
    if (XModifierKeymap *map = XGetModifierMapping(display)) {
        for (int modifier = 0; modifier < 8 && numLock != 0; ++modifier) {
            for (int i = 0; i < map->max_keypermod; ++i) {
                if (map->modifiermap[modifier * map->max_keypermod + i] == numLock)
                    mask = 1u << modifier;
            }
        }
        XFreeModifiermap(map);
    }
    if (mask == 0)
        mask = XkbKeysymToModifiers(display, XK_Num_Lock);
    return mask;
}

QString describeChord(const GlobalShortcut &shortcut)
{
    return shortcut.modifiers.displayPrefix() + shortcut.keyLabel;
}

} // namespace

X11ShortcutBackend::X11ShortcutBackend(QObject *parent)
    : ShortcutBackend(parent), m_connection(std::make_unique<XConnection>())
{
    if (!m_connection->isOpen())
        return;
    Display *display = m_connection->display();
    int opcode = 0, error = 0, major = XkbMajorVersion, minor = XkbMinorVersion;
    if (XkbQueryExtension(display, &opcode, &m_xkbEventBase, &error, &major, &minor)) {
        // A held key then reads press, press, …, release instead of
        // press/release pairs, so repeats are recognisable.
        Bool supported = False;
        XkbSetDetectableAutoRepeat(display, True, &supported);
        XkbSelectEvents(display, XkbUseCoreKbd, XkbMapNotifyMask | XkbNewKeyboardNotifyMask,
                        XkbMapNotifyMask | XkbNewKeyboardNotifyMask);
    } else {
        m_xkbEventBase = -1;
    }
    m_notifier = std::make_unique<QSocketNotifier>(m_connection->fileDescriptor(), QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, [this] { readEvents(); });
    // Events that a round trip pulled into Xlib's queue leave the socket
    // quiet; look at the queue whenever the loop is about to sleep.
    if (auto *dispatcher = QAbstractEventDispatcher::instance(thread())) {
        connect(dispatcher, &QAbstractEventDispatcher::aboutToBlock, this, [this] {
            if (m_connection->isOpen() && XQLength(m_connection->display()) > 0)
                readEvents();
        });
    }
    XFlush(display);
}

X11ShortcutBackend::~X11ShortcutBackend()
{
    m_notifier.reset();
    ungrab();
}

bool X11ShortcutBackend::install(const GlobalShortcut &shortcut)
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (m_installed && *m_installed == shortcut && m_grab)
        return true;
    uninstall();
    if (!m_connection->isOpen()) {
        m_failureReason = m_connection->unavailableReason();
        return false;
    }
    if (!grab(shortcut))
        return false;
    m_installed = shortcut;
    m_failureReason.clear();
    return true;
}

std::optional<X11ShortcutBackend::Grab> X11ShortcutBackend::grabFor(const GlobalShortcut &shortcut)
{
    if ((shortcut.modifiers.rawValue & ~kKnownModifierBits) != 0) {
        m_failureReason = QStringLiteral("The shortcut %1 uses a modifier this desktop does not have.")
                              .arg(describeChord(shortcut));
        return std::nullopt;
    }
    const std::optional<int> evdev = KeyCodes::evdevFromKeyCode(shortcut.keyCode);
    Display *display = m_connection->display();
    int minKeycode = 0, maxKeycode = 0;
    XDisplayKeycodes(display, &minKeycode, &maxKeycode);
    if (!evdev || *evdev + 8 < minKeycode || *evdev + 8 > maxKeycode) {
        m_failureReason = QStringLiteral("The key of the shortcut %1 does not exist on this keyboard.")
                              .arg(describeChord(shortcut));
        return std::nullopt;
    }
    Grab wanted;
    wanted.keycode = *evdev + 8;
    wanted.modifiers = x11Modifiers(shortcut.modifiers);
    const unsigned int numLock = numLockMask(display);
    wanted.lockVariants = {0u, static_cast<unsigned int>(LockMask)};
    if (numLock != 0 && (numLock & (wanted.modifiers | LockMask)) == 0) {
        wanted.lockVariants.push_back(numLock);
        wanted.lockVariants.push_back(numLock | LockMask);
    }
    return wanted;
}

bool X11ShortcutBackend::grab(const GlobalShortcut &shortcut)
{
    const std::optional<Grab> wanted = grabFor(shortcut);
    if (!wanted)
        return false;

    Display *display = m_connection->display();
    const Window root = m_connection->rootWindow();
    XErrorTrap trap(display);
    for (unsigned int locks : wanted->lockVariants) {
        XGrabKey(display, wanted->keycode, wanted->modifiers | locks, root, False, GrabModeAsync,
                 GrabModeAsync);
    }
    const int error = trap.sync();
    if (error != 0) {
        // Requests are independent: some variants may have been granted.
        for (unsigned int locks : wanted->lockVariants)
            XUngrabKey(display, wanted->keycode, wanted->modifiers | locks, root);
        trap.sync();
        if (error == BadAccess) {
            m_failureReason = QStringLiteral("Another program already uses %1 as its shortcut. Choose a "
                                             "different shortcut or free it in that program.")
                                  .arg(describeChord(shortcut));
        } else {
            m_failureReason = QStringLiteral("The X server refused the shortcut %1 (error %2).")
                                  .arg(describeChord(shortcut))
                                  .arg(error);
        }
        queueRead();
        return false;
    }
    m_grab = wanted;
    queueRead();
    return true;
}

void X11ShortcutBackend::ungrab()
{
    m_keyHeld = false;
    if (!m_grab || !m_connection->isOpen())
        return;
    Display *display = m_connection->display();
    XErrorTrap trap(display);
    for (unsigned int locks : m_grab->lockVariants)
        XUngrabKey(display, m_grab->keycode, m_grab->modifiers | locks, m_connection->rootWindow());
    trap.sync();
    m_grab.reset();
}

void X11ShortcutBackend::uninstall()
{
    Q_ASSERT(QThread::currentThread() == thread());
    ungrab();
    m_installed.reset();
}

bool X11ShortcutBackend::verifyInstalled(const GlobalShortcut &shortcut) const
{
    return m_installed && *m_installed == shortcut && m_grab && m_connection->isOpen();
}

// Mapping notifications also come whenever input switches between keyboards
// (a real one and XTEST, say); only a change that moves the key or the
// NumLock bit needs new grabs.
void X11ShortcutBackend::renewGrabs()
{
    if (!m_installed)
        return;
    const GlobalShortcut shortcut = *m_installed;
    const std::optional<Grab> wanted = grabFor(shortcut);
    if (wanted && m_grab && wanted->keycode == m_grab->keycode && wanted->modifiers == m_grab->modifiers
        && wanted->lockVariants == m_grab->lockVariants)
        return;
    const bool held = m_keyHeld;
    ungrab();
    m_keyHeld = held;
    if (!grab(shortcut))
        m_installed.reset(); // verifyInstalled now says so; the owner retries
}

// Round trips (XSync) can pull events into Xlib's queue without the socket
// ever turning readable again, so drain the queue after them too.
void X11ShortcutBackend::queueRead()
{
    if (m_readQueued)
        return;
    m_readQueued = true;
    QMetaObject::invokeMethod(this, [this] { readEvents(); }, Qt::QueuedConnection);
}

void X11ShortcutBackend::processPendingEvents()
{
    if (!m_connection->isOpen())
        return;
    XSync(m_connection->display(), False);
    readEvents();
}

void X11ShortcutBackend::readEvents()
{
    m_readQueued = false;
    if (!m_connection->isOpen())
        return;
    Display *display = m_connection->display();
    bool mappingChanged = false;
    // In arrival order, so a quick tap reads press then release.
    std::vector<bool> transitions; // true = press
    {
        XErrorTrap trap(display);
        while (XPending(display) > 0) {
            XEvent event;
            XNextEvent(display, &event);
            if (event.type == MappingNotify) {
                XRefreshKeyboardMapping(&event.xmapping);
                if (event.xmapping.request != MappingPointer)
                    mappingChanged = true;
                continue;
            }
            if (m_xkbEventBase >= 0 && event.type == m_xkbEventBase) {
                const auto *xkb = reinterpret_cast<const XkbAnyEvent *>(&event);
                if (xkb->xkb_type == XkbMapNotify || xkb->xkb_type == XkbNewKeyboardNotify)
                    mappingChanged = true;
                continue;
            }
            if (!m_grab || (event.type != KeyPress && event.type != KeyRelease))
                continue;
            if (static_cast<int>(event.xkey.keycode) != m_grab->keycode)
                continue;
            const unsigned int state = event.xkey.state & (ShiftMask | ControlMask | Mod1Mask | Mod4Mask);
            if (event.type == KeyRelease) {
                // Without detectable auto-repeat a repeat arrives as a release
                // immediately followed by a press with the same time stamp.
                if (XPending(display) > 0) {
                    XEvent next;
                    XPeekEvent(display, &next);
                    if (next.type == KeyPress && next.xkey.keycode == event.xkey.keycode
                        && next.xkey.time == event.xkey.time) {
                        XNextEvent(display, &next);
                        ++m_ignoredRepeats;
                        continue;
                    }
                }
                if (m_keyHeld)
                    transitions.push_back(false);
                m_keyHeld = false;
                continue;
            }
            if (state != m_grab->modifiers)
                continue;
            if (m_keyHeld) {
                ++m_ignoredRepeats;
                continue;
            }
            m_keyHeld = true;
            transitions.push_back(true);
        }
    }
    if (mappingChanged)
        renewGrabs();
    if (XQLength(display) > 0)
        queueRead();
    for (bool press : transitions) {
        if (press)
            Q_EMIT pressed();
        else
            Q_EMIT released();
    }
}

} // namespace dictora::x11
