"""What is tortured: a daemon with every source and every handler, on a virtual camera, with real servers around it."""

import contextlib
import os
import re
import shutil
import subprocess
import time
from collections.abc import Sequence
from datetime import datetime
from pathlib import Path

from testing.bus import PrivateBus
from testing.camera import VirtualCamera
from testing.daemon import Daemon
from testing.ftp_server import FtpServer
from testing.mail_sink import MailSink
from testing.pipes import DEFAULT_INPUT, OutputPipe, block, post
from testing.settings import SERVER, Settings, encoded, handler, source, timer
from testing.waiting import wait_until

from faults import Faults

LIBRARY = os.environ["HALVEK_FAULTY_CALLS"]
SANITIZED = "HALVEK_SANITIZED" in os.environ
SLOWNESS = 5.0 if SANITIZED else 1.0
STOP_LIMIT = 2.0 * SLOWNESS  # seconds
HANG = 15.0 * SLOWNESS  # seconds; a call of a service gives up after 5, and an action makes two
INTERVAL, DWELL = 3600, 1  # seconds
PICTURE = bytes(range(256)) * 32
FILE_SIZE = 8192
LIMIT = 16384 + 4096
EVENT_PIPE_THREAD = "EventServerSour"
# In order: the sources by their ids, see halvek-settings(5).
HANDLER_TYPES = ("Relay", "Preset", "Tour", "Folder", "Ftp", "Email")
SOURCE_CLASSES = ("AlarmEventSource", "AnalyticsEventSource", "EventServerSource", "MsgBusEventSource")
SOURCE_CLASSES += ("ParkEventSource", "TimerEventSource")
RECORD = re.compile(r"[-\d]{10}T[\d:]{8}\.\d{3} (Trace|Debug|Information|Warning|Error) ([\w.]+): (.*)")
# A record of several lines, and what the settings' own one is made of.
CONTINUED = re.compile(r"    |\[|[\w.]+=")
# Told at every configuration: a source of a type of one's own is no kind of source.
ALWAYS_TOLD = "Unknown EventSource: "


def settings_of(folder: Path) -> Settings:
    number = {kind: f"Events/Source#{position}" for position, kind in enumerate(HANDLER_TYPES, 5)}
    keys: dict[str, dict[str, object]] = {
        "Relay": {"Index": 1, "Mode": 1},
        "Preset": {"Id": 5},
        "Tour": {"Id": 1},
        "Folder": {
            "DestinationPath": folder / "card",
            "DestName": "new.jpg",
            "LimitSize": LIMIT,
            "Attachment": "true",
        },
        "Ftp": {
            "Server": "127.0.0.1",
            "Username": "camera",
            "Password": "secret",
            "BasePath": "/",
            "DestName": "up.jpg",
            "Attachment": "true",
        },
        "Email": {
            "To": "guard@x.example",
            "From": "camera@x.example",
            "Subject": "Alarm",
            "Message": encoded("Alarm"),
            "Attachment": "true",
            "RawEventData": "true",
        },
    }
    settings = SERVER | {"Video/Quickview": {"SnapshotPath": folder / "snapshot.jpg"}}
    settings |= timer(1, INTERVAL) | source(2, "Alarm", Index=1) | source(3, "Analytics")
    settings |= source(4, "Park", DwellTime_sec=DWELL)
    for position, kind in enumerate(HANDLER_TYPES, 5):
        settings |= source(position, kind) | handler(position, number[kind], handler_type=kind, **keys[kind])
    return settings


def acknowledge_at_once() -> None:
    """On the loopback of this network: mails in small pieces would wait for it."""
    route = "local 127.0.0.1 dev lo table local proto kernel scope host src 127.0.0.1 quickack 1"
    subprocess.run(["ip", "route", "replace", *route.split()], check=True)


class Scene:
    """Everything around the daemon, once; and one daemon after the other."""

    def __init__(self, folder: Path) -> None:
        self.folder = folder
        folder.mkdir(exist_ok=True)
        (folder / "ftp").mkdir()
        (folder / "snapshot.jpg").write_bytes(PICTURE)
        acknowledge_at_once()
        self.bus = PrivateBus(folder)
        self.camera = VirtualCamera(self.bus, folder / "camera")
        self.ftp = FtpServer(folder / "ftp")
        self.sink = MailSink()
        (folder / "bin").mkdir()
        (folder / "bin/ftpput").symlink_to(shutil.which("busybox"))
        configuration = folder / ".esmtprc"
        configuration.write_text(f"hostname=127.0.0.1:{self.sink.port}\n")
        configuration.chmod(0o600)
        self.faults = Faults(folder / "faults", LIBRARY, os.environ["HALVEK_DAEMON"])
        self.pipe = OutputPipe("all.halvek.any")
        self.number = 0
        self.alarm_state = False
        self._started = 0
        self.armed_at = 0  # where the log was when a call was last made to fail
        self.daemon: Daemon | None = None
        self.camera.go_to("1")

    def close(self) -> None:
        self.end_daemon()
        self.pipe.close()
        self.sink.close()
        self.ftp.close()
        self.camera.close()
        self.bus.close()

    def __enter__(self) -> "Scene":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    # --- the daemon

    def launch(self, disarm: bool = True, prefix: Sequence[str] = ()) -> Daemon:
        """Starts a daemon that has to make its event pipe; it need not have come up yet."""
        self.end_daemon(disarm)
        DEFAULT_INPUT.unlink(missing_ok=True)
        self._started += 1
        folder = self.folder / f"daemon{self._started}"
        folder.mkdir()
        environment = self.bus.environment | {"HOME": str(self.folder)}
        environment["PATH"] = f"{self.folder / 'bin'}:{os.environ['PATH']}"
        if SANITIZED:
            options = os.environ.get("ASAN_OPTIONS", "")
            environment["ASAN_OPTIONS"] = f"{options}:verify_asan_link_order=0:allocator_may_return_null=1"
        self.daemon = Daemon(
            folder,
            settings_of(self.folder),
            level="Information",
            environment=environment,
            prefix=[*prefix, *self.faults.prefix],
        )
        return self.daemon

    def launch_ready(self) -> Daemon:
        daemon = self.launch()
        daemon.wait_until_ready()
        return daemon

    def end_daemon(self, disarm: bool = True) -> None:
        """Without good order."""
        if disarm:
            self.faults.disarm()
        if self.daemon is not None:
            self.daemon.close()
            shutil.rmtree(self.daemon.settings_file.parent)
            self.daemon = None

    def is_alive(self) -> bool:
        return self.daemon is not None and self.daemon.process.poll() is None

    def wait_until_main_waits(self) -> None:
        """The main thread has nothing to do: it sleeps in its select, and has twice when asked."""

        def waits() -> bool:
            path = Path(f"/proc/{self.daemon.pid}/syscall")
            try:
                return all(path.read_text().split()[0] in ("23", "270", "142") for _ in range(2)) or not self.is_alive()
            except (OSError, IndexError):
                return not self.is_alive()

        wait_until(waits, "the main thread waits for commands", HANG)

    def reload(self) -> None:
        """One that must do."""
        behind = self.daemon.reload(until="Information halvek: TimerEventSource started|Error reloading, invalid")
        self.wait_until_main_waits()
        assert "TimerEventSource started" in self.daemon.log.items[behind - 1]

    def told(self, after: int) -> list[str]:
        """What the log has to say of trouble; what is no record comes from a program that the daemon has started."""
        told = []
        for line in self.daemon.log.items[after:]:
            record = RECORD.match(line)
            if record is None:
                if line and not CONTINUED.match(line):
                    told.append(line)
            elif record[1] in ("Warning", "Error") and ALWAYS_TOLD not in line:
                told.append(f"{record[1]} {record[2]}: {record[3].strip()}")
        return told

    def started_sources(self) -> set[str]:
        """Their classes, since the last configuration has begun."""
        records = [record for line in self.daemon.log.items if (record := RECORD.match(line))]
        texts = [record[3].strip() for record in records]
        begin = max((at for at, text in enumerate(texts) if text == "Configuring..."), default=0)
        return {text.removesuffix(" started") for text in texts[begin:] if text.endswith("Source started")}

    def stopping_seconds(self) -> float:
        """How long the end has taken by the daemon's own records: a loaded machine may stand still around it."""
        records = [record for line in self.daemon.log.items if (record := RECORD.match(line))]
        begins = [record for record in records if record[3].startswith("got: 'S'")]
        if not begins:
            return 0.0
        begin, end = (datetime.fromisoformat(record[0].split()[0]) for record in (begins[-1], records[-1]))
        return (end - begin).total_seconds()

    def descriptors(self) -> int:
        return len(os.listdir(f"/proc/{self.daemon.pid}/fd"))

    # --- events

    def next_number(self) -> int:
        self.number += 1
        return self.number

    def post(self, kind: str) -> int:
        number = self.next_number()
        post(block(kind, number=number, text="x" * 100))
        return number

    def events(self, key: str, value: object, after: int = 0) -> int:
        """How many events have come out with a property."""
        return sum(event.properties.get(key) == str(value) for event in self.pipe.items[after:])

    def wait_for_mark(self, patience: float = HANG) -> bool:
        """Whether an event that is posted now comes out; false at once if nobody reads the event pipe any more."""
        try:
            number = self.post("Mark")
        except OSError:
            return False
        at = len(self.daemon.log.items)
        deadline = time.monotonic() + patience
        while not self.events("number", number, max(0, len(self.pipe.items) - 50)):
            if not self.is_alive() or time.monotonic() > deadline:
                return False
            if EVENT_PIPE_THREAD not in self.daemon.thread_names() and len(self.daemon.log.items) >= at:
                return False
            time.sleep(0.002)
        return True

    # --- the card

    def lay_out_card(self) -> None:
        """So full that the oldest file has to go."""
        card = self.folder / "card"
        shutil.rmtree(card, ignore_errors=True)
        card.mkdir()
        (card / "old.jpg").write_bytes(bytes(FILE_SIZE))
        os.utime(card / "old.jpg", (1, 1))
        (card / "kept.jpg").write_bytes(bytes(FILE_SIZE))

    def files_on_card(self) -> dict[str, bytes]:
        files = {}
        for path in (self.folder / "card").iterdir():
            with contextlib.suppress(FileNotFoundError):  # deleted meanwhile
                files[path.name] = path.read_bytes()
        return files
