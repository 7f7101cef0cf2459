"""The unit: when it counts as started, what a reload, a stop and a crash do."""

import fcntl
import os
import re
import signal
from pathlib import Path

import pytest
from testing.settings import SettingsPipe, ini_text, timer
from testing.tree import LIMITS
from testing.waiting import wait_until
from machine import (
    ENVIRONMENT,
    EVENT_PIPE,
    SERVER,
    UNIT,
    Consumer,
    Journal,
    configure,
    is_active,
    main_pid,
    post,
    run,
    seconds_of,
    show,
)


def test_the_machine_has_started_the_service_by_itself():
    assert show("ActiveState") == "active"
    assert show("UnitFileState") == "enabled"
    assert show("NRestarts") == "0"


def test_the_service_runs_as_a_user_of_its_own():
    owner = Path(f"/proc/{main_pid()}").stat().st_uid
    assert owner == int(run("id", "-u", "halvek")) != 0


def has_open(path: Path) -> bool:
    return any(os.readlink(link) == str(path) for link in Path(f"/proc/{main_pid()}/fd").iterdir())


def test_it_counts_as_started_only_after_its_configuration():
    pipe = SettingsPipe(Path("/run/settings-pipe"))
    pipe.path.chmod(0o644)
    ENVIRONMENT.write_text(f"KELTO_SETTINGS={pipe.path}\n")
    try:
        run("systemctl", "restart", "--no-block", UNIT)
        pipe.hold()  # the levels of the log
        pipe.release("")
        wait_until(lambda: not has_open(pipe.path), "the daemon has read to the end")
        pipe.hold()  # the configuration
        assert show("ActiveState") == "activating"
        pipe.release(ini_text(SERVER))
        wait_until(is_active, "the service is active")
    finally:
        ENVIRONMENT.unlink()
        pipe.path.unlink()
        run("systemctl", "restart", UNIT)


def test_a_reload_takes_up_new_settings_without_a_restart(service: None, consumer: Consumer):
    pid = main_pid()
    configure(SERVER | timer(1, 3600))
    consumer.wait_for_event("Timer")
    assert main_pid() == pid


def test_a_stop_is_orderly_and_the_pipes_stay(service: None, consumer: Consumer):
    journal = Journal()
    run("systemctl", "stop", UNIT)
    assert (show("ActiveState"), show("Result"), show("ExecMainStatus")) == ("inactive", "success", "0")
    assert journal.matching("run complete")
    assert EVENT_PIPE.is_fifo() and consumer.path.is_fifo()
    run("systemctl", "start", UNIT)
    post("Bell")
    consumer.wait_for_event("Bell")


def test_a_restart_is_quick(service: None):
    assert seconds_of(("systemctl", "restart", UNIT)) < 5


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGSEGV])
def test_it_is_started_again_after_a_crash(service: None, consumer: Consumer, number: signal.Signals):
    pid, restarts = main_pid(), int(show("NRestarts"))
    os.kill(pid, number)
    wait_until(lambda: int(show("NRestarts")) == restarts + 1 and is_active(), "the service is active again")
    assert main_pid() != pid
    post("Bell")
    consumer.wait_for_event("Bell")


def test_it_starts_without_readable_settings_and_takes_them_up_later(service: None, consumer: Consumer):
    folder, hidden = Path("/etc/kelto/settings"), Path("/etc/kelto/hidden")
    folder.rename(hidden)
    try:
        run("systemctl", "restart", UNIT)
        assert is_active()
    finally:
        hidden.rename(folder)
    configure(SERVER)
    post("Bell")
    consumer.wait_for_event("Bell")


def test_records_go_to_the_journal_with_their_level_and_logger(service: None):
    fields = ("PRIORITY=6", "LOGGER=halvek")
    run("journalctl", "--sync")
    assert "Done starting sources" in run("journalctl", "-u", UNIT, "-o", "cat", "LOGGER=halvek")
    assert "Configuring..." in run("journalctl", "-u", UNIT, "-o", "cat", *fields)


def test_the_limit_of_descriptors_is_what_select_can_take(service: None):
    limits = Path(f"/proc/{main_pid()}/limits").read_text()
    (line,) = (line for line in limits.splitlines() if line.startswith("Max open files"))
    assert line.split()[3:5] == ["1024", "1024"]


def test_the_commands_of_the_documents_show_who_uses_up_the_descriptors(service: None, consumer: Consumer):
    commands = re.search(r"^```sh\n(pid=.*?)^```", LIMITS.read_text(), re.M | re.S)[1]
    unread = consumer.path.with_name("unread.halvek.any")  # behind the consumer's
    os.mkfifo(unread)
    descriptor = os.open(unread, os.O_RDWR | os.O_NONBLOCK)
    size = fcntl.fcntl(descriptor, fcntl.F_SETPIPE_SZ, 4096)
    os.write(descriptor, bytes(size))
    journal = Journal()
    for _ in range(3):
        post("Bell")
    journal.wait_for("FIFO Write failed", count=3)
    count, limit, *pipes, failed = run("sh", "-ec", commands).splitlines()
    assert 3 < int(count) < int(limit) == 1024
    held = {path: int(times) for times, path in (line.split() for line in pipes)}
    assert held.pop(str(EVENT_PIPE)) >= 1
    assert held == {str(unread.resolve()): 3}
    assert int(failed) >= 3
    os.close(descriptor)
    unread.unlink()
    run("systemctl", "restart", UNIT)


def test_the_memory_of_the_daemon_and_its_commands_is_limited_and_a_command_that_exceeds_it_ends_alone():
    assert show("MemoryMax") == str(256 * 1024 * 1024)
    assert show("OOMPolicy") == "continue"
