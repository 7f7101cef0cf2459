"""Hostile neighbours, each a process of its own that goes on until it is killed: attackers.py NAME [ARGUMENT]..."""

import contextlib
import os
import sys
import time
from collections.abc import Iterable
from itertools import count, repeat
from pathlib import Path

from scripted_service import ALERT, ALERT_INTERFACE, ALERT_PATH, ALERT_SIGNATURE
from testing.bus_client import DESTINATION, INTERFACE, MEMBER, PATH, SIGNAL, BusClient, BusError, encode
from testing.pipes import DEFAULT_INPUT, PIPE_FOLDER

from scene import SANITIZED

LARGE = 200_000
ALERT_SIZE = 100_000
NOBODY = 65534
CHUNK = 4096
# A sanitizer makes the daemon slower than the bus, which would have more and more waiting for it. In seconds.
PAUSE = 0.05 if SANITIZED else 0.0


def pour(pieces: Iterable[bytes]) -> None:
    """Writes them all, and waits for another reader where one has gone."""
    descriptor = os.open(DEFAULT_INPUT, os.O_WRONLY)
    for piece in pieces:
        rest = memoryview(piece)
        while rest:
            try:
                rest = rest[os.write(descriptor, rest) :]
            except BrokenPipeError:
                os.close(descriptor)
                descriptor = os.open(DEFAULT_INPUT, os.O_WRONLY)


def large_blocks() -> None:
    lines = b"".join(b"k%d=%s\n" % (i, b"v" * 1000) for i in range(LARGE // 1000))
    pour(repeat(b"[Large]\n" + lines + b".\n"))


def large_line() -> None:
    pour(repeat(b"[Large]\nx=" + b"v" * LARGE + b"\n.\n"))


def endless_block() -> None:
    """Of ever new properties."""
    pour(b"".join(b"k%d=%d\n" % (i, i) for i in range(start, start + 100)) for start in count(0, 100))


def endless_line() -> None:
    pour(repeat(b"x" * CHUNK))


def small_events() -> None:
    """As many as there is room for, each for one handler after the other, with types of their own."""
    pour(repeat(b"".join(b"[Own%d]\nx=%d\n.\n" % (i, i) for i in range(100))))


def emit(client: BusClient, messages: bytes) -> None:
    """One after the other, never more than the bus has taken."""
    while True:
        client.send_bytes(messages)
        client.call_bus("GetId")
        time.sleep(PAUSE)


def alert_of(size: int) -> bytes:
    fields = {PATH: ALERT_PATH, INTERFACE: ALERT_INTERFACE, MEMBER: ALERT}
    arguments = ("x" * size, "c", "a", "r", "", [], [], "video", "rtsp://x/1")
    return encode(SIGNAL, 1, fields, ALERT_SIGNATURE, *arguments)


def large_alerts(bus: str) -> None:
    emit(BusClient(bus), alert_of(ALERT_SIZE) * 10)


def small_alerts(bus: str) -> None:
    emit(BusClient(bus), alert_of(1) * 100)


def connections_of(client: BusClient, pid: int) -> Iterable[str]:
    for name in client.call_bus("ListNames")[0]:
        with contextlib.suppress(BusError):  # it has gone meanwhile
            if name.startswith(":") and client.call_bus("GetConnectionUnixProcessID", "s", name)[0] == pid:
                yield name


def signals_to_connections(bus: str, pid: str) -> None:
    """To every connection that the daemon has, whether it listens or not."""
    client = BusClient(bus)
    while True:
        for name in connections_of(client, int(pid)):
            fields = {PATH: "/x", INTERFACE: "x.y", MEMBER: "Z", DESTINATION: name}
            client.send_bytes(encode(SIGNAL, 1, fields, "s", "x" * 1000) * 100)
        client.call_bus("GetId")


def place_link(link: Path, target: str | Path) -> None:
    """One that is somebody else's from its beginning; none where there is nobody else."""
    made = link.parent.parent / link.name
    made.symlink_to(target)
    try:
        os.chown(made, NOBODY, NOBODY, follow_symlinks=False)
        made.rename(link)
    except OSError:
        made.unlink()


def strange_outputs() -> None:
    """What a member of the listeners' group can put among the output pipes, but for a pipe that fills up."""
    links = [PIPE_FOLDER / f"a{number}.halvek.any" for number in range(1, 5)]
    names = [PIPE_FOLDER / "a0.Alarm", *links, PIPE_FOLDER / "a5.Nobody"]
    pipe = os.fspath(names[0])
    os.mkfifo(pipe)
    reader = os.open(pipe, os.O_RDWR | os.O_NONBLOCK)
    while True:
        for link, target in zip(names[1:4], (DEFAULT_INPUT, "/etc/passwd", names[3]), strict=True):
            place_link(link, target)
        names[4].mkdir()
        os.mkfifo(names[5])
        try:
            while os.read(reader, 1 << 16):
                pass
        except BlockingIOError:
            time.sleep(0.01)
        for link in (*names[1:4], names[5]):
            link.unlink(missing_ok=True)
        names[4].rmdir()


if __name__ == "__main__":
    os.nice(5)
    globals()[sys.argv[1]](*sys.argv[2:])
