"""Runs the daemon and watches it from outside: its log, its notifications, the pipes that it writes to.

Everything that arrives is collected by a thread as it comes; the caller waits for a condition with a deadline.
"""

import array
import fcntl
import os
import re
import select
import signal
import socket
import subprocess
import termios
import threading
import time
from collections.abc import Callable, Mapping, Sequence
from pathlib import Path
from typing import NamedTuple

PIPE_FOLDER = Path("/var/run/halvek")
PATIENCE = 20.0  # seconds; generous, for a loaded machine and sanitizer builds


class NotSeen(AssertionError):
    """Something that was waited for did not come in time, or can no longer come."""


def bytes_ready(descriptor: int) -> int:
    count = array.array("i", [0])
    fcntl.ioctl(descriptor, termios.FIONREAD, count)
    return count[0]


class Collector:
    """What arrives on a descriptor, in order. The list only grows.

    A thread of its own keeps the writer from waiting. Whoever looks at the items first takes what lies ready, under
    the same lock, and so sees everything that was written before it looked.
    """

    def __init__(self, descriptor: int, name: str) -> None:
        self.name = name
        self._items: list = []
        self._times: list[float] = []
        self._descriptor = descriptor
        self._ended = False
        self._changed = threading.Condition()
        self._wake = os.eventfd(0, os.EFD_CLOEXEC)
        self._thread = threading.Thread(target=self._collect, name=name, daemon=True)
        self._thread.start()

    def take(self, descriptor: int) -> list:
        """Reads from the descriptor, which has something to read."""
        raise NotImplementedError

    @property
    def items(self) -> list:
        with self._changed:
            self._take_ready()
            return self._items

    def time_of(self, index: int) -> float:
        """When the item came, on the monotonic clock."""
        return self._times[index]

    def wait(
        self, wanted: Callable, what: str, *, after: int = 0, count: int = 1, patience: float = PATIENCE
    ) -> int:
        """Waits for the count-th wanted item from index `after` on; returns the index behind it."""
        deadline = time.monotonic() + patience
        position, seen = after, 0
        with self._changed:
            while True:
                while position < len(self._items):
                    position += 1
                    seen += bool(wanted(self._items[position - 1]))
                    if seen == count:
                        return position
                left = deadline - time.monotonic()
                if self._ended or left <= 0:
                    tail = "\n  ".join(str(item)[:200] for item in self._items[-40:])
                    raise NotSeen(f"{self.name}: {what}: {seen} of {count} seen; the last that came:\n  {tail}")
                self._changed.wait(left)

    def wait_for_end(self, patience: float = PATIENCE) -> None:
        with self._changed:
            if not self._changed.wait_for(lambda: self._ended, patience):
                raise NotSeen(f"{self.name} has not ended")

    def close(self) -> None:
        os.eventfd_write(self._wake, 1)
        self._thread.join()
        self._ended = True
        os.close(self._wake)
        os.close(self._descriptor)

    def _collect(self) -> None:
        poller = select.poll()
        poller.register(self._descriptor, select.POLLIN)
        poller.register(self._wake, select.POLLIN)
        while self._wake not in (ready := dict(poller.poll())):
            with self._changed:
                self._take_ready()
                if not ready[self._descriptor] & select.POLLIN:  # hung up, and nothing left to read
                    self._ended = True
                    self._changed.notify_all()
                    return

    def _take_ready(self) -> None:
        """The lock is held."""
        while not self._ended and bytes_ready(self._descriptor) > 0:
            items = self.take(self._descriptor)
            self._items += items
            self._times += [time.monotonic()] * len(items)
            self._changed.notify_all()


class Lines(Collector):
    """The lines of a stream. Bytes that are no UTF-8 survive as surrogate escapes."""

    def __init__(self, descriptor: int, name: str) -> None:
        self._rest = b""
        super().__init__(descriptor, name)

    def take(self, descriptor: int) -> list[str]:
        *whole, self._rest = (self._rest + os.read(descriptor, 1 << 16)).split(b"\n")
        return [line.decode(errors="surrogateescape") for line in whole]

    def wait_for(self, pattern: str, **options) -> int:
        """Waits for a line in which the regular expression is found; see Collector.wait."""
        return self.wait(re.compile(pattern).search, f"'{pattern}'", **options)

    def matching(self, pattern: str, after: int = 0) -> list[str]:
        return [line for line in self.items[after:] if re.search(pattern, line)]


class Event(NamedTuple):
    type: str
    properties: dict[str, str]


class OutputPipe(Lines):
    """A named pipe in the daemon's folder, with us at its reading end; the items are events."""

    def __init__(self, name: str) -> None:
        self.path = PIPE_FOLDER / name
        self._block: list[str] = []
        os.mkfifo(self.path)
        # Open for writing too, so that the daemon's closing is no end of file.
        super().__init__(os.open(self.path, os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC), name)

    def take(self, descriptor: int) -> list[Event]:
        events = []
        for line in super().take(descriptor):
            if line != ".":
                self._block.append(line)
                continue
            header, *properties = self._block or [""]
            self._block = []
            events.append(Event(header[1:-1], dict(line.partition("=")[::2] for line in properties)))
        return events

    def wait_for_event(self, event_type: str, **options) -> Event:
        """Waits for an event of the type with at least the given properties; see Collector.wait."""
        properties = options.pop("properties", {})

        def wanted(event: Event) -> bool:
            return event.type == event_type and properties.items() <= event.properties.items()

        return self.items[self.wait(wanted, f"[{event_type}] {properties or ''}", **options) - 1]

    def of_type(self, event_type: str) -> list[Event]:
        return [event for event in self.items if event.type == event_type]


class NotifySocket(Collector):
    """The socket of a service manager; the items are the notifications, one datagram each."""

    def __init__(self, path: Path) -> None:
        self.path = path
        receiver = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_CLOEXEC)
        receiver.bind(str(path))
        super().__init__(receiver.detach(), "notification socket")

    def take(self, descriptor: int) -> list[str]:
        return [os.read(descriptor, 4096).decode()]

    def wait_for(self, text: str, **options) -> int:
        return self.wait(lambda notification: notification == text, text, **options)


class DaemonProcess:
    """One run of the daemon with a log and a notification socket of its own. Dies with its starter."""

    def __init__(
        self,
        program: str,
        settings: Path,
        folder: Path,
        *,
        arguments: Sequence[str] = (),
        prefix: Sequence[str] = (),
        environment: Mapping[str, str] | None = None,
    ) -> None:
        self.notifications = NotifySocket(folder / "notify")
        inherited = {name: value for name, value in os.environ.items() if name != "JOURNAL_STREAM"}
        own = {"KELTO_SETTINGS": str(settings), "NOTIFY_SOCKET": str(self.notifications.path)}
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "--", *prefix, program, *arguments],
            env=inherited | own | dict(environment or {}),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
        )
        self.pid = self.process.pid
        self.log = Lines(os.dup(self.process.stderr.fileno()), "log")
        self.process.stderr.close()

    def wait_until_ready(self, patience: float = PATIENCE) -> None:
        self.notifications.wait_for("READY=1", patience=patience)

    def send(self, number: signal.Signals) -> None:
        self.process.send_signal(number)

    def wait_for_exit(self, patience: float = PATIENCE) -> int:
        """The exit status (negative: the signal that ended it); the log is complete afterwards."""
        try:
            status = self.process.wait(patience)
        except subprocess.TimeoutExpired:
            raise NotSeen(f"the daemon is still running {patience} s after it should have ended") from None
        self.log.wait_for_end()
        return status

    def stop(self, number: signal.Signals = signal.SIGTERM, patience: float = PATIENCE) -> int:
        self.send(number)
        return self.wait_for_exit(patience)

    def close(self) -> None:
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.log.close()
        self.notifications.close()
        self.notifications.path.unlink()
