"""Which containers become zones, and what happens when some do not."""

import time

import pytest
from zonetest import READY, eventually, send_states

CREATED = "Zone Context is created successfully"
LAST_LINE = "ZoneManager is terminated..."
LOCK = "/var/run/lxc/lock/zone-manager.lock"
MISSING = "Can not get a zone object"
FAILED = "Exception occurred : Failed to initialize the ZoneManager object"


def errors_of_failed_start(daemon):
    """Runs a daemon whose registry fails, to its end, and returns its errors."""
    daemon.start()
    assert daemon.wait_exit() == 255
    assert daemon.bodies("fatal")[-1] == LAST_LINE
    assert not daemon.root.exists(LOCK)
    return daemon.bodies("error")


def test_without_a_path_nothing_starts(fake, daemon):
    fake.define("red")
    fake.unset("lxcpath")
    assert errors_of_failed_start(daemon) == ["Failed to get lxc base path", FAILED]
    assert fake.calls("list_defined_containers") == []


@pytest.mark.parametrize("fails", [False, True])
def test_without_containers_nothing_starts(fake, daemon, fails):
    if fails:
        fake.set("list_fails")
    assert errors_of_failed_start(daemon) == ["lxc containers (base path : /var/lib/lxc)", FAILED]
    assert daemon.find("There is no zone information") is None


@pytest.mark.parametrize(("kind", "code"), [(None, -1), (0, 0), (4, 4), (-3, -3)])
def test_an_unknown_kind_is_no_zone(fake, daemon, kind, code):
    fake.define("red", kind)
    assert errors_of_failed_start(daemon) == [
        "Failed to create the zone object...red",
        "Failed to create Zone Object - red[0]",
        "There is no zone information (lxc base path : /var/lib/lxc, zone count : 1)",
        FAILED,
        MISSING,  # the teardown goes over what was listed
    ]
    assert daemon.find(f"container_type : {code}").level == "info"
    assert "Zone count is set to [1 / 0]" in daemon.bodies("info")


def test_when_all_are_refused_nothing_starts(fake, daemon):
    fake.define("blue", 9)
    fake.define("gold", "hybrid", rootfs=None)
    fake.define("red", "hybrid", get_fails="")
    # The labels that hybrid zones lack are told on the way.
    assert [line for line in errors_of_failed_start(daemon) if "smack label" not in line] == [
        "Failed to create the zone object...blue",
        "Failed to create Zone Object - blue[0]",
        'Failed to get "lxc.rootfs" value...gold',
        "Failed to create Zone Object - gold[1]",
        "Failed to get the container reference...red",
        "Failed to create Zone Object - red[2]",
        "There is no zone information (lxc base path : /var/lib/lxc, zone count : 3)",
        FAILED,
        *[MISSING] * 3,
    ]
    assert "Zone count is set to [3 / 0]" in daemon.bodies("info")
    # A half-made zone gives back what it holds, and its thread never ran.
    for name in ("gold", "red"):
        assert fake.references(name) == 0
        assert daemon.find(f"Zone object is destroyed(zone name : {name})").level == "info"
        assert daemon.find(f"Start thread(thread name : {name},") is None


def test_an_accepted_zone_gives_its_references_back_at_the_end(fake, daemon):
    fake.define("red")
    daemon.start(wait=READY)
    assert fake.references("red") == 2
    assert daemon.stop() == 0
    assert fake.references("red") == 0


def test_one_refused_container_keeps_the_automatic_start_from_ever_beginning(fake, daemon):
    fake.define("blue", "hybrid", auto=True)
    fake.define("gold", "isolation", auto=True)
    fake.define("red", 9)
    daemon.start(wait=CREATED)
    assert "Zone count is set to [3 / 2]" in daemon.bodies("info")
    told = "Zone Threads are not initialized yet"
    first = daemon.wait_for(told)
    began = time.monotonic()
    eventually(lambda: daemon.count(told) >= 5, 20, "the check to repeat")
    assert time.monotonic() - began > 4 * 0.5 - 0.4
    main = daemon.inner_pid
    assert str(first) == f"info: [Main Thread] {told}(thread name : zone-manager, tid : {main})"
    assert daemon.bodies("error").count("Can not get a zone object (3 / 3)") == daemon.count(told)
    assert daemon.find("Checking auto start zone") is None
    assert daemon.find(READY) is None
    assert fake.launches() == []
    assert daemon.stop() == 0
    # One line for the missing zone in the handler, one in the teardown.
    assert daemon.bodies("error").count(MISSING) == 2


def test_any_running_container_sets_off_the_next_automatic_start_even_then(fake, daemon, root):
    fake.define("blue", 9)
    fake.define("gold", "hybrid", auto=True)
    fake.set("order", "gold\nblue")
    daemon.start(wait="Zone Threads are not initialized yet")
    send_states(root, "stranger", "RUNNING")
    daemon.wait_for("Now, gold is running", timeout=20)
    assert daemon.find('Checking auto start zone for "gold" - 0 / 1 / NONE').level == "info"
    # The pass that finds nobody tells of the zone that is missing, and is well with that.
    daemon.wait_order(
        'Checking auto start zone for "gold" - 1 / 1 / ',
        "Can not get a zone object (2 / 2)",
        "Requested to check auto start zone(thread name : zone-manager",
        timeout=20,
    )


def test_only_the_text_1_asks_for_the_automatic_start(fake, daemon):
    values = {"one": "1", "zero": "0", "eleven": "11", "blank": " 1", "after": "1 ", "none": None}
    values["long"] = "1" * 5000
    for name, value in values.items():
        fake.define(name, "hybrid", auto=value)
    fake.define("longer-now", "hybrid", auto="1", auto_read="11")
    fake.define("other-now", "hybrid", auto="1", auto_read="0")
    fake.define("one-now", "hybrid", auto="0", auto_read="1")
    daemon.start(wait=READY)
    told = [body for body in daemon.bodies("info") if body.startswith("auto start flag is true")]
    assert sorted(told) == ["auto start flag is true...one", "auto start flag is true...one-now"]


def test_zones_keep_the_order_of_the_listing(fake, daemon):
    names = ["gold", "blue", "red"]
    for name, kind in zip(names, ("protection", "isolation", "hybrid"), strict=True):
        fake.define(name, kind)
    fake.set("order", "\n".join(names))
    daemon.start(wait=READY)
    added = [body for body in daemon.bodies("info") if body.endswith("is added to Zone Context!")]
    assert added == [f'"{name}" is added to Zone Context!' for name in names]
    checked = [body for body in daemon.bodies("info") if body.startswith("Checking auto start zone")]
    assert checked == [f'Checking auto start zone for "{name}" - 0 / 0 / NONE' for name in names]
    kinds = [body for body in daemon.bodies("info") if "object is created...[type" in body]
    assert kinds == [
        "ProtectZone object is created...[type : 3]",
        "IsolateZone object is created...[type : 1]",
        "HybridZone object is created...[type : 2]",
    ]
