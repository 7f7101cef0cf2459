"""halvekctl guard: a daemon short of descriptors is restarted, and what is posted meanwhile waits."""

import fcntl
import os
import subprocess
from pathlib import Path

import pytest
from ctl import PROGRAM, answer, ctl, environment, json_answer
from testing.pipes import DEFAULT_INPUT, PIPE_FOLDER, block, bytes_ready_at, post
from testing.settings import SERVER
from testing.users import FIRST_UID
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it looks for the daemon by its name")

STATE = Path("/run/halvekctl/guard")
PIPE_SIZE = 4096


@pytest.fixture(autouse=True)
def no_state():
    yield
    for path in STATE.parent.glob("*"):
        path.unlink()


@pytest.fixture
def systemctl(tmp_path):
    """A systemctl that notes its words and does what the test says; the variables under which it is found."""
    script = tmp_path / "bin/systemctl"
    script.parent.mkdir()

    def make(words: str = "exit 0") -> dict[str, str]:
        script.write_text(f'#!/bin/sh\necho "$@" >> {tmp_path}/calls\n{words}\n')
        script.chmod(0o755)
        return {"PATH": f"{script.parent}:{os.environ['PATH']}"}

    return make


@pytest.fixture
def calls(tmp_path):
    path = tmp_path / "calls"
    return lambda: path.read_text().splitlines() if path.exists() else []


@pytest.fixture
def unread_pipe():
    path = PIPE_FOLDER / "a.halvek.any"
    os.mkfifo(path)
    descriptor = os.open(path, os.O_RDWR | os.O_NONBLOCK)
    fcntl.fcntl(descriptor, fcntl.F_SETPIPE_SZ, PIPE_SIZE)
    os.write(descriptor, b"x" * PIPE_SIZE)
    yield path
    os.close(descriptor)


def lose(daemon, count: int) -> None:
    before = len(daemon.log.matching("FIFO Write failed"))
    post(block("Door") * count)
    daemon.log.wait_for("FIFO Write failed", count=before + count)


def limit(daemon, to: int) -> None:
    subprocess.run(["prlimit", "--pid", str(daemon.pid), f"--nofile={to}:"], check=True)


@pytest.fixture
def due(launch):
    """A daemon for which --percent=1 is exceeded."""
    daemon = launch(SERVER)
    limit(daemon, 100)
    return daemon


def test_with_enough_descriptors_nothing_is_done(launch, systemctl, calls):
    launch(SERVER)
    assert answer("guard", variables=systemctl()) == "" and calls() == []
    assert json_answer("guard", variables=systemctl())["did"] == "nothing" and not STATE.exists()


def test_from_ninety_percent_on_it_restarts_and_names_the_pipe_and_who_has_it_open(
    launch, systemctl, calls, unread_pipe
):
    daemon = launch(SERVER)
    lose(daemon, 40)
    limit(daemon, 100)
    assert answer("guard", variables=systemctl()) == "" and calls() == []
    lose(daemon, 45)
    told = answer("guard", variables=systemctl())
    assert calls() == ["restart halvek.service"]
    assert "of 100 descriptors of the daemon are open, 85 of them lost to " in told
    me = f"{os.getpid()} ({Path('/proc/self/comm').read_text().strip()})"
    assert f"{unread_pipe.resolve()}, which {me} has open and does not read; it is restarted" in told


def test_a_pipe_that_was_removed_and_many_reloads_are_named_too(launch, systemctl, unread_pipe):
    daemon = launch(SERVER)
    lose(daemon, 5)
    unread_pipe.unlink()
    assert "(deleted); it is restarted" in answer("guard", "--percent", "1", variables=systemctl())
    for _ in range(6):
        daemon.reload()
    told = answer("guard", "--percent", "1", variables=systemctl())
    assert "7 of them for configurations: it was reloaded that often" in told


def test_what_is_posted_while_there_is_no_daemon_waits_for_the_next(launch, due, systemctl, output_pipe, tmp_path):
    daemon = due
    go = tmp_path / "go"
    variables = systemctl(f"kill -TERM {daemon.pid}; until [ -e {go} ]; do sleep 0.01; done")
    guard = subprocess.Popen([PROGRAM, "guard", "--percent", "1"], env=environment(**variables), stderr=subprocess.PIPE)
    assert daemon.wait_for_exit() == 0
    size = len(block("Door", number=0))
    for number in range(5000):
        post(block("Door", number=number))
    assert bytes_ready_at(DEFAULT_INPUT) > 5000 * size  # more than a pipe holds by itself
    pipe = output_pipe()
    launch(SERVER, level="Warning")
    pipe.wait_for_event("Door", count=5000)
    assert [event.properties["number"] for event in pipe.items] == [str(number) for number in range(5000)]
    go.touch()
    assert guard.wait(20) == 0
    guard.stderr.close()


def test_four_times_in_an_hour_is_the_most(due, systemctl, calls):
    for _ in range(4):
        assert "it is restarted" in answer("guard", "--percent=1", variables=systemctl())
    told = answer("guard", "--percent=1", status=1, variables=systemctl())
    assert "not restarted: it was four times" in told and len(calls()) == 4
    assert json_answer("guard", "--percent=1", status=1, variables=systemctl())["did"] == "exhausted"
    times = [int(line) for line in STATE.read_text().splitlines()]
    STATE.write_text("".join(f"{time - 3600}\n" for time in times))
    assert json_answer("guard", "--percent=1", variables=systemctl())["did"] == "restarted"


@pytest.mark.parametrize("text", ["", "nonsense\n\n-5\n", "99999999999\n" * 9], ids=repr)
def test_notes_that_make_no_sense_are_no_restarts(due, systemctl, text):
    STATE.parent.mkdir(exist_ok=True)
    STATE.write_text(text)
    assert json_answer("guard", "--percent=1", variables=systemctl())["did"] == "restarted"


def test_a_restart_that_could_not_be_noted_is_not_done(due, systemctl, calls):
    STATE.parent.mkdir(exist_ok=True)
    (STATE.parent / "guard.new").mkdir()
    done = ctl("guard", "--percent=1", variables=systemctl())
    (STATE.parent / "guard.new").rmdir()
    assert (done.returncode, calls()) == (3, []) and b"cannot write" in done.stderr


def test_without_a_daemon_or_with_a_manager_that_fails_it_is_3(launch, systemctl, calls):
    done = ctl("guard", variables=systemctl())
    assert (done.returncode, done.stdout, calls()) == (3, b"", [])
    limit(launch(SERVER), 100)
    done = ctl("guard", "--percent=1", variables=systemctl("exit 5"))
    assert done.returncode == 3 and b"ended with status 5" in done.stderr


@pytest.mark.not_under("one user", reason="there is nobody else")
def test_who_may_not_see_the_descriptors_restarts_nothing(launch, systemctl, calls, tmp_path):
    for folder in (tmp_path, tmp_path.parent):
        folder.chmod(0o755)
    daemon = launch(SERVER)
    nobody = {"preexec_fn": lambda: os.setresuid(FIRST_UID, FIRST_UID, FIRST_UID), "cwd": "/"}
    done = ctl("guard", "--percent=1", variables=systemctl(), **nobody)
    assert (done.returncode, calls()) == (3, []) and b"hidden" in done.stderr
    wait_until(lambda: daemon.process.poll() is None, "it runs")


@pytest.mark.parametrize("words", [["x"], ["--percent", "0"], ["--percent", "101"]], ids=str)
def test_a_wrong_command_line_is_2(words):
    assert ctl("guard", *words).returncode == 2
