#!/usr/bin/python3
"""A stand-in for xdg-desktop-portal on a private session bus.

Speaks the documented org.freedesktop.portal.GlobalShortcuts and
org.freedesktop.portal.RemoteDesktop interfaces, with Request objects at
the documented request/session paths, and answers consent questions the
way the test tells it to (a real portal would show a dialog). A control
object lets the test press keys and read back every call it received.
"""

import argparse
import json
import sys
import time

import dbus
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

BUS_NAME = "org.freedesktop.portal.Desktop"
PORTAL_PATH = "/org/freedesktop/portal/desktop"
SHORTCUTS = "org.freedesktop.portal.GlobalShortcuts"
REMOTE = "org.freedesktop.portal.RemoteDesktop"
REQUEST = "org.freedesktop.portal.Request"
SESSION = "org.freedesktop.portal.Session"
CONTROL = "org.dictora.test.FakePortal"


def plain(value):
    """dbus-python values as JSON-able Python values."""
    if isinstance(value, (dbus.Dictionary, dict)):
        return {str(k): plain(v) for k, v in value.items()}
    if isinstance(value, (dbus.Array, dbus.Struct, list, tuple)):
        return [plain(v) for v in value]
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, (dbus.String, dbus.ObjectPath)):
        return str(value)
    if isinstance(value, (dbus.Byte, dbus.Int16, dbus.Int32, dbus.Int64, dbus.UInt16, dbus.UInt32, dbus.UInt64)):
        return int(value)
    return value


def sender_part(sender):
    return sender[1:].replace(".", "_")


class Request(dbus.service.Object):
    @dbus.service.signal(REQUEST, signature="ua{sv}")
    def Response(self, response, results):
        pass

    @dbus.service.method(REQUEST)
    def Close(self):
        self.remove_from_connection()


class Session(dbus.service.Object):
    def __init__(self, portal, bus, path, kind):
        super().__init__(bus, path)
        self.portal = portal
        self.path = path
        self.kind = kind
        self.shortcuts = {}
        self.started = False

    @dbus.service.signal(SESSION, signature="a{sv}")
    def Closed(self, details):
        pass

    @dbus.service.method(SESSION)
    def Close(self):
        self.portal.log("Session.Close", [self.path])
        self.portal.sessions.pop(self.path, None)
        self.remove_from_connection()

    def end(self):
        self.Closed({})
        self.portal.sessions.pop(self.path, None)
        self.remove_from_connection()


class RemoteDesktopPart(dbus.service.Object):
    """RemoteDesktop on the same object; a base class of its own because both
    interfaces have a CreateSession and dbus-python looks methods up by name
    along the class hierarchy."""

    @dbus.service.method(REMOTE, in_signature="a{sv}", out_signature="o", sender_keyword="sender")
    def CreateSession(self, options, sender=None):
        self.log("RemoteDesktop.CreateSession", [options])
        path = self.new_session(sender, options, "remote")
        return self.request(sender, options, lambda: (0, {"session_handle": dbus.String(path)}))

    @dbus.service.method(REMOTE, in_signature="oa{sv}", out_signature="o", sender_keyword="sender")
    def SelectDevices(self, session_handle, options, sender=None):
        self.log("RemoteDesktop.SelectDevices", [session_handle, options])
        session = self.sessions[str(session_handle)]
        session.restore_token = str(options.get("restore_token", ""))
        session.persist = int(options.get("persist_mode", 0))
        return self.request(sender, options, lambda: (0, {}))

    @dbus.service.method(REMOTE, in_signature="osa{sv}", out_signature="o", sender_keyword="sender")
    def Start(self, session_handle, parent_window, options, sender=None):
        self.log("RemoteDesktop.Start", [session_handle, parent_window, options])
        session = self.sessions[str(session_handle)]

        def answer():
            # A valid token skips the dialog, as the real portal does.
            restored = session.restore_token in self.issued_tokens
            if not restored and self.consent_answer == "close":
                return (2, {})  # the dialog went away unanswered
            if not restored and self.consent_answer not in ("accept", "forget"):
                return (1, {})
            session.started = True
            results = {"devices": dbus.UInt32(1)}
            if session.persist and (restored or self.consent_answer != "forget"):
                token = "token-%d" % (len(self.issued_tokens) + 1)
                self.issued_tokens.append(token)
                results["restore_token"] = dbus.String(token)
            return (0, results)

        return self.request(sender, options, answer)

    @dbus.service.method(REMOTE, in_signature="oa{sv}iu")
    def NotifyKeyboardKeycode(self, session_handle, options, keycode, state):
        session = self.sessions.get(str(session_handle))
        if session is None or not session.started:
            raise dbus.exceptions.DBusException("session not started", name="org.freedesktop.DBus.Error.AccessDenied")
        if keycode == self.options.fail_keycode and state == 1:
            raise dbus.exceptions.DBusException("refused", name="org.freedesktop.DBus.Error.Failed")
        self.log("RemoteDesktop.NotifyKeyboardKeycode", [session_handle, options, keycode, state])


class Portal(RemoteDesktopPart):
    def __init__(self, bus, options):
        super().__init__(bus, PORTAL_PATH)
        self.bus = bus
        self.options = options
        self.calls = []
        self.sessions = {}
        self.bind_answer = options.bind_answer
        self.consent_answer = options.consent_answer
        self.issued_tokens = []
        self.remembered = {}  # app shortcuts kept across sessions, as KDE does
        self.registered = set()

    def log(self, method, args):
        self.calls.append({"method": method, "args": plain(args)})

    # Request/Response: the reply goes out after the method has returned.
    def request(self, sender, options, answer):
        token = str(options.get("handle_token", "t%d" % len(self.calls)))
        path = "/org/freedesktop/portal/desktop/request/%s/%s" % (sender_part(sender), token)
        req = Request(self.bus, path)

        def respond():
            code, results = answer()
            req.Response(dbus.UInt32(code), dbus.Dictionary(results, signature="sv"))
            req.remove_from_connection()
            return False

        GLib.timeout_add(self.options.delay_ms, respond)
        return dbus.ObjectPath(path)

    def new_session(self, sender, options, kind):
        token = str(options.get("session_handle_token", "s%d" % len(self.calls)))
        path = "/org/freedesktop/portal/desktop/session/%s/%s" % (sender_part(sender), token)
        self.sessions[path] = Session(self, self.bus, path, kind)
        return path

    # --- properties -----------------------------------------------------
    @dbus.service.method(dbus.PROPERTIES_IFACE, in_signature="ss", out_signature="v")
    def Get(self, interface, prop):
        if prop == "version" and interface == SHORTCUTS and self.options.shortcuts_version:
            return dbus.UInt32(self.options.shortcuts_version)
        if prop == "version" and interface == REMOTE and self.options.remote_version:
            return dbus.UInt32(self.options.remote_version)
        if prop == "AvailableDeviceTypes" and interface == REMOTE:
            return dbus.UInt32(7)
        raise dbus.exceptions.DBusException("no such property", name="org.freedesktop.DBus.Error.InvalidArgs")

    # --- GlobalShortcuts --------------------------------------------------
    @dbus.service.method(SHORTCUTS, in_signature="a{sv}", out_signature="o", sender_keyword="sender")
    def CreateSession(self, options, sender=None):
        self.log("GlobalShortcuts.CreateSession", [options])
        path = self.new_session(sender, options, "shortcuts")
        self.sessions[path].shortcuts = dict(self.remembered)
        return self.request(sender, options, lambda: (0, {"session_handle": dbus.String(path)}))

    def shortcut_list(self, shortcuts):
        return dbus.Array([dbus.Struct((sid, dbus.Dictionary(props, signature="sv")))
                           for sid, props in shortcuts.items()], signature="(sa{sv})")

    @dbus.service.method("org.freedesktop.host.portal.Registry", in_signature="sa{sv}", sender_keyword="sender")
    def Register(self, app_id, options, sender=None):
        self.log("Registry.Register", [app_id])
        self.registered.add(sender)

    @dbus.service.method(SHORTCUTS, in_signature="oa{sv}", out_signature="o", sender_keyword="sender")
    def ListShortcuts(self, session_handle, options, sender=None):
        self.log("GlobalShortcuts.ListShortcuts", [session_handle, options])
        session = self.sessions[str(session_handle)]
        # GNOME lists nothing to a new session; it answers the bind instead.
        listed = {} if self.bind_answer == "gnome" else session.shortcuts
        return self.request(sender, options, lambda: (0, {"shortcuts": self.shortcut_list(listed)}))

    @dbus.service.method(SHORTCUTS, in_signature="oa(sa{sv})sa{sv}", out_signature="o", sender_keyword="sender")
    def BindShortcuts(self, session_handle, shortcuts, parent_window, options, sender=None):
        self.log("GlobalShortcuts.BindShortcuts", [session_handle, shortcuts, parent_window, options])
        session = self.sessions[str(session_handle)]

        def answer():
            if self.options.require_app_id and sender not in self.registered:
                return (2, {})  # GNOME: "invalid app_id"
            if self.bind_answer == "gnome" and all(str(sid) in self.remembered for sid, _ in shortcuts):
                session.shortcuts = dict(self.remembered)
                return (2, {"shortcuts": self.shortcut_list(session.shortcuts)})  # "already known"
            if self.bind_answer == "error":
                return (2, {})
            if self.bind_answer not in ("accept", "gnome"):
                return (1, {})
            for sid, props in shortcuts:
                trigger = str(props.get("preferred_trigger", self.options.user_trigger))
                session.shortcuts[str(sid)] = {
                    "description": dbus.String(props.get("description", "")),
                    "trigger_description": dbus.String(trigger.replace("CTRL", "Ctrl").replace("ALT", "Alt")),
                }
            self.remembered = dict(session.shortcuts)
            return (0, {"shortcuts": self.shortcut_list(session.shortcuts)})

        return self.request(sender, options, answer)

    @dbus.service.method(SHORTCUTS, in_signature="osa{sv}")
    def ConfigureShortcuts(self, session_handle, parent_window, options):
        self.log("GlobalShortcuts.ConfigureShortcuts", [session_handle])

    @dbus.service.signal(SHORTCUTS, signature="osta{sv}")
    def Activated(self, session_handle, shortcut_id, timestamp, options):
        pass

    @dbus.service.signal(SHORTCUTS, signature="osta{sv}")
    def Deactivated(self, session_handle, shortcut_id, timestamp, options):
        pass

    @dbus.service.signal(SHORTCUTS, signature="oa(sa{sv})")
    def ShortcutsChanged(self, session_handle, shortcuts):
        pass

    # --- control, for the test --------------------------------------------
    def shortcut_sessions(self):
        return [s for s in self.sessions.values() if s.kind == "shortcuts"]

    # Returns CLOCK_MONOTONIC (ns) just before the signal goes out, the same
    # clock a client's QElapsedTimer reads, so key-down latency can be measured.
    @dbus.service.method(CONTROL, in_signature="s", out_signature="x")
    def Press(self, shortcut_id):
        emitted = time.clock_gettime_ns(time.CLOCK_MONOTONIC)
        for s in self.shortcut_sessions():
            if shortcut_id in s.shortcuts:
                self.Activated(dbus.ObjectPath(s.path), shortcut_id, dbus.UInt64(0), dbus.Dictionary({}, signature="sv"))
        return dbus.Int64(emitted)

    @dbus.service.method(CONTROL, in_signature="s")
    def Release(self, shortcut_id):
        for s in self.shortcut_sessions():
            if shortcut_id in s.shortcuts:
                self.Deactivated(dbus.ObjectPath(s.path), shortcut_id, dbus.UInt64(0), dbus.Dictionary({}, signature="sv"))

    @dbus.service.method(CONTROL, in_signature="ss")
    def ChangeTrigger(self, shortcut_id, trigger_description):
        for s in self.shortcut_sessions():
            if trigger_description:
                s.shortcuts[shortcut_id] = {"description": dbus.String(""),
                                            "trigger_description": dbus.String(trigger_description)}
            else:
                s.shortcuts.pop(shortcut_id, None)
            self.ShortcutsChanged(dbus.ObjectPath(s.path), self.shortcut_list(s.shortcuts))

    @dbus.service.method(CONTROL, in_signature="ss")
    def SetAnswers(self, bind_answer, consent_answer):
        self.bind_answer = bind_answer
        self.consent_answer = consent_answer

    @dbus.service.method(CONTROL)
    def CloseSessions(self):
        for s in list(self.sessions.values()):
            s.end()

    @dbus.service.method(CONTROL, out_signature="s")
    def Calls(self):
        return json.dumps(self.calls)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--shortcuts-version", type=int, default=1)
    parser.add_argument("--remote-version", type=int, default=2)
    parser.add_argument("--bind-answer", default="accept")
    parser.add_argument("--consent-answer", default="accept")
    parser.add_argument("--user-trigger", default="CTRL+ALT+d")
    parser.add_argument("--delay-ms", type=int, default=1)
    parser.add_argument("--fail-keycode", type=int, default=-1)
    parser.add_argument("--require-app-id", action="store_true")
    options = parser.parse_args()

    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    bus = dbus.SessionBus()
    portal = Portal(bus, options)
    # Claimed last, so a client that sees the name finds everything in place.
    name = dbus.service.BusName(BUS_NAME, bus)
    portal.name = name
    print("ready", flush=True)
    GLib.MainLoop().run()


if __name__ == "__main__":
    sys.exit(main())
