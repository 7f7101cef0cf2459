"""halvekctl against the daemon as built: random settings, events, times and zones must come out the same in both.

A triple is settings, an event and a time. HALVEK_DRIFT_TRIPLES says how many there are.
"""

import json
import os
import re
import subprocess
from collections import Counter
from collections.abc import Callable
from datetime import datetime, timezone
from pathlib import Path

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from testing.camera import ALERT, LOCAL
from testing.daemon import CONFIGURED, Daemon
from testing.pipes import DEFAULT_INPUT, PIPE_FOLDER, OutputPipe, block, post
from testing.waiting import NotSeen, wait_until

pytest_plugins = ["camera_fixtures"]
pytestmark = pytest.mark.not_under("emulator", reason="each of many daemons and models takes seconds to start there")

CTL = os.environ["HALVEK_CTL"]
TRIPLES = int(os.environ.get("HALVEK_DRIFT_TRIPLES", "200"))
EVENTS_AT_A_TIME = 4
NOBODYS_INPUT = 2
RECORD = re.compile(r"[-\dT:]{19}\.\d{3} (?:Warning|Error) [\w.]+: (.*)$", re.S)
# What the daemon writes at an event, so that it is foretold but not seen at the start.
AT_EVENTS = (
    "FilterChain: Illegal time range setting, not filtering",
    "EventHandler: not configured",
    "FolderEventHandler: Illegal file name or path",
    "FtpEventHandler: Illegal filename",
    "Not an address, the mail goes without it: ",
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


def mostly(usual: st.SearchStrategy, odd: st.SearchStrategy, share: int = 7) -> st.SearchStrategy:
    """What is odd is drawn once in so many times: most is right, so that something acts."""
    # The library likes the ends of a range best, and what it draws is simplest at 0.
    return st.integers(0, 2 * share).flatmap(lambda drawn: odd if drawn in (share, share + 1) else usual)


clock = st.integers(0, 23).flatmap(lambda hour: st.integers(0, 59).map(lambda minute: str(hour * 100 + minute)))
long_range = one_of("0-2400", "0-1200", "1200-2400", "600-2200", "0-1759")
time_range = st.tuples(clock | one_of("2400", "0"), clock | one_of("2400", "0")).map("-".join)
odd_range = one_of("8:00-17:00", "always", "800", "", " 800-1700", "22-24", "-5-10", "800-1700-1900", "0x1-0x2")
times = st.lists(mostly(long_range | time_range, odd_range), min_size=1, max_size=3).map(",".join)
days = mostly(one_of("MTWRF", "US", "UMTWRFS", "UMTWR", "WRFS"), one_of("mtwrf", "Mon-Fri", "xyz", "", "M,W,F"))
number = one_of("0", "1", "2", "-1", "4", "60s", "abc", "", "1.5", "99999999999", '"1"', "+1", "007")
boolean = one_of("true", "FALSE", "yes", "0", "ja", "", "y")


def keys_of(**strategies: st.SearchStrategy) -> st.SearchStrategy:
    """Some of these keys; "__" stands for a full stop."""
    return st.fixed_dictionaries({}, optional={name.replace("__", "."): value for name, value in strategies.items()})


SOURCE_TYPES = mostly(
    one_of("Door", "Door", "Alarm", "Alarm", "Timer", "Park", "Analytics", "Bell"),
    one_of("MotionDetection", "2", "System", "alarm", "MsgBus", ""),
    5,
)
HANDLER_TYPES = mostly(
    one_of("Relay", "Relay", "Preset", "Tour"), one_of("Folder", "Ftp", "Email", "relay", "Webhook"), 8
)
SOURCE_NAMES = ("1", "2", "10", "1-a")
OTHER_IDS = one_of("Applications/halvek/Server", "Applications/halvek/MsgBus", "Source#1", "Events/Nothing")


def keys_of_source(kind: str) -> st.SearchStrategy:
    if kind == "Alarm":
        return st.fixed_dictionaries({"BankName": st.just(LOCAL), "Index": mostly(st.just("1"), one_of("0", "two"))})
    # It fires at the start, and not again: a reload or a day would have to come.
    if kind == "Timer":
        return st.fixed_dictionaries({"Interval.sec": one_of("86400", "3600", "-1", "99999999")})
    return st.fixed_dictionaries({"DwellTime.sec": st.just("0")} if kind == "Park" else {})


@st.composite
def sources(draw) -> dict[str, dict[str, str]]:
    groups = {}
    for name in SOURCE_NAMES[: draw(st.integers(2, 4))]:
        kind = draw(SOURCE_TYPES)
        group = f"Events/Source#{name}"
        groups[group] = {"Type": kind} if kind else {}
        keys = draw(keys_of_source(kind))
        if keys:
            groups[f"{group}/{kind}"] = keys
    return groups


@st.composite
def handlers(draw, source_groups: list[str]) -> dict[str, dict[str, str]]:
    groups = {}
    ids = mostly(one_of(*source_groups), OTHER_IDS)
    for number_of_it in ("1", "2", "3", "1-b")[: draw(st.integers(2, 4))]:
        group = f"Events/Handler#{number_of_it}"
        mark = number_of_it[0] if len(number_of_it) == 1 else "4"
        kind = draw(HANDLER_TYPES)
        filters = draw(st.sampled_from([0, 0, 0, 0, 1, 1, 2, 3]))
        groups[group] = {"Type": kind}
        if filters & 1:
            groups[group]["EnabledTimes"] = draw(times)
        if filters & 2:
            groups[group]["EnabledDays"] = draw(days)
        quiet = kind in ("Folder", "Ftp", "Email")
        wanted = [f"Events/Quiet#{mark}"] if quiet else draw(st.lists(ids, min_size=3, max_size=5))
        if draw(mostly(st.just(True), st.just(False), 15)):
            groups[group + "/SourceIds"] = {str(key): value for key, value in enumerate(wanted)}
        groups[group + "/" + kind] = draw(own_keys(kind, mark))
    return groups


def own_keys(kind: str, mark: str) -> st.SearchStrategy:
    """What makes the handler known on the camera by its mark, and what may be wrong with it."""
    if kind == "Relay":
        odd = mostly(st.just({}), keys_of(Mode=number, Polarity=boolean, OnInterval__msec=number, PulseCount=number))
        index = mostly(st.just(str(int(mark) - 1)), one_of("-1", "one"), 10)
        return st.tuples(odd, index).map(lambda drawn: drawn[0] | {"BankName": LOCAL, "Index": drawn[1]})
    if kind in ("Preset", "Tour"):
        usual = {"Id": mark if kind == "Preset" else str(min(3, int(mark)))}
        return mostly(st.just(usual), st.sampled_from([{}, {"Id": ""}]), 10)
    common = keys_of(Attachment=boolean, DestName=one_of("x.jpg", ""), DestinationPath=one_of("/media/sd", ""))
    if kind == "Ftp":
        return common.map(lambda keys: {key: value for key, value in keys.items() if key != "DestinationPath"})
    if kind == "Email":
        return keys_of(Attachment=boolean, RawEventData=boolean, To=one_of("a@example.org", ""))
    return common if kind == "Folder" else st.just({})


@st.composite
def stores(draw) -> dict[str, dict[str, str]]:
    groups = {}
    server = draw(mostly(st.just("Pipe"), one_of("pipe", None)))
    if server is not None:
        groups["Applications/halvek/Server"] = {"Type": server}
    snapshot = draw(mostly(st.just({"SnapshotPath": "/tmp/s.jpg"}), st.sampled_from([{}, {"SnapshotPath": ""}, None])))
    if snapshot is not None:
        groups["Video/Quickview"] = snapshot
    level = draw(st.sampled_from([None] * 4 + ["Verbose", "Debug"]))
    if level is not None:
        groups["Applications/halvek"] = {"LogLevel": level}
    own = draw(sources())
    names = [group for group in own if group.count("/") == 1]
    return groups | own | draw(handlers(names)) | {f"Events/Quiet#{mark}": {"Type": "Quiet"} for mark in "1234"}


EVENTS = {
    "Door": [("Door", {})],
    "Bell": [("Bell", {"button": "front"})],
    "Alarm": [("Alarm", {"alarmIndex": "1"})] * 3 + [("Alarm", {"alarmIndex": "0"}), ("Alarm", {})],
    "Park": [("Park", {})],
    "Analytics": [("AnalyticsAlert", {})],
    "MsgBus": [("AnalyticsAlert", {})],
    "MotionDetection": [("MotionDetection", {})],
    "2": [("MotionDetection", {"region": "2"}), ("2", {})],
    "System": [("System", {})],
}
ALL_EVENTS = [event for of_type in EVENTS.values() for event in of_type]


@st.composite
def stores_and_events(draw) -> tuple[str, list[tuple[str, dict]]]:
    groups = draw(stores())
    types = [keys.get("Type", "") for group, keys in groups.items() if re.fullmatch(r"Events/Source#[^/]*", group)]
    heard = [event for kind in types for event in EVENTS.get(kind, [])] or ALL_EVENTS
    fired = st.lists(mostly(st.sampled_from(heard), st.sampled_from(ALL_EVENTS), 6), min_size=4, max_size=4)
    lines = []
    for group, keys in groups.items():
        lines += [f"[{group}]", *(f"{key}={value}" for key, value in keys.items()), ""]
    return "\n".join(lines), draw(fired)


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
        self.alarms = self.started("Alarm")
        self.has_server = self.started("EventServer") > 0

    def started(self, kind: str) -> int:
        return sum(bool(re.search(f"{kind}(Event)?Source started$", line)) for line in self.daemon.log.items)

    def has_ended(self, kind: str) -> bool:
        return any(f"{kind}EventSource: DONE" in line for line in self.daemon.log.items)

    def wait_for_first_events(self) -> None:
        """Timers fire at once, and so do sources that wait for the head if it is at rest."""
        timers, parks = self.started("Timer"), self.started("Park")

        def is_done() -> bool:
            log = "\n".join(self.daemon.log.items)
            at_rest = len(re.findall("ParkEventSource: (fired|DONE)$", log, re.M))
            return len(re.findall("halvek: next tick: ", log)) >= timers and at_rest >= parks

        wait_until(is_done, "all timers have fired, and the head is at rest")

    def fire(self, event: tuple[str, dict]) -> None:
        """Returns when all sources are through with it."""
        kind, properties = event
        if "alarmIndex" in properties:
            self.change_alarm(int(properties["alarmIndex"]), True)
        elif kind == "Park":
            self.let_the_head_rest()
        elif kind == "AnalyticsAlert":
            self.raise_alert()
        elif self.has_server:
            before = len(self.daemon.log.items)
            post(block(kind, **properties) + block("End"))
            # Handlers of all posted events act on this one as they did on the other.
            self.daemon.log.wait_for("EventServerSource: Received event: End$", after=before)

    def wait_until_through(self, cause: Callable[[], None], kind: str, sources: int, heard: str, firing: str) -> None:
        """Causes events; so many sources hear of it, and what they fire is passed on, or fails."""
        before, passed_on = len(self.daemon.log.items), len(self.pipe.of_type(kind))
        cause()

        def is_done() -> bool:
            new = "\n".join(self.daemon.log.items[before:])
            failed = len(re.findall("EventHandler: not configured$", new, re.M))
            through = len(self.pipe.of_type(kind)) - passed_on + failed
            return len(re.findall(heard, new, re.M)) == sources and through == len(re.findall(firing, new, re.M))

        wait_until(is_done, f"all sources of {kind} are through")

    def change_alarm(self, index: int, active: bool) -> None:
        """A change of an input that nobody has comes behind: what hears of it is through with this one."""

        def change() -> None:
            before = len(self.daemon.log.items)
            self.camera.set_alarm(LOCAL, index, active)
            self.camera.set_alarm(LOCAL, NOBODYS_INPUT, active)
            heard = f"Received state change for alarm {LOCAL}:{NOBODYS_INPUT} -> {int(active)}$"

            def have_heard() -> bool:
                return len(re.findall(heard, "\n".join(self.daemon.log.items[before:]), re.M)) == self.alarms

            wait_until(have_heard, "all alarm sources have heard of both inputs")

        change_of_it = f"Received state change for alarm {LOCAL}:{index} -> {int(active)}$"
        self.wait_until_through(change, "Alarm", self.alarms, change_of_it, "halvek: firing$")

    def raise_alert(self) -> None:
        heard = "Received AnalyticsAlert$"
        sources = self.started("(Analytics|MsgBus)")
        self.wait_until_through(lambda: self.camera.raise_alert(*ALERT), "AnalyticsAlert", sources, heard, heard)

    def let_the_head_rest(self) -> None:
        before = len(self.daemon.log.items)
        for state in (1, 0):
            self.camera.set_idle_state(state)
        ended = sum("ParkEventSource: DONE" in line for line in self.daemon.log.items)

        def is_done() -> bool:
            new = self.daemon.log.items[before:]
            through = sum(bool(re.search("ParkEventSource: fired$", line)) for line in new)
            return through + ended >= self.started("Park")

        wait_until(is_done, "all sources that wait for the head are through")

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


class Comparison:
    """Triples of one store, each held against what explain says of it."""

    def __init__(self, rig: Rig, seen: Counter[str]) -> None:
        self.rig, self.seen = rig, seen
        self.store, self.zone = rig.daemon.settings_file, rig.zone
        # What comes behind a posted event acts too, perhaps only when the next one is on its way.
        self.by_the_last = expected(self.explain("End", {}), rig.text) if rig.has_server else set()
        # What a handler does to the head brings such events about.
        self.by_the_head = expected(self.explain("Park", {}), rig.text) if rig.started("Park") else set()

    def explain(self, kind: str, properties: dict[str, str]) -> dict:
        at = self.rig.moment.strftime("%Y-%m-%dT%H:%MZ")
        words = [kind, *(f"{key}={value}" for key, value in properties.items()), "--at", at]
        return ask("--settings", str(self.store), "--zone", self.zone, "explain", *words)

    def count(self, answer: dict) -> None:
        self.seen["triples"] += 1
        self.seen["triples that act"] += any(row["acts"] for row in answer["rows"])
        self.seen.update(row["verdict"] for row in answer["rows"])
        self.seen.update(f"{row['type']} acts" for row in answer["rows"] if row["acts"])
        self.seen["rows"] += len(answer["rows"])

    def hold_at_start(self) -> None:
        started = [kind for kind in ("Timer", "Park") if self.rig.started(kind)]
        wanted = set()
        for kind in started:
            answer = self.explain(kind, {})
            wanted |= expected(answer, self.rig.text)
            self.count(answer)
            self.seen[kind] += 1
        if started:
            self.rig.wait_for_first_events()
        assert settled(self.rig, wanted) == wanted, started

    def hold(self, event: tuple[str, dict]) -> None:
        if event[0] == "Park" and self.rig.has_ended("Park"):
            return  # a source that waits for the head ends where a handler fails, and explain tells of its first event
        answer = self.explain(*event)
        self.count(answer)
        self.seen[event[0]] += 1
        wanted = expected(answer, self.rig.text)
        self.rig.camera.clear_actions()
        self.rig.fire(event)
        unasked = (self.by_the_head | self.by_the_last) - wanted
        assert settled(self.rig, wanted) - unasked == wanted, (event, answer["rows"])
        if "alarmIndex" in event[1]:
            self.rig.change_alarm(int(event[1]["alarmIndex"]), False)


def without_endless_timers(text: str, folder: Path) -> str:
    """A timer whose handler fails never sleeps, and would keep a processor busy."""
    store = folder / "timers.ini"
    store.write_text(text)
    failing = any(
        row["verdict"] == "not-configured" for row in ask("--settings", str(store), "explain", "Timer")["rows"]
    )
    return text.replace("Type=Timer", "Type=Bell") if failing else text


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
    @given(stores_and_events(), moments, st.sampled_from(ZONES))
    def holds(drawn: tuple[str, list], moment: datetime, zone: str) -> None:
        text = without_endless_timers(drawn[0], tmp_path)
        pipe = OutputPipe("all.halvek.any")
        camera.set_idle_state(0)
        camera.clear_actions()
        rig = Rig(tmp_path / str(next(count)), bus, camera, text, moment, zone, pipe)
        try:
            comparison = Comparison(rig, seen)
            comparison.hold_at_start()
            assert_foretold(records(rig.daemon), rig.daemon.settings_file)
            for event in drawn[1]:
                comparison.hold(event)
        finally:
            rig.close()
            pipe.close()
            (PIPE_FOLDER / "all.halvek.any").unlink(missing_ok=True)
            DEFAULT_INPUT.unlink(missing_ok=True)

    holds()
    # The comparison is worth something only if much of what there is comes up.
    print(dict(seen))
    assert seen["triples"] >= TRIPLES
    assert seen["acts"] * 3 >= seen["rows"] and seen["triples that act"] * 3 >= seen["triples"]
    for wanted in (
        *("acts", "out-of-time", "out-of-day", "other-type", "left-out", "not-wired", "no-event-pipe"),
        *("not-configured", "behind-failing", "unreadable-range"),
        *("Timer", "Park", "Alarm", "AnalyticsAlert", "Door", "Relay acts", "Preset acts", "Tour acts"),
    ):
        assert seen[wanted] > 0, wanted


ADDRESSES = (
    *("guard", "@x", "x@", "<>", "a b", "c d@e", "a@b@c", "guard@x.org guard@y.org", "Guard <guard>", "Guard <@x>"),
    *("a@x.org; Guard <g@y.org>", '"A, B" <a@x.org>, b@x.org', "a@x.org,,b@x.org", '"unclosed <a@x.org>', "Gu <a b@x>"),
)


@pytest.mark.parametrize("key", ["To", "From"])
def test_what_is_no_address_to_the_daemon_is_none_to_the_check(key: str, tmp_path: Path) -> None:
    """One handler each, so that each mail tells of its own."""
    program = tmp_path / "bin/esmtp"
    program.parent.mkdir()
    program.write_text(f"#!/bin/sh\ncat > {tmp_path}/mail.$$\nmv {tmp_path}/mail.$$ {tmp_path}/mailed.$$\n")
    program.chmod(0o755)
    groups = {"Applications/halvek/Server": {"Type": "Pipe"}, "Events/Source#1": {"Type": "Timer"}}
    groups["Events/Source#1/Timer"] = {"Interval.sec": "3600"}
    for number, address in enumerate(ADDRESSES):
        groups[f"Events/Handler#{number}/SourceIds"] = {"0": "Events/Source#1"}
        groups[f"Events/Handler#{number}"] = {"Type": "Email"}
        groups[f"Events/Handler#{number}/Email"] = {"To": "a@x.org", "From": "b@x.org", key: address}
    daemon = Daemon(tmp_path, groups, environment={"PATH": f"{program.parent}:{os.environ['PATH']}"})
    try:
        daemon.wait_until_ready()
        wait_until(lambda: len(list(tmp_path.glob("mailed.*"))) == len(ADDRESSES), "all mails")
        refused = {text for text in records(daemon) if text.startswith("Not an address")}
        assert daemon.stop() == 0
    finally:
        daemon.close()
    found = ask("check", str(daemon.settings_file))["findings"]
    assert {finding["foretells"] for finding in found if finding["id"] == "HK3027"} - {None} == refused
    assert all(finding["id"] in ("HK3027", "HK3026") for finding in found), found


def test_a_rule_of_the_comparison_can_fail(tmp_path: Path) -> None:
    """The comparison of records sees a record that is not foretold, and one that is foretold in vain."""
    store = tmp_path / "settings.ini"
    store.write_text("[Applications/halvek/Server]\nType=Pipe\n[Events/Source#1]\nType=Door\n")
    assert_foretold(["\tUnknown EventSource: Door"], store)
    for wrong in ([], ["\tUnknown EventSource: Door", "Something else"]):
        with pytest.raises(AssertionError):
            assert_foretold(wrong, store)
