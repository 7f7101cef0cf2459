"""The package of the rules: not started without rules, in its sandbox with them, gone without a trace."""

from collections.abc import Iterator
from pathlib import Path

import pytest
from machine import Consumer, Journal, is_active, post, processes_of, run, run_as, show
from testing.waiting import wait_until

(PACKAGE,) = Path("/srv/companions").glob("halvek-rules_*.deb")
UNIT = "halvek-rules.service"
USER = "halvek-rules"
RULES = Path("/etc/halvek-rules/rules.conf")
PIPE = Path("/run/halvek/zz-rules.halvek.any")
ECHO = "[Rule echo]\nWhen=Door\nPost=Echo\nSet.number=${number}\n"


@pytest.fixture(scope="module", autouse=True)
def package() -> Iterator[None]:
    run("dpkg", "--install", PACKAGE)
    yield
    RULES.unlink(missing_ok=True)
    run("dpkg", "--purge", "halvek-rules")


@pytest.fixture
def rules(service: None) -> None:
    """The service with one rule."""
    RULES.write_text(ECHO)
    run("systemctl", "start", UNIT)


def test_without_rules_it_is_not_started(service: None):
    run("systemctl", "start", UNIT)
    assert not is_active(UNIT) and show("ConditionResult", UNIT) == "no"
    assert not PIPE.exists()


def test_an_event_leads_to_another(rules: None, consumer: Consumer):
    post("Door", number=1)
    assert consumer.wait_for_event("Echo").properties["number"] == "1"
    assert processes_of(USER) == ["/usr/bin/halvek-rules"]
    assert show("StatusText", UNIT).startswith("1 rules: ")


def test_a_stranger_cannot_write_to_its_pipe(rules: None):
    assert "denied" in run_as("nobody", command=f"echo > {PIPE}").stderr


def test_a_reload_of_wrong_rules_is_refused_and_one_of_right_rules_passes(rules: None, consumer: Consumer):
    RULES.write_text("[Rule]\n")
    journal = Journal(UNIT)
    with pytest.raises(AssertionError, match="status 1"):
        run("systemctl", "reload", UNIT)
    journal.wait_for("rules.conf:1:1: error: ")
    RULES.write_text(ECHO.replace("Echo", "Other"))
    run("systemctl", "reload", UNIT)
    journal.wait_for("the rules are read anew: 1")
    post("Door", number=2)
    consumer.wait_for_event("Other")


def test_a_kill_leaves_no_pipe_and_it_is_started_again(rules: None, consumer: Consumer):
    pid = show("MainPID", UNIT)
    run("kill", "-KILL", pid)
    wait_until(lambda: is_active(UNIT) and show("MainPID", UNIT) != pid, "it is started again")
    post("Door", number=3)
    consumer.wait_for_event("Echo")


def test_wrong_rules_at_a_start_are_not_tried_again_and_again(rules: None):
    run("systemctl", "stop", UNIT)
    assert not PIPE.exists()
    RULES.write_text("[Rule]\n")
    with pytest.raises(AssertionError):
        run("systemctl", "start", UNIT)
    assert (show("ExecMainStatus", UNIT), show("ActiveState", UNIT)) == ("78", "failed")


def test_a_purge_leaves_nothing_behind(rules: None):
    files = [Path(line) for line in run("dpkg", "-L", "halvek-rules").splitlines() if Path(line).is_file()]
    assert Path("/usr/bin/halvek-rules") in files
    RULES.unlink()
    run("dpkg", "--purge", "halvek-rules")
    assert [path for path in files if path.exists()] == []
    assert not RULES.parent.exists() and not PIPE.exists() and processes_of(USER) == []
    assert show("LoadState", UNIT) == "not-found"
