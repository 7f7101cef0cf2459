"""How long an attempt may take: its limits run out side by side, by a clock that the test moves.

HALVEK_TEST_BY_HAND=1 runs them out in real time, too: five minutes.
"""

import socket
import threading
import time
from collections.abc import Iterator
from pathlib import Path
from typing import NamedTuple

import pytest
from outbox import LyingFtpServer, Outbox, picture
from spool_calls import SpoolCalls
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is tried in release, with real servers")
pytest_plugins = ["outbox_fixtures"]

TARGET = "[Target {0}]\nMatch={0}\nUrl=ftp://127.0.0.1:{1}\nUser=camera\nSecret=word\nAllowPlain=yes\nMakeFolders={2}\n"
FOLDERS = "".join(f"/{number}" for number in range(30))
# More than the system takes for a server that takes nothing.
LARGE = 3_000_000


class Limit(NamedTuple):
    """What a server does, and when and how an attempt with it ends."""

    server: str
    seconds: int
    reason: str


LIMITS = [
    Limit("takes-no-connection", 15, "Failed to connect"),
    Limit("says-nothing", 15, "timed out"),
    Limit("falls-silent", 30, "response"),
    Limit("stalls", 30, "Less than 100 bytes/sec"),
    Limit("dawdles", 300, "timed out"),
]
# A look before each limit, and one after it.
LOOKS = [12, 22, 26, 45, 290, 310]
# The library knows of no speed before it has seen it for some seconds.
SPEED_KNOWN = 8
# No answer takes as long as that of a server that has fallen silent.
STEP = 20


class Servers:
    """One for each limit."""

    def __init__(self) -> None:
        self._no_more = socket.create_server(("127.0.0.1", 0), backlog=0)
        self._waiting = [socket.socket() for _ in range(3)]
        for client in self._waiting:
            client.setblocking(False)
            client.connect_ex(self._no_more.getsockname())
        self._silent = socket.create_server(("127.0.0.1", 0))
        self._answers = threading.Semaphore(0)
        talking = {
            "falls-silent": LyingFtpServer({"STOR": "silence"}),
            "stalls": LyingFtpServer({"STOR": "stall"}),
            "dawdles": LyingFtpServer({}, before=self._dawdle),
        }
        self.ports = {name: server.port for name, server in talking.items()}
        self.ports["takes-no-connection"] = self._no_more.getsockname()[1]
        self.ports["says-nothing"] = self._silent.getsockname()[1]
        self._talking = list(talking.values())
        self._threads = [threading.Thread(target=server.serve, daemon=True) for server in self._talking]
        for thread in self._threads:
            thread.start()

    def _dawdle(self, command: str) -> None:
        if command == "CWD":
            self._answers.acquire()

    def answer_once(self) -> None:
        """The one that dawdles."""
        self._answers.release()

    def close(self) -> None:
        self._answers.release(len(FOLDERS))
        for server in self._talking:
            server.close()
        for thread in self._threads:
            thread.join()
        for one in (*self._waiting, self._no_more, self._silent):
            one.close()


@pytest.fixture
def servers() -> Iterator[Servers]:
    made = Servers()
    yield made
    made.close()


class MovedClock:
    """Time passes as it is told to."""

    def __init__(self, outbox: Outbox, folder: Path) -> None:
        self._calls = SpoolCalls(folder / "control")
        self._moved = 0.0
        outbox.environment = dict(self._calls.environment)

    def begin(self) -> None:
        self._begin = time.monotonic()

    def go_to(self, seconds: float) -> None:
        step = seconds - self._moved - (time.monotonic() - self._begin)
        self._moved += max(step, 0)
        self._calls.let_attempts_take(max(step, 0))

    def wait_until_seen(self, attempts: int) -> None:
        self._calls.wait_for_looks(attempts)


class RealClock:
    def __init__(self, *_: object) -> None:
        pass

    def begin(self) -> None:
        self._begin = time.monotonic()

    def go_to(self, seconds: float) -> None:
        wait_until(lambda: time.monotonic() - self._begin > seconds, "time passes", patience=2 * STEP)

    def wait_until_seen(self, _: int) -> None:
        pass


def moments() -> Iterator[int]:
    """All at which time stands still for a look, or for an answer of the server that dawdles."""
    before = SPEED_KNOWN
    yield from range(1, SPEED_KNOWN)
    for look in LOOKS:
        yield from range(before, look, STEP)
        yield look
        before = look


@pytest.mark.parametrize(
    "kind",
    [MovedClock, pytest.param(RealClock, marks=pytest.mark.not_under("suite", reason="it takes five minutes"))],
    ids=["moved", "real"],
)
def test_an_attempt_ends_at_its_limits_and_not_before(outbox: Outbox, servers: Servers, tmp_path: Path, kind: type):
    clock = kind(outbox, tmp_path)
    outbox.configure(
        "".join(
            TARGET.format(name, port, "yes" if name == "dawdles" else "no") for name, port in servers.ports.items()
        ),
        word="secret",
    )
    outbox.start()
    clock.begin()
    numbers = {
        limit: outbox.put(picture(LARGE if limit.server == "stalls" else 7), f"{FOLDERS}/x.jpg", host=limit.server)
        for limit in LIMITS
    }
    under_way = list(LIMITS)

    def items() -> list[dict]:
        return [outbox.item(numbers[limit]) for limit in under_way]

    wait_until(lambda: {item["state"] for item in items()} == {"sending"}, "all are tried")
    for moment in moments():
        clock.go_to(moment)
        servers.answer_once()
        for limit in [limit for limit in under_way if limit.seconds < moment and moment in LOOKS]:
            wait_until(lambda: outbox.item(numbers[limit])["error"], f"{limit.server} has come to its end")
            # It would be tried again.
            outbox.run("hold", limit.server)
            error = outbox.item(numbers[limit])["error"]
            print(f"{limit.server}, before {moment} s: {error}")
            assert limit.reason in error
            under_way.remove(limit)
        clock.wait_until_seen(len(under_way))
        assert [(item["state"], item["error"]) for item in items()] == [("sending", "")] * len(under_way), moment
    assert under_way == []
