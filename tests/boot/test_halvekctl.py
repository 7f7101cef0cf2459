"""The package that has the service check its settings: told at a start, refused at a reload, gone without a trace."""

import os
import re
import subprocess
import time
from collections.abc import Iterator
from pathlib import Path

import pytest
from halvekctl import CLEAN, MISTAKEN, NAME
from machine import (
    SETTINGS,
    UNIT,
    Consumer,
    Journal,
    configure,
    is_active,
    main_pid,
    post,
    run,
    show,
    write_settings,
)
from testing.settings import timer
from testing.waiting import wait_until

DROP_IN = "10-halvekctl.conf"
# Its place is that of the missing group's name in the file that write_settings writes.
FINDING = re.compile(re.escape(str(SETTINGS)) + r":\d+:3: error: .*Events/Source#7.* \[HK3003\]")

pytestmark = pytest.mark.usefixtures("halvekctl")


def try_reload() -> subprocess.CompletedProcess:
    return subprocess.run(["systemctl", "reload", UNIT], capture_output=True, text=True, timeout=60)


def place_of(pattern: re.Pattern, lines: list[str]) -> int:
    places = [place for place, line in enumerate(lines) if pattern.fullmatch(line)]
    assert places, "\n".join(lines)
    return places[0]


def test_a_start_with_an_error_in_the_settings_tells_of_it_and_starts(running: None):
    write_settings(MISTAKEN)
    journal = Journal()
    run("systemctl", "restart", UNIT)
    assert is_active()
    journal.wait_for("Done starting sources")
    lines = journal.lines()
    assert place_of(FINDING, lines) < place_of(re.compile("Configuring..."), lines)


def test_a_reload_of_an_error_is_refused_and_the_daemon_keeps_its_settings(running: None, consumer: Consumer):
    pid = main_pid()
    write_settings(MISTAKEN)
    journal = Journal()
    refused = try_reload()
    assert refused.returncode != 0 and UNIT in refused.stderr
    assert (show("ActiveState"), show("ReloadResult")) == ("active", "exit-code")
    assert main_pid() == pid
    place_of(FINDING, journal.lines())
    # With the interval of the new settings this would take an hour.
    consumer.wait_for_event("Timer", after=len(consumer.items), count=2)
    assert journal.matching("Configuring...") == []


def test_a_reload_without_an_error_passes(running: None):
    pid = main_pid()
    configure(CLEAN | timer(2, 3600))
    assert show("ReloadResult") == "success"
    assert main_pid() == pid


def test_a_reload_goes_through_once_the_error_is_mended(running: None):
    write_settings(MISTAKEN)
    assert try_reload().returncode != 0
    configure(CLEAN)
    assert show("ReloadResult") == "success"


def test_an_empty_file_of_the_administrator_switches_the_check_off(running: None):
    own = Path("/etc/systemd/system/halvek.service.d") / DROP_IN
    is_first = not own.parent.exists()
    own.parent.mkdir(exist_ok=True)
    own.touch()
    run("systemctl", "daemon-reload")
    try:
        configure(MISTAKEN)
    finally:
        own.unlink()
        if is_first:
            own.parent.rmdir()
        run("systemctl", "daemon-reload")


@pytest.fixture
def unread_pipe() -> Iterator[Path]:
    """Somebody has it open and does not read it. It stands behind the consumer's in byte order."""
    path = Path("/run/halvek/unread.halvek.any")
    os.mkfifo(path)
    path.chmod(0o660)
    descriptor = os.open(path, os.O_RDWR | os.O_NONBLOCK)
    yield path
    os.close(descriptor)
    path.unlink()
    # What it has cost is not given back by its end.
    run("systemctl", "restart", UNIT)


def use_up_descriptors(consumer: Consumer) -> None:
    """A thousand events a second, until nothing comes out any more."""
    quiet = CLEAN | {"Applications/halvek": {"LogLevel": "Error"}}
    write_settings({name: keys for name, keys in quiet.items() if "Source#" not in name})
    run("systemctl", "restart", UNIT)
    descriptors = Path(f"/proc/{main_pid()}/fd")

    def is_mute() -> bool:
        begin = time.monotonic()
        for _ in range(100):
            post("Flood", text="x" * 200)
        time.sleep(max(0.0, begin + 0.1 - time.monotonic()))
        return len(list(descriptors.iterdir())) >= 1022

    wait_until(is_mute, "the descriptors are used up", patience=60)


@pytest.fixture
def hurried_guard() -> Iterator[None]:
    """Asked every five seconds, and a start of the service that takes two: the package's minute was waited for once."""
    texts = {
        "halvekctl-guard.timer": "[Timer]\nOnActiveSec=\nOnUnitInactiveSec=\nOnActiveSec=5s\nOnUnitInactiveSec=5s\n",
        UNIT: "[Service]\nExecStartPre=/bin/sleep 2\n",
    }
    paths = [Path(f"/run/systemd/system/{unit}.d/hurried.conf") for unit in texts]
    for path, text in zip(paths, texts.values(), strict=True):
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
    run("systemctl", "daemon-reload")
    yield
    for path in paths:
        path.unlink()
        path.parent.rmdir()
    run("systemctl", "daemon-reload")


def test_a_daemon_that_an_unread_pipe_has_silenced_speaks_again_and_nothing_posted_meanwhile_is_lost(
    running: None, hurried_guard: None, consumer: Consumer, unread_pipe: Path
):
    run("systemctl", "is-active", "halvekctl-guard.timer")
    journal = Journal("halvekctl-guard.service")
    use_up_descriptors(consumer)
    pid, begin = main_pid(), time.monotonic()
    wait_until(lambda: main_pid() != pid, "the guard restarts it", patience=90)
    for number in range(500):  # fewer than the unread pipe leaves descriptors for
        post("Meanwhile", number=number)
    consumer.wait_for_event("Meanwhile", count=500)
    assert time.monotonic() - begin < 90
    numbers = [int(event.properties["number"]) for event in consumer.of_type("Meanwhile")]
    assert numbers == list(range(500))
    journal.wait_for("it is restarted")
    line = journal.matching("it is restarted")[0]
    assert re.search(rf"of 1024 descriptors .* lost to {unread_pipe}, which {os.getpid()} \(.*\) has open", line), line


def test_a_purge_leaves_nothing_behind_and_a_reload_of_the_error_goes_through(running: None):
    files = [Path(line) for line in run("dpkg", "-L", NAME).splitlines() if Path(line).is_file()]
    assert DROP_IN in {path.name for path in files} and DROP_IN in show("DropInPaths")
    write_settings(MISTAKEN)
    assert try_reload().returncode != 0
    pid = main_pid()
    run("dpkg", "--purge", NAME)
    assert [path for path in files if path.exists()] == []
    assert run("find", "/etc", "/usr", "/var", "/run", "-xdev", "-name", f"*{NAME}*") == ""
    assert DROP_IN not in show("DropInPaths") and NAME not in show("ExecReload") + show("ExecStartPre")
    configure(MISTAKEN)
    assert main_pid() == pid
