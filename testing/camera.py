"""Runs the virtual camera and drives it over the bus."""

import os
import re
import signal
import subprocess
import time
import xml.etree.ElementTree as ElementTree
from collections.abc import Sequence
from pathlib import Path
from typing import Any, NamedTuple

from testing.bus import PrivateBus
from testing.bus_client import BusClient
from testing.collector import Lines
from testing.notifications import NotifySocket
from testing.processes import dies_with_us
from testing.tree import ROOT
from testing.waiting import PATIENCE, NotSeen

CAMERA_PROGRAM = os.environ.get("HALVEK_VCAM", "")
PROVIDERS = ("AlarmV3", "RelayV3", "PresetsV2", "Tour", "MotionState", "RecordingInformation")
CAMERA = "VirtualCamera"
REMOTE, LOCAL = "Remote", "Local"  # the banks
TIME = r"\d\d:\d\d:\d\d\.\d{3}"  # at the beginning of the camera's lines
LATE = 0.4  # seconds
ATTEMPTS = 3  # of which one has to be in time: a loaded machine may be late with the others

ALERT = (  # arguments of an alert as analytics programs send it
    "camera",
    "Human",
    "LineCrossing",
    "Front%20gate",
    "",
    [(0.0, 0.0), (1.0, 0.5)],
    [],
    "video",
    "rtsp://camera/a%20b",
)

INTERFACE_FILES = {name: ROOT / f"platform/kelto/interfaces/com.kelto.{name}.xml" for name in PROVIDERS} | {
    CAMERA: ROOT / "camera/com.kelto.VirtualCamera.xml"
}


def service(provider: str) -> tuple[str, str, str]:
    """Bus name, object and interface of a service of the camera."""
    return f"com.kelto.{provider}", f"/com/kelto/{provider}", f"com.kelto.{provider}"


def described(document: str, interface: str) -> dict[str, list[tuple]]:
    """The methods and signals of an introspection document's interface, each as its list of arguments."""
    found = {}
    element = ElementTree.fromstring(document).find(f"interface[@name='{interface}']")
    for member in (*element.iter("method"), *element.iter("signal"), *element.iter("property")):
        direction = "in" if member.tag == "method" else None
        found[f"{member.tag} {member.get('name')}"] = [
            (arg.get("name"), arg.get("type"), arg.get("direction", direction)) for arg in member.iter("arg")
        ]
    return found


def text_of(line: str) -> str:
    """A line of the camera less its time."""
    assert re.match(TIME + " ", line)
    return line.split(" ", 1)[1]


def offsets(lines: Sequence[str]) -> list[float]:
    """When lines of the camera were printed, in seconds since the first; midnight may come between."""
    times = [sum(float(part) * unit for part, unit in zip(line[:12].split(":"), (3600, 60, 1))) for line in lines]
    return [(moment - times[0]) % 86400 for moment in times]


class Action(NamedTuple):
    time: float  # seconds on the clock of time.monotonic()
    method: str
    arguments: str


class VirtualCamera:
    """A running kelto-vcam; its lines and its complaints. After a restart of the bus, make another one."""

    def __init__(
        self,
        bus: PrivateBus,
        folder: Path,
        *arguments: str,
        program: str = CAMERA_PROGRAM,
        snapshot: Path | None = None,
        prefix: Sequence[str] = (),
        ready: bool = True,
    ) -> None:
        folder.mkdir(parents=True, exist_ok=True)
        self._bus = bus
        self._client: BusClient | None = None
        self.snapshot = snapshot or folder / "img2.jpg"
        self.notifications = NotifySocket(folder / "notify")
        self.process = subprocess.Popen(
            dies_with_us(*prefix, program, *(arguments or ("--snapshot", str(self.snapshot)))),
            env=os.environ | bus.environment | {"NOTIFY_SOCKET": str(self.notifications.path)},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        self.lines = Lines(os.dup(self.process.stdout.fileno()), "kelto-vcam")
        self.complaints = Lines(os.dup(self.process.stderr.fileno()), "kelto-vcam's standard error")
        self.process.stdout.close()
        self.process.stderr.close()
        if ready:
            try:
                self.wait_until_ready()
            except NotSeen:
                self.close()
                raise

    def wait_until_ready(self, patience: float = PATIENCE) -> None:
        try:
            self.notifications.wait_for("READY=1", patience=patience)
        except NotSeen:
            raise NotSeen(f"kelto-vcam did not start, no READY=1 came: {self.complaints.items}") from None

    @property
    def client(self) -> BusClient:
        if self._client is None:
            self._client = self._bus.client()
        return self._client

    def call(self, provider: str, method: str, signature: str = "", *arguments: Any, patience=PATIENCE) -> list:
        return self.client.call(*service(provider), method, signature, *arguments, patience=patience)

    def begin_call(self, provider: str, method: str, signature: str = "", *arguments: Any) -> int:
        return self.client.begin_call(*service(provider), method, signature, *arguments)

    def configure_relay(self, bank: str, index: int, *, polarity=False, mode=3, on=500, off=500, count=1) -> None:
        arguments = (bank, index, polarity, mode, on, off, count)
        assert self.call("RelayV3", "SetConfiguration", "sibiiii", *arguments) == [True]

    def activate(self, bank: str, index: int, mode: int) -> None:
        assert self.call("RelayV3", "Activate", "sii", bank, index, mode) == [True]

    def let_pass(self, milliseconds: int) -> None:
        """Waits by the camera's own clock, a pulse of the relay Remote:3: so long anything else may have happened."""
        after = len(self.lines.items)
        self.configure_relay(REMOTE, 3, on=milliseconds)
        self.activate(REMOTE, 3, 3)
        self.lines.wait_for("relay Remote:3 off", after=after)

    def go_to(self, preset: str, speed: float = 1.0, level: int = 900) -> None:
        assert self.call("PresetsV2", "GoTo", "sdi", preset, speed, level) == []

    def is_at(self, preset: str) -> bool:
        return self.call("PresetsV2", "IsAt", "s", preset)[0]

    def set_alarm(self, bank: str, index: int, active: bool) -> None:
        self.call(CAMERA, "SetAlarm", "sib", bank, index, active)

    def flood(self, bank: str, index: int, count: int, per_second: int) -> float:
        """Changes an alarm input so often, and waits for the last answer only; how many a second they have become."""
        begin, serial = time.monotonic(), 0
        for number in range(count):
            serial = self.begin_call(CAMERA, "SetAlarm", "sib", bank, index, number % 2 == 0)
            time.sleep(max(0.0, begin + number / per_second - time.monotonic()))
        self.client.finish_call(serial)
        return count / (time.monotonic() - begin)

    def set_idle_state(self, state: int) -> None:
        self.call(CAMERA, "SetIdleState", "i", state)

    def set_recording(self, a: bool, b: bool) -> None:
        self.call(CAMERA, "SetRecording", "bb", a, b)

    def set_fault(self, provider: str, kind: str) -> None:
        self.call(CAMERA, "SetFault", "ss", provider, kind)

    def raise_alert(self, *arguments: Any) -> None:
        self.call(CAMERA, "RaiseAlert", "sssssa(dd)a(dd)ss", *arguments)

    def told(self, beginning: str) -> list[str]:
        """The lines that begin with the expression, less their times."""
        return [text_of(line) for line in self.lines.matching(f"^{TIME} ({beginning})")]

    def actions(self, method: str = "", patience: float = PATIENCE) -> list[Action]:
        """What the providers were asked to do; the method as "RelayV3.Activate", or all."""
        answer = self.call(CAMERA, "GetActions", patience=patience)[0]
        found = [Action(time / 1e6, *rest) for time, *rest in answer]
        return [action for action in found if method in ("", action.method)]

    def clear_actions(self, patience: float = PATIENCE) -> None:
        self.call(CAMERA, "ClearActions", patience=patience)

    def stop(self, number: signal.Signals = signal.SIGTERM) -> int:
        """Returns the exit status; the lines are complete afterwards."""
        self.process.send_signal(number)
        return self.wait_for_exit()

    def wait_for_exit(self, patience: float = PATIENCE) -> int:
        status = self.process.wait(patience)
        self.lines.wait_for_end()
        self.complaints.wait_for_end()
        return status

    def close(self) -> None:
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        for collector in (self.lines, self.complaints, self.notifications):
            collector.close()
        self.notifications.path.unlink(missing_ok=True)

    def __enter__(self) -> "VirtualCamera":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()
