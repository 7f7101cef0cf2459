"""What halvek-mqtt costs the daemon when it is killed under load, and when its broker says nothing: no descriptor."""

import os
import statistics
import threading
import time

import pytest
from testing import fake_broker
from testing.bridge import status
from testing.daemon import Daemon
from testing.fake_broker import FakeBroker
from testing.pipes import DEFAULT_INPUT, block, post
from testing.settings import SERVER
from testing.waiting import wait_until

pytestmark = [
    pytest.mark.not_under("sanitizer", "emulator", reason="it is built without, and tried by hand there"),
    pytest.mark.alone("it posts as fast as the daemon reads"),
]
pytest_plugins = ["mqtt_fixtures"]

RATE = 20_000  # events a second
BATCH = 60  # in one write
PAIRS = int(os.environ.get("HALVEK_TEST_PAIRS", "1"))
QUIET = "Warning"  # a log of every event would be the load
FAILED_WRITE = "FIFO Write failed"


class Load:
    """Posts at a fixed rate for as long as a block runs, and every tenth of a second an event whose way is timed."""

    def __init__(self, pipe) -> None:
        self.posted = 0
        self.seconds = 0.0
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
        batch = block("Door", number=1) * BATCH
        begin = time.monotonic()
        while not self._done.is_set():
            post(batch, DEFAULT_INPUT)
            self.posted += BATCH
            if len(self._stamps) < (time.monotonic() - begin) * 10:
                number = str(len(self._stamps))
                self._stamps[number] = time.monotonic()
                post(block("Beat", number=number), DEFAULT_INPUT)
                self.posted += 1
            self._done.wait(max(0.0, begin + self.posted / RATE - time.monotonic()))

    def delays(self) -> list[float]:
        self._pipe.wait_for_event("Beat", after=self._first, count=len(self._stamps))
        new = enumerate(self._pipe.items[self._first :], self._first)
        came = {event.properties["number"]: self._pipe.time_of(index) for index, event in new}
        return [came[number] - stamp for number, stamp in self._stamps.items()]


def descriptors(daemon: Daemon) -> int:
    """Once it is at rest: a pipe is open for a moment with each event."""
    counts: list[int] = []

    def is_at_rest() -> bool:
        counts.append(len(os.listdir(f"/proc/{daemon.pid}/fd")))
        return counts[-5:] == [counts[-1]] * 5

    wait_until(is_at_rest, "the daemon is at rest")
    return counts[-1]


@pytest.fixture
def daemon(launch):
    return launch(SERVER, level=QUIET)


def test_killed_under_load_it_costs_the_daemon_no_descriptor(daemon, output_pipe, broker, start_bridge):
    beat = output_pipe("Beat")
    before = descriptors(daemon)
    with Load(beat) as load:
        for _ in range(5):
            bridge = start_bridge()
            wait_until(lambda: status()["counters"]["received"] > 5000, "it is under load")
            bridge.process.kill()
            bridge.wait_for_exit()
        start_bridge()
        wait_until(lambda: status()["counters"]["received"] > 5000, "the last one is under load")
    load.delays()
    assert descriptors(daemon) == before
    assert daemon.log.matching(FAILED_WRITE) == []


def loaded(beat, seconds: float = 3) -> Load:
    with Load(beat) as load:
        began = time.monotonic()
        wait_until(lambda: time.monotonic() > began + seconds, "a while of it")
    load.seconds = time.monotonic() - began
    return load


def test_a_silent_broker_and_a_flood_cost_the_daemon_nothing(daemon, output_pipe, start_bridge):
    """In pairs, one after the other: the machine is not the same all the time."""
    beat = output_pipe("Beat")
    silent = FakeBroker(fake_broker.say_nothing)
    before = descriptors(daemon)
    medians: dict[str, list[float]] = {"without": [], "with": []}
    for _ in range(PAIRS):
        for name, found in medians.items():
            bridge = start_bridge(Broker=f"mqtt://127.0.0.1:{silent.port}") if name == "with" else None
            load = loaded(beat)
            delays = load.delays()
            found.append(statistics.median(delays))
            rate = load.posted / load.seconds
            print(f"{name}: {rate:,.0f} events/s, {found[-1] * 1e3:.2f} ms, {max(delays) * 1e3:.1f} ms most")
            if bridge is not None:
                wait_until(lambda: status()["counters"]["received"] == load.posted, "every event has been read")
                counted = status()
                assert counted["counters"]["dropped_full"] == load.posted - counted["queued"]
                assert bridge.stop() == 0
    silent.close()
    assert descriptors(daemon) == before
    assert daemon.log.matching(FAILED_WRITE) == []
    without, beside = (statistics.median(found) for found in medians.values())
    print(f"median of {PAIRS} pairs: {without * 1e3:.2f} ms without the bridge, {beside * 1e3:.2f} ms with it")
    assert beside < 5 * without + 0.05
