"""halvekctl replay: what other settings would have done of what was recorded."""

import json
import signal
import subprocess
import time
from pathlib import Path

import pytest
from ctl import PROGRAM, answer, ctl, environment, json_answer
from testing.pipes import DEFAULT_INPUT, block, bytes_ready_at, post
from testing.settings import SERVER, Settings, handler, ini_text, source, timer
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is about speed")

NOON = 1_795_435_200_000  # 2026-11-23T12:00:00Z, a Monday
DOOR = SERVER | source(2, "Door")


def line(kind: str, milliseconds: int, **fields: object) -> str:
    common = {"kind": kind, "t": "", "ms": milliseconds, "mono": milliseconds - NOON, "boot": "b", "seq": 1}
    return json.dumps(common | fields, separators=(",", ":")) + "\n"


def posted(milliseconds: int, event_type: str, **properties: str) -> str:
    return line("posted", milliseconds, type=event_type, props={"eventId": event_type} | properties)


def fired(milliseconds: int, event_type: str, **properties: str) -> str:
    return line("fired", milliseconds, type=event_type, props={"Timestamp": str(milliseconds)} | properties)


class Place:
    def __init__(self, folder: Path) -> None:
        self.folder = folder
        self.file = folder / "inputs"

    def compare(self, old: Settings, new: Settings, *lines: str, status: int = 1) -> dict:
        self.file.write_text("".join(lines))
        for name, settings in (("old", old), ("new", new)):
            (self.folder / name).write_text(ini_text(settings))
        words = ["--zone", "UTC", "replay", self.file, "--old", self.folder / "old", "--new", self.folder / "new"]
        told = json_answer(*words, status=status)
        self.text = answer(*words, status=status)
        return {one["group"].removeprefix("Events/"): one for one in told["handlers"]}


@pytest.fixture
def place(tmp_path):
    return Place(tmp_path)


def counts(told: dict) -> dict[str, tuple[int, int]]:
    return {name: (one["before"], one["after"]) for name, one in told.items()}


def relay(number: int, *sources: int, **keys: object) -> Settings:
    return handler(number, *(f"Events/Source#{one}" for one in sources), handler_type="Relay", BankName="x", **keys)


def test_the_same_settings_make_no_difference(place):
    settings = DOOR | relay(1, 2)
    told = place.compare(settings, settings, posted(NOON, "Door"), posted(NOON + 5, "Bell"), status=0)
    assert counts(told) == {"Handler#1": (1, 1)} and told["Handler#1"]["differs"] is False
    assert "Handler#1: 1 before, 1 after, the same" in place.text


def test_the_inputs_that_make_the_difference_are_named(place):
    old, new = DOOR | relay(1, 2), DOOR | relay(1, 2, EnabledTimes="1300-1400")
    lines = [posted(NOON, "Door", button="front"), posted(NOON + 3_600_000, "Door", button="back")]
    told = place.compare(old, new, *lines)
    assert counts(told) == {"Handler#1": (2, 1)}
    (different,) = told["Handler#1"]["inputs"]
    assert (different["type"], different["props"], different["before"], different["after"]) == (
        "Door",
        {"button": "front"},
        True,
        False,
    )
    assert "2026-11-23T12:00:00.000Z Door button=front: before yes, after no" in place.text


def test_a_handler_that_only_one_of_them_has_counts_as_none_in_the_other(place):
    told = place.compare(DOOR, DOOR | relay(3, 2), posted(NOON, "Door"))
    assert counts(told) == {"Handler#3": (0, 1)}


def test_timers_tick_anew_within_the_times_of_their_handlers(place):
    old = timer(1, 60) | relay(1, 1)
    new = timer(1, 10) | relay(1, 1, EnabledTimes="1200-1230")
    lines = [line("begin", NOON), line("end", NOON + 3_600_000)]
    told = place.compare(old, new, *lines)
    # At 12:00:00 and once a minute to 13:00:00; every ten seconds up to 12:30.
    assert counts(told) == {"Handler#1": (61, 30 * 6)}
    assert told["Handler#1"]["timers"] == [{"source": "Events/Source#1", "before": 61, "after": 180}]


def test_a_clock_that_was_set_begins_a_stretch_of_its_own(place):
    settings = timer(1, 60) | relay(1, 1, EnabledTimes="1200-1210")
    lines = [
        line("begin", 0),
        line("posted", 120_000, type="Door", props={"eventId": "Door"}),
        line("clock", NOON, amount=NOON - 120_000),
        line("end", NOON + 300_000),
    ]
    assert counts(place.compare(settings, settings, *lines, status=0)) == {"Handler#1": (6, 6)}


def test_an_alarm_that_two_sources_told_of_is_one(place):
    settings = source(1, "Alarm", BankName="Local", Index=2) | relay(1, 1)
    state = {"alarmBank": "Local", "alarmIndex": "2", "eventType": "Alarm"}
    lines = [
        fired(NOON, "Alarm", alarmState="1", **state),
        fired(NOON + 3, "Alarm", alarmState="1", **state),
        fired(NOON + 9, "Alarm", alarmState="0", **state),
        fired(NOON + 5000, "Alarm", alarmState="1", **state),
    ]
    assert counts(place.compare(settings, settings, *lines, status=0)) == {"Handler#1": (3, 3)}


def test_what_was_missed_and_what_cannot_be_read_is_told(place):
    told = place.compare(DOOR, DOOR, posted(NOON, "Door"), line("gap", NOON, amount=7), '{"kind":"pos', status=0)
    assert told == {} and "1 inputs, 7 missing" in place.text
    done = ctl("replay", place.file, "--new", place.folder / "new", "--old", place.folder / "old")
    assert b"1 lines of the recording cannot be read" in done.stderr


def test_what_was_recorded_comes_out_as_it_went_in(launch, tmp_path, place):
    launch(DOOR)
    command = [PROGRAM, "record", place.file]
    with subprocess.Popen(command, env=environment(), stderr=subprocess.PIPE) as process:
        assert b"reading" in process.stderr.readline()
        post(block("Door", note='a"b\\c\u0085\u00e4\u20ac\t=') + block("Bell"))
        wait_until(lambda: bytes_ready_at(DEFAULT_INPUT) == 0, "all is read")
        process.send_signal(signal.SIGINT)
    recorded = place.file.read_text()
    told = place.compare(DOOR | relay(1, 2), DOOR, recorded)
    assert told["Handler#1"]["inputs"][0]["props"] == {"note": 'a"b\\c\u0085\u00e4\u20ac\t='}


def test_half_a_day_takes_less_than_five_seconds(place):
    settings = SERVER
    for number in range(10):
        settings |= source(number, f"Door{number}") | relay(number, number, EnabledTimes=f"{number}00-2000")
    settings |= timer(20, 1) | relay(20, 20)
    lines = [posted(NOON + 2000 * number, f"Door{number % 10}", n=str(number)) for number in range(21_600)]
    begin = time.monotonic()
    told = place.compare(settings, settings, *lines, status=0)
    assert time.monotonic() - begin < 2 * 5  # it is played twice
    assert told["Handler#20"]["before"] == 43_199 and told["Handler#0"]["before"] == 1440


@pytest.mark.parametrize("text", ["", "nonsense\n", "{}\n"], ids=repr)
def test_what_is_no_recording_is_3(place, text):
    place.file.write_text(text)
    store = place.folder / "store"
    store.write_text(ini_text(DOOR))
    assert ctl("replay", place.file, "--old", store, "--new", store).returncode == 3
    assert ctl("replay", place.folder / "nothing", "--old", store, "--new", store).returncode == 3


@pytest.mark.parametrize("words", [[], ["a"], ["a", "b", "--new", "c"], ["--new", "c"]], ids=str)
def test_a_wrong_command_line_is_2(words):
    assert ctl("replay", *words).returncode == 2
