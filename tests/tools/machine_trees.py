"""Trees that stand for machines."""

import os

import bus_fixtures
import pytest

LABEL = "security.SMACK64"


def labelled(path, label):
    path.mkdir(parents=True, exist_ok=True)
    try:
        os.setxattr(path, LABEL, label.encode())
    except OSError as error:
        pytest.skip(f"labels cannot be set here: {error}")


def container(root, name, kind, *lines):
    """Defines a container; the kind is its configuration line's value, or None for no such line."""
    directory = root / "var/lib/lxc" / name
    (directory / "rootfs").mkdir(parents=True)
    text = [f"lxc.rootfs.path = dir:/var/lib/lxc/{name}/rootfs",
            f"lxc.cgroup.dir.container = lxc.payload/{name}",
            f"lxc.cgroup.dir.monitor = lxc.monitor/{name}",
            "lxc.cgroup.dir.monitor.pivot = lxc.pivot"]
    text += [f"zone.container_type = {kind}"] if kind else []
    (directory / "config").write_text("\n".join([*text, *lines]) + "\n")
    return directory


def sound_machine(root):
    """A machine with everything that the package brings and one hybrid zone."""
    config = root / "zone/config"
    config.mkdir(parents=True)
    (config / "liblxc.so.1").write_bytes(b"")
    (config / "zone-launcher").write_text("#!/bin/sh\n")
    (config / "zone-launcher").chmod(0o755)
    (root / "bin").mkdir()
    (root / "bin/sh").write_bytes(b"")
    (root / "bin/sh").chmod(0o755)
    policy = root / "usr/share/dbus-1/system.d/org.ornix.zoneframework.conf"
    policy.parent.mkdir(parents=True)
    policy.write_text((bus_fixtures.REPOSITORY / "packaging/dbus" / policy.name).read_text())
    labelled(root / "run/lxc", "!")
    labelled(root / "opt/zone/template/securedata", "!")
    (root / "opt/var/lib/lxc").mkdir(parents=True)
    container(root, "media", "hybrid", "lxc.start.auto = 1")
    return root
