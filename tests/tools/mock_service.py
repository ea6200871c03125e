"""Stands in for the zone manager on the bus whose address is the first argument.

Zones: "nav" is stopped and starts when asked to, "media" runs, "icy" is frozen, "stuck" takes every request
and does nothing, "brief" stops as soon as it runs, "weak" does not survive its start, "gone" has no container
any more, "guard" is refused as a protection zone is, "mute" is never answered about, "fickle" once, "odd" is
answered in a wrong form, "angry" raises an error. Further arguments are zones that are stopped. An attach of
the command "--" is refused. The method ZoneLock emits a malformed state signal and then
a sound one; of "mute" the sound one alone.
"""

import sys

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

NAME = "org.ornix.zoneframework"
PATH = "/org/ornix/zoneframework"
INTERFACE = "org.ornix.zoneframework.interface"
STOPPED, STARTING, RUNNING, ABORTING, FROZEN, THAWED = 1, 2, 3, 5, 7, 8
WORDS = {STOPPED: "STOPPED", STARTING: "STARTING", RUNNING: "RUNNING", ABORTING: "ABORTING", FROZEN: "FROZEN",
         THAWED: "THAWED"}
FURTHER = sys.argv[2:]
STARTS = {"brief": (RUNNING, STOPPED), "weak": (STARTING, ABORTING, STOPPED)}

# Without declared out-arguments the bus library lets every reply through, the wrong ones too.
INTROSPECTION = f"<node><interface name='{INTERFACE}'>" + "".join(
    f"<method name='{name}'>{arguments}</method>" for name, arguments in (
        ("GetZoneList", "<arg type='as' direction='out'/>"),
        *((method, "<arg type='s' direction='in'/><arg type='i' direction='out'/>")
          for method in ("ZoneGetState", "ZoneGetInitPid")),
        ("GetVersion", "<arg type='s' direction='in'/><arg type='s' direction='out'/>"),
        *((method, "<arg type='s' direction='in'/><arg type='b' direction='out'/>")
          for method in ("ZoneStart", "ZoneStop", "ZoneUnfreeze", "ZoneLock")),
        ("ZoneAttach", "".join(f"<arg type='{kind}' direction='in'/>" for kind in ("s", "as", "as", "i", "i"))
         + "<arg type='b' direction='out'/>"),
    )) + "</interface></node>"


class Service:
    def __init__(self, connection):
        self.connection = connection
        self.answered = set()  # zones that are not answered about any more
        self.states = {"nav": STOPPED, "media": RUNNING, "icy": FROZEN, "stuck": STOPPED, "brief": STOPPED,
                       "fickle": RUNNING, "gone": STOPPED, "weak": STOPPED}
        self.states.update(dict.fromkeys(FURTHER, STOPPED))

    def emit(self, *texts):
        self.connection.emit_signal(None, PATH, INTERFACE, "ZoneStateChangedSignal",
                                    GLib.Variant("(" + "s" * len(texts) + ")", texts))

    def change(self, zone, *states):
        """Lets the zone go through the states, the first one a little later than the reply."""
        def step():
            for state in states:
                self.states[zone] = state
                self.emit(zone, WORDS[state])
            return False
        GLib.timeout_add(100, step)

    def request(self, zone, *states):
        if zone not in self.states:
            return False
        if zone != "stuck":
            self.change(zone, *states)
        return True

    def answer(self, method, zone="", command=(), *_):
        if method == "GetZoneList":
            known = ["brief", "guard", "icy", "media", "nav", "stuck", "weak", *FURTHER]
            return GLib.Variant("(as)", (known,))
        if method == "GetVersion":
            return GLib.Variant("(s)", ("4.0.28/4.0.12" if zone in self.states else "none",))
        if method == "ZoneGetState":
            return GLib.Variant("(i)", (self.states.get(zone, -1),))
        if method == "ZoneGetInitPid":
            return GLib.Variant("(i)", (4242 if self.states.get(zone) == RUNNING else -1,))
        if method == "ZoneStart":
            return GLib.Variant("(b)", (self.request(zone, *STARTS.get(zone, (STARTING, RUNNING))),))
        if method == "ZoneStop":
            return GLib.Variant("(b)", (self.request(zone, STOPPED),))
        if method == "ZoneUnfreeze":
            return GLib.Variant("(b)", (self.request(zone, THAWED, RUNNING),))
        if method == "ZoneAttach":
            return GLib.Variant("(b)", (zone in self.states and command[0] != "--",))
        self.emit("only one text")
        self.emit(zone, "RUNNING")
        return GLib.Variant("(b)", (False,))

    def on_call(self, _connection, _sender, _path, _interface, method, parameters, invocation):
        zone = parameters.unpack()[0] if parameters.n_children() else ""
        if zone in self.answered:
            return
        if zone == "fickle":
            self.answered.add(zone)
        if zone == "mute":
            if method == "ZoneLock":
                self.emit(zone, "RUNNING")
            return
        if zone == "angry":
            invocation.return_dbus_error("org.freedesktop.DBus.Error.Failed", "no\nmood")
        elif zone == "odd":
            message = Gio.DBusMessage.new_method_reply(invocation.get_message())
            message.set_body(GLib.Variant("(as)", (["odd"],)))
            self.connection.send_message(message, Gio.DBusSendMessageFlags.NONE)
        else:
            invocation.return_value(self.answer(method, *parameters.unpack()))


def main():
    loop = GLib.MainLoop()
    connection = Gio.DBusConnection.new_for_address_sync(
        sys.argv[1],
        Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION,
        None, None)
    connection.connect("closed", lambda *_: loop.quit())
    interface = Gio.DBusNodeInfo.new_for_xml(INTROSPECTION).interfaces[0]
    connection.register_object(PATH, interface, Service(connection).on_call, None, None)
    Gio.bus_own_name_on_connection(connection, NAME, Gio.BusNameOwnerFlags.NONE,
                                   lambda *_: print("ready", flush=True), None)
    loop.run()


if __name__ == "__main__":
    main()
