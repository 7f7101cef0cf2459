"""Descriptors 0 to 2 as the starter may leave them: closed, or with a reader who takes nothing or has gone."""

import os
import re
import signal
import socket
import subprocess
import time
from collections.abc import Callable, Iterator
from itertools import chain, combinations
from pathlib import Path

import pytest
from testing.collector import Lines
from testing.daemon import PROGRAM
from testing.notifications import NotifySocket
from testing.pipes import DEFAULT_INPUT, block, post
from testing.settings import SERVER, handler, ini_text, timer
from testing.waiting import PATIENCE, wait_until

STOP_TIME = 2.0  # seconds, in which a stop has to get through
RECORD = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3} (Trace|Debug|Information|Warning|Error) [A-Za-z.]+: |    ")
DROPPED = re.compile(r"Error kelto\.core: (\d+) records were dropped, nobody reads standard error$")
SIGPIPE_BIT = 1 << (signal.SIGPIPE - 1)


class BareDaemon:
    """A daemon whose standard streams are the test's affair."""

    def __init__(self, folder: Path, settings: str, prefix=(), arguments=(), **streams) -> None:
        self.settings_file = folder / "settings.ini"
        self.settings_file.write_text(settings)
        self.notifications = NotifySocket(folder / "notify")
        environment = {name: value for name, value in os.environ.items() if name != "JOURNAL_STREAM"}
        environment |= {
            "KELTO_SETTINGS": str(self.settings_file),
            "KELTO_LOG": "Debug",
            "NOTIFY_SOCKET": str(self.notifications.path),
        } | streams.pop("environment", {})
        streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL} | streams
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "--", *prefix, PROGRAM, *arguments], env=environment, **streams
        )

    def wait_until_ready(self) -> None:
        self.notifications.wait_for("READY=1")

    def descriptor(self, number: int) -> str:
        return os.readlink(f"/proc/{self.process.pid}/fd/{number}")

    def reload(self, settings: str) -> None:
        self.settings_file.write_text(settings)
        self.process.send_signal(signal.SIGHUP)

    def stop(self) -> int:
        self.process.send_signal(signal.SIGTERM)
        return self.process.wait(PATIENCE)

    def close(self) -> None:
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.notifications.close()


@pytest.fixture
def start(tmp_path: Path) -> Iterator[Callable[..., BareDaemon]]:
    daemons: list[BareDaemon] = []

    def begin(settings: dict, **options) -> BareDaemon:
        daemons.append(BareDaemon(tmp_path, ini_text(settings), **options))
        return daemons[-1]

    yield begin
    for daemon in daemons:
        daemon.close()


def fill(descriptor: int) -> None:
    """Takes all room, to the last byte, by empty lines."""
    os.set_blocking(descriptor, False)
    for size in (65536, 1):
        try:
            while os.write(descriptor, b"\n" * size):
                pass
        except BlockingIOError:
            pass
    os.set_blocking(descriptor, True)


def lines_of(log: Lines) -> list[str]:
    return [line for line in log.items if line]


def a_pipe() -> tuple[int, int]:
    return os.pipe()


def a_socket() -> tuple[int, int]:
    ours, theirs = socket.socketpair()
    return ours.detach(), theirs.detach()


def with_closed(closed: tuple[int, ...]) -> tuple[str, ...]:
    return ("sh", "-c", 'exec "$@" ' + " ".join(f"{number}>&-" for number in closed), "sh")


COMBINATIONS = list(chain.from_iterable(combinations(range(3), size) for size in range(4)))


@pytest.mark.parametrize("closed", COMBINATIONS, ids=str)
def test_whatever_of_0_to_2_is_closed_at_start_is_no_pipe_of_the_daemons_own(start, output_pipe, closed):
    pipe = output_pipe()
    daemon = start(SERVER, prefix=with_closed(closed), stderr=subprocess.DEVNULL)
    daemon.wait_until_ready()
    assert [daemon.descriptor(number) for number in range(3)] == ["/dev/null"] * 3
    post(block("Door"))
    pipe.wait_for_event("Door")
    daemon.reload(ini_text(SERVER | timer(1, 1)))
    pipe.wait_for_event("Timer")
    post(block("Window"))
    pipe.wait_for_event("Window")
    assert daemon.stop() == 0
    assert {event.type for event in pipe.items} == {"Door", "Window", "Timer"}, "a record was read as an event"


@pytest.mark.parametrize("make", [a_pipe, a_socket])
def test_a_log_that_nobody_reads_holds_nothing_up(start, output_pipe, make):
    reader, writer = make()
    fill(writer)
    pipe = output_pipe()
    daemon = start(SERVER | timer(1, 1), stderr=writer)
    daemon.wait_until_ready()
    pipe.wait_for_event("Timer", count=2)
    post(block("Door"))
    pipe.wait_for_event("Door")
    daemon.reload(ini_text(SERVER | {"Events/Source#2": {"Type": "Window"}} | timer(1, 3600)))
    pipe.wait_for_event("Timer", count=1)
    post(block("Window"))
    pipe.wait_for_event("Window")
    begin = time.monotonic()
    assert daemon.stop() == 0
    assert time.monotonic() - begin < STOP_TIME
    os.close(reader)
    os.close(writer)


@pytest.mark.parametrize("make", [a_pipe, a_socket])
def test_what_was_dropped_is_told_once_there_is_room_again(start, output_pipe, make):
    reader, writer = make()
    fill(writer)
    pipe = output_pipe()
    daemon = start(SERVER, stderr=writer)
    daemon.wait_until_ready()
    post(block("Door"))
    pipe.wait_for_event("Door")
    os.close(writer)
    log = Lines(reader, "log")
    lines_of(log)  # taken now, so that there is room before the next event
    post(block("Window"))
    log.wait_for("Received event: Window")
    assert daemon.stop() == 0
    lines = lines_of(log)
    counts = [int(found[1]) for line in lines if (found := DROPPED.search(line))]
    assert len(counts) == 1 and counts[0] > 20
    assert DROPPED.search(lines[0]), "it stands in front of all that found room again"
    assert [line for line in lines if not RECORD.search(line)] == []
    log.close()


@pytest.mark.parametrize("make", [a_pipe, a_socket])
def test_a_reader_that_has_gone_ends_nothing(start, output_pipe, make):
    reader, writer = make()
    pipe = output_pipe()
    daemon = start(SERVER, stderr=writer)
    daemon.wait_until_ready()
    os.close(reader)
    os.close(writer)
    post(block("Door"))
    pipe.wait_for_event("Door")
    daemon.reload(ini_text(SERVER | timer(1, 1)))
    pipe.wait_for_event("Timer", count=2)
    assert daemon.stop() == 0


@pytest.mark.parametrize("make", [a_pipe, a_socket])
def test_a_reader_that_was_gone_before_the_start_ends_nothing_either(start, output_pipe, make):
    reader, writer = make()
    os.close(reader)
    pipe = output_pipe()
    daemon = start(SERVER, stderr=writer)
    daemon.wait_until_ready()
    os.close(writer)
    post(block("Door"))
    pipe.wait_for_event("Door")
    assert daemon.stop() == 0


@pytest.mark.parametrize("make", [a_pipe, a_socket])
def test_a_fatal_error_is_told_to_the_service_manager_whoever_reads_the_log(start, make):
    reader, writer = make()
    fill(writer)
    daemon = start(SERVER, stderr=writer, arguments=("--help",))
    daemon.notifications.wait_for("ERRNO=5")
    assert daemon.process.wait(PATIENCE) == 1
    os.close(reader)
    os.close(writer)


def test_whoever_shares_the_pipe_still_waits_for_its_reader(start):
    reader, writer = os.pipe()
    daemon = start(SERVER, stderr=writer)
    daemon.wait_until_ready()
    assert os.get_blocking(writer)
    assert daemon.stop() == 0
    os.close(reader)
    os.close(writer)


def test_a_pipe_of_another_user_holds_nothing_up(start, output_pipe):
    reader, writer = os.pipe()
    os.fchmod(writer, 0)  # without the privilege that is taken away below, it cannot be opened anew
    fill(writer)
    os.mkfifo(DEFAULT_INPUT, 0o600)
    pipe = output_pipe()
    daemon = start(SERVER, stderr=writer, prefix=("setpriv", "--bounding-set=-dac_override,-dac_read_search", "--"))
    daemon.wait_until_ready()
    post(block("Door"))
    pipe.wait_for_event("Door")
    log = Lines(os.dup(reader), "log")
    lines_of(log)  # taken now, so that there is room before the next event
    post(block("Window"))
    log.wait(DROPPED.search, "the number of dropped records")
    log.wait_for("Received event: Window")
    log.close()  # who goes on reading may never let it be full
    fill(writer)
    begin = time.monotonic()
    assert daemon.stop() == 0
    assert time.monotonic() - begin < STOP_TIME
    os.close(reader)
    os.close(writer)


def test_a_configuration_larger_than_the_pipe_is_logged_whole_for_a_reader_that_reads(start):
    reader, writer = os.pipe()
    many = {f"Events/Source#{number}": {"Type": "Door", "Text": "x" * 1000} for number in range(300)}
    daemon = start(SERVER | many, stderr=writer)
    os.close(writer)
    log = Lines(reader, "log")
    daemon.wait_until_ready()
    log.wait_for("Dropping to run state$")
    assert daemon.stop() == 0
    log.wait_for_end()
    assert [line for line in log.items if not RECORD.search(line)] == []
    assert len(log.matching("^    Text=x{1000}$")) == 300
    log.close()


@pytest.mark.parametrize("gone", [False, True])
def test_commands_have_the_default_for_a_broken_pipe(tmp_path, start, gone):
    programs = tmp_path / "bin"
    programs.mkdir()
    seen = tmp_path / "status"
    (programs / "ftpput").write_text(f"#!/bin/sh\ncat /proc/self/status > {seen}.new && mv {seen}.new {seen}\n")
    (programs / "ftpput").chmod(0o755)
    reader, writer = os.pipe()
    upload = handler(1, "Events/Source#1", handler_type="Ftp", Attachment="true", Server="none", DestName="x")
    snapshot = {"Video/Quickview": {"SnapshotPath": "/dev/null"}}
    path = {"PATH": f"{programs}:{os.environ['PATH']}"}
    daemon = start(timer(1, 1) | upload | snapshot, stderr=writer, environment=path)
    os.close(writer)
    if gone:
        os.close(reader)
    wait_until(seen.exists, "the upload")
    masks = dict(re.findall(r"^(SigBlk|SigIgn):\s+(\w+)$", seen.read_text(), re.MULTILINE))
    assert [int(masks[name], 16) & SIGPIPE_BIT for name in ("SigBlk", "SigIgn")] == [0, 0]
    assert daemon.stop() == 0
    if not gone:
        os.close(reader)
