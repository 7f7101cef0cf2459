"""What the tests of the mail handler have in common: its settings, and what it leaves in the daemon."""

import os
import re
from pathlib import Path

from testing.daemon import DaemonProcess
from testing.settings import SERVER, Settings, handler, source

DOOR = SERVER | source(1, "Door")
SENT = "Debug halvek: Message size: "


def mail_handler(**keys: object) -> Settings:
    """A mail handler of events of the type Door."""
    own = {"To": "guard@x.example", "From": "Camera <camera@x.example>", "Subject": "Alarm"} | keys
    return handler(1, "Events/Source#1", handler_type="Email", **own)


def snapshot(path: Path | str) -> Settings:
    return {"Video/Quickview": {"SnapshotPath": path}}


def maps_the_mail_library(daemon: DaemonProcess) -> bool:
    """Whether any of it is in the daemon's memory map: ours, the library, or what that one brings along."""
    text = Path(f"/proc/{daemon.pid}/maps").read_text()
    return re.search(r"kelto-mail|libgmime|libglib|libgobject|libgio", text) is not None


def stand_in(folder: Path, script: str) -> dict[str, str]:
    """An environment with another mail program."""
    folder.mkdir()
    program = folder / "esmtp"
    program.write_text(f"#!/bin/sh\n{script}\n")
    program.chmod(0o755)
    return {"PATH": f"{folder}:{os.environ['PATH']}"}
