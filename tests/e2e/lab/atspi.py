#!/usr/bin/env python3
"""What a screen-reader user sees and presses, over the accessibility bus.
  atspi.py enable                  turn accessibility on for toolkits started afterwards
  atspi.py dump [APP]              every showing object: app | role | name | x,y w,h
  atspi.py find NAME [APP] [S]     wait up to S seconds for a showing object called NAME; prints its centre x,y
  atspi.py press NAME [APP] [S]    the same, then its first action (a button's "press")
  atspi.py on NAME [APP] [S]       the same for a switch or check box, pressed only when it is off
NAME is a button's (or switch's) name, or several as A|B, case-insensitive, exact or else its start; APP matches the
application's accessible name as a substring, or with a leading ! every other application."""
import sys, time, dbus

session = dbus.SessionBus()
a11y = session.get_object('org.a11y.Bus', '/org/a11y/bus')
A, PROPS = 'org.a11y.atspi.Accessible', 'org.freedesktop.DBus.Properties'
SHOWING, CHECKED = 1 << 25, 1 << 4
PRESSABLE = ('push button', 'button', 'toggle button', 'check box', 'switch', 'radio button')


def bus():
    return dbus.bus.BusConnection(dbus.Interface(a11y, 'org.a11y.Bus').GetAddress())


def objects(b, app_filter):
    root = b.get_object('org.a11y.atspi.Registry', '/org/a11y/atspi/accessible/root', introspect=False)
    for dest, path in root.GetChildren(dbus_interface=A):
        try:
            app = str(b.get_object(dest, path, introspect=False).Get(A, 'Name', dbus_interface=PROPS))
        except dbus.DBusException:
            continue
        if app_filter.startswith('!') and app_filter[1:].lower() in app.lower():
            continue
        if app_filter and not app_filter.startswith('!') and app_filter.lower() not in app.lower():
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
    deadline, wants = time.time() + seconds, name.lower().replace('_', '').split('|')
    while True:
        try:
            near = None
            for a, d, p, o in objects(bus(), app):
                n, role, ext = describe(o)
                if role not in PRESSABLE:
                    continue
                n = n.lower().replace('_', '')
                if n in wants:
                    return o, n, role, ext
                if near is None and role in ('push button', 'button') and any(n.startswith(w) for w in wants):
                    near = o, n, role, ext
            if near:
                return near
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
elif cmd in ('find', 'press', 'on'):
    app = sys.argv[3] if len(sys.argv) > 3 else ''
    found = find(sys.argv[2], app, float(sys.argv[4]) if len(sys.argv) > 4 else 10)
    if not found:
        sys.exit('no showing "%s" in %s' % (sys.argv[2], app or 'any application'))
    o, n, role, (x, y, w, h) = found
    print('%s %d,%d' % (n, x + w // 2, y + h // 2))
    if cmd == 'press' or (cmd == 'on' and not int(o.GetState(dbus_interface=A)[0]) & CHECKED):
        o.DoAction(0, dbus_interface='org.a11y.atspi.Action')
else:
    sys.exit(__doc__)
