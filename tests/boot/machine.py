"""The machine that the service is installed on, as its administrator sees it."""

import os
import pwd
import subprocess
import time
from collections.abc import Sequence
from pathlib import Path

from testing.pipes import OutputPipe, block
from testing.settings import SERVER, Settings, handler, ini_text, source
from testing.waiting import wait_until

UNIT = "halvek.service"
CAMERA_UNIT = "kelto-vcam.service"
SETTINGS = Path("/etc/kelto/settings/zz-test.ini")
ENVIRONMENT = Path("/etc/default/halvek")
EVENT_PIPE = Path("/run/halvek.pipe")
SNAPSHOT = Path("/tmp/snapshot/img2.jpg")
STATE = Path("/var/lib/halvek")
USER = "halvek"

DOOR = SERVER | source(1, "Door")


def run(*command: object, **options) -> str:
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True, timeout=60, **options)
    assert result.returncode == 0, f"{command}: status {result.returncode}\n{result.stdout}{result.stderr}"
    return result.stdout.strip()


def run_as(user: str, *groups: str, command: str) -> subprocess.CompletedProcess:
    """A shell command of an ordinary user who is in these groups."""
    account = pwd.getpwnam(user)
    own = {"user": user, "group": account.pw_gid, "extra_groups": groups}
    return subprocess.run(["sh", "-c", command], capture_output=True, text=True, timeout=60, cwd="/", **own)


def show(name: str, unit: str = UNIT) -> str:
    return run("systemctl", "show", "--value", "--property", name, unit)


def main_pid() -> int:
    return int(show("MainPID"))


def is_active(unit: str = UNIT) -> bool:
    return show("ActiveState", unit) == "active"


def processes_of(user: str) -> list[str]:
    result = subprocess.run(["ps", "-o", "args=", "-u", user], capture_output=True, text=True)
    return result.stdout.splitlines()


class Journal:
    """What the unit has logged since this was made."""

    def __init__(self, unit: str = UNIT) -> None:
        self.unit = unit
        self._cursor = run("journalctl", "--sync", "--quiet") or self._last_cursor()

    def lines(self) -> list[str]:
        run("journalctl", "--sync")
        command = ("journalctl", "-q", "-o", "cat", "-u", self.unit, f"--after-cursor={self._cursor}")
        return run(*command).splitlines()

    def matching(self, text: str) -> list[str]:
        return [line for line in self.lines() if text in line]

    def wait_for(self, text: str, count: int = 1) -> None:
        try:
            wait_until(lambda: len(self.matching(text)) >= count, f"'{text}' in the journal {count} times")
        except AssertionError as error:
            raise AssertionError(f"{error}\n" + "\n".join(self.lines()[-40:])) from None

    @staticmethod
    def _last_cursor() -> str:
        return run("journalctl", "-q", "-n1", "-o", "cat", "--show-cursor").rpartition("-- cursor: ")[2]


def write_settings(settings: Settings) -> None:
    """Secrets may stand in there: only the daemon reads them."""
    debug: Settings = {"Applications/halvek": {"LogLevel": "Debug"}}
    SETTINGS.write_text(ini_text(debug | settings))
    os.chown(SETTINGS, 0, pwd.getpwnam(USER).pw_gid)
    SETTINGS.chmod(0o640)


def configure(settings: Settings) -> None:
    """Has the running service take up new settings, as an administrator does."""
    write_settings(settings)
    journal = Journal()
    run("systemctl", "reload", UNIT)
    journal.wait_for("Done starting sources")


def on_door(*handlers: tuple[str, dict[str, object]]) -> Settings:
    """Settings with handlers of the event that open_door() posts."""
    settings: Settings = dict(DOOR)
    settings["Video/Quickview"] = {"SnapshotPath": SNAPSHOT}
    for number, (handler_type, keys) in enumerate(handlers, 1):
        settings |= handler(number, "Events/Source#1", handler_type=handler_type, **keys)
    return settings


def open_door() -> None:
    post("Door", number=1)


def post(event_type: str, **properties: object) -> None:
    descriptor = os.open(EVENT_PIPE, os.O_WRONLY | os.O_NONBLOCK)
    try:
        os.write(descriptor, block(event_type, **properties).encode())
    finally:
        os.close(descriptor)


class Consumer(OutputPipe):
    """Hears every event, as root."""

    def __init__(self, name: str = "test.halvek.any") -> None:
        super().__init__(name)

    def close(self) -> None:
        super().close()
        self.path.unlink()


def camera_call(method: str, *arguments: str) -> str:
    service = ("com.kelto.VirtualCamera", "/com/kelto/VirtualCamera", "com.kelto.VirtualCamera")
    return run("busctl", "--system", "--json=short", "call", *service, method, *arguments)


def seconds_of(command: Sequence[object]) -> float:
    begin = time.monotonic()
    run(*command)
    return time.monotonic() - begin
