"""halvekctl against the daemon as built: random settings, events, times and zones must come out the same in both.

A triple is settings, an event and a time. HALVEK_DRIFT_TRIPLES says how many there are.
"""

import json
import os
import re
import subprocess
from collections import Counter
from datetime import datetime, timezone
from pathlib import Path

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from testing.camera import LOCAL
from testing.daemon import CONFIGURED, Daemon
from testing.pipes import DEFAULT_INPUT, PIPE_FOLDER, OutputPipe, block, post
from testing.waiting import NotSeen, wait_until

pytest_plugins = ["camera_fixtures"]
pytestmark = pytest.mark.not_under("emulator", reason="each of many daemons and models takes seconds to start there")

CTL = os.environ["HALVEK_CTL"]
TRIPLES = int(os.environ.get("HALVEK_DRIFT_TRIPLES", "200"))
EVENTS_AT_A_TIME = 4
RECORD = re.compile(r"[-\dT:]{19}\.\d{3} (?:Warning|Error) [\w.]+: (.*)$", re.S)
# What the daemon writes at an event, so that it is foretold but not seen at the start.
AT_EVENTS = (
    "FilterChain: Illegal time range setting, not filtering",
    "EventHandler: not configured",
    "FolderEventHandler: Illegal file name or path",
    "FtpEventHandler: Illegal filename",
)
# What the machine, the bus or a wrong address cause, and settings do not.
NOT_OF_SETTINGS = ("The service manager cannot be told", "There is no message bus")
ZONES = (
    "UTC", "Europe/Berlin", "Europe/Dublin", "Australia/Lord_Howe", "Africa/Casablanca", "Pacific/Apia",
    "America/New_York", "Asia/Kathmandu", "America/St_Johns", "Pacific/Chatham",
)  # fmt: skip


# --- settings as people write them


def one_of(*values: str) -> st.SearchStrategy:
    return st.sampled_from(values)


clock = st.integers(0, 23).flatmap(lambda hour: st.integers(0, 59).map(lambda minute: str(hour * 100 + minute)))
time_range = st.tuples(clock | one_of("2400", "0"), clock | one_of("2400", "0")).map("-".join)
odd_range = one_of("8:00-17:00", "always", "800", "", " 800-1700", "22-24", "-5-10", "800-1700-1900", "0x1-0x2")
times = st.lists(st.one_of(time_range, time_range, time_range, odd_range), min_size=1, max_size=3).map(",".join)
days = one_of("MTWRF", "US", "UMTWRFS", "mtwrf", "Mon-Fri", "xyz", "", "M,W,F")
number = one_of("0", "1", "2", "-1", "4", "60s", "abc", "", "1.5", "99999999999", '"1"', "+1", "007")
boolean = one_of("true", "FALSE", "yes", "0", "ja", "", "y")


def keys_of(**strategies: st.SearchStrategy) -> st.SearchStrategy:
    """Some of these keys; "__" stands for a full stop."""
    return st.fixed_dictionaries({}, optional={name.replace("__", "."): value for name, value in strategies.items()})


# Most of what is drawn is right, so that something acts; the weights are what makes the verdicts come up.
SOURCE_TYPES = (
    "Door",
    "Door",
    "Door",
    "Alarm",
    "Alarm",
    "Alarm",
    "Bell",
    "MotionDetection",
    "2",
    "System",
    "alarm",
    "",
)
HANDLER_TYPES = ("Relay",) * 5 + ("Preset",) * 4 + ("Tour",) * 4 + ("Folder", "Ftp", "Email", "relay", "Webhook")
SOURCE_NAMES = ("1", "2", "10", "1-a")
OTHER_IDS = ("Applications/halvek/Server", "Applications/halvek/MsgBus", "Source#1", "Events/Nothing")


@st.composite
def sources(draw) -> dict[str, dict[str, str]]:
    groups = {}
    for name in SOURCE_NAMES[: draw(st.integers(2, 4))]:
        kind = draw(one_of(*SOURCE_TYPES))
        group = f"Events/Source#{name}"
        groups[group] = {"Type": kind} if kind else {}
        if kind == "Alarm":
            groups[group + "/Alarm"] = {"BankName": LOCAL, "Index": draw(one_of("1", "1", "1", "0", "two", "-1"))}
    return groups


@st.composite
def handlers(draw) -> dict[str, dict[str, str]]:
    groups = {}
    ids = one_of(*(f"Events/Source#{name}" for name in SOURCE_NAMES * 3), *OTHER_IDS)
    for number_of_it in ("1", "2", "3", "1-b")[: draw(st.integers(2, 4))]:
        group = f"Events/Handler#{number_of_it}"
        mark = number_of_it[0] if len(number_of_it) == 1 else "4"
        kind = draw(one_of(*HANDLER_TYPES))
        filters = draw(st.sampled_from([0, 0, 1, 1, 2, 3]))
        groups[group] = {"Type": kind}
        if filters & 1:
            groups[group]["EnabledTimes"] = draw(times)
        if filters & 2:
            groups[group]["EnabledDays"] = draw(days)
        quiet = kind in ("Folder", "Ftp", "Email")
        wanted = (
            [f"Events/Quiet#{mark}"]
            if quiet
            else [draw(ids) for _ in range(draw(st.sampled_from([2, 3, 1, 4, 2, 3, 0])))]
        )
        if wanted:
            groups[group + "/SourceIds"] = {str(key): value for key, value in enumerate(wanted)}
        groups[group + "/" + kind] = draw(own_keys(kind, mark))
    return groups


def own_keys(kind: str, mark: str) -> st.SearchStrategy:
    """What makes the handler known on the camera by its mark, and what may be wrong with it."""
    if kind == "Relay":
        odd = keys_of(Mode=number, Polarity=boolean, OnInterval__msec=number, PulseCount=number)
        index = st.sampled_from([str(int(mark) - 1)] * 4 + ["-1", "one"])
        return st.tuples(odd, index).map(lambda drawn: drawn[0] | {"BankName": LOCAL, "Index": drawn[1]})
    if kind in ("Preset", "Tour"):
        return st.sampled_from([{"Id": mark if kind == "Preset" else str(min(3, int(mark)))}] * 4 + [{}, {"Id": ""}])
    common = keys_of(Attachment=boolean, DestName=one_of("x.jpg", ""), DestinationPath=one_of("/media/sd", ""))
    if kind == "Ftp":
        return common.map(lambda keys: {key: value for key, value in keys.items() if key != "DestinationPath"})
    if kind == "Email":
        return keys_of(Attachment=boolean, RawEventData=boolean, To=one_of("a@example.org", ""))
    return common if kind == "Folder" else st.just({})


@st.composite
def stores(draw) -> str:
    groups = {}
    server = draw(st.sampled_from(["Pipe"] * 6 + ["pipe", None, None]))
    if server is not None:
        groups["Applications/halvek/Server"] = {"Type": server}
    snapshot = draw(st.sampled_from([{"SnapshotPath": "/tmp/s.jpg"}] * 3 + [{}, {"SnapshotPath": ""}, None]))
    if snapshot is not None:
        groups["Video/Quickview"] = snapshot
    level = draw(st.sampled_from([None] * 4 + ["Verbose", "Debug"]))
    if level is not None:
        groups["Applications/halvek"] = {"LogLevel": level}
    groups |= draw(sources()) | draw(handlers()) | {f"Events/Quiet#{mark}": {"Type": "Quiet"} for mark in "1234"}
    lines = []
    for group, keys in groups.items():
        lines += [f"[{group}]", *(f"{key}={value}" for key, value in keys.items()), ""]
    return "\n".join(lines)


INPUT = ("Alarm", {"alarmIndex": "1"})
OTHER_EVENTS = [
    ("Bell", {"button": "front"}),
    ("MotionDetection", {}),
    ("MotionDetection", {"region": "2"}),
    ("Alarm", {}),
    ("Alarm", {"alarmIndex": "0"}),
    ("System", {}),
    ("2", {}),
]
events = st.sampled_from([("Door", {})] * 3 + [INPUT] * 3 + OTHER_EVENTS)
# Around the days on which clocks change, and any other. A minute begins, so that it lasts while the event is fired.
moments = st.one_of(
    st.sampled_from([datetime(2026, 3, 29, 0, 30), datetime(2026, 10, 25, 0, 30), datetime(2026, 4, 4, 14, 59)]),
    st.datetimes(datetime(2026, 1, 1), datetime(2030, 12, 31)),
).map(lambda moment: moment.replace(second=0, microsecond=0, tzinfo=timezone.utc))


# --- both sides


def faked(moment: datetime, zone: str) -> dict[str, str]:
    (library,) = Path("/usr/lib").glob("*/faketime/libfaketimeMT.so.1")
    own = {"FAKETIME_DONT_FAKE_MONOTONIC": "1", "NO_FAKE_STAT": "1", "TZ": zone, "FAKETIME_FMT": "%s"}
    return {"LD_PRELOAD": str(library), "FAKETIME": f"@{int(moment.timestamp())}"} | own


def ask(*words: str) -> dict:
    answer = subprocess.run([CTL, "--format", "json", *words], capture_output=True, check=False, timeout=60)
    assert answer.returncode in (0, 1), answer.stderr
    return json.loads(answer.stdout)


def records(daemon: Daemon) -> list[str]:
    found = [match[1] for line in daemon.log.items if (match := RECORD.match(line))]
    return [text for text in found if not text.startswith(NOT_OF_SETTINGS)]


def assert_foretold(daemon_records: list[str], store: Path) -> None:
    foretold = {finding["foretells"] for finding in ask("check", str(store))["findings"]} - {None}
    assert set(daemon_records) - foretold == set()
    assert {text for text in foretold if not text.startswith(AT_EVENTS)} - set(daemon_records) == set()


MARKS = {"RelayV3.Activate": "Relay", "PresetsV2.IsAt": "Preset", "Tour.Start": "Tour"}


def acted(camera) -> set[tuple[str, str]]:
    """The type of each handler that acted, and its mark on the camera."""
    seen = set()
    for action in camera.actions():
        kind = MARKS.get(action.method)
        if kind:
            words = action.arguments.split(", ")
            seen.add((kind, words[1] if kind == "Relay" else words[0]))
    return seen


def expected(answer: dict, text: str) -> set[tuple[str, str]]:
    """The same of the rows that act."""
    marks = set()
    for row in answer["rows"]:
        if row["acts"] and row["type"] in MARKS.values():
            group = re.search(rf"^\[{re.escape(row['group'])}/{row['type']}\]\n((?:.+\n)*)", text, re.M)[1]
            marks.add((row["type"], re.search(r"^(?:Index|Id)=(.*)$", group, re.M)[1]))
    return marks


class Rig:
    """A daemon at another time, with the camera's bus."""

    def __init__(self, folder: Path, bus, camera, text: str, moment: datetime, zone: str, pipe) -> None:
        self.camera, self.pipe, self.text = camera, pipe, text
        self.zone, self.moment = zone, moment
        folder.mkdir()
        self.daemon = Daemon(folder, text, environment=bus.environment | faked(moment, zone), level="Debug")
        self.daemon.wait_until_ready()
        self.daemon.log.wait_for(CONFIGURED)
        self.alarms = sum("AlarmEventSource started" in line for line in self.daemon.log.items)
        self.has_server = "EventServerSource started" in "\n".join(self.daemon.log.items)

    def fire(self, event: tuple[str, dict]) -> None:
        """Returns when all sources are through with it."""
        kind, properties = event
        if "alarmIndex" in properties:
            self.change_alarm(int(properties["alarmIndex"]), True)
        elif self.has_server:
            before = len(self.daemon.log.items)
            post(block(kind, **properties) + block("End"))
            # Handlers of all posted events act on this one as they did on the other.
            self.daemon.log.wait_for("EventServerSource: Received event: End$", after=before)

    def change_alarm(self, index: int, active: bool) -> None:
        before, passed_on = len(self.daemon.log.items), len(self.pipe.of_type("Alarm"))
        self.camera.set_alarm(LOCAL, index, active)
        change = f"Received state change for alarm {LOCAL}:{index} -> {int(active)}$"

        def is_done() -> bool:
            new = "\n".join(self.daemon.log.items[before:])
            heard = len(re.findall(change, new, re.M))
            failed = len(re.findall("EventHandler: not configured$", new, re.M))
            through = len(self.pipe.of_type("Alarm")) - passed_on + failed
            return heard == self.alarms and through == len(re.findall("halvek: firing$", new, re.M))

        wait_until(is_done, "all alarm sources are through")

    def close(self) -> None:
        try:
            assert self.daemon.stop() == 0
        finally:
            self.daemon.close()


def settled(rig: Rig, wanted: set) -> set:
    """What acted, when all that should have has, or has had the time to."""
    try:
        wait_until(lambda: acted(rig.camera) >= wanted, "the actions that were foretold", patience=5)
    except NotSeen:
        pass  # the comparison says what is missing
    return acted(rig.camera)


def test_what_is_foretold_is_what_happens(tmp_path: Path, bus, camera) -> None:
    count = iter(range(1_000_000))
    seen: Counter[str] = Counter()

    @settings(
        max_examples=max(1, -(-TRIPLES // EVENTS_AT_A_TIME)),
        deadline=None,
        database=None,
        derandomize=TRIPLES <= 200,
        suppress_health_check=list(HealthCheck),
        print_blob=True,
    )
    @given(
        stores(),
        st.lists(events, min_size=EVENTS_AT_A_TIME, max_size=EVENTS_AT_A_TIME),
        moments,
        st.sampled_from(ZONES),
    )
    def holds(text: str, fired: list, moment: datetime, zone: str) -> None:
        pipe = OutputPipe("all.halvek.any")
        rig = Rig(tmp_path / str(next(count)), bus, camera, text, moment, zone, pipe)
        try:
            store = rig.daemon.settings_file
            assert_foretold(records(rig.daemon), store)
            for event in fired:
                words = [f"{key}={value}" for key, value in event[1].items()]
                at = moment.strftime("%Y-%m-%dT%H:%MZ")
                answer = ask("--settings", str(store), "--zone", zone, "explain", event[0], *words, "--at", at)
                wanted = expected(answer, text)
                seen.update(row["verdict"] for row in answer["rows"])
                seen["triples"] += 1
                camera.clear_actions()
                rig.fire(event)
                assert settled(rig, wanted) == wanted, (event, answer["rows"])
                if "alarmIndex" in event[1]:
                    rig.change_alarm(int(event[1]["alarmIndex"]), False)
        finally:
            rig.close()
            pipe.close()
            (PIPE_FOLDER / "all.halvek.any").unlink(missing_ok=True)
            DEFAULT_INPUT.unlink(missing_ok=True)

    holds()
    # The comparison is worth something only if much of what there is comes up.
    print(dict(seen))
    assert seen["triples"] >= TRIPLES
    for verdict in ("acts", "out-of-time", "out-of-day", "other-type", "left-out", "not-wired", "no-event-pipe"):
        assert seen[verdict] > 0, verdict


def test_a_rule_of_the_comparison_can_fail(tmp_path: Path) -> None:
    """The comparison of records sees a record that is not foretold, and one that is foretold in vain."""
    store = tmp_path / "settings.ini"
    store.write_text("[Applications/halvek/Server]\nType=Pipe\n[Events/Source#1]\nType=Door\n")
    assert_foretold(["\tUnknown EventSource: Door"], store)
    for wrong in ([], ["\tUnknown EventSource: Door", "Something else"]):
        with pytest.raises(AssertionError):
            assert_foretold(wrong, store)
