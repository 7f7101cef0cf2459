"""Runs the virtual camera and drives it with busctl, as a person would."""

import json
import os
import subprocess
from pathlib import Path
from typing import NamedTuple

from daemon_process import PATIENCE, Lines, NotifySocket, NotSeen
from private_bus import PrivateBus

SERVICE = ("com.kelto.VirtualCamera", "/com/kelto/VirtualCamera", "com.kelto.VirtualCamera")
# What the daemon asks for before it decides what to do.
QUERIES = {"GetBankNames", "IsRemote", "IsAt", "GetIdleState", "GetSummary"}


class Order(NamedTuple):
    """What the camera was told to do."""

    method: str
    arguments: str

    def __str__(self) -> str:
        return f"{self.method}({self.arguments})"


class CameraProcess:
    """One run of the virtual camera on a private bus. Dies with its starter."""

    def __init__(self, program: str, bus: PrivateBus, folder: Path) -> None:
        self.environment = os.environ | bus.environment
        self.snapshot = folder / "snapshot.jpg"
        self.notifications = NotifySocket(folder / "camera-notify")
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "--", program, "--snapshot", str(self.snapshot)],
            env=self.environment | {"NOTIFY_SOCKET": str(self.notifications.path)},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
        )
        self.lines = Lines(os.dup(self.process.stdout.fileno()), "kelto-vcam")
        self.process.stdout.close()

    def wait_until_ready(self, patience: float = PATIENCE) -> None:
        self.notifications.wait_for("READY=1", patience=patience)

    def call(self, method: str, *arguments: str, patience: float = PATIENCE) -> str:
        """Calls a method of the service that drives the camera; returns the result as JSON."""
        command = ["busctl", "--json=short", f"--timeout={patience}", "call", *SERVICE, method, *arguments]
        result = subprocess.run(command, env=self.environment, capture_output=True, text=True, timeout=2 * patience)
        if result.returncode != 0:
            raise NotSeen(f"{method} of the virtual camera: {result.stderr.strip()}")
        return result.stdout

    def orders(self, patience: float = PATIENCE) -> list[Order]:
        """What it was told to do since the last ClearActions, without the questions that it was asked."""
        (actions,) = json.loads(self.call("GetActions", patience=patience))["data"]
        return [Order(*action[1:]) for action in actions if action[1].partition(".")[2] not in QUERIES]

    def close(self) -> None:
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.lines.close()
        self.notifications.close()
        self.notifications.path.unlink()
