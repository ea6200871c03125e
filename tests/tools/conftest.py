import bus_fixtures
import pytest
from machine_trees import sound_machine


@pytest.fixture(scope="session", autouse=True)
def built():
    assert bus_fixtures.ZONECTL.exists(), f"{bus_fixtures.ZONECTL} is not built (ZONE_BUILD_DIR?)"


@pytest.fixture
def bus(tmp_path):
    private = bus_fixtures.PrivateBus(tmp_path)
    yield private
    private.stop()


@pytest.fixture
def service(bus):
    mock = bus_fixtures.MockService(bus.address)
    yield mock
    mock.stop()


@pytest.fixture
def zonectl(bus, service):
    """zonectl with a zone manager on the bus."""
    return lambda *arguments, **extra: bus_fixtures.zonectl(*arguments, address=bus.address, **extra)


@pytest.fixture
def machine(tmp_path):
    """A machine with everything that the package brings and one hybrid zone."""
    return sound_machine(tmp_path)
