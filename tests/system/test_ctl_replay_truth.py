"""halvekctl replay against what happened: the daemon lives through one history under both settings, with a faked clock.

A history is two stores, a time, and what was posted, said by the camera, and done to the clock. HALVEK_REPLAY_HISTORIES
says how many there are.
"""

import os
import re
import signal
import subprocess
import time
from collections import Counter
from collections.abc import Callable
from datetime import datetime
from pathlib import Path

import pytest
from hypothesis import HealthCheck, assume, given, settings
from hypothesis import strategies as st
from test_ctl_drift import (
    ALL_EVENTS,
    MARKS,
    ZONES,
    Rig,
    ask,
    faked,
    moments,
    mostly,
    one_of,
    stores,
    without_endless_timers,
)
from testing.camera import LOCAL
from testing.daemon import CONFIGURED, Daemon
from testing.pipes import DEFAULT_INPUT, PIPE_FOLDER, OutputPipe, block, post
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures"]
pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="many daemons, one after the other")

CTL = os.environ["HALVEK_CTL"]
HISTORIES = int(os.environ.get("HALVEK_REPLAY_HISTORIES", "5"))
# Longer than the longest dwell that comes to an end, and the second by which it may be late.
REST_MS = 2300
# For what handlers do about an event.
ACTIONS_MS = 300
HEAD = ("Preset", "Tour")


def keys_in(text: str, key: str) -> list[str]:
    return re.findall(rf"^{re.escape(key)}=(.*)$", text, re.M)


@st.composite
def texts(draw) -> str:
    """A store with an event pipe: without one nobody knows what was posted."""
    groups = draw(stores()) | {"Applications/halvek/Server": {"Type": "Pipe"}}
    lines = []
    for group, keys in groups.items():
        if group.endswith("/Park"):
            keys = {"DwellTime.sec": draw(one_of("0", "1", "3600", "-1", "now"))}
        lines += [f"[{group}]", *(f"{key}={value}" for key, value in keys.items()), ""]
    return "\n".join(lines)


@st.composite
def changed(draw, text: str) -> str:
    """The store as somebody has changed it, or another one."""
    if draw(st.integers(0, 2)) == 0:
        return draw(texts())
    lines = text.splitlines()
    places = [place for place, line in enumerate(lines) if re.match("EnabledTimes=|[0-9]=|DwellTime|Index=", line)]
    for place in draw(st.lists(st.sampled_from(places), min_size=1, max_size=3)) if places else []:
        key, value = lines[place].split("=", 1)
        if key == "EnabledTimes":
            value = draw(one_of("0-2400", "0-1200", "1200-2400", "600-1800"))
        elif key == "Index":
            value = draw(one_of("0", "1", value))
        else:
            value = draw(one_of("0", "1", "3600") if key.startswith("Dwell") else st.sampled_from(keys_in(text, key)))
        lines[place] = f"{key}={value}"
    return "\n".join(lines)


posted_events = st.sampled_from([event for event in ALL_EVENTS if event[0] not in ("Park", "AnalyticsAlert")])
# What is posted under the name of something that the daemon makes itself is a posted event all the same.
misleading = st.sampled_from([("Timer", {}), ("Park", {}), ("AnalyticsAlert", {}), ("Alarm", {"alarmIndex": "1"})])
steps = st.one_of(
    st.tuples(st.just("post"), mostly(posted_events, misleading, 3)),
    st.tuples(st.just("post"), mostly(posted_events, misleading, 3)),
    st.tuples(st.just("alarm"), st.sampled_from([0, 1, 1])),
    st.tuples(st.just("alert"), st.none()),
    st.tuples(st.just("rest"), st.none()),
    st.tuples(st.just("clock"), moments),
)


class Clock:
    """That of all who are started under it; it may be set."""

    def __init__(self, path: Path, moment: datetime, zone: str) -> None:
        self.path = path
        variables = faked(moment, zone) | {"FAKETIME_TIMESTAMP_FILE": str(path), "FAKETIME_NO_CACHE": "1"}
        self.environment = {
            name: value for name, value in variables.items() if name not in ("FAKETIME", "FAKETIME_FMT")
        }
        self.set(moment)

    def set(self, moment: datetime) -> None:
        new = self.path.with_suffix(".new")
        new.write_text(f"{moment.timestamp() - time.time():+.3f}\n")
        new.rename(self.path)


class Recorder:
    def __init__(self, path: Path, variables: dict[str, str]) -> None:
        self.process = subprocess.Popen(
            [CTL, "record", "--bus", str(path)], env=os.environ | variables, stderr=subprocess.PIPE
        )
        while b"reading" not in (line := self.process.stderr.readline()):
            assert line.startswith(b"halvekctl: "), line

    def close(self) -> None:
        self.process.send_signal(signal.SIGINT)
        assert self.process.wait(20) == -signal.SIGINT
        self.process.stderr.close()


class Life(Rig):
    """The daemon's under one of the stores, while a history goes by."""

    def __init__(self, folder: Path, bus, camera, text: str, clock: Clock, pipe) -> None:
        self.camera, self.pipe, self.clock = camera, pipe, clock
        folder.mkdir()
        self.daemon = Daemon(folder, text, environment=bus.environment | clock.environment, level="Debug")
        self.daemon.wait_until_ready()
        self.daemon.log.wait_for(CONFIGURED)
        self.alarms = self.started("Alarm")
        self.has_server = self.started("EventServer") > 0

    def wait_for_timers(self) -> None:
        self.daemon.log.wait_for("halvek: next tick: ", after=0, count=self.started("Timer"))

    def wait_until_through(self, cause: Callable[[], None], kind: str, sources: int, heard: str, firing: str) -> None:
        """How often each acts is counted at the end: here it is enough that none acts by the next step's clock."""
        before = len(self.daemon.log.items)
        cause()

        def have_heard() -> bool:
            return len(re.findall(heard, "\n".join(self.daemon.log.items[before:]), re.M)) == sources

        wait_until(have_heard, f"{sources} sources have heard of {kind}")
        self.camera.let_pass(ACTIONS_MS)

    def live(self, step: tuple) -> None:
        how, what = step
        if how == "clock":
            self.clock.set(what)
        elif how == "post":
            kind, properties = what
            posted = block(kind, **properties) + block("End")
            received = "EventServerSource: Received event: End$"
            self.wait_until_through(lambda: post(posted), "End", 1, received, "")
        elif how == "alarm":
            self.change_alarm(what, True)
            self.change_alarm(what, False)
        elif how == "alert":
            self.raise_alert()
        else:
            self.camera.set_idle_state(1)
            self.camera.set_idle_state(0)
            self.camera.let_pass(REST_MS)


def acted(camera) -> Counter[tuple[str, str]]:
    """How often each handler acted, by its type and its mark on the camera."""
    seen: Counter[tuple[str, str]] = Counter()
    for action in camera.actions():
        words = action.arguments.split(", ")
        kind = MARKS.get(action.method)
        if kind == "Relay" and words[0] == LOCAL:
            seen[kind, words[1]] += 1
        elif kind and kind != "Relay":
            seen[kind, words[0]] += 1
    return seen


def foretold(told: dict, text: str, when: str) -> Counter[tuple[str, str]]:
    """The same as replay has it."""
    marks: Counter[tuple[str, str]] = Counter()
    for one in told["handlers"]:
        found = re.search(rf"^\[{re.escape(one['group'])}/(Relay|Preset|Tour)\]\n((?:.+\n)*)", text + "\n", re.M)
        if one[when] and found and f"[{one['group']}]\nType={found[1]}\n" in text:
            marks[found[1], re.search(r"^(?:Index|Id)=(.*)$", found[2], re.M)[1]] += one[when]
    return marks


def is_kept_from_pipes(store: Path, history: list) -> bool:
    """Whether a handler fails for something that is posted: then no pipe hears of it, and no recording."""
    kinds = {what[0] for how, what in history if how == "post"} | {"End"}
    rows = [row for kind in sorted(kinds) for row in ask("--settings", str(store), "explain", kind)["rows"]]
    return any(row["verdict"] == "not-configured" for row in rows)


def test_what_is_told_of_both_settings_is_what_happens_under_both(tmp_path: Path, bus, camera) -> None:
    count = iter(range(1_000_000))
    seen: Counter[str] = Counter()

    def live_through(
        text: str, moment: datetime, zone: str, idle: int, history: list, recording: Path | None
    ) -> Counter:
        pipe = OutputPipe("all.halvek.any")
        camera.set_idle_state(idle)
        camera.clear_actions()
        clock = Clock(tmp_path / f"clock{next(count)}", moment, zone)
        recorder = Recorder(recording, bus.environment | clock.environment) if recording else None
        life = Life(tmp_path / str(next(count)), bus, camera, text, clock, pipe)
        try:
            life.wait_for_timers()
            camera.let_pass(REST_MS if idle == 0 else 1)
            for step in history:
                life.live(step)
        finally:
            life.close()
            if recorder:
                recorder.close()
            pipe.close()
            (PIPE_FOLDER / "all.halvek.any").unlink(missing_ok=True)
            DEFAULT_INPUT.unlink(missing_ok=True)
        seen["with park"] += life.started("Park") > 0
        return acted(camera)

    @settings(
        max_examples=HISTORIES,
        deadline=None,
        database=None,
        derandomize=HISTORIES <= 20,
        suppress_health_check=list(HealthCheck),
        print_blob=True,
    )
    @given(st.data(), moments, st.sampled_from(ZONES), st.integers(0, 1), st.lists(steps, min_size=3, max_size=6))
    def holds(data, moment: datetime, zone: str, idle: int, history: list) -> None:
        old = without_endless_timers(data.draw(texts()), tmp_path)
        new = without_endless_timers(data.draw(changed(old)), tmp_path)
        both = old + "\n" + new
        # What handlers do to the head, and what the camera says of that, is as it was recorded.
        assume("Type=Park\n" not in both or not any(f"Type={kind}\n" in both for kind in HEAD))
        for name, text in (("old", old), ("new", new)):
            (tmp_path / name).write_text(text)
        assume(not is_kept_from_pipes(tmp_path / "old", history))
        recording = tmp_path / f"recording{next(count)}"
        before = live_through(old, moment, zone, idle, history, recording)
        after = live_through(new, moment, zone, idle, history, None)
        words = [
            "--zone",
            zone,
            "replay",
            str(recording),
            "--old",
            str(tmp_path / "old"),
            "--new",
            str(tmp_path / "new"),
        ]
        told = ask(*words)
        assert (foretold(told, old, "before"), foretold(told, new, "after")) == (before, after), told
        seen["histories"] += 1
        seen["histories that differ"] += before != after
        seen["actions"] += before.total() + after.total()
        seen.update(step[0] for step in history)

    holds()
    # The comparison is worth something only if much of what there is comes up.
    print(dict(seen))
    assert seen["histories"] >= HISTORIES and seen["actions"] >= 2 * HISTORIES
    if HISTORIES >= 50:
        assert seen["histories that differ"] * 4 >= HISTORIES
        assert all(seen[kind] > 0 for kind in ("post", "alarm", "alert", "rest", "clock", "with park"))
