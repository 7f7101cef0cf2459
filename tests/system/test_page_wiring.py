"""The page of the virtual camera: what it hands on of halvekctl, and that it lives without it."""

import json
import os
import re
import time
from pathlib import Path

import pytest
from ctl import PROGRAM as CTL
from ctl import answer as ctl_answer
from ctl import json_answer, write_store
from testing.camera import LOCAL
from testing.pipes import PIPE_FOLDER, block
from testing.settings import SERVER, Settings, handler, source, timer
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures", "page_fixtures"]
pytestmark = [
    pytest.mark.not_under("sanitizer", reason="no camera runs it, and a build of it takes long"),
    pytest.mark.not_under("emulator", reason="what is tried here is never on a camera"),
]

SETTINGS: Settings = (
    SERVER
    | timer(1, 3600)
    | source(2, "Alarm", BankName=LOCAL, Index=2)
    | source(3, "Doorbell")
    | handler(1, "Events/Source#2", handler_type="Preset", Id=3)
    | handler(2, "Events/Source#2", handler_type="Preset", EnabledTimes="100-100", Id=4)
    | handler(3, "Events/Source#3", handler_type="Preset", Id=5)
)
HANGING = "echo $$ >{0}/part; mv {0}/part {0}/pid; exec sleep 1000"
NOTHING = {"problem": "", "seq": 0}


def ask(page, path: str) -> dict:
    answer = page.get(path)
    assert (answer.status, answer.headers["Content-Type"]) == (200, "application/json"), answer
    assert answer.headers["Cache-Control"] == "no-store"
    return json.loads(answer.body)


def told(page, data: bytes, seq: int) -> dict:
    """What is said of the event with this number, which a monitor would have passed on."""
    writer = os.open(PIPE_FOLDER / "zz-page.halvek.any", os.O_WRONLY | os.O_NONBLOCK)
    os.write(writer, data)
    os.close(writer)
    wait_until(lambda: [event["seq"] for event in page.state()["events"]][-1:] == [seq], "the event")
    return ask(page, "/explain")


def program(tmp_path: Path, script: str) -> str:
    """Stands in for halvekctl."""
    path = tmp_path / f"program{len(list(tmp_path.glob('program*')))}"
    path.write_text(f"#!/bin/sh\n{script}\n")
    path.chmod(0o755)
    return str(path)


@pytest.fixture
def settings(tmp_path: Path) -> Path:
    return write_store(tmp_path, SETTINGS)


@pytest.fixture
def advised(camera, start_page, settings: Path):
    return start_page("--halvekctl", CTL, "--settings", str(settings))


def test_the_wiring_is_the_drawing_of_halvekctl_without_its_colours(advised, settings):
    drawn = ask(advised, "/wiring")
    own = ctl_answer("--settings", settings, "show", "--as", "svg")
    assert drawn["problem"] == "" and "<style" in own
    assert drawn["drawing"] == re.sub(r"<style>.*?</style>", "", own, flags=re.DOTALL)


def test_the_last_event_is_explained_as_halvekctl_does(advised, settings):
    assert ask(advised, "/explain") == NOTHING
    told(advised, block("Doorbell").encode(), 1)
    found = told(advised, block("Alarm", alarmBank=LOCAL, alarmIndex=2, alarmState=1).encode(), 2)
    words = ("explain", "Alarm", f"alarmBank={LOCAL}", "alarmIndex=2", "alarmState=1", "--at", found["time"])
    own = json_answer("--settings", settings, *words)
    assert (found["problem"], found["seq"], found["type"]) == ("", 2, "Alarm")
    assert (found["rows"], found["alwaysOn"], found["rules"]) == (own["rows"], own["always_on"], own["rules"])
    verdicts = {row["group"]: (row["acts"], row["source"]) for row in found["rows"]}
    assert verdicts["Events/Handler#1"] == (True, "Events/Source#2")
    assert [acts for acts, _ in verdicts.values()] == [True, False, False]


def test_the_settings_are_those_of_the_running_daemon(camera, start_page, launch_on_bus):
    launch_on_bus(SETTINGS)
    page = start_page("--halvekctl", CTL)
    camera.set_alarm(LOCAL, 2, True)
    wait_until(lambda: page.state()["events"], "the alarm")
    found = ask(page, "/explain")
    assert [row["group"] for row in found["rows"] if row["acts"]] == ["Events/Handler#1"]
    assert "preset 3" in ask(page, "/wiring")["drawing"]


def test_an_event_that_nobody_acts_on_is_an_answer_too(advised):
    found = told(advised, block("Unheard").encode(), 1)
    assert found["problem"] == "" and not any(row["acts"] for row in found["rows"]) and len(found["rows"]) == 3


@pytest.mark.parametrize(
    "type_",
    ["--tests=/etc/passwd", "--settings=/nowhere", "--", "-", "<script>alert(1)</script>", "a=b", "Ä €", "$(id)"],
)
def test_a_hostile_event_is_no_option_of_halvekctl(advised, type_):
    found = told(advised, block(type_, alarmIndex="<script>").encode(), 1)
    assert (found["type"], found["problem"], len(found["rows"])) == (type_, "", 3)


def test_what_halvekctl_refuses_is_told_in_its_own_words(advised):
    found = told(advised, block("Alarm", alarmIndex="--tests=/etc/passwd").encode(), 1)
    assert found["problem"] == "halvekctl: an alarmIndex is a number, not --tests=/etc/passwd" and found["rows"] == []


def test_without_halvekctl_or_its_settings_the_page_says_so_and_lives(camera, start_page, tmp_path):
    for number, (options, said) in enumerate(
        (
            (("--halvekctl", "/nowhere/halvekctl"), "/nowhere/halvekctl cannot be run: No such file or directory"),
            (("--halvekctl", CTL, "--settings", "/nowhere/x.ini"), "/nowhere/x.ini"),
            (("--halvekctl", program(tmp_path, "echo no; exit 3")), "halvekctl says nothing"),
            (("--halvekctl", program(tmp_path, "kill -ILL $$")), "was ended by Illegal instruction"),
        )
    ):
        page = start_page(*options, "--events", f"{PIPE_FOLDER}/zz-{number}.halvek.any")
        drawn = ask(page, "/wiring")
        assert said in drawn["problem"] and drawn["drawing"] == ""
        assert page.state()["camera"] is True
        assert page.stop() == 0


def test_an_answer_that_is_no_json_is_told_as_a_problem(camera, start_page, tmp_path):
    page = start_page("--halvekctl", program(tmp_path, "echo '[1,'"))
    found = told(page, block("Doorbell").encode(), 1)
    assert "JSON" in found["problem"] and found["rows"] == []


def test_a_halvekctl_that_hangs_is_killed_and_holds_up_nobody(camera, start_page, tmp_path):
    page = start_page("--halvekctl", program(tmp_path, HANGING.format(tmp_path)))
    stream = page.stream()
    begin = time.monotonic()
    assert "does not come to an end" in ask(page, "/wiring")["problem"]
    assert time.monotonic() - begin > 5
    camera.set_alarm(LOCAL, 2, True)
    stream.wait_for_sent("said", text="alarm Local:2 active")
    pid = int((tmp_path / "pid").read_text())
    assert not Path(f"/proc/{pid}").exists()


def test_a_stop_ends_the_halvekctl_that_is_under_way(camera, start_page, tmp_path):
    page = start_page("--halvekctl", program(tmp_path, HANGING.format(tmp_path)))
    waiting = page.stream("/wiring", opened=False)
    wait_until((tmp_path / "pid").exists, "halvekctl runs")
    pid = (tmp_path / "pid").read_text().strip()
    assert page.stop() == 0
    assert not Path(f"/proc/{pid}").exists() and waiting.wait_for_head() == 503


def test_however_many_ask_halvekctl_runs_a_few_times_a_second(camera, start_page, tmp_path):
    log = tmp_path / "log"
    page = start_page("--halvekctl", program(tmp_path, f"echo run >>{log}; echo '<svg/>'"))
    begin = time.monotonic()
    streams = [page.stream("/wiring", opened=False) for _ in range(60)]
    assert {stream.wait_for_head() for stream in streams} == {200}
    assert len(log.read_text().splitlines()) <= 2 + (time.monotonic() - begin) / 0.2


def test_what_it_writes_is_cut_and_its_memory_given_back(camera, start_page, tmp_path):
    page = start_page("--halvekctl", program(tmp_path, "head -c 3000000 /dev/zero | tr '\\0' x; exit 0"))
    descriptors = page.descriptors()
    for _ in range(3):
        assert len(ask(page, "/wiring")["drawing"]) == 1 << 20
    wait_until(lambda: page.descriptors() <= descriptors, "all is closed")
