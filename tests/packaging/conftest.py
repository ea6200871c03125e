"""Packages, and private roots to install them in; tests/system/zonetest/__init__.py tells of these."""

import debian_package
import pytest
from zonetest import PrivateRoot


@pytest.fixture(scope="session")
def workshop(tmp_path_factory):
    return debian_package.Workshop(tmp_path_factory.mktemp("packages"))


@pytest.fixture(scope="session")
def package(workshop):
    """The package with everything in it."""
    return workshop.package()


@pytest.fixture(scope="session")
def newer(workshop, package):
    """The same package as its next version."""
    return package.newer(workshop.directory, "99.0")


@pytest.fixture
def root(workshop):
    with PrivateRoot("--bind", workshop.directory) as private_root:
        # The index of all manual pages is made anew at each step otherwise, which takes longer than the step.
        private_root.remove("/var/lib/man-db/auto-update")
        yield private_root
