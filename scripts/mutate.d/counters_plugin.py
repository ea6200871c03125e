"""Plug-in of the system tests: the instrumented programs of each test write their counters to a directory of
the test's own. It has to lie in the build's directory, which the private roots share with the machine."""

import hashlib
import os
from pathlib import Path

from coverage_map import DIRECTORY_VARIABLE, variables


def pytest_runtest_setup(item):
    from zonetest import root

    directory = Path(os.environ[DIRECTORY_VARIABLE], hashlib.sha256(item.nodeid.encode()).hexdigest()[:16])
    directory.mkdir(exist_ok=True)
    (directory / "test").write_text(item.nodeid)
    added = variables(directory, root.BUILD)
    original = getattr(root.clean_environment, "original", root.clean_environment)

    def with_counters(extra=None):
        return {**original(extra), **added}

    with_counters.original = original
    root.clean_environment = with_counters
