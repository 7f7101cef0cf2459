"""The package that has the service check its settings: told at a start, refused at a reload, gone without a trace."""

import re
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from machine import (
    SERVER,
    SETTINGS,
    UNIT,
    Consumer,
    Journal,
    configure,
    is_active,
    main_pid,
    run,
    show,
    write_settings,
)
from testing.settings import Settings, handler, timer

(PACKAGE,) = Path("/srv/companions").glob("halvekctl_*.deb")
NAME = "halvekctl"
DROP_IN = "10-halvekctl.conf"
CLEAN: Settings = SERVER | timer(1, 1)
# The handler names a source that is not there. The timer's interval tells which settings are in force.
MISTAKEN: Settings = SERVER | timer(1, 3600) | handler(1, "Events/Source#7", handler_type="Relay")
# Its place is that of the missing group's name in the file that write_settings writes.
FINDING = re.compile(re.escape(str(SETTINGS)) + r":\d+:3: error: .*Events/Source#7.* \[HK3003\]")


@pytest.fixture(scope="module", autouse=True)
def package() -> Iterator[None]:
    run("dpkg", "--install", PACKAGE)
    yield
    run("dpkg", "--purge", NAME)


@pytest.fixture
def running(service: None) -> None:
    """The service with settings that have no error, and a timer that can be heard."""
    configure(CLEAN)


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
