"""What arrives on a descriptor: a thread collects it as it comes, the caller waits for a condition with a deadline."""

import array
import contextlib
import fcntl
import os
import re
import select
import termios
import threading
import time
from collections.abc import Callable

from testing.waiting import PATIENCE, NotSeen


# What a writer of records, which does not wait for its reader, may be ahead of us while others have their turn.
CAPACITY = 256 * 1024


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
        with contextlib.suppress(OSError):  # no pipe, or no more memory for them
            fcntl.fcntl(descriptor, fcntl.F_SETPIPE_SZ, CAPACITY)
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

    def wait(self, wanted: Callable, what: str, *, after: int = 0, count: int = 1, patience: float = PATIENCE) -> int:
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
