"""The one place where tests wait."""

import os
import time

# Instrumented programs are slower by this much.
SCALE = 3.0 if os.environ.get("ZONE_SANITIZE") else 1.0
STEP = 0.004


class Timeout(AssertionError):
    """What was waited for did not come."""


def eventually(check, timeout=10.0, what=None, step=STEP):
    """Calls `check` until it gives something true, and returns that; Timeout after `timeout` seconds."""
    deadline = time.monotonic() + timeout * SCALE
    while True:
        result = check()
        if result:
            return result
        if time.monotonic() > deadline:
            raise Timeout(f"{what or check} did not come within {timeout * SCALE:.1f} s")
        time.sleep(step)


def never(check, duration, what=None, step=STEP):
    """Fails when `check` gives something true within `duration` seconds."""
    deadline = time.monotonic() + duration
    while time.monotonic() < deadline:
        assert not check(), f"{what or check} came"
        time.sleep(step)
