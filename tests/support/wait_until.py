"""Waiting for what another process does."""

import time


def wait_until(predicate, timeout=60):
    """Asks until it is so; False when it is not so in that many seconds."""
    deadline = time.monotonic() + timeout
    while not predicate():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.01)
    return True
