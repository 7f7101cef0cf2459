"""halvekctl explain: who acts on an event, and why not the others."""

import json
import os
import subprocess
from pathlib import Path

import pytest
from ctl import answer, ctl, json_answer, write_store
from testing.settings import SERVER, Settings, handler, ini_text, source, timer

MONDAY_NOON = "2026-11-23T12:00"
SERVER_ID = "Applications/halvek/Server"
DOORBELL: Settings = {"Events/Source#bell": {"Type": "Doorbell"}}


def explain(folder: Path, settings: Settings | str, *words: object, status: int = 0) -> list[dict]:
    store = write_store(folder, settings)
    return json_answer("--settings", store, "--zone", "UTC", "explain", *words, status=status)["rows"]


def verdicts(rows: list[dict]) -> dict[str, str]:
    return {row["group"].removeprefix("Events/Handler#"): row["verdict"] for row in rows}


def the_line(row: dict) -> str:
    """What stands in the line that a row names."""
    return Path(row["file"]).read_text().splitlines()[row["line"] - 1]


@pytest.mark.parametrize(
    "settings, event, verdict, line",
    [
        (timer(1, 5) | handler(1, "Events/Source#1"), "Timer", "acts", "[Events/Handler#1]"),
        (timer(1, 5) | handler(1, "Events/Source#1", EnabledDays="US"), "Timer", "out-of-day", "EnabledDays=US"),
        (
            timer(1, 5) | handler(1, "Events/Source#1", EnabledTimes="1201-1300"),
            "Timer",
            "out-of-time",
            "EnabledTimes=1201-1300",
        ),
        (
            timer(1, 5) | handler(1, "Events/Source#1", EnabledTimes="8:00-17:00"),
            "Timer",
            "unreadable-range",
            "EnabledTimes=8:00-17:00",
        ),
        (
            timer(1, 5) | handler(1, "Events/Source#1", handler_type="Preset"),
            "Timer",
            "not-configured",
            "[Events/Handler#1]",
        ),
        (
            timer(1, 5) | handler(1, "Events/Source#1", handler_type="Relay", BankName="Local", Index=-1),
            "Timer",
            "not-configured",
            "Index=-1",
        ),
        (
            timer(1, 5) | handler(1, "Events/Source#1", handler_type="Folder", Attachment="false"),
            "Timer",
            "left-out",
            "Attachment=false",
        ),
        (
            timer(1, 5) | handler(1, "Events/Source#1", handler_type="Relay", BankName="Local", Index="one"),
            "Timer",
            "left-out",
            "Index=one",
        ),
        (timer(1, 5) | handler(1, "Events/Source#1", handler_type="Rely"), "Timer", "left-out", "Type=Rely"),
        (timer(1, 5) | handler(1), "Timer", "not-wired", "[Events/Handler#1]"),
        (timer(1, 5) | handler(1, "Events/Source#2"), "Timer", "not-wired", "0=Events/Source#2"),
        (timer(1, 5) | SERVER | handler(1, "Events/Source#1"), "Doorbell", "other-type", "0=Events/Source#1"),
        (SERVER | DOORBELL | handler(1, "Events/Source#bell"), "Doorbell", "acts", "[Events/Handler#1]"),
        (DOORBELL | handler(1, "Events/Source#bell"), "Doorbell", "no-event-pipe", "0=Events/Source#bell"),
    ],
)
def test_each_verdict_names_the_line_that_it_comes_from(
    settings: Settings, event: str, verdict: str, line: str, tmp_path: Path
) -> None:
    acts = verdict in ("acts", "unreadable-range")
    [row] = explain(tmp_path, settings, event, "--at", MONDAY_NOON, status=0 if acts else 1)
    assert (row["group"], row["verdict"], row["acts"], the_line(row)) == ("Events/Handler#1", verdict, acts, line)


def test_a_handler_that_is_not_configured_costs_those_behind_it_the_event(tmp_path: Path) -> None:
    settings = timer(1, 5)
    for number in (1, 2, 3):
        settings |= handler(number, "Events/Source#1", handler_type="Tour" if number == 2 else "Extern")
    rows = explain(tmp_path, settings, "Timer")
    assert verdicts(rows) == {"1": "acts", "2": "not-configured", "3": "behind-failing"}
    assert the_line(rows[2]) == "[Events/Handler#2]"


def test_handlers_of_the_server_come_before_those_of_the_type(tmp_path: Path) -> None:
    settings = SERVER | DOORBELL | handler(1, "Events/Source#bell") | handler(2, SERVER_ID)
    rows = explain(tmp_path, settings, "Doorbell")
    assert [row["group"] for row in rows] == ["Events/Handler#2", "Events/Handler#1"]


def test_each_handler_has_one_row_however_often_it_is_reached(tmp_path: Path) -> None:
    settings = timer(1, 5) | timer(2, 5) | handler(1, "Events/Source#1", "Events/Source#2", "Events/Source#1")
    assert verdicts(explain(tmp_path, settings, "Timer")) == {"1": "acts"}


def test_a_handler_is_out_of_time_if_every_source_finds_it_so(tmp_path: Path) -> None:
    settings = timer(1, 5) | handler(1, "Events/Source#1", EnabledTimes="0-100")
    settings |= timer(2, 5) | handler(2, "Events/Source#2")
    rows = explain(tmp_path, settings, "Timer", "--at", MONDAY_NOON)
    assert verdicts(rows) == {"1": "out-of-time", "2": "acts"}


def test_the_ids_behind_a_missing_one_are_lost(tmp_path: Path) -> None:
    settings = SERVER | DOORBELL | timer(1, 5)
    settings |= handler(1, "Events/Source#1", "Events/Source#9", "Events/Source#bell")
    assert verdicts(explain(tmp_path, settings, "Timer")) == {"1": "acts"}
    [row] = explain(tmp_path, settings, "Doorbell", status=1)
    assert row["verdict"] == "not-wired" and "There is no settings group Events/Source#9" in row["text"]


def alarm_settings(*banks: str) -> Settings:
    settings: Settings = dict(SERVER)
    for number, bank in enumerate(banks, 1):
        settings |= source(number, "Alarm", Index=2, **({"BankName": bank} if bank else {}))
        settings |= handler(number, f"Events/Source#{number}")
    return settings


@pytest.mark.parametrize(
    "words, acting",
    [
        (["alarmIndex=2"], {"1", "2", "3"}),
        (["alarmIndex=2", "alarmBank=Local"], {"1", "3"}),
        (["alarmIndex=2", "alarmBank=Remote"], {"2", "3"}),
        (["alarmIndex=3"], set()),
        ([], set()),
    ],
)
def test_an_alarm_with_an_index_is_an_input_of_the_camera(words: list[str], acting: set, tmp_path: Path) -> None:
    rows = explain(tmp_path, alarm_settings("Local", "Remote", ""), "Alarm", *words, status=0 if acting else 1)
    assert {group for group, verdict in verdicts(rows).items() if verdict == "acts"} == acting


def test_an_alarm_without_an_index_is_posted(tmp_path: Path) -> None:
    rows = explain(tmp_path, alarm_settings("Local") | handler(9, SERVER_ID), "Alarm")
    assert verdicts(rows) == {"9": "acts", "1": "other-type"}


def test_a_motion_with_a_region_is_known_by_its_region(tmp_path: Path) -> None:
    settings = SERVER | {"Events/Source#1": {"Type": "MotionDetection"}, "Events/Source#2": {"Type": "gate"}}
    settings |= handler(1, "Events/Source#1") | handler(2, "Events/Source#2")
    assert verdicts(explain(tmp_path, settings, "MotionDetection")) == {"1": "acts", "2": "other-type"}
    rows = explain(tmp_path, settings, "MotionDetection", "region=gate")
    assert verdicts(rows) == {"2": "acts", "1": "other-type"}


def test_an_alert_reaches_the_source_that_is_always_there(tmp_path: Path) -> None:
    settings = source(1, "Analytics") | handler(1, "Events/Source#1") | handler(2, "Applications/halvek/MsgBus")
    rows = explain(tmp_path, settings, "AnalyticsAlert")
    assert [(row["group"], row["verdict"]) for row in rows] == [
        ("Events/Handler#2", "acts"),
        ("Events/Handler#1", "acts"),
    ]


def test_what_only_the_camera_knows_is_said(tmp_path: Path) -> None:
    settings = timer(1, 5) | handler(1, "Events/Source#1", handler_type="Relay")
    settings |= handler(2, "Events/Source#1", handler_type="Relay", BankName="Local")
    assert [row["asks_camera"] for row in explain(tmp_path, settings, "Timer")] == [True, False]


@pytest.mark.parametrize(
    "at, zone, shown",
    [
        ("2026-11-23T09:15", "Europe/Berlin", "2026-11-23T09:15:00+01:00"),
        ("2026-07-23T09:15:30", "Europe/Berlin", "2026-07-23T09:15:30+02:00"),
        ("2026-11-23T09:15Z", "Europe/Berlin", "2026-11-23T10:15:00+01:00"),
        ("2026-11-23T09:15:00.250-05:00", "UTC", "2026-11-23T14:15:00+00:00"),
        ("2026-11-23T09:15+0530", "UTC", "2026-11-23T03:45:00+00:00"),
        ("2026-10-25T02:30", "Europe/Berlin", "2026-10-25T02:30:00+02:00"),
        ("2026-11-23T09:15", "CET-1CEST,M3.5.0,M10.5.0/3", "2026-11-23T09:15:00+01:00"),
    ],
)
def test_a_time_is_local_unless_it_has_an_offset(at: str, zone: str, shown: str, tmp_path: Path) -> None:
    store = write_store(tmp_path, timer(1, 5) | handler(1, "Events/Source#1"))
    told = json_answer("--settings", store, "--zone", zone, "explain", "Timer", "--at", at)
    assert told["at"] == shown


@pytest.mark.parametrize(
    "words",
    [
        ["explain"],
        ["explain", ""],
        ["explain", "Timer", "--at"],
        ["explain", "Timer", "--at", "noon"],
        ["explain", "Timer", "--at", "2026-11-23"],
        ["explain", "Timer", "--at", "2026-02-30T12:00"],
        ["explain", "Timer", "--at", "2026-11-23T24:00"],
        ["explain", "Timer", "--at", "2026-11-23T12:00+25:00"],
        ["explain", "Timer", "--at", "2026-11-23T12:00 "],
        ["--zone", "Europe/Berlin", "explain", "Timer", "--at", "2026-03-29T02:30"],
        ["--zone", "Mars/Olympus", "explain", "Timer"],
        ["--zone", "", "explain", "Timer"],
        ["--zone", "../../../etc/hostname", "explain", "Timer"],
        ["explain", "Timer", "--zone", "Europe/Berlin\n"],
        ["explain", "Timer", "nothing"],
        ["explain", "Timer", "=x"],
        ["explain", "Doorbell]"],
        ["explain", "Door\nbell"],
        ["explain", "Alarm", "alarmIndex=two"],
        ["explain", "Timer", "--nonsense"],
        ["explain", "Timer", "--tests", "FILE"],
        ["--format", "xml", "explain", "Timer"],
    ],
)
def test_a_wrong_command_line_is_2_and_nothing_is_answered(words: list[str], tmp_path: Path) -> None:
    store = write_store(tmp_path, timer(1, 5) | handler(1, "Events/Source#1"))
    done = ctl("--settings", store, *words)
    assert (done.returncode, done.stdout) == (2, b""), done
    # The first line may say which settings it is about; the other one is the reason.
    assert done.stderr.count(b"\n") <= 2 and done.stderr.splitlines()[-1].startswith(b"halvekctl: ")


def test_expectations_that_hold_are_0_and_others_are_1_and_named(tmp_path: Path) -> None:
    settings = SERVER | DOORBELL | handler(1, "Events/Source#bell", EnabledTimes="800-1700")
    store = write_store(tmp_path, settings | handler(2, "Events/Source#bell"))
    tests = tmp_path / "expectations"
    tests.write_text(
        "# comment\n\n"
        "at 2026-11-23T09:15 Doorbell button=front => Handler#1 Handler#2\n"
        "  at 2026-11-23T18:00 Doorbell => Events/Handler#2 !Handler#1\n"
    )
    told = answer("--settings", store, "--zone", "UTC", "explain", "--tests", tests)
    assert told == "4 expectations, 0 failed\n"
    tests.write_text("at 2026-11-23T18:00 Doorbell => Handler#1 !Handler#2 Handler#3\n")
    told = answer("--settings", store, "--zone", "UTC", "explain", "--tests", tests, status=1)
    lines = told.splitlines()
    assert [line.split(": ")[0] for line in lines[:3]] == [f"{tests}:1"] * 3
    assert "Handler#1 should act" in lines[0] and "out-of-time" in lines[0]
    assert "Handler#3 should act" in lines[1] and "missing" in lines[1]
    assert "Handler#2 should not act" in lines[2]
    told = json_answer("--settings", store, "--zone", "UTC", "explain", "--tests", tests, status=1)
    assert [row["holds"] for row in told["expectations"]] == [False, False, False]


@pytest.mark.parametrize("line", ["Doorbell", "Doorbell =>", "=> Handler#1", "at noon Doorbell => Handler#1"])
def test_a_line_that_is_no_expectation_is_2_with_its_place(line: str, tmp_path: Path) -> None:
    store = write_store(tmp_path, DOORBELL)
    tests = tmp_path / "expectations"
    tests.write_text("\n" + line + "\n")
    done = ctl("--settings", store, "explain", "--tests", tests)
    assert (done.returncode, done.stdout) == (2, b"")
    assert f"halvekctl: {tests}:2: ".encode() in done.stderr


@pytest.mark.parametrize("kind", ["missing", "folder", "fifo"])
def test_a_file_of_expectations_that_cannot_be_read_is_3(kind: str, tmp_path: Path) -> None:
    tests = tmp_path / "expectations"
    if kind == "folder":
        tests.mkdir()
    elif kind == "fifo":
        os.mkfifo(tests)
    done = ctl("--settings", write_store(tmp_path, DOORBELL), "explain", "--tests", tests)
    assert (done.returncode, done.stdout) == (3, b"") and str(tests).encode() in done.stderr


HOSTILE = "x\x1b[31m\x07\x7f\x9b\u0085y"


def test_no_control_character_and_no_password_is_ever_shown(tmp_path: Path) -> None:
    store = tmp_path / "settings\x1b[0m.ini"
    settings: Settings = {f"Events/Source#{HOSTILE}": {"Type": HOSTILE}}
    settings |= handler(1, f"Events/Source#{HOSTILE}", EnabledTimes=HOSTILE)
    settings |= {f"Events/Handler#{HOSTILE}": {"Type": HOSTILE, "EnabledDays": HOSTILE, "Password": "hush"}}
    settings |= {f"Events/Handler#{HOSTILE}/SourceIds": {"1": HOSTILE}}
    settings |= handler(2, "Events/Source#1", handler_type="Ftp", Password="hush", Server=HOSTILE, Attachment=HOSTILE)
    store.write_bytes(ini_text(settings | SERVER).encode("utf-8", "surrogateescape") + b"[\xff\x9b]\n")
    for words in (
        ["explain", HOSTILE, f"a{HOSTILE}={HOSTILE}", "Password=hush"],
        ["show"],
        ["show", "--as", "svg"],
        ["show", "--as", "dot"],
        ["schedule"],
        ["schedule", "--svg"],
        ["schedule", f"Handler#{HOSTILE}nobody"],
    ):
        for form in ("text", "json"):
            done = ctl("--settings", store, "--format", form, *words)
            shown = done.stdout + done.stderr
            text = shown.decode()  # UTF-8 throughout
            assert not [c for c in text if (ord(c) < 32 and c != "\n") or 127 <= ord(c) < 160], (words, form)
            assert "hush" not in text, (words, form)


def test_colours_are_for_terminals_only(tmp_path: Path) -> None:
    store = write_store(tmp_path, timer(1, 5) | handler(1, "Events/Source#1"))
    assert "\x1b" not in answer("--settings", store, "explain", "Timer")
    for variables, is_coloured in (({}, True), ({"NO_COLOR": "1"}, False)):
        terminal, inner = os.openpty()
        done = ctl("--settings", store, "explain", "Timer", stdout=inner, variables=variables)
        os.close(inner)
        text = os.read(terminal, 65536)
        os.close(terminal)
        assert done.returncode == 0 and (b"\x1b[" in text) == is_coloured


@pytest.mark.parametrize(
    ("words", "hint"),
    [
        (["alarm"], "did you mean Alarm?"),
        (["Timr"], "did you mean Timer?"),
        (["Source#2"], "Source#2 is a source; its events are called Alarm"),
        (["Alarm"], "those of the camera's inputs have it"),
        (["Nonsense"], "waits for Nonsense; it knows Alarm, AnalyticsAlert, Doorbell, Timer"),
        (["Alarm", "alarmIndex=7"], None),
    ],
)
def test_an_event_on_which_nobody_acts_comes_with_what_may_have_been_meant(
    words: list[str], hint: str | None, tmp_path: Path
) -> None:
    groups = SERVER | timer(1, 5) | source(2, "Alarm", BankName="Local", Index=2) | source(3, "Doorbell")
    settings = groups | handler(1, *(f"Events/Source#{number}" for number in (1, 2, 3)))
    done = ctl("--settings", write_store(tmp_path, settings), "explain", *words)
    told = done.stderr.decode().splitlines()[1:]
    assert done.returncode == 1 and len(told) == (hint is not None) and all(line.endswith(hint) for line in told), told


def test_json_and_text_tell_the_same(tmp_path: Path) -> None:
    settings = timer(1, 5) | handler(1, "Events/Source#1", EnabledDays="U") | handler(2, "Events/Source#1")
    store = write_store(tmp_path, settings)
    words = ["--settings", store, "--zone", "UTC", "explain", "Timer", "--at", MONDAY_NOON]
    lines = answer(*words).splitlines()[1:3]
    rows = json_answer(*words)["rows"]
    assert [line.split()[:3] for line in lines] == [
        [row["group"].removeprefix("Events/"), row["verdict"], f"{row['file']}:{row['line']}"] for row in rows
    ]


def test_every_source_and_handler_type_of_the_daemon_has_its_probe(tmp_path: Path) -> None:
    known = json.loads(subprocess.run([os.environ["HALVEK_KNOWN_SETTINGS"]], stdout=subprocess.PIPE, check=True).stdout)
    types = {"Source": set(), "Handler": set()}
    for group in known:
        parts = group["pattern"].split("/")
        if len(parts) == 3 and parts[0] == "Events" and parts[2] != "SourceIds":
            types[parts[1].split("#")[0]].add(parts[2])
    assert len(types["Source"]) == 7 and len(types["Handler"]) == 7
    settings: Settings = dict(SERVER) | {"Video/Quickview": {"SnapshotPath": "/x.jpg"}}
    for number, source_type in enumerate(sorted(types["Source"])):
        settings |= source(number, source_type)
    for number, handler_type in enumerate(sorted(types["Handler"])):
        settings |= handler(number, SERVER_ID, handler_type=handler_type, Id="1", Attachment="true")
    rows = explain(tmp_path, settings, "Doorbell")
    assert {(row["type"], row["verdict"]) for row in rows} == {(name, "acts") for name in types["Handler"]}
