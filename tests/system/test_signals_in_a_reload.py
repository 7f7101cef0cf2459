"""Signals that come while a reload is held up."""

import os
import signal

import pytest
from testing.settings import SERVER, SettingsPipe, ini_text
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("thread sanitizer", reason="it puts caught signals off till later")

STOPPING = r"Information halvek: got: 'S' \(83\)$"


def test_signals_during_a_reload_queue_up(launch, tmp_path):
    daemon = launch(SERVER)
    settings = SettingsPipe(tmp_path / "held")
    os.rename(settings.path, daemon.settings_file)
    settings.path = daemon.settings_file
    daemon.send(signal.SIGHUP)
    settings.hold()
    for queued, number in enumerate([signal.SIGHUP, signal.SIGHUP, signal.SIGTERM, signal.SIGHUP], start=1):
        daemon.send(number)
        wait_until(lambda: daemon.queued_commands() == queued, "the signal is queued")
    assert len(daemon.log.matching("got: '")) == 1
    settings.release(ini_text(SERVER))
    settings.serve(ini_text(SERVER), until=lambda: daemon.log.matching(STOPPING))
    assert daemon.wait_for_exit() == 0
    assert [line[-8:] for line in daemon.log.matching("got: '")] == ["'R' (82)"] * 3 + ["'S' (83)"]
    assert len(daemon.log.matching(r"Configuring\.\.\.")) == 4
