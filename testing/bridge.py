"""halvek-mqtt as its unit would start it, watched from outside."""

import json
import os
import signal
import subprocess
from collections.abc import Mapping, Sequence
from pathlib import Path

from testing.broker import PORT
from testing.collector import Lines
from testing.notifications import NotifySocket
from testing.pipes import PIPE_FOLDER
from testing.processes import dies_with_us
from testing.waiting import PATIENCE, NotSeen

PROGRAM = os.environ.get("HALVEK_MQTT", "")
PIPE = PIPE_FOLDER / "zz-mqtt.halvek.any"
ID = "cam1"
BASE = f"halvek/{ID}"
CONNECTED = "Connected to"


def mqtt(*words: object, **options) -> subprocess.CompletedProcess:
    settings = {"capture_output": True, "text": True, "timeout": PATIENCE} | options
    return subprocess.run([PROGRAM, *map(str, words)], **settings)


def status() -> dict:
    done = mqtt("status", "--format", "json")
    assert done.returncode in (0, 1), done.stderr
    return json.loads(done.stdout)


def configuration(**keys: object) -> str:
    """The text of a configuration; a key of None is left out."""
    own = {"Broker": f"mqtt://127.0.0.1:{PORT}", "Id": ID} | keys
    return "[Mqtt]\n" + "".join(f"{key}={value}\n" for key, value in own.items() if value is not None)


class Bridge:
    """One run of the service. Dies with its starter."""

    def __init__(
        self,
        folder: Path,
        text: str,
        *,
        secrets: Mapping[str, str | bytes] | None = None,
        environment: Mapping[str, str] | None = None,
        prefix: Sequence[str] = (),
    ) -> None:
        folder.mkdir(exist_ok=True)
        self.config = folder / "mqtt.conf"
        self.config.write_text(text)
        self.notifications = NotifySocket(folder / "notify")
        credentials = folder / "credentials"
        credentials.mkdir(exist_ok=True)
        for name, content in (secrets or {}).items():
            (credentials / name).write_bytes(content.encode() if isinstance(content, str) else content)
        inherited = {name: value for name, value in os.environ.items() if name != "JOURNAL_STREAM"}
        own = {
            "NOTIFY_SOCKET": str(self.notifications.path),
            "CREDENTIALS_DIRECTORY": str(credentials),
            "KELTO_SETTINGS": str(folder / "settings.ini"),
        }
        self.process = subprocess.Popen(
            dies_with_us(*prefix, PROGRAM, "--config", str(self.config)),
            env=inherited | own | dict(environment or {}),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
        )
        self.pid = self.process.pid
        self.log = Lines(os.dup(self.process.stderr.fileno()), "log")
        self.process.stderr.close()

    def wait_until_ready(self) -> None:
        self.notifications.wait_for("READY=1")

    def wait_until_connected(self, count: int = 1, patience: float = PATIENCE) -> None:
        self.log.wait_for(CONNECTED, count=count, patience=patience)

    def stop(self, number: signal.Signals = signal.SIGTERM) -> int:
        self.process.send_signal(number)
        return self.wait_for_exit()

    def wait_for_exit(self, patience: float = PATIENCE) -> int:
        try:
            ended = self.process.wait(patience)
        except subprocess.TimeoutExpired:
            raise NotSeen(f"the bridge is still running {patience} s after it should have ended") from None
        self.log.wait_for_end()
        return ended

    def processor_seconds(self) -> float:
        """What it has used so far."""
        tasks = Path(f"/proc/{self.pid}/task").iterdir()
        return sum(int((task / "schedstat").read_text().split()[0]) for task in tasks) / 1e9

    def descriptors(self) -> int:
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def close(self) -> None:
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.log.close()
        self.notifications.close()
        self.notifications.path.unlink()


def feed(text: str | bytes) -> None:
    """Writes into the bridge's pipe, as the daemon does."""
    data = text.encode() if isinstance(text, str) else text
    descriptor = os.open(PIPE, os.O_RDWR | os.O_NONBLOCK)
    try:
        assert os.write(descriptor, data) == len(data)
    finally:
        os.close(descriptor)
