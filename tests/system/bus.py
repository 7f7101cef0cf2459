"""A bus of the test's own, and the virtual camera on it."""

import os
import re
import signal
import subprocess
import xml.etree.ElementTree as ElementTree
from collections.abc import Sequence
from pathlib import Path
from typing import Any, NamedTuple

from bus_client import BusClient
from daemon_process import PATIENCE, Lines, NotifySocket, NotSeen

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

ROOT = Path(__file__).resolve().parents[2]
INTERFACE_FILES = {name: ROOT / f"platform/kelto/interfaces/com.kelto.{name}.xml" for name in PROVIDERS} | {
    CAMERA: ROOT / "camera/com.kelto.VirtualCamera.xml"
}

CONFIGURATION = """\
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
  </policy>
</busconfig>
"""


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


def dies_with_us(*command: str) -> list[str]:
    return ["setpriv", "--pdeathsig", "KILL", "--", *command]


class PrivateBus:
    """A bus that can be killed and started again at the same address. Anybody may own any name."""

    def __init__(self, folder: Path) -> None:
        self.socket = folder / "bus"
        self.address = f"unix:path={self.socket}"
        self.environment = {"DBUS_SYSTEM_BUS_ADDRESS": self.address}
        self._configuration = folder / "bus.conf"
        self._configuration.write_text(CONFIGURATION.format(socket=self.socket))
        self._process: subprocess.Popen | None = None
        self._clients: list[BusClient] = []
        self.start()

    def start(self) -> None:
        """Returns when the bus takes connections."""
        assert self._process is None
        self._process = subprocess.Popen(
            dies_with_us(
                "dbus-daemon", f"--config-file={self._configuration}", "--nofork", "--nopidfile", "--print-address"
            ),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
        )
        output = Lines(os.dup(self._process.stdout.fileno()), "dbus-daemon")
        self._process.stdout.close()
        try:
            output.wait_for("^unix:")
        finally:
            output.close()

    def send(self, number: signal.Signals) -> None:
        self._process.send_signal(number)

    def stop(self, number: signal.Signals = signal.SIGTERM) -> None:
        self.send(number)
        self._process.wait(PATIENCE)
        self._process = None

    def kill(self) -> None:
        self.stop(signal.SIGKILL)

    def restart(self) -> None:
        self.kill()
        self.start()

    def client(self) -> BusClient:
        """A new connection, closed with the bus helper."""
        self._clients.append(BusClient(self.socket))
        return self._clients[-1]

    def close(self) -> None:
        for client in self._clients:
            client.close()
        if self._process is not None:
            self.stop()

    def __enter__(self) -> "PrivateBus":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


class Action(NamedTuple):
    time: float  # seconds on the clock of time.monotonic()
    method: str
    arguments: str


class VirtualCamera:
    """A running kelto-vcam; its lines and its complaints. After a restart of the bus, make another one."""

    def __init__(
        self, bus: PrivateBus, folder: Path, *arguments: str, prefix: Sequence[str] = (), ready: bool = True
    ) -> None:
        folder.mkdir(parents=True, exist_ok=True)
        self._bus = bus
        self._client: BusClient | None = None
        self.snapshot = folder / "img2.jpg"
        self.notifications = NotifySocket(folder / "notify")
        self.process = subprocess.Popen(
            dies_with_us(*prefix, CAMERA_PROGRAM, *(arguments or ("--snapshot", str(self.snapshot)))),
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
            self.wait_until_ready()

    def wait_until_ready(self) -> None:
        try:
            self.notifications.wait_for("READY=1")
        except NotSeen:
            self.close()
            raise NotSeen(f"kelto-vcam did not start: {self.complaints.items}") from None

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

    def clear_actions(self) -> None:
        self.call(CAMERA, "ClearActions")

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
