"""What tests of the daemon on a bus have in common: settings, alerts, what the bus knows of it, and a steady beat."""

import os
import re
import threading
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from testing.bus_client import BUS, BUS_PATH, BusClient
from testing.camera import LOCAL
from testing.daemon import Daemon
from testing.pipes import DEFAULT_INPUT, OutputPipe, block, post
from testing.settings import Settings, source

ROUNDS_PERCENT = int(os.environ["HALVEK_TEST_ROUNDS"])
LOSS = "Warning kelto.msgbus: There is no message bus, looking for it: "
FOUND = "Information kelto.msgbus: Connected to the message bus$"
CONFIGURING = r"Configuring\.\.\.$"


def rounds(count: int) -> int:
    """How many rounds this build runs where a release build runs so many."""
    return max(3, count * ROUNDS_PERCENT // 100)


def alarm(number: int, index: int, **keys: object) -> Settings:
    return source(number, "Alarm", Index=index, **({"BankName": LOCAL} | keys))


def alert(text: str = "", rule_points=(), box_points=()) -> tuple:
    """The arguments of an alert; its text is in the source."""
    return (
        text,
        "Human",
        "LineCrossing",
        "Gate",
        "",
        list(rule_points),
        list(box_points),
        "video",
        "rtsp://camera/1",
    )


def ids(*numbers: int) -> list[str]:
    """The ids of sources, as a handler names them."""
    return [f"Events/Source#{number}" for number in numbers]


def dropped(daemon: Daemon) -> int:
    """How many messages the daemon says it has dropped, over all sources."""
    warnings = daemon.log.matching("Warning kelto.msgbus: ")
    found = [re.search(r"(\d+) messages were dropped, too many came at a time$", line) for line in warnings]
    return sum(int(match.group(1)) for match in found if match)


def given_up(daemon: Daemon) -> list[int]:
    """How many alerts each Warning says that a source has given up. The last ones are told when the source stops."""
    told = r"Warning kelto\.msgbus: (\d+) alerts of more than 60000 bytes were given up$"
    return [int(re.search(told, line)[1]) for line in daemon.log.matching(told)]


def accounted_for(daemon: Daemon) -> int:
    """How many alerts were delivered or counted as dropped, over both kinds of sources."""
    return len(daemon.log.matching(r"EventSource: Received AnalyticsAlert$")) + dropped(daemon)


def highest_resident_kib(daemon: Daemon) -> int:
    """The most that it ever had in memory."""
    return int(re.search(r"^VmHWM:\s+(\d+) kB", Path(f"/proc/{daemon.pid}/status").read_text(), re.MULTILINE).group(1))


def pid_of(client: BusClient, name: str) -> int:
    return client.call_bus("GetConnectionUnixProcessID", "s", name)[0]


def connections(client: BusClient, daemon: Daemon) -> list[str]:
    """The daemon's connections to the bus."""
    unique_names = [name for name in client.call_bus("ListNames")[0] if name.startswith(":")]
    return [name for name in unique_names if pid_of(client, name) == daemon.pid]


def match_rules(client: BusClient, daemon: Daemon) -> list[str]:
    """What the bus is to send to the daemon, over all of its connections."""
    rules = dict(client.call(BUS, BUS_PATH, f"{BUS}.Debug.Stats", "GetAllMatchRules")[0])
    return [rule for name in connections(client, daemon) for rule in rules.get(name, [])]


class Beat:
    """Events posted at a fixed pace, and how long each took to come out at the other end."""

    INTERVAL = 0.1  # seconds

    def __init__(self, pipe: OutputPipe) -> None:
        self._pipe = pipe
        self._posted: list[float] = []
        self._done = threading.Event()
        self._thread = threading.Thread(target=self._run, name="beat")

    def _run(self) -> None:
        while not self._done.wait(self.INTERVAL):
            self._posted.append(time.monotonic())
            post(block("Beat", number=len(self._posted)), DEFAULT_INPUT)

    def start(self) -> None:
        self._thread.start()

    def stop(self) -> None:
        """Returns when all that was posted has come out."""
        self._done.set()
        self._thread.join()
        self._pipe.wait_for_event("Beat", count=len(self._posted))

    def delays(self) -> list[float]:
        """Seconds, in the order of posting; nothing lost, nothing twice."""
        numbers = [event.properties["number"] for event in self._pipe.items]
        assert numbers == [str(number) for number in range(1, len(self._posted) + 1)]
        return [self._pipe.time_of(i) - posted for i, posted in enumerate(self._posted)]


@contextmanager
def beating(pipe: OutputPipe) -> Iterator[Beat]:
    """A beat while the block runs. The pipe must get nothing else: Beat.fifo, say."""
    beat = Beat(pipe)
    beat.start()
    try:
        yield beat
    finally:
        beat.stop()
