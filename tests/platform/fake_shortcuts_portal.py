#!/usr/bin/python3
"""A stand-in for the desktop portal's global shortcuts (interface version 1) on a private bus,
for the tests: it records what it was asked in order, answers every request through its
Request object, binds each shortcut to its preferred trigger except those named with
--refuse, and fires `Activated` when told to.

    fake_shortcuts_portal.py [--refuse ID]...   (DBUS_SESSION_BUS_ADDRESS names the bus)"""
import argparse, json
import dbus, dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

PATH = "/org/freedesktop/portal/desktop"
SHORTCUTS = "org.freedesktop.portal.GlobalShortcuts"


class Request(dbus.service.Object):
    @dbus.service.signal("org.freedesktop.portal.Request", signature="ua{sv}")
    def Response(self, response, results):
        pass


class Session(dbus.service.Object):
    def __init__(self, bus, path, portal):
        super().__init__(bus, path)
        self.portal = portal

    @dbus.service.method("org.freedesktop.portal.Session")
    def Close(self):
        self.portal.calls.append(["Close", str(self._object_path)])
        self.remove_from_connection()


class Portal(dbus.service.Object):
    def __init__(self, bus, refused):
        super().__init__(bus, PATH)
        self.bus, self.refused, self.calls, self.sessions = bus, refused, [], []

    def _answer(self, sender, token, response, results):
        path = "%s/request/%s/%s" % (PATH, sender[1:].replace(".", "_"), token)
        request = Request(self.bus, path)
        # After the method's own reply, as a portal does.
        GLib.idle_add(lambda: (request.Response(dbus.UInt32(response), dbus.Dictionary(results, signature="sv")),
                               request.remove_from_connection(), False)[-1])
        return dbus.ObjectPath(path)

    @dbus.service.method(SHORTCUTS, in_signature="a{sv}", out_signature="o", sender_keyword="sender")
    def CreateSession(self, options, sender):
        self.calls.append(["CreateSession", options])
        path = "%s/session/%s/%s" % (PATH, sender[1:].replace(".", "_"), options["session_handle_token"])
        self.sessions.append(Session(self.bus, path, self))
        return self._answer(sender, options["handle_token"], 0, {"session_handle": dbus.String(path)})

    @dbus.service.method(SHORTCUTS, in_signature="oa(sa{sv})sa{sv}", out_signature="o", sender_keyword="sender")
    def BindShortcuts(self, session, shortcuts, parent, options, sender):
        self.calls.append(["BindShortcuts", str(session), shortcuts])
        bound = [dbus.Struct((s[0], dbus.Dictionary({"description": s[1]["description"],
                                                     "trigger_description": s[1]["preferred_trigger"]},
                                                    signature="sv")), signature="sa{sv}")
                 for s in shortcuts if str(s[0]) not in self.refused]
        return self._answer(sender, options["handle_token"], 0,
                            {"shortcuts": dbus.Array(bound, signature="(sa{sv})")})

    @dbus.service.signal(SHORTCUTS, signature="osta{sv}")
    def Activated(self, session, shortcut, timestamp, options):
        pass

    @dbus.service.method("org.freedesktop.DBus.Properties", in_signature="ss", out_signature="v")
    def Get(self, interface, name):
        if interface == SHORTCUTS and name == "version":
            return dbus.UInt32(1)
        raise dbus.exceptions.DBusException("no such property", name="org.freedesktop.DBus.Error.InvalidArgs")

    @dbus.service.method("org.ravlet.test.FakePortal", out_signature="s")
    def Calls(self):
        # dbus-python's values are subclasses of the plain ones, which JSON takes as they are.
        return json.dumps(self.calls)

    @dbus.service.method("org.ravlet.test.FakePortal", in_signature="os")
    def Fire(self, session, shortcut):
        self.Activated(session, shortcut, dbus.UInt64(0), dbus.Dictionary({}, signature="sv"))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--refuse", action="append", default=[])
    arguments = parser.parse_args()
    DBusGMainLoop(set_as_default=True)
    bus = dbus.SessionBus()
    portal = Portal(bus, set(arguments.refuse))
    name = dbus.service.BusName("org.freedesktop.portal.Desktop", bus)  # noqa: F841 (held while running)
    GLib.MainLoop().run()


if __name__ == "__main__":
    main()
