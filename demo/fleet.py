"""Shows a fleet of virtual cameras on one broker: python3 -m demo.fleet DAEMON CAMERA BRIDGE [COUNT]

Each camera is a kelto-vcam, a halvek and a halvek-mqtt on a bus and in a /run of their own.
"""

import contextlib
import json
import os
import random
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from demo.show import heading, perform, say
from testing.broker import OPEN, PORT, Broker, Subscriber
from testing.bus import PrivateBus
from testing.tree import ROOT
from testing.waiting import wait_until

PATIENCE = 120.0  # seconds; dozens of processes start at once
ALARMS = 12
SETTINGS = """[Applications/halvek/Server]
Type=Pipe
[Events/Source#1]
Type=Alarm
[Events/Source#1/Alarm]
BankName=Local
Index=2
"""


class Camera:
    """One camera of the fleet; its alarm input 2 can be switched."""

    def __init__(self, name: str, daemon: str, camera: str, bridge: str, folder: Path) -> None:
        self.name = name
        self._program = camera
        own = folder / name
        own.mkdir()
        (own / "settings.ini").write_text(SETTINGS)
        (own / "mqtt.conf").write_text(f"[Mqtt]\nBroker=mqtt://127.0.0.1:{PORT}\nId={name}\n")
        self._bus = PrivateBus(own)
        self._environment = os.environ | self._bus.environment | {"KELTO_SETTINGS": str(own / "settings.ini")}
        script = f'"{camera}" --snapshot "{own}/picture.jpg" & "{bridge}" --config "{own}/mqtt.conf" & exec "{daemon}"'
        with (own / "log").open("wb") as log:
            self._process = subprocess.Popen(
                [str(ROOT / "scripts/private-run"), "sh", "-c", script],
                env=self._environment,
                stdout=log,
                stderr=log,
                start_new_session=True,
            )

    def switch(self, word: str) -> bool:
        """Whether the camera was there to hear it."""
        command = [self._program, "alarm", "2", word]
        return subprocess.run(command, env=self._environment, capture_output=True, timeout=PATIENCE).returncode == 0

    def close(self) -> None:
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self._process.pid, signal.SIGTERM)
        with contextlib.suppress(subprocess.TimeoutExpired):
            self._process.wait(10)
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self._process.pid, signal.SIGKILL)
        self._process.wait()
        self._bus.close()


def state_topic(camera: Camera) -> str:
    return f"halvek/{camera.name}/alarm/Local/2"


def play(cameras: list[Camera], broker: Broker, watcher: Subscriber) -> None:
    for camera in cameras:
        watcher.wait_for_message(f"halvek/{camera.name}/status", "online", patience=PATIENCE)
    say(f"   {len(cameras)} cameras are online; each is a kelto-vcam, a halvek and a halvek-mqtt of its own.")
    heading("Alarm inputs change, here and there")
    for camera in random.sample(cameras, min(ALARMS, len(cameras))):
        wait_until(lambda: camera.switch("on"), f"{camera.name} hears of its alarm", patience=PATIENCE)
        message = watcher.wait_for_message(f"halvek/{camera.name}/event/Alarm", patience=PATIENCE)
        event = json.loads(message.payload)
        say(f"   {message.topic}  {event['time']}  {event['props']['alarmBank']} {event['props']['alarmIndex']}")
        watcher.wait_for_message(state_topic(camera), "ON", patience=PATIENCE)
        camera.switch("off")
        watcher.wait_for_message(state_topic(camera), "OFF", patience=PATIENCE)
    heading("The broker is killed, and comes back")
    broker.kill()
    begin = time.monotonic()
    broker.start()
    say("   It has forgotten everything. The cameras come back by themselves, spread over the time:")
    with contextlib.closing(Subscriber("halvek/+/status")) as returning:
        for camera in cameras:
            returning.wait_for_message(f"halvek/{camera.name}/status", "online", patience=PATIENCE)
    say(f"   {time.monotonic() - begin:.0f} s later all are back, and have said how they are.")


def play_all(programs: tuple[str, str, str], count: int, cleanup: contextlib.ExitStack) -> None:
    folder = Path(cleanup.enter_context(tempfile.TemporaryDirectory()))
    broker = cleanup.enter_context(contextlib.closing(Broker(folder, OPEN)))
    watcher = cleanup.enter_context(contextlib.closing(Subscriber("halvek/#")))
    broker.log.wait_for("Sending SUBACK")
    heading("A fleet comes to life on one broker")
    cameras = []
    for number in range(1, count + 1):
        cameras.append(Camera(f"cam{number:02}", *programs, folder))
        cleanup.enter_context(contextlib.closing(cameras[-1]))
    play(cameras, broker, watcher)


def main(daemon: str, camera: str, bridge: str, count: str = "20") -> int:
    status = perform(lambda cleanup: play_all((daemon, camera, bridge), int(count), cleanup))
    if status == 0:
        say("\nAll of this really happened, and nothing of it is left behind. docs/fleet.md tells how fleets are run.")
    return status


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
