"""halvekctl watch: every event as it comes, and never a descriptor of the daemon's, whatever becomes of the watcher."""

import contextlib
import json
import os
import pty
import re
import signal
import stat
import subprocess
import sys
import threading
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
from ctl import PROGRAM, ctl, environment
from flooding import HURRIED, MANY, Descriptors, flood
from memory_disk import memory_disk
from testing.collector import Lines
from testing.pipes import PIPE_FOLDER, block, post
from testing.settings import SERVER
from testing.users import FIRST_UID
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is about speed, and about processes by name")

HOSTILE = "a\x1b]0;x\x07\x9b2J\x7f"


class Watcher:
    def __init__(self, *words: str, **options) -> None:
        streams = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        # A process group of its own, as a shell gives it one: no other stops at SIGTSTP where nobody has a terminal.
        self.process = subprocess.Popen(
            [PROGRAM, *words], **{"env": environment(), "process_group": 0} | streams | options
        )
        self.first_line = self.process.stderr.readline().decode()
        found = re.fullmatch(r"halvekctl: reading (\S+)\n", self.first_line)
        assert found, self.first_line
        self.pipe = Path(found[1])

    def line(self) -> str:
        return self.process.stdout.readline().decode()

    def object(self) -> dict:
        return json.loads(self.line())

    def relay(self) -> int:
        (child,) = Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text().split()
        return int(child)

    def end(self, number: int = signal.SIGINT) -> int:
        self.process.send_signal(number)
        return self.process.wait(20)

    def close(self) -> None:
        self.process.kill()
        self.process.wait()
        for stream in (self.process.stdout, self.process.stderr):
            if stream:
                stream.close()


@pytest.fixture
def watch() -> Iterator[Callable[..., Watcher]]:
    started: list[Watcher] = []

    def start(*words: str, **options) -> Watcher:
        started.append(Watcher(*words, **options))
        return started[-1]

    yield start
    for watcher in started:
        watcher.close()


def pipes() -> list[str]:
    return sorted(path.name for path in PIPE_FOLDER.iterdir())


def shown_and_dropped(lines: list[str]) -> tuple[int, int]:
    objects = [json.loads(line) for line in lines]
    numbers = [item["seq"] for item in objects if "seq" in item]
    dropped = sum(item.get("dropped", 0) for item in objects)
    assert numbers == sorted(set(numbers)) and numbers[-1] == len(numbers) + dropped
    return len(numbers), dropped


def test_an_event_is_a_line_with_the_time_at_which_it_was_read(launch, watch):
    launch(SERVER)
    watcher = watch("watch")
    post(block("Doorbell", button="front", note='at the "door"', empty=""))
    stamp = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z"
    assert re.fullmatch(
        stamp + r" Doorbell FormattedTime=\S+ Timestamp=\S+ button=front empty=\"\" eventId=Doorbell "
        r'eventType=Doorbell note="at the \\"door\\""\n',
        line := watcher.line(),
    ), line


def test_in_json_an_event_is_an_object_with_a_number(launch, watch):
    launch(SERVER)
    watcher = watch("--format", "json", "watch")
    for number in (1, 2):
        post(block("Door", n=number))
        event = watcher.object()
        assert (event["seq"], event["type"], event["stale"]) == (number, "Door", False)
        assert event["clock"] in ("synced", "unsynced") and re.fullmatch(r"[\d-]+T[\d:]+\.\d{3}Z", event["time"])
        assert event["props"].items() >= {"n": str(number), "eventType": "Door", "eventId": "Door"}.items()


def test_its_pipe_is_named_after_it_and_for_nobody_else_and_gone_with_it(launch, watch):
    launch(SERVER)
    watcher = watch("watch", "--count", "2")
    assert pipes() == [f"zz-watch.{watcher.process.pid}.halvek.any"] == [watcher.pipe.name]
    status = watcher.pipe.stat()
    assert stat.S_ISFIFO(status.st_mode) and stat.S_IMODE(status.st_mode) & 0o007 == 0
    post(block("Door") * 3)
    assert watcher.process.wait(20) == 0 and pipes() == []
    assert len(watcher.process.stdout.read().splitlines()) == 2


def test_of_one_type_the_others_are_neither_shown_nor_counted(launch, watch):
    launch(SERVER)
    watcher = watch("--format=json", "watch", "--type", "Door", "--count=2")
    post(block("Bell") + block("Door", n=1) + block("Doors") + block("Door", n=2))
    assert [(watcher.object()["seq"]), watcher.object()["seq"]] == [1, 2]
    assert watcher.process.wait(20) == 0


@pytest.mark.parametrize("words", [["watch"], ["watch", "--raw"], ["--format", "json", "watch"]], ids=str)
def test_nothing_in_an_event_steers_a_terminal_or_is_a_password(launch, watch, words):
    launch(SERVER)
    watcher = watch(*words, "--count", "1")
    post(f"[{HOSTILE}]\nkey{HOSTILE}=value{HOSTILE}\r\nPassword=topsecret\n.\n".encode("latin-1"))
    text = watcher.process.stdout.read().decode()
    assert watcher.process.wait(20) == 0
    assert not re.search(r"[\x00-\x09\x0b-\x1f\x7f-\x9f]", text) and "value" in text
    assert "topsecret" not in text and "***" in text


def test_raw_blocks_are_those_of_the_daemon(launch, watch, output_pipe):
    pipe = output_pipe()
    launch(SERVER)
    watcher = watch("watch", "--raw", "--count", "1")
    post(block("Door", a="1 2", b=""))
    assert watcher.process.wait(20) == 0
    properties = pipe.wait_for_event("Door").properties
    assert watcher.process.stdout.read().decode() == block("Door", **properties)


# --- what becomes of the watcher


@pytest.mark.parametrize("number", [signal.SIGSTOP, signal.SIGTSTP], ids=lambda number: number.name)
def test_one_that_is_stopped_costs_no_descriptor_and_says_later_what_it_dropped(launch, watch, tmp_path, number):
    descriptors = Descriptors(launch(SERVER, **HURRIED))
    output = tmp_path / "out"
    with output.open("wb") as file:
        watcher = watch("--format", "json", "watch", stdout=file)
    watcher.process.send_signal(number)
    flood()
    descriptors.assert_none_lost()
    watcher.process.send_signal(signal.SIGCONT)
    post(block("Last"))
    wait_until(lambda: b'"Last"' in output.read_bytes(), "the last event")
    assert watcher.end() == -signal.SIGINT and pipes() == []
    shown, dropped = shown_and_dropped(output.read_text().splitlines())
    assert shown + dropped == MANY + 1 and dropped > 0


@contextlib.contextmanager
def a_byte_a_second(descriptor: int) -> Iterator[None]:
    """Takes no more than that from a pipe."""
    enough = threading.Event()

    def sip() -> None:
        while not enough.wait(1):
            os.read(descriptor, 1)

    reader = threading.Thread(target=sip)
    reader.start()
    yield
    enough.set()
    reader.join()


def test_one_behind_a_reader_that_takes_a_byte_a_second_costs_no_descriptor(launch, watch):
    descriptors = Descriptors(launch(SERVER, **HURRIED))
    watcher = watch("--format", "json", "watch")
    with a_byte_a_second(watcher.process.stdout.fileno()):
        flood()
    descriptors.assert_none_lost()


@contextlib.contextmanager
def at_a_terminal(*command: str) -> Iterator[tuple[int, Lines]]:
    """The terminal of a session, and what it shows. The hang-up at the end ends all that is in front of it."""
    pid, terminal = pty.fork()
    if pid == 0:
        os.execvpe(command[0], command, environment(TERM="dumb"))
    screen = Lines(os.dup(terminal), "terminal")
    try:
        yield terminal, screen
    finally:
        screen.close()
        os.close(terminal)
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, signal.SIGKILL)
        os.waitpid(pid, 0)


@pytest.mark.parametrize("words", [["watch"], ["record", "inputs"]], ids=lambda words: words[0])
def test_ctrl_z_at_a_terminal_stops_what_is_shown_and_not_the_reading(launch, words, tmp_path, monkeypatch):
    descriptors = Descriptors(launch(SERVER, **HURRIED))
    monkeypatch.chdir(tmp_path)
    # A job of its own, as an interactive shell makes them: the terminal stops nobody whose session it leads.
    command = ["halvekctl", *words]
    job = f"import os,sys\npid = os.posix_spawn({PROGRAM!r}, {command!r}, os.environ, setpgroup=0)\n"
    job += "import signal; signal.signal(signal.SIGTTOU, signal.SIG_IGN); os.tcsetpgrp(0, pid)\n"
    job += "print('in front', flush=True)\n"
    job += "print('stopped', os.WIFSTOPPED(os.waitpid(pid, os.WUNTRACED)[1]), flush=True)\nsignal.pause()\n"
    with at_a_terminal(sys.executable, "-B", "-c", job) as (terminal, screen):
        screen.wait_for("reading ")
        screen.wait_for("in front")
        os.write(terminal, b"\x1a")
        screen.wait_for("stopped True")
        flood()
        descriptors.assert_none_lost()
    wait_until(lambda: pipes() == [], "the hang-up ends it")


def test_a_pager_that_waits_for_a_key_costs_no_descriptor(launch):
    descriptors = Descriptors(launch(SERVER, **HURRIED))
    with at_a_terminal("sh", "-c", f"{PROGRAM} watch | more") as (_, screen):
        screen.wait_for("reading ")
        flood(MANY // 2)
        screen.wait_for(" number=0 ")
        flood(MANY // 2)
        descriptors.assert_none_lost()
    wait_until(lambda: pipes() == [], "the hang-up ends it")


def test_a_fast_reader_sees_every_event_in_order(launch, watch, tmp_path):
    descriptors = Descriptors(launch(SERVER, level="Warning"))
    output = tmp_path / "out"
    with output.open("wb") as file:
        watcher = watch("--format", "json", "watch", "--count", str(MANY), stdout=file)
    flood()
    assert watcher.process.wait(60) == 0
    assert shown_and_dropped(output.read_text().splitlines())[0] == MANY
    descriptors.assert_none_lost()


@pytest.mark.parametrize("victim", ["itself", "its relay"])
@pytest.mark.parametrize("words", [["watch"], ["record", "out"]], ids=lambda words: words[0])
def test_killed_among_events_it_leaves_no_pipe_and_costs_no_descriptor(
    launch, watch, tmp_path, monkeypatch, words, victim
):
    descriptors = Descriptors(launch(SERVER, **HURRIED))
    monkeypatch.chdir(tmp_path)
    with open("out", "wb") as file:
        watcher = watch(*words, stdout=file)
    with ThreadPoolExecutor() as poster:
        flooding = poster.submit(flood)
        wait_until(lambda: (tmp_path / "out").stat().st_size > 0, "the first events")
        os.kill(watcher.process.pid if victim == "itself" else watcher.relay(), signal.SIGKILL)
        wait_until(lambda: pipes() == [], "the pipe is gone")
        flooding.result()
    assert watcher.process.wait(20) == (-signal.SIGKILL if victim == "itself" else 3)
    descriptors.assert_none_lost()


def test_what_a_killed_one_and_its_relay_left_the_next_removes(watch):
    first = watch("watch")
    os.kill(first.relay(), signal.SIGSTOP)
    relay = first.relay()
    first.process.kill()
    first.process.wait()
    os.kill(relay, signal.SIGKILL)
    assert pipes() == [first.pipe.name]
    others = ["zz-watch.halvek.any", "zz-watch.x.halvek.any", "zz-watch.1x.halvek.any", "zz-watched.999999.halvek.any"]
    for name in others:
        os.mkfifo(PIPE_FOLDER / name)
    # A number that another program has by now, and a name that is no pipe.
    os.mkfifo(PIPE_FOLDER / f"zz-watch.{os.getpid()}.halvek.any")
    (PIPE_FOLDER / "zz-watch.999999.halvek.any").write_text("")
    second, third = watch("watch"), watch("watch")
    assert pipes() == sorted([*others, second.pipe.name, third.pipe.name, "zz-watch.999999.halvek.any"])


def test_a_relay_that_is_killed_is_told_and_leaves_no_pipe(watch):
    watcher = watch("watch")
    os.kill(watcher.relay(), signal.SIGKILL)
    assert watcher.process.wait(20) == 3 and pipes() == []
    assert b"has ended" in watcher.process.stderr.read()


@pytest.mark.parametrize(
    "number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT], ids=lambda number: number.name
)
def test_a_signal_ends_it_as_ever_and_the_pipe_first(watch, number):
    watcher = watch("watch", preexec_fn=lambda: os.chdir("/"))
    assert watcher.end(number) == -number and pipes() == []


def test_a_relay_that_somebody_has_stopped_does_not_hold_up_the_end(watch):
    watcher = watch("watch")
    os.kill(watcher.relay(), signal.SIGSTOP)
    assert watcher.end() == -signal.SIGINT


def test_the_relay_belongs_to_no_terminal_and_holds_none_of_the_streams(watch):
    watcher = watch("watch")
    relay = watcher.relay()
    assert os.getsid(relay) == relay
    streams = {os.readlink(f"/proc/{relay}/fd/{number}") for number in (0, 1, 2)}
    assert streams == {"/dev/null"}
    mine = [os.readlink(path) for path in Path(f"/proc/{watcher.process.pid}/fd").iterdir()]
    assert str(watcher.pipe.resolve()) not in mine


def test_where_the_answer_cannot_be_written_it_is_3_and_there_is_no_pipe():
    assert ctl("watch", stdout=None, preexec_fn=lambda: os.close(1)).returncode == 3
    with open("/dev/full", "wb") as full:
        done = ctl("watch", stdout=full)
    assert done.returncode == 3 and b"cannot be written" in done.stderr and pipes() == []


def test_on_a_full_disk_it_ends_with_3_and_the_daemon_loses_nothing(launch, watch, tmp_path):
    descriptors = Descriptors(launch(SERVER, **HURRIED))
    disk = tmp_path / "disk"
    disk.mkdir()
    with memory_disk(disk, "size=64k"):
        with (disk / "out").open("wb") as file:
            watcher = watch("watch", stdout=file)
        flood()
        assert watcher.process.wait(20) == 3 and pipes() == []
        assert b"cannot be written: No space left" in watcher.process.stderr.read()
    descriptors.assert_none_lost()


def test_a_reader_who_has_gone_ends_it_by_the_signal(launch, watch):
    launch(SERVER)
    watcher = watch("watch")
    watcher.process.stdout.close()
    post(block("Door"))
    assert watcher.process.wait(20) == -signal.SIGPIPE and pipes() == []
    watcher.process.stdout = None


@pytest.mark.not_under("one user", reason="there is nobody else")
def test_without_the_folder_or_the_right_to_make_a_pipe_in_it_it_is_3():
    done = ctl("watch", preexec_fn=lambda: os.setresuid(FIRST_UID, FIRST_UID, FIRST_UID), cwd="/")
    assert (done.returncode, done.stdout) == (3, b"") and b"Permission denied" in done.stderr
    PIPE_FOLDER.rmdir()
    done = ctl("watch")
    assert (done.returncode, done.stdout) == (3, b"") and b"No such file" in done.stderr


@pytest.mark.parametrize("words", [["x"], ["--count", "0"], ["--count", "x"], ["--raw", "--format=json"]], ids=str)
def test_a_wrong_command_line_is_2(words):
    done = ctl("watch", *words)
    assert (done.returncode, done.stdout) == (2, b"") and pipes() == []
