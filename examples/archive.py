#!/usr/bin/python3
"""Appends every event of halvek to a file, as the daemon writes it, and misses none.

usage: archive.py FILE

FILE is filled in with the date, so that 'events-%Y%m%d' is a file per day. The pipe is the one that the service manager
hands over, see halvek-archive.socket; without one it is made here. SIGTERM and SIGINT end it when all is written.
"""

import collections
import fcntl
import os
import select
import signal
import sys
import threading
import time

PIPE = "/var/run/halvek/00-archive.halvek.any"  # before all others, so that none of them keeps an event from it
FIRST_HANDED_OVER = 3
PIPE_SIZE = 1 << 20  # bytes
MOST_WAITING = 64 << 20  # bytes
RETRY_INTERVAL = 1.0  # seconds


def say(text: str) -> None:
    print(f"archive.py: {text}", file=sys.stderr, flush=True)


def open_pipe() -> int:
    """Opened for writing too, so that it never ends."""
    if os.environ.get("LISTEN_PID") == str(os.getpid()):
        pipe = FIRST_HANDED_OVER
    else:
        if not os.path.exists(PIPE):
            os.mkfifo(PIPE)
            os.chmod(PIPE, 0o660)
        pipe = os.open(PIPE, os.O_RDWR | os.O_CLOEXEC)
    os.set_blocking(pipe, False)
    if fcntl.fcntl(pipe, fcntl.F_GETPIPE_SZ) < PIPE_SIZE:
        fcntl.fcntl(pipe, fcntl.F_SETPIPE_SZ, PIPE_SIZE)
    return pipe


class Archive:
    """A file, and what it has not taken yet. A thread of its own writes, so that no disk holds up the reading."""

    def __init__(self, pattern: str) -> None:
        self.pattern = pattern
        self.waiting: collections.deque[bytes] = collections.deque()
        self.bytes_waiting = 0
        self.lost = 0
        self.ending = False
        self.changed = threading.Condition()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def add(self, data: bytes) -> None:
        with self.changed:
            if self.bytes_waiting + len(data) > MOST_WAITING:
                self.lost += len(data)
                return
            self.waiting.append(data)
            self.bytes_waiting += len(data)
            self.changed.notify()

    def end(self) -> int:
        """Waits until all is written, and returns how many bytes are lost."""
        with self.changed:
            self.ending = True
            self.changed.notify()
        self.thread.join()
        return self.lost + self.bytes_waiting

    def run(self) -> None:
        complained = False
        while True:
            with self.changed:
                self.changed.wait_for(lambda: self.waiting or self.ending)
                if not self.waiting:
                    return
                data = b"".join(self.waiting)
                self.waiting.clear()
            try:
                self.write(data)
                complained = False
            except OSError as error:
                if not complained:
                    say(f"what comes waits in memory: {error}")
                complained = True
                if self.ending:
                    return
                time.sleep(RETRY_INTERVAL)

    def write(self, data: bytes) -> None:
        """All of it is on the disk afterwards; what is not goes back to what is waiting."""
        done = 0
        try:
            file = os.open(time.strftime(self.pattern), os.O_WRONLY | os.O_CREAT | os.O_APPEND | os.O_CLOEXEC, 0o640)
            try:
                while done < len(data):
                    done += os.write(file, data[done:])
                os.fdatasync(file)
            finally:
                os.close(file)
        finally:
            with self.changed:
                self.bytes_waiting -= done
                if done < len(data):
                    self.waiting.appendleft(data[done:])


def read_all(pipe: int, archive: Archive) -> None:
    """Until the pipe is empty."""
    try:
        while data := os.read(pipe, PIPE_SIZE):
            archive.add(data)
    except BlockingIOError:
        pass


def main(pattern: str) -> int:
    stopped, stop = os.pipe()
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, lambda *_: os.write(stop, b"."))
    signal.signal(signal.SIGTSTP, signal.SIG_IGN)
    pipe, archive = open_pipe(), Archive(pattern)
    poller = select.poll()
    for descriptor in (pipe, stopped):
        poller.register(descriptor, select.POLLIN)
    while stopped not in dict(poller.poll()):
        read_all(pipe, archive)
    read_all(pipe, archive)
    lost = archive.end()
    if lost:
        say(f"{lost} bytes are lost")
    return 1 if lost else 0


if __name__ == "__main__":
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    sys.exit(main(sys.argv[1]))
