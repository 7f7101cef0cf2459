"""The timer: its interval as the settings give it, its pace, its end."""

import time

import pytest
from testing.settings import timer
from testing.times import assert_paced, record_time

pytestmark = pytest.mark.alone(reason="the pace of a timer is what is measured")

INTERVALS = {
    "absent": ({"Events/Source#1": {"Type": "Timer"}}, 10),
    "a word": (timer(1, "soon"), 10),
    "a fraction": (timer(1, "1.5"), 10),
    "empty": (timer(1, ""), 10),
    "too large": (timer(1, "2147483648"), 10),
    "given": (timer(1, 7), 7),
    "leading zeros": (timer(1, "007"), 7),
}


@pytest.mark.parametrize("settings, seconds", INTERVALS.values(), ids=INTERVALS.keys())
def test_interval(launch, settings, seconds):
    daemon = launch(settings)
    daemon.log.wait_for(f"Information halvek: \tTimer Interval: {seconds}$")
    daemon.log.wait_for(f"Debug halvek: TICK: {seconds} sec$")
    index = daemon.log.wait_for(r"Debug halvek: next tick: \d+ ms$")
    sleep = int(daemon.log.items[index - 1].split()[-2])
    assert seconds * 1000 * 0.8 <= sleep <= seconds * 1000
    default_used = daemon.log.matching("Debug halvek: \tCan't find Timer::Interval.sec, using default!$")
    assert len(default_used) == (seconds == 10)


def test_one_tick_logs_its_steps_in_order(launch):
    daemon = launch(timer(1, 1))
    position = 0
    steps = ("TICK: 1 sec$", "firing$", "fired$", r"next tick: \d+ ms$", r"sleep took \d+\.\d+ sec$", "TICK: 1 sec$")
    for step in steps:
        position = daemon.log.wait_for(f"Debug halvek: {step}", after=position)


def test_minus_one_ticks_once_and_sleeps_for_ever(launch, output_pipe):
    pipe = output_pipe()
    daemon = launch(timer(1, -1))
    daemon.log.wait_for("Information halvek: \tTimer Interval: -1$")
    daemon.log.wait_for("Debug halvek: TICK: -1 sec$")
    daemon.log.wait_for("Debug halvek: next tick: 2147483647 ms$")
    pipe.wait_for_event("Timer")
    assert daemon.stop() == 0
    assert len(pipe.items) == 1
    daemon.assert_orderly_end()


def test_zero_never_sleeps(launch):
    daemon = launch(timer(1, 0))
    daemon.log.wait_for("TICK: 0 sec", count=200)
    assert daemon.stop() == 0
    assert not daemon.log.matching("sleep took")
    daemon.assert_orderly_end()


def test_ticks_keep_one_period_from_start_to_start(launch):
    daemon = launch(timer(1, 1))
    daemon.log.wait_for("TICK: 1 sec", count=4)
    ticks = [record_time(line) for line in daemon.log.matching("TICK: 1 sec")]
    assert_paced(ticks, 1)


def test_two_timers_keep_their_own_pace(launch):
    daemon = launch(timer(1, 1) | timer(2, 2))
    daemon.log.wait_for("TICK: 2 sec", count=3)
    assert 4 <= len(daemon.log.matching("TICK: 1 sec")) <= 6


@pytest.mark.parametrize("seconds", [5000, -1, 0])
def test_a_stop_is_immediate(launch, seconds):
    daemon = launch(timer(1, seconds))
    daemon.log.wait_for("next tick: ")
    begin = time.monotonic()
    assert daemon.stop(patience=5) == 0
    assert time.monotonic() - begin < 5
    assert len(daemon.log.matching("Debug halvek: DONE$")) == 1
