"""Fixtures; zonetest/__init__.py is the manual."""

import pytest

# Their assertions tell what they compared, as those of the tests do.
pytest.register_assert_rewrite("doctor", "zonetest")

from zonetest import Bus, Daemon, FakeLxc, PrivateRoot, RealZones, messages


@pytest.fixture
def root():
    with PrivateRoot() as private_root:
        yield private_root


@pytest.fixture
def fake(root):
    return FakeLxc(root)


@pytest.fixture
def zones(root):
    return RealZones(root)


@pytest.fixture
def bus(root):
    return Bus(root).start()


@pytest.fixture
def daemon(root):
    daemon = Daemon(root)
    yield daemon
    try:
        if daemon.running:
            daemon.stop()
    except AssertionError as error:
        daemon.process.kill()
        pytest.fail(str(error), pytrace=False)
    report = daemon.sanitizer_report()
    if report:
        pytest.fail(f"a sanitizer reported:\n{report}", pytrace=False)
    unknown = messages.complaints(daemon.records)
    if unknown:
        pytest.fail("the daemon wrote what it does not write:\n" + "\n".join(unknown), pytrace=False)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    outcome = yield
    report = outcome.get_result()
    fixtures = getattr(item, "funcargs", {})
    daemon = fixtures.get("daemon") or getattr(fixtures.get("clinic"), "daemon", None)
    if report.when == "call" and report.failed and daemon is not None:
        report.sections.append(("the daemon's log", "\n".join(daemon.lines)))
