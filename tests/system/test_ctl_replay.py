"""halvekctl replay: what other settings would have done of what was recorded."""

import json
import resource
import signal
import subprocess
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
        line("begin", 0, mono=0),
        line("posted", 120_000, mono=120_000, type="Door", props={"eventId": "Door"}),
        line("clock", NOON, mono=120_000, amount=NOON - 120_000),
        line("end", NOON + 300_000, mono=420_000),
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


def test_the_rest_of_the_head_is_counted_anew(place):
    old = source(1, "Park", DwellTime_sec=10) | relay(1, 1)
    new = source(1, "Park", DwellTime_sec=30) | relay(1, 1) | source(2, "Park", DwellTime_sec=0) | relay(2, 2)
    lines = [
        line("begin", NOON, bus=True),
        line("idle", NOON, state=0),
        line("idle", NOON + 20_000, state=1),
        line("idle", NOON + 60_000, state=0),
        # To come to rest again counts anew.
        line("idle", NOON + 69_000, state=0),
        line("idle", NOON + 109_000, state=1),
        line("idle", NOON + 200_000, state=0),
        line("end", NOON + 205_000),
    ]
    told = place.compare(old, new, *lines)
    assert counts(told) == {"Handler#1": (2, 1), "Handler#2": (0, 4)}
    assert told["Handler#1"]["timers"] == [{"source": "Events/Source#1", "before": 2, "after": 1}]
    assert "  by Source#1: 2 before, 1 after" in place.text


def test_a_source_that_a_failing_handler_ends_fires_once(place):
    settings = source(1, "Park", DwellTime_sec=0) | relay(1, 1) | handler(2, "Events/Source#1", handler_type="Preset")
    lines = [line("begin", NOON, bus=True)]
    for second in (1, 5, 9):
        lines += [line("idle", NOON + second * 1000, state=0), line("idle", NOON + second * 1000 + 2000, state=1)]
    assert counts(place.compare(settings, settings, *lines, status=0))["Handler#1"] == (1, 1)


def test_what_the_camera_said_counts_for_what_its_sources_made_of_it(place):
    settings = source(1, "Alarm", BankName="Local", Index=2) | relay(1, 1)
    new = settings | source(2, "Alarm", BankName="Local", Index=3) | relay(2, 2, 1)
    state = {"alarmBank": "Local", "alarmState": "1"}
    lines = [
        line("begin", NOON, bus=True),
        line("alarm", NOON, type="Alarm", props=state | {"alarmIndex": "2"}),
        fired(NOON, "Alarm", alarmIndex="2", **state),
        line("alarm", NOON + 9, type="Alarm", props=state | {"alarmIndex": "3"}),
        line("alert", NOON + 20, type="AnalyticsAlert", props={"class": "Human"}),
    ]
    told = place.compare(settings, new, *lines)
    assert counts(told) == {"Handler#1": (1, 1), "Handler#2": (0, 2)}
    # The first line goes when there is no room for it any more.
    assert counts(place.compare(settings, new, *lines[1:])) == counts(told)


def test_a_handler_that_two_sources_deliver_to_acts_twice(place):
    twice = DOOR | source(3, "Door") | relay(1, 2, 3)
    told = place.compare(DOOR | relay(1, 2), twice, posted(NOON, "Door"))
    assert counts(told) == {"Handler#1": (1, 2)}
    (different,) = told["Handler#1"]["inputs"]
    assert (different["before"], different["after"], different["times_before"], different["times_after"]) == (
        True,
        True,
        1,
        2,
    )
    assert "before yes, after 2 times" in place.text


def test_what_is_posted_under_a_name_of_the_daemons_own_is_a_posted_event(place):
    settings = SERVER | timer(1, 3600) | relay(1, 1) | source(2, "Alarm", BankName="Local", Index=0) | relay(2, 2)
    lines = [posted(NOON + 5, "Timer"), posted(NOON + 9, "Alarm", alarmBank="Local", alarmIndex="0", alarmState="1")]
    told = place.compare(settings, settings, line("begin", NOON), *lines, status=0)
    assert counts(told) == {"Handler#1": (1, 1), "Handler#2": (0, 0)}


def test_as_many_actions_at_other_times_are_a_difference(place):
    old = timer(1, 60) | relay(1, 1, EnabledTimes="1200-1210")
    new = timer(1, 60) | relay(1, 1, EnabledTimes="1230-1240")
    told = place.compare(old, new, line("begin", NOON), line("end", NOON + 3_600_000))
    assert counts(told) == {"Handler#1": (10, 10)} and told["Handler#1"]["differs"] is True
    assert "by Source#1: 10 before, 10 after, at other times" in place.text
    # But not that the same is done because of another timer.
    other = timer(5, 60) | relay(1, 5, EnabledTimes="1200-1210")
    told = place.compare(old, other, line("begin", NOON), line("end", NOON + 3_600_000), status=0)
    assert told["Handler#1"]["timers"] == []


def test_a_timer_ticks_on_when_the_clock_is_set(place):
    settings = timer(1, 60) | relay(1, 1)
    lines = [
        line("begin", NOON, mono=0),
        line("clock", NOON + 3_600_000 + 90_000, mono=90_000, amount=3_600_000),
        line("end", NOON + 3_600_000 + 125_000, mono=125_000),
    ]
    # After 0, 60 and 120 s.
    assert counts(place.compare(settings, settings, *lines, status=0)) == {"Handler#1": (3, 3)}


@pytest.mark.parametrize(("interval", "ticks"), [("-1", 1), ("99999999", 1), ("0", 0), ("many", 361), ("60", 61)])
def test_odd_intervals_are_what_the_daemon_makes_of_them(place, interval, ticks):
    settings = source(1, "Timer", Interval_sec=interval) | relay(1, 1)
    told = place.compare(settings, settings, line("begin", NOON), line("end", NOON + 3_600_000), status=0)
    assert counts(told) == {"Handler#1": (ticks, ticks)}


def test_fields_that_it_does_not_know_are_passed_over(place):
    lines = [
        line("posted", NOON, type="Door", props={"eventId": "Door"}, later="x", more=-5, also={"a": "b"}, yes=True),
    ]
    assert counts(place.compare(DOOR | relay(1, 2), DOOR, *lines)) == {"Handler#1": (1, 0)}


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
    settings = dict(SERVER)
    for number in range(10):
        settings |= source(number, f"Door{number}") | relay(number, number, EnabledTimes=f"{number}00-2000")
    settings |= timer(20, 1) | relay(20, 20)
    lines = [posted(NOON + 2000 * number, f"Door{number % 10}", n=str(number)) for number in range(21_600)]
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    told = place.compare(settings, settings, *lines, status=0)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    # Of the processor's time, and it is played twice.
    print(spent := after.ru_utime - before.ru_utime + after.ru_stime - before.ru_stime)
    assert spent < 2 * 5
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
