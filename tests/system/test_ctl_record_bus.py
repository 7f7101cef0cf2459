"""halvekctl record --bus: what the camera says on the bus, whether the daemon has a source for it or not."""

import json
import signal
import subprocess
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from ctl import PROGRAM, ctl, environment
from testing.camera import ALERT, LOCAL, REMOTE
from testing.pipes import DEFAULT_INPUT, PIPE_FOLDER, block, bytes_ready_at, post
from testing.settings import SERVER, source
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures"]
pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="the program is the same as where it records events")


class Recorder:
    def __init__(self, path: Path, bus) -> None:
        self.path = path
        self.process = subprocess.Popen(
            [PROGRAM, "record", "--bus", path], env=environment(**bus.environment), stderr=subprocess.PIPE
        )
        self.complaints = []
        while b"reading" not in (line := self.process.stderr.readline()):
            assert line
            self.complaints.append(line.decode())

    def lines(self) -> list[dict]:
        """All that it has recorded, at its end."""
        self.process.send_signal(signal.SIGINT)
        assert self.process.wait(20) == -signal.SIGINT and list(PIPE_FOLDER.glob("zz-*")) == []
        found = [json.loads(line) for line in self.path.read_text().splitlines()]
        assert [line["seq"] for line in found] == list(range(1, len(found) + 1))
        return found


@pytest.fixture
def record(bus, tmp_path) -> Iterator[Callable[[], Recorder]]:
    started = []

    def start() -> Recorder:
        started.append(Recorder(tmp_path / "inputs", bus))
        return started[-1]

    yield start
    for recorder in started:
        recorder.process.kill()
        recorder.process.wait()
        recorder.process.stderr.close()


def test_what_the_camera_says_is_recorded_as_what_it_is_without_any_source(camera, record):
    camera.set_idle_state(0)
    recorder = record()
    camera.set_alarm(REMOTE, 1, True)
    camera.set_alarm(LOCAL, 2, False)
    camera.set_idle_state(1)
    camera.raise_alert(*ALERT)
    camera.let_pass(300)
    found = recorder.lines()
    kinds = [line["kind"] for line in found]
    # Each kind has a thread of its own, so that those between the first and the last come in any order.
    assert kinds[:2] == ["begin", "idle"] and kinds[-1] == "end"
    assert sorted(kinds[2:-1]) == ["alarm", "alarm", "alert", "idle"]
    assert found[0]["bus"] is True and recorder.complaints == []
    assert [line["state"] for line in found if line["kind"] == "idle"] == [0, 1]
    alarms = [line["props"] for line in found if line["kind"] == "alarm"]
    assert alarms == [
        {"alarmBank": REMOTE, "alarmIndex": "1", "alarmState": "1"},
        {"alarmBank": LOCAL, "alarmIndex": "2", "alarmState": "0"},
    ]
    (alert,) = [line for line in found if line["kind"] == "alert"]
    assert alert["type"] == "AnalyticsAlert" and alert["props"]["ruleName"] == "Front gate"


def test_what_the_daemon_makes_of_it_stands_beside_it(launch_on_bus, camera, record):
    launch_on_bus(SERVER | source(1, "Alarm", BankName=LOCAL, Index=2))
    recorder = record()
    camera.set_alarm(LOCAL, 2, True)
    post(block("Door"))
    wait_until(lambda: bytes_ready_at(DEFAULT_INPUT) == 0, "all is read")
    camera.let_pass(300)
    kinds = [line["kind"] for line in recorder.lines()]
    assert sorted(kinds) == sorted(["begin", "idle", "alarm", "fired", "posted", "end"])


def test_without_a_bus_it_is_3_and_nothing_is_left(tmp_path):
    nowhere = {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/run/nowhere"}
    done = ctl("record", "--bus", tmp_path / "inputs", variables=nowhere)
    assert done.returncode == 3 and b"no message bus" in done.stderr
    assert list(tmp_path.iterdir()) == list(PIPE_FOLDER.iterdir()) == []


def test_where_the_camera_cannot_say_whether_the_head_rests_it_is_told_and_recorded_all_the_same(bus, record):
    recorder = record()
    assert "whether the head rests is not known" in "".join(recorder.complaints)
    assert [line["kind"] for line in recorder.lines()] == ["begin", "end"]


def test_what_is_said_while_it_is_stopped_is_recorded_with_the_time_at_which_it_was_said(camera, record):
    recorder = record()
    recorder.process.send_signal(signal.SIGSTOP)
    camera.set_alarm(LOCAL, 1, True)
    camera.let_pass(3000)
    camera.set_alarm(LOCAL, 2, True)
    camera.let_pass(300)
    recorder.process.send_signal(signal.SIGCONT)
    alarms = [line for line in recorder.lines() if line["kind"] == "alarm"]
    assert [line["props"]["alarmIndex"] for line in alarms] == ["1", "2"]
    # The machine may stand still for a second as the first is said.
    assert alarms[1]["ms"] - alarms[0]["ms"] >= 1900 and alarms[1]["mono"] - alarms[0]["mono"] >= 1900
