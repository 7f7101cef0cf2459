"""Descriptors: those that are left open by custom, and life without any to spare.

On a bus, where there is one: a daemon without looks for it, which takes a descriptor for a moment now and then.
"""

import fcntl
import itertools
import os
import subprocess

import pytest
from daemon_on_bus import ids
from scripted_service import ScriptedService
from testing.camera import LOCAL
from testing.daemon import Daemon
from testing.pipes import PIPE_FOLDER, block, post
from testing.settings import SERVER, handler, server, source, timer
from testing.tree import always_open
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures"]

RELOADS = 40
SELECT_LIMIT = 1024
PIPE_SIZE = 4096


def holding(first: int) -> list[str]:
    """A prefix that hands the daemon all descriptors from `first` to the limit of select; more are allowed."""
    hold = f'for fd in {{{first}..{SELECT_LIMIT - 1}}}; do eval "exec $fd</dev/null"; done; exec "$@"'
    return ["prlimit", f"--nofile={2 * SELECT_LIMIT}", "--", "bash", "-c", hold, "bash"]


def limit(daemon: Daemon, below: int) -> None:
    subprocess.run(["prlimit", "--pid", str(daemon.pid), f"--nofile={below}:"], check=True)


def leave_spare(daemon: Daemon, count: int) -> None:
    """Lets the daemon open this many more descriptors. The limit is on their numbers, so gaps count."""
    used = {int(name) for name in os.listdir(f"/proc/{daemon.pid}/fd")}
    free = (number for number in itertools.count() if number not in used)
    limit(daemon, next(itertools.islice(free, count, None)))


@pytest.fixture
def full_pipe(output_pipe):
    """A pipe for everything that takes nothing more."""
    path = PIPE_FOLDER / "a.halvek.any"
    os.mkfifo(path)
    descriptor = os.open(path, os.O_RDWR | os.O_NONBLOCK)
    fcntl.fcntl(descriptor, fcntl.F_SETPIPE_SZ, PIPE_SIZE)
    os.write(descriptor, b"x" * PIPE_SIZE)
    yield descriptor
    os.close(descriptor)


def test_a_reload_keeps_exactly_one_descriptor_and_an_event_none(launch_on_bus, output_pipe):
    daemon, pipe = launch_on_bus(SERVER | timer(1, 3600)), output_pipe()
    daemon.log.wait_for("next tick: ")
    at_start = daemon.descriptors()
    for number in range(1, RELOADS + 1):
        daemon.reload()
        post(block("Door", number=number))
        pipe.wait_for_event("Door", properties={"number": str(number)})
        daemon.log.wait_for("Done firing to all FIFO's", count=2 * number + 1)  # closed again by then
        assert daemon.descriptors() == at_start + number


def test_an_idle_daemon_without_a_bus_has_the_descriptors_of_the_documents_sum(launch):
    daemon = launch(SERVER)
    for configurations in (1, 2):
        daemon.wait_for_descriptors(always_open() + configurations)
        daemon.reload()


def test_on_a_bus_there_is_one_descriptor_more_and_one_for_each_thread_that_has_called(launch_on_bus, bus):
    acting = source(1, "Door") | timer(2, 3600)
    acting |= handler(1, *ids(1, 2), handler_type="Relay", BankName=LOCAL, Mode=1)
    with ScriptedService(bus, "AlarmV3", "RelayV3") as services:
        daemon = launch_on_bus(SERVER)
        daemon.wait_for_descriptors(always_open() + 1 + 1)
        daemon.write_settings(SERVER | acting)
        daemon.reload()
        daemon.log.wait_for("next tick: ")
        daemon.wait_for_descriptors(always_open() + 2 + 1 + 1)  # the timer's thread
        for count in (2, 3):
            post(block("Door"))
            services.wait_for_call("RelayV3.Activate", count)
            daemon.wait_for_descriptors(always_open() + 2 + 1 + 2)  # that of the event pipe
        daemon.write_settings(SERVER | source(3, "Alarm"))
        daemon.reload()
        daemon.wait_for_descriptors(always_open() + 3 + 1 + 1)  # the main one, for the bank; the others have ended
        daemon.write_settings(SERVER)
        daemon.reload()
        daemon.wait_for_descriptors(always_open() + 4 + 1 + 1)


def test_reloads_without_a_server_keep_no_descriptor(launch_on_bus):
    daemon = launch_on_bus(timer(1, 3600))
    daemon.log.wait_for("next tick: ")
    at_start = daemon.descriptors()
    for number in range(RELOADS):
        daemon.reload()
        daemon.log.wait_for("next tick: ", count=number + 2)
    assert daemon.descriptors() == at_start


@pytest.mark.parametrize("text", ["", "y" * PIPE_SIZE], ids=["failed", "short"])
def test_each_write_that_fails_or_falls_short_keeps_exactly_one_descriptor(launch_on_bus, full_pipe, text):
    daemon = launch_on_bus(SERVER)
    at_start = daemon.descriptors()
    for number in range(1, 11):
        if text:
            os.read(full_pipe, PIPE_SIZE)
            fcntl.fcntl(full_pipe, fcntl.F_SETPIPE_SZ, PIPE_SIZE)
        post(block("Door", text=text))
        daemon.log.wait_for("Error halvek: FIFO (Write failed|write failed to write all data)", count=number)
        assert daemon.descriptors() == at_start + number


def test_without_descriptors_every_failure_is_logged_and_the_stop_is_orderly(launch_on_bus, output_pipe):
    pipe = output_pipe()
    daemon = launch_on_bus(SERVER | timer(1, 3600))
    pipe.wait_for_event("Timer")
    daemon.log.wait_for("next tick: ")
    leave_spare(daemon, 0)
    for number in range(1, 11):
        behind = daemon.reload(until="Error halvek: Error reloading, invalid configuration: ")
        assert "Too many open files" in daemon.log.items[behind - 1]
        post(block("Door"))
        behind = daemon.log.wait_for("Received event: Door", count=number)
        daemon.log.wait_for("Error halvek: .", after=behind)  # the folder of the output pipes cannot be listed
    assert len(daemon.log.matching(r"Configuring\.\.\.")) == 1
    assert daemon.stop() == 0
    daemon.assert_orderly_end()


def test_failed_writes_may_take_the_last_descriptor(launch_on_bus, full_pipe):
    daemon = launch_on_bus(SERVER)
    spare = 5
    leave_spare(daemon, spare)
    for number in range(1, spare + 6):
        before = len(daemon.log.items)
        post(block("Door"))
        daemon.log.wait_for("Error halvek: .", after=before)
        assert len(daemon.log.matching("Error halvek: .")) == number
    assert 1 <= len(daemon.log.matching("FIFO Write failed")) <= spare
    assert daemon.stop() == 0
    daemon.assert_orderly_end()


def test_a_daemon_that_got_descriptors_back_takes_events_again(launch_on_bus, output_pipe):
    daemon, pipe = launch_on_bus(SERVER), output_pipe()
    leave_spare(daemon, 0)
    post(block("Door", number=1))
    daemon.log.wait_for("Error halvek: .")
    limit(daemon, SELECT_LIMIT)
    daemon.reload()
    post(block("Door", number=2))
    pipe.wait_for_event("Door", properties={"number": "2"})
    assert len(pipe.items) == 1


def test_an_event_pipe_behind_the_limit_of_select_counts_as_not_opened(launch_on_bus, output_pipe):
    pipe = output_pipe()
    # Only the descriptors below 10 are free; each reload takes one for the event pipe, until none is left.
    daemon = launch_on_bus(SERVER | timer(1, 3600), prefix=holding(10))
    failed = "Error kelto.osa: .*Unable to open FIFO for reading"
    assert not daemon.log.matching(failed)
    pipe.wait_for_event("Timer")  # a reload right after the start may come before the first tick
    for number in range(1, 21):
        daemon.reload()
        pipe.wait_for_event("Timer", count=number + 1)  # writing needs no select, so the output goes on
    wait_until(lambda: "EventServerSour" not in daemon.thread_names(), "the thread is gone")
    daemon.log.wait_for("next tick: ", count=21)
    failures, kept = len(daemon.log.matching(failed)), daemon.descriptors()
    assert 10 < failures < 20
    daemon.reload()
    daemon.log.wait_for(failed, count=failures + 1)
    pipe.wait_for_event("Timer", count=22)
    daemon.log.wait_for("next tick: ", count=22)
    assert daemon.descriptors() == kept  # what cannot be used is not kept
    assert daemon.stop() == 0
    daemon.assert_orderly_end()


def test_a_start_without_a_descriptor_below_the_limit_of_select_fails(launch, tmp_path):
    path = tmp_path / "events.pipe"
    daemon = launch(server(path), ready=False, prefix=holding(3))
    assert daemon.wait_for_exit() == 1
    daemon.notifications.wait_for("ERRNO=5")
    assert daemon.notifications.items == ["ERRNO=5"]
    assert daemon.log.matching("^Error halvek Main: .")
