"""Reloads and stops at the worst moments, over and over: each run ends by itself, in time, with status 0.

A daemon that an alarm signal of its own has killed, or that waits for a thread for ever, fails here. The daemons
of several rounds run at once: most of a round is waiting.
"""

import os
import signal
from concurrent.futures import ThreadPoolExecutor

import pytest
from testing.daemon import CONFIGURED, Daemon
from testing.settings import server, timer
from testing.times import assert_paced, record_time

ROUNDS = int(os.environ["HALVEK_TEST_ROUNDS"])
AT_ONCE = 8
HANGUPS = 50
TIME_TO_STOP = 10.0  # seconds


@pytest.fixture
def rounds(tmp_path):
    """Runs the scene on one new daemon a round, with two timers and a server, and expects an orderly end."""

    def run(scene) -> None:
        def one_round(number: int) -> None:
            folder = tmp_path / str(number)
            folder.mkdir()
            daemon = Daemon(folder, server(folder / "events.pipe") | timer(1, 1) | timer(2, 2))
            try:
                daemon.wait_until_ready()
                scene(daemon)
                assert daemon.stop(patience=TIME_TO_STOP) == 0
                daemon.assert_orderly_end()
            finally:
                daemon.close()

        # The kernel kills a daemon together with the thread that started it, so the threads outlive all rounds.
        with ThreadPoolExecutor(AT_ONCE) as pool:
            list(pool.map(one_round, range(ROUNDS)))

    return run


def hang_up(daemon: Daemon) -> None:
    """Fifty in quick succession, each as soon as the one before is caught: signals that meet merge into one."""
    behind = 0
    for _ in range(HANGUPS):
        daemon.send(signal.SIGHUP)
        behind = daemon.log.wait_for("signal caught: 1$", after=behind)


def test_a_stop_after_fifty_quick_hangups_with_timers_at_their_pace_in_between(rounds):
    def scene(daemon: Daemon) -> None:
        hang_up(daemon)
        caught = len(daemon.log.matching("signal caught: 1$"))
        assert caught >= HANGUPS
        behind = daemon.log.wait_for(CONFIGURED, count=1 + caught)
        for tick, count in (("TICK: 1 sec", 4), ("TICK: 2 sec", 2)):
            daemon.log.wait_for(tick, after=behind, count=count)
        ticks = [record_time(line) for line in daemon.log.matching("TICK: 1 sec", after=behind)]
        assert_paced(ticks, 1)
        assert len(daemon.log.matching(r"got: 'R'")) == caught

    rounds(scene)


def test_a_stop_in_the_middle_of_fifty_quick_hangups(rounds):
    rounds(hang_up)


def test_a_stop_straight_after_the_start(rounds):
    rounds(lambda daemon: None)


def test_a_stop_while_every_kind_of_signal_rains(rounds):
    def scene(daemon: Daemon) -> None:
        for _ in range(HANGUPS // 2):
            daemon.send(signal.SIGHUP)
            daemon.send(signal.SIGALRM)

    rounds(scene)
