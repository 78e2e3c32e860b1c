#!/usr/bin/env python3
"""What a screen-reader user sees and presses, over the accessibility bus.
  atspi.py enable                  turn accessibility on for toolkits started afterwards
  atspi.py dump [APP]              every showing object: app | role | name | x,y w,h
  atspi.py find NAME [APP] [S]     wait up to S seconds for a showing object called NAME; prints its centre x,y
  atspi.py press NAME [APP] [S]    the same, then its first action (a button's "press")
NAME matches case-insensitively as a substring; APP, the application's accessible name, likewise."""
import sys, time, dbus

session = dbus.SessionBus()
a11y = session.get_object('org.a11y.Bus', '/org/a11y/bus')
A, PROPS = 'org.a11y.atspi.Accessible', 'org.freedesktop.DBus.Properties'
SHOWING = 1 << 25


def bus():
    return dbus.bus.BusConnection(dbus.Interface(a11y, 'org.a11y.Bus').GetAddress())


def objects(b, app_filter):
    root = b.get_object('org.a11y.atspi.Registry', '/org/a11y/atspi/accessible/root', introspect=False)
    for dest, path in root.GetChildren(dbus_interface=A):
        try:
            app = str(b.get_object(dest, path, introspect=False).Get(A, 'Name', dbus_interface=PROPS))
        except dbus.DBusException:
            continue
        if app_filter and app_filter.lower() not in app.lower():
            continue
        stack = [(str(dest), str(path), 0)]
        while stack:
            d, p, depth = stack.pop()
            o = b.get_object(d, p, introspect=False)
            try:
                state = o.GetState(dbus_interface=A)
                if depth and not int(state[0]) & SHOWING:
                    continue
                yield app, d, p, o
                if depth < 40:
                    stack.extend((str(cd), str(cp), depth + 1) for cd, cp in reversed(o.GetChildren(dbus_interface=A)))
            except dbus.DBusException:
                continue


def describe(o):
    name = str(o.Get(A, 'Name', dbus_interface=PROPS))
    role = str(o.GetRoleName(dbus_interface=A))
    try:
        x, y, w, h = o.GetExtents(dbus.UInt32(0), dbus_interface='org.a11y.atspi.Component')
    except dbus.DBusException:
        x = y = w = h = -1
    return name, role, (int(x), int(y), int(w), int(h))


def find(name, app, seconds):
    deadline = time.time() + seconds
    while True:
        try:
            for a, d, p, o in objects(bus(), app):
                n, role, ext = describe(o)
                if name.lower() in n.lower() and role not in ('application', 'frame', 'label', 'text', 'heading'):
                    return o, n, role, ext
        except dbus.DBusException:
            pass
        if time.time() > deadline:
            return None
        time.sleep(0.3)


cmd = sys.argv[1] if len(sys.argv) > 1 else 'dump'
if cmd == 'enable':
    a11y.Set('org.a11y.Status', 'IsEnabled', True, dbus_interface=PROPS)
elif cmd == 'dump':
    for a, d, p, o in objects(bus(), sys.argv[2] if len(sys.argv) > 2 else ''):
        n, role, (x, y, w, h) = describe(o)
        print('%s | %s | %s | %d,%d %dx%d' % (a, role, n, x, y, w, h))
elif cmd in ('find', 'press'):
    app = sys.argv[3] if len(sys.argv) > 3 else ''
    found = find(sys.argv[2], app, float(sys.argv[4]) if len(sys.argv) > 4 else 10)
    if not found:
        sys.exit('no showing "%s" in %s' % (sys.argv[2], app or 'any application'))
    o, n, role, (x, y, w, h) = found
    print('%d,%d' % (x + w // 2, y + h // 2))
    if cmd == 'press':
        o.DoAction(0, dbus_interface='org.a11y.atspi.Action')
else:
    sys.exit(__doc__)
