"""A reload and a stop in the middle of a mail. They interrupt its thread over and over, and the mail arrives whole."""

import signal

import pytest
from mailing import DOOR, SENT, mail_handler, snapshot, stand_in
from testing.daemon import CONFIGURED
from testing.pipes import block, post
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("thread sanitizer", reason="it puts a caught signal off until the write is over")

INTERRUPTIONS = 5


@pytest.fixture
def in_the_middle(launch, tmp_path):
    """A daemon that is writing a mail, a word that lets it go on, and what tells the size of what was mailed."""
    go, mail, picture = tmp_path / "go", tmp_path / "mail", tmp_path / "img2.jpg"
    picture.write_bytes(bytes(3_000_000))
    environment = stand_in(tmp_path / "bin", f"mkfifo {go}; read line <{go}; exec cat >{mail}")
    settings = DOOR | snapshot(picture) | mail_handler(Attachment="true")
    daemon = launch(settings, environment=environment)
    post(block("Door"))
    daemon.log.wait_for(SENT)
    wait_until(go.exists, "the mail program waits")

    def go_on() -> None:
        go.write_text("\n")

    def arrived() -> bool:
        (line,) = daemon.log.matching(SENT)
        return mail.exists() and mail.stat().st_size == int(line.split()[-1])

    return daemon, go_on, arrived


def test_a_reload_waits_for_the_mail_and_does_not_cut_it(in_the_middle):
    daemon, go_on, arrived = in_the_middle
    configured = len(daemon.log.items)
    daemon.send(signal.SIGHUP)
    daemon.log.wait_for("signal caught: 14$", count=INTERRUPTIONS)
    assert not daemon.log.matching(CONFIGURED, after=configured)
    go_on()
    daemon.log.wait_for(CONFIGURED, after=configured)
    assert arrived()


def test_a_stop_waits_for_the_mail_and_does_not_cut_it(in_the_middle):
    daemon, go_on, arrived = in_the_middle
    daemon.send(signal.SIGTERM)
    daemon.log.wait_for("run complete$")
    assert daemon.process.poll() is None
    go_on()
    assert daemon.wait_for_exit() == 0
    assert arrived()
