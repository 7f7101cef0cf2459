"""What the tests of the mail handler have in common: its settings, and the real mail program's way to a mail sink."""

import base64
import functools
import os
import re
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from daemon_process import DaemonProcess
from harness import SERVER, Daemon, Settings, handler, source
from mail_sink import MailSink

DOOR = SERVER | source(1, "Door")
SENT = "Debug halvek: Message size: "


def encoded(text: str | bytes) -> str:
    """As the key Message has it."""
    return base64.b64encode(text.encode() if isinstance(text, str) else text).decode()


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


@pytest.fixture
def sink() -> Iterator[MailSink]:
    with MailSink() as mail_sink:
        yield mail_sink


@pytest.fixture
def mail_environment(sink: MailSink, tmp_path: Path) -> dict[str, str]:
    """Has the mail program send everything to the sink."""
    configuration = tmp_path / ".esmtprc"
    configuration.write_text(f"hostname=127.0.0.1:{sink.port}\n")
    configuration.chmod(0o600)
    return {"HOME": str(tmp_path)}


@pytest.fixture
def launch_mailing(launch: Callable[..., Daemon], mail_environment: dict[str, str]) -> Callable[..., Daemon]:
    """As launch; mails go to the sink."""
    return functools.partial(launch, environment=mail_environment)
