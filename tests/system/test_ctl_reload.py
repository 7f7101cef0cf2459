"""halvekctl reload: new settings, and whether the daemon took them. systemctl is a script that sends the signal."""

import json
import os
import random
import signal
import subprocess
import threading
from pathlib import Path

import pytest
from ctl import PROGRAM, ctl, environment
from testing.pipes import DEFAULT_INPUT, block
from testing.settings import SERVER, handler, timer

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it looks at the daemon's threads from outside")

ROUNDS = int(os.environ.get("HALVEK_RELOAD_ROUNDS", "20"))
GOOD = SERVER | timer(1, 3600)
# Taken by the daemon without the handler, and refused by the check.
MISTAKEN = GOOD | handler(1, "Events/Source#7", handler_type="Relay")
MALFORMED = "[Events/Source#1]\nnonsense\n"
SILENT = timer(1, 3600)  # no event pipe


@pytest.fixture
def systemctl(tmp_path):
    """Makes a systemctl for a daemon; words are a shell's. Returns the variables under which it is found."""

    def make(daemon, words: str = 'kill -HUP "$daemon"') -> dict[str, str]:
        folder = tmp_path / "bin"
        folder.mkdir(exist_ok=True)
        (folder / "systemctl").write_text(f'#!/bin/sh\necho "$@" >> {tmp_path}/calls\ndaemon={daemon.pid}\n{words}\n')
        (folder / "systemctl").chmod(0o755)
        return {"PATH": f"{folder}:{os.environ['PATH']}"}

    yield make


def calls(tmp_path: Path) -> list[str]:
    path = tmp_path / "calls"
    return path.read_text().splitlines() if path.exists() else []


def reload(*words: object, status: int, variables: dict[str, str], **options) -> dict:
    done = ctl("--format", "json", "reload", *words, variables=variables, **options)
    assert done.returncode == status, done
    return json.loads(done.stdout) if done.stdout else {}


def test_without_a_daemon_it_is_3_and_nobody_is_asked(tmp_path, systemctl):
    class Nobody:
        pid = os.getpid()

    done = ctl("reload", variables=systemctl(Nobody, "exit 1"))
    assert (done.returncode, done.stdout, calls(tmp_path)) == (3, b"", []) and b"no daemon" in done.stderr


@pytest.mark.parametrize("level", ["Information", "Warning"])
def test_settings_that_were_taken_are_told(launch, systemctl, tmp_path, level):
    daemon = launch(GOOD, level=level)
    daemon.write_settings(SERVER | timer(2, 3600))
    done = ctl("reload", variables=systemctl(daemon))
    assert done.returncode == 0 and done.stdout == b"The daemon has taken the settings.\n", done
    assert b"the journal has nothing" in done.stderr and calls(tmp_path) == ["reload halvek.service"]
    told = reload(status=0, variables=systemctl(daemon))
    assert (told["taken"], told["refused_by"], told["records_hidden"]) == (True, None, True)


@pytest.mark.parametrize("settings", [MISTAKEN, MALFORMED], ids=["mistaken", "malformed"])
def test_errors_are_refused_before_anybody_is_asked(launch, systemctl, tmp_path, settings):
    daemon = launch(GOOD)
    daemon.write_settings(settings)
    done = ctl("reload", variables=systemctl(daemon))
    assert done.returncode == 1 and b": error: " in done.stdout and calls(tmp_path) == []
    told = reload(status=1, variables=systemctl(daemon))
    assert (told["taken"], told["refused_by"]) == (False, "check") and told["findings"]
    assert not daemon.log.matching("got: 'R'")


@pytest.mark.parametrize("level", ["Information", "Warning"])
def test_by_force_the_daemon_decides(launch, systemctl, level):
    daemon = launch(GOOD, level=level)
    daemon.write_settings(MISTAKEN)
    assert reload("--force", status=0, variables=systemctl(daemon))["taken"] is True
    daemon.write_settings(MALFORMED)
    assert reload("--force", status=1, variables=systemctl(daemon))["refused_by"] == "daemon"
    daemon.settings_file.unlink()
    assert reload("--force", status=1, variables=systemctl(daemon))["refused_by"] == "daemon"
    assert reload(status=3, variables=systemctl(daemon)) == {}


def test_by_force_a_unit_that_checks_by_itself_is_passed_by(launch, systemctl, tmp_path):
    daemon = launch(GOOD)
    daemon.write_settings(MISTAKEN)
    words = 'test "$1" = kill || exit 1\nkill -HUP "$daemon"'
    assert reload("--force", status=0, variables=systemctl(daemon, words))["taken"] is True
    assert calls(tmp_path)[1:] == ["kill --kill-who=main --signal=HUP halvek.service"]


def test_settings_without_anything_that_can_be_seen_are_taken_too(launch, systemctl):
    daemon = launch(GOOD)
    for settings in ({}, {}, SILENT, {}, MALFORMED):
        daemon.write_settings(settings)
        is_taken = settings != MALFORMED
        assert reload("--force", status=0 if is_taken else 1, variables=systemctl(daemon))["taken"] is is_taken


def test_a_reload_for_which_there_is_no_descriptor_is_refused(launch, systemctl):
    daemon = launch(GOOD)
    used = {int(name) for name in os.listdir(f"/proc/{daemon.pid}/fd")}
    free = next(number for number in range(1000) if number not in used)
    subprocess.run(["prlimit", "--pid", str(daemon.pid), f"--nofile={free}:"], check=True)
    assert reload(status=1, variables=systemctl(daemon))["refused_by"] == "daemon"
    assert daemon.log.matching("Error reloading.*Too many open files")


def test_a_manager_that_fails_or_does_nothing_or_is_not_there_is_3(launch, systemctl):
    daemon = launch(GOOD)
    done = ctl("reload", variables=systemctl(daemon, "exit 4"))
    assert (done.returncode, done.stdout) == (3, b"") and b"ended with status 4" in done.stderr
    done = ctl("reload", "--timeout", "1", variables=systemctl(daemon, "exit 0"))
    assert (done.returncode, done.stdout) == (3, b"") and b"in time" in done.stderr
    done = ctl("reload", "--timeout", "1", variables=systemctl(daemon, "exec sleep 60"))
    assert (done.returncode, done.stdout) == (3, b"") and b"does not come to an end" in done.stderr
    done = ctl("reload", variables={"PATH": "/nowhere"})
    assert (done.returncode, done.stdout) == (3, b"") and b"cannot run systemctl" in done.stderr


def test_a_daemon_that_ends_is_3(launch, systemctl):
    daemon = launch(GOOD)
    done = ctl("reload", variables=systemctl(daemon, 'kill -TERM "$daemon"'))
    assert (done.returncode, done.stdout) == (3, b"") and b"the daemon has ended" in done.stderr
    assert daemon.wait_for_exit() == 0


def test_a_slow_manager_is_waited_for(launch, systemctl):
    daemon = launch(GOOD)
    later = '(sleep 0.5; kill -HUP "$daemon") >/dev/null 2>&1 &'
    assert reload(status=0, variables=systemctl(daemon, later))["taken"] is True


def test_nobody_is_asked_where_the_answer_cannot_be_given(launch, systemctl, tmp_path):
    daemon = launch(GOOD)
    assert ctl("reload", variables=systemctl(daemon), stdout=None, preexec_fn=lambda: os.close(1)).returncode == 3
    assert calls(tmp_path) == []


@pytest.mark.parametrize("words", [["x"], ["--timeout", "0"], ["--timeout", "x"]], ids=str)
def test_a_wrong_command_line_is_2(words):
    assert ctl("reload", *words).returncode == 2


class Traffic(threading.Thread):
    """Events without an end, as fast as the daemon takes them."""

    def __init__(self) -> None:
        super().__init__()
        self._running = True
        self._pipe = os.open(DEFAULT_INPUT, os.O_WRONLY | os.O_NONBLOCK)
        self.start()

    def run(self) -> None:
        text = block("Traffic", text="x" * 100).encode()
        while self._running:
            try:
                os.write(self._pipe, text * 30)
            except BlockingIOError:
                threading.Event().wait(0.001)

    def stop(self) -> None:
        self._running = False
        self.join()
        os.close(self._pipe)


@pytest.mark.parametrize("level", ["Information", "Warning"])
def test_random_reloads_under_traffic_are_judged_as_the_daemon_judges_them(launch, systemctl, level):
    daemon = launch(GOOD, level=level)
    variables = systemctl(daemon)
    chance = random.Random(level)
    traffic = Traffic()
    try:
        for _ in range(ROUNDS // 2):
            settings = chance.choice([GOOD, GOOD | timer(2, 3600), MISTAKEN, MALFORMED, SILENT])
            daemon.write_settings(settings)
            force = chance.random() < 0.7
            refused = len(daemon.log.matching("Error reloading"))
            told = reload(
                *["--force"] * force,
                status=int(settings == MALFORMED or (settings == MISTAKEN and not force)),
                variables=variables,
            )
            by = "check" if not force and not told["taken"] else None if told["taken"] else "daemon"
            assert told["refused_by"] == by
            assert (len(daemon.log.matching("Error reloading")) > refused) == (by == "daemon")
    finally:
        traffic.stop()


def test_an_interrupt_ends_the_waiting(launch, systemctl):
    daemon = launch(GOOD)
    process = subprocess.Popen(
        [PROGRAM, "reload"], env=environment(**systemctl(daemon, "exit 0")), stderr=subprocess.PIPE
    )
    assert process.stderr.readline().startswith(b"halvekctl: settings")
    process.send_signal(signal.SIGINT)
    assert process.wait(20) == -signal.SIGINT
    process.stderr.close()
