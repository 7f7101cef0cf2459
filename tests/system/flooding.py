"""More events than anybody reads, and what they cost the daemon.

HALVEK_FLOOD_EVENTS makes the floods longer; HALVEK_FLOOD_RATE keeps them at so many events a second, which the daemon
must keep up with. For that it is given the processor before all others, so it takes root.
"""

import os
import threading
import time
from collections import Counter

from testing.daemon import Daemon
from testing.pipes import DEFAULT_INPUT, block, bytes_ready_at, post
from testing.waiting import wait_until

# Beyond the pipe's 1 MiB, the backlog's and all that stands between them.
MANY = int(os.environ.get("HALVEK_FLOOD_EVENTS", "30000"))
RATE = int(os.environ.get("HALVEK_FLOOD_RATE", "0"))
# Of the daemon that is flooded. A log of every event would be the load.
QUIET = {"level": "Warning"}
HURRIED = {"prefix": ["chrt", "--rr", "1"], **QUIET} if RATE else {"level": "Information"}
EVENTS_A_WRITE = 20
STEADY = 20_000  # events a second
EVENTS_A_BATCH = 60
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


class Load:
    """Posts at a fixed rate for as long as a block runs, and every tenth of a second an event whose way is timed."""

    def __init__(self, pipe) -> None:
        self.posted = 0
        self._seconds = 0.0
        self._pipe = pipe
        self._first = len(pipe.items)
        self._stamps: dict[str, float] = {}
        self._done = threading.Event()
        self._thread = threading.Thread(target=self._run)

    def __enter__(self) -> "Load":
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._done.set()
        self._thread.join()

    def _run(self) -> None:
        batch = block("Door", number=1) * EVENTS_A_BATCH
        begin = time.monotonic()
        while not self._done.is_set():
            post(batch, DEFAULT_INPUT)
            self.posted += EVENTS_A_BATCH
            if len(self._stamps) < (time.monotonic() - begin) * 10:
                number = str(len(self._stamps))
                self._stamps[number] = time.monotonic()
                post(block("Beat", number=number), DEFAULT_INPUT)
                self.posted += 1
            self._seconds = time.monotonic() - begin
            self._done.wait(max(0.0, begin + self.posted / STEADY - time.monotonic()))

    def delays(self) -> list[float]:
        self._pipe.wait_for_event("Beat", after=self._first, count=len(self._stamps))
        new = enumerate(self._pipe.items[self._first :], self._first)
        came = {event.properties["number"]: self._pipe.time_of(index) for index, event in new}
        return [came[number] - stamp for number, stamp in self._stamps.items()]

    def rate(self) -> float:
        """What was reached, in events a second."""
        return self.posted / self._seconds

    def assert_kept_up(self) -> None:
        print(f"{self.posted:,} events, {self.rate():,.0f} a second")
        assert self.rate() > 0.95 * RATE
