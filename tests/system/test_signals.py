"""SIGHUP reloads, SIGTERM and SIGINT stop, SIGALRM is only noted."""

import ctypes
import signal
from pathlib import Path

import pytest
from testing.pipes import block, post
from testing.settings import SERVER, timer
from testing.waiting import wait_until

RELOADING = r"Information halvek: got: 'R' \(82\)$"
STOPPING = r"Information halvek: got: 'S' \(83\)$"
CONFIGURING = r"Configuring\.\.\."


def test_each_hangup_reloads_exactly_once(launch, output_pipe):
    daemon, pipe = launch(SERVER | timer(1, 3600)), output_pipe()
    for reloads in range(1, 6):
        daemon.reload()
        assert len(daemon.log.matching(RELOADING)) == reloads
        assert len(daemon.log.matching(CONFIGURING)) == 1 + reloads
        post(block("Door", number=reloads))
        pipe.wait_for_event("Door", properties={"number": str(reloads)})
    assert daemon.process.poll() is None


def test_a_reload_takes_the_new_settings_and_nothing_of_the_old(launch):
    daemon = launch(SERVER | timer(1, 3600) | timer(2, 3601))
    daemon.write_settings(timer(3, 3602))
    behind = daemon.reload()
    daemon.log.wait_for("TICK: 3602 sec", after=0)
    assert not daemon.log.matching(r"Found Server|Found source Events/Source#[12]$", after=behind)
    bus = ["MsgBusDelivery", "MsgBusListener"]
    wait_until(lambda: daemon.thread_names() == [*bus, "TimerEventSourc"], "the old threads are gone")
    assert len(daemon.log.matching("Information halvek: .*(Timer|Server).*Source stopped$")) == 3


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_stop_is_orderly(launch, number):
    daemon = launch(SERVER | timer(1, 3600))
    assert daemon.stop(number) == 0
    position = 0
    for step in (
        f"Debug halvek: signal caught: {number.value}$",
        STOPPING,
        "Information halvek: shutting down event monitor$",
        "Information halvek: run complete$",
        r"Debug halvek: EventServerSource::Stop\(\)$",
        "Information halvek: EventServerSource stopped$",
        r"Debug halvek: TimerEventSource::Stop\(\)$",
        "Information halvek: TimerEventSource stopped$",
    ):
        position = daemon.log.wait_for(step, after=position)
    assert daemon.notifications.items == ["READY=1"]
    daemon.assert_orderly_end()


def test_an_alarm_signal_is_logged_and_changes_nothing(launch, output_pipe):
    daemon, pipe = launch(SERVER | timer(1, 3600)), output_pipe()
    threads = ["EventServerSour", "MsgBusDelivery", "MsgBusListener", "TimerEventSourc"]
    wait_until(lambda: daemon.thread_names() == threads, "every thread has its name")
    for count in range(1, 4):
        daemon.send(signal.SIGALRM)
        daemon.log.wait_for("Debug halvek: signal caught: 14$", count=count)
    post(block("Door"))
    pipe.wait_for_event("Door")
    assert daemon.thread_names() == threads
    daemon.reload()  # whatever an alarm had queued would come before it
    assert len(daemon.log.matching(r"got: '")) == 1


def test_a_signal_that_lands_on_a_timer_does_not_end_its_sleep(launch):
    daemon = launch(timer(1, 3600))
    daemon.log.wait_for("next tick: ")
    (task,) = [task for task in Path(f"/proc/{daemon.pid}/task").iterdir() if "Timer" in (task / "comm").read_text()]
    for count in range(1, 6):
        assert ctypes.CDLL(None).tgkill(daemon.pid, int(task.name), signal.SIGALRM) == 0
        daemon.log.wait_for("signal caught: 14", count=count)
    assert len(daemon.log.matching("TICK: 3600 sec")) == 1 and not daemon.log.matching("DONE$|sleep took")
    daemon.reload()
    assert len(daemon.log.matching("DONE$")) == 1


def test_the_first_of_two_stops_counts(launch):
    daemon = launch(SERVER | timer(1, 3600))
    daemon.send(signal.SIGINT)
    daemon.log.wait_for("signal caught: 2$")
    assert daemon.wait_for_exit() == 0
    assert len(daemon.log.matching("got: '")) == 1


def test_every_thread_is_named_and_gone_after_its_source(launch):
    daemon = launch(SERVER | timer(1, 3600) | timer(2, 3600))
    bus = ["MsgBusDelivery", "MsgBusListener"]
    started = ["EventServerSour", *bus, "TimerEventSourc", "TimerEventSourc"]
    wait_until(lambda: daemon.thread_names() == started, "every thread has its name")
    daemon.write_settings("")
    daemon.reload()
    wait_until(lambda: daemon.thread_names() == bus, "the threads are gone")
