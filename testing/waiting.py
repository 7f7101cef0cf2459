"""Waiting for what must come: with a deadline, never for time."""

import time
from collections.abc import Callable

PATIENCE = 20.0  # seconds; generous, for a loaded machine and sanitizer builds


class NotSeen(AssertionError):
    """Something that was waited for did not come in time, or can no longer come."""


def wait_until(condition: Callable[[], object], what: str, patience: float = PATIENCE) -> None:
    deadline = time.monotonic() + patience
    while not condition():
        if time.monotonic() > deadline:
            raise NotSeen(f"not in {patience} s: {what}")
        time.sleep(0.005)
