"""A bus of its own for a test, and the shipped zonectl on it."""

import errno
import os
import pathlib
import subprocess
import sys
import time

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("ZONE_BUILD_DIR", REPOSITORY / "build" / "release"))
ZONECTL = BUILD / "bin" / "zonectl"
DEADLINE = 10  # seconds; no test waits longer for anything

BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <auth>EXTERNAL</auth>
  <listen>unix:path={socket}</listen>
  {policy}
</busconfig>
"""

OPEN_POLICY = """<policy context="default">
    <allow user="*"/><allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/><allow receive_sender="*"/>
  </policy>"""

# Who asks about zones is refused, and hears the signals nevertheless.
NO_QUESTIONS_POLICY = OPEN_POLICY.replace("</policy>", "".join(
    f'<deny send_interface="org.ornix.zoneframework.interface" send_member="{method}"/>'
    for method in ("GetZoneList", "ZoneGetState")) + "</policy>")


class PrivateBus:
    """A dbus-daemon with the given policy, listening in the given directory."""

    def __init__(self, directory, policy=OPEN_POLICY):
        directory = pathlib.Path(directory)
        config = directory / "bus.conf"
        config.write_text(BUS_CONFIG.format(socket=directory / "bus", policy=policy))
        self.process = subprocess.Popen(
            ["dbus-daemon", f"--config-file={config}", "--nofork", "--print-address"],
            stdout=subprocess.PIPE, text=True)
        self.address = self.process.stdout.readline().strip()
        assert self.address, "dbus-daemon did not accept its configuration"

    def wait_for_match(self, text):
        """Returns once some program has told the bus to send it signals whose match rule holds the text."""
        end = time.monotonic() + DEADLINE
        while time.monotonic() < end:
            rules = subprocess.run(
                ["dbus-send", f"--bus={self.address}", "--print-reply=literal", "--dest=org.freedesktop.DBus",
                 "/org/freedesktop/DBus", "org.freedesktop.DBus.Debug.Stats.GetAllMatchRules"],
                capture_output=True, text=True, check=True, timeout=DEADLINE)
            if text in rules.stdout:
                return
            time.sleep(0.02)
        raise AssertionError(f"nobody listens for {text}")

    def stop(self):
        self.process.terminate()
        self.process.wait(DEADLINE)
        self.process.stdout.close()


class MockService:
    """The mock zone manager, with further zones if need be; `ready` once it owns its name."""

    def __init__(self, address, *zones):
        self.process = subprocess.Popen(
            [sys.executable, str(pathlib.Path(__file__).with_name("mock_service.py")), address, *zones],
            stdout=subprocess.PIPE, text=True)
        assert self.process.stdout.readline().strip() == "ready"

    def stop(self):
        self.process.terminate()
        self.wait()

    def wait(self):
        """Waits for its end, as when its bus has gone."""
        self.process.wait(DEADLINE)
        self.process.stdout.close()


def environment(address, **extra):
    """The environment in which the program sees the bus at this address and no colour settings."""
    kept = {name: value for name, value in os.environ.items() if name not in ("NO_COLOR", "TERM")}
    return {**kept, "DBUS_SYSTEM_BUS_ADDRESS": address, "LC_ALL": "C.UTF-8", **extra}


def zonectl(*arguments, address="unix:path=/nonexistent", **extra):
    """Runs the program to its end."""
    return subprocess.run([str(ZONECTL), *arguments], env=environment(address, **extra), text=True,
                          capture_output=True, timeout=DEADLINE, check=False)


def refused(result, status):
    """The command failed with this status, and said why in one line."""
    return (result.returncode == status and result.stderr.startswith("zonectl: ")
            and result.stderr.count("\n") == 1)


def shown_on(leader):
    """All that was written to a pseudo-terminal whose other end nobody holds open any more; closes it. A
    single read may give only the first part of it."""
    shown = b""
    try:
        while part := os.read(leader, 65536):
            shown += part
    except OSError as error:
        assert error.errno == errno.EIO  # how a terminal says that this is all
    os.close(leader)
    return shown.decode()
