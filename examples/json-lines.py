#!/usr/bin/python3
"""Writes every event of halvek as a line of JSON to standard output, until it is interrupted.

usage: json-lines.py [NAME]

NAME is the pipe that it makes in /var/run/halvek, by default zz-json-lines.halvek.any: the daemon writes to those whose
names have "halvek.any" in them, or the type of an event. Two at a time need two names.
"""

import collections
import fcntl
import json
import os
import signal
import sys
import threading
from datetime import datetime, timezone
from pathlib import Path

FOLDER = Path("/var/run/halvek")
PIPE_SIZE = 1 << 20  # bytes
MOST_WAITING = 10_000  # events


def make_pipe(path: Path) -> int:
    """Opened for writing too, so that it never ends; what another run has left behind is replaced."""
    path.unlink(missing_ok=True)
    os.mkfifo(path)
    path.chmod(0o660)
    pipe = os.open(path, os.O_RDWR | os.O_CLOEXEC)
    fcntl.fcntl(pipe, fcntl.F_SETPIPE_SZ, PIPE_SIZE)
    return pipe


class Events:
    """What has been read and not been written yet. A full pipe would cost the daemon a descriptor with each event, so
    one thread does nothing but read, whatever holds up standard output; what finds no room is counted,
    and the number stands before the next event."""

    def __init__(self) -> None:
        self.waiting: collections.deque[dict] = collections.deque()
        self.dropped = 0
        self.changed = threading.Condition()

    def read(self, pipe: int) -> None:
        lines: list[str] = []
        for line in os.fdopen(pipe, encoding="utf-8", errors="replace", newline="\n"):
            if line != ".\n":
                lines.append(line.removesuffix("\n"))
            elif lines:
                self.add(lines)
                lines = []

    def add(self, lines: list[str]) -> None:
        # FormattedTime is no time to rely on: local, and with the day before the month.
        now = datetime.now(timezone.utc).isoformat(timespec="milliseconds")
        properties = dict(line.partition("=")[::2] for line in lines[1:])
        event = {"time": now, "type": lines[0].strip("[]"), "properties": properties}
        with self.changed:
            if len(self.waiting) >= MOST_WAITING:
                self.dropped += 1
                return
            if self.dropped:
                self.waiting.append({"dropped": self.dropped})
                self.dropped = 0
            self.waiting.append(event)
            self.changed.notify()

    def take(self) -> dict:
        with self.changed:
            self.changed.wait_for(lambda: self.waiting)
            return self.waiting.popleft()


def write(events: Events) -> None:
    while True:
        print(json.dumps(events.take(), ensure_ascii=False), flush=True)


def main(name: str = "zz-json-lines.halvek.any") -> None:
    # Control-Z would stop the reading too.
    signal.signal(signal.SIGTSTP, signal.SIG_IGN)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    path, events = FOLDER / name, Events()
    pipe = make_pipe(path)
    try:
        threading.Thread(target=events.read, args=[pipe], daemon=True).start()
        write(events)
    except KeyboardInterrupt:
        pass
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())  # for what the interpreter still has for it
    finally:
        path.unlink(missing_ok=True)


if __name__ == "__main__":
    main(*sys.argv[1:])
