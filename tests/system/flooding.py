"""More events than anybody reads, and what they cost the daemon.

HALVEK_FLOOD_EVENTS makes the floods longer; HALVEK_FLOOD_RATE keeps them at so many events a second, which the daemon
must keep up with. For that it is given the processor before all others, so it takes root.
"""

import os
import time
from collections import Counter

from testing.daemon import Daemon
from testing.pipes import DEFAULT_INPUT, block, bytes_ready_at
from testing.waiting import wait_until

# Beyond the pipe's 1 MiB, the backlog's and all that stands between them.
MANY = int(os.environ.get("HALVEK_FLOOD_EVENTS", "30000"))
RATE = int(os.environ.get("HALVEK_FLOOD_RATE", "0"))
# Of the daemon that is flooded.
HURRIED = {"prefix": ["chrt", "--rr", "1"], "level": "Warning"} if RATE else {"level": "Information"}
EVENTS_A_WRITE = 20
# What the daemon's start leaves open for a moment.
NOTIFICATION = "socket:"


def flood(count: int = MANY) -> None:
    """Posts events as fast as the daemon takes them, and returns when it has taken all."""
    texts = [
        "".join(block("Flood", number=number + step, text="x" * 40) for step in range(EVENTS_A_WRITE)).encode()
        for number in range(0, count, EVENTS_A_WRITE)
    ]
    descriptor = os.open(DEFAULT_INPUT, os.O_WRONLY)
    begin = time.monotonic()
    try:
        for number, text in enumerate(texts):
            if RATE:
                time.sleep(max(0.0, begin + number * EVENTS_A_WRITE / RATE - time.monotonic()))
            assert os.write(descriptor, text) == len(text)
    finally:
        os.close(descriptor)
    wait_until(lambda: bytes_ready_at(DEFAULT_INPUT) == 0, "all is read")
    reached = len(texts) * EVENTS_A_WRITE / (time.monotonic() - begin)
    print(f"{reached:.0f} events a second")
    assert reached > 0.95 * RATE


def open_files(daemon: Daemon) -> Counter[str]:
    """What the daemon's descriptors lead to, but what it closes while this is looked at."""
    folder = f"/proc/{daemon.pid}/fd"
    links: Counter[str] = Counter()
    for number in os.listdir(folder):
        try:
            links[os.readlink(f"{folder}/{number}")] += 1
        except FileNotFoundError:
            continue
    return links


class Descriptors:
    """Those of a daemon that has nothing to do."""

    def __init__(self, daemon: Daemon) -> None:
        self._daemon = daemon
        wait_until(lambda: not any(link.startswith(NOTIFICATION) for link in open_files(daemon)), "it has started")
        self._before = open_files(daemon)

    def assert_none_lost(self) -> None:
        """One that is lost never comes back; the pipe of an event that is being handed on is closed in a moment."""
        assert self._daemon.log.matching("FIFO [Ww]rite failed") == []
        wait_until(lambda: open_files(self._daemon) == self._before, "nothing more is open", patience=5)
