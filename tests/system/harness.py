"""The daemon as the system tests see it: settings to write, a process to watch, pipes to post to."""

import errno
import os
import re
import time
from collections.abc import Callable
from itertools import pairwise
from pathlib import Path

from daemon_process import PATIENCE, DaemonProcess, Event, NotSeen, bytes_ready

PROGRAM = os.environ["HALVEK_DAEMON"]
# ThreadSanitizer puts a caught signal off to the next call that it knows, and a thread that ends takes it along.
LOSES_SIGNALS = "HALVEK_TEST_LOST_SIGNALS" in os.environ
DEFAULT_INPUT = Path("/var/run/halvek.pipe")
STAMPS = {"Timestamp", "FormattedTime"}
CONFIGURED = "Done starting sources"
LIMITS = Path(__file__).resolve().parents[2] / "docs/limits.md"
SANITIZER_REPORT = r"(Address|Leak|Thread|UndefinedBehavior)Sanitizer|runtime error:"

Settings = dict[str, dict[str, object]]

SERVER: Settings = {"Applications/halvek/Server": {"Type": "Pipe"}, "Applications/halvek/Server/Pipe": {}}


def server(path: Path) -> Settings:
    return SERVER | {"Applications/halvek/Server/Pipe": {"Path": path}}


def source(number: int, source_type: str, **keys: object) -> Settings:
    """A source's groups; a keyword of Interval_sec stands for the key Interval.sec."""
    group = f"Events/Source#{number}"
    own = {key.replace("_", "."): value for key, value in keys.items()}
    return {group: {"Type": source_type}, f"{group}/{source_type}": own}


def timer(number: int, seconds: object) -> Settings:
    return source(number, "Timer", Interval_sec=seconds)


def handler(number: int, *source_ids: str, handler_type: str = "Extern", **keys: object) -> Settings:
    group = f"Events/Handler#{number}"
    ids = {str(position): source_id for position, source_id in enumerate(source_ids)}
    return {group: {"Type": handler_type} | keys, f"{group}/SourceIds": ids}


def ini_text(settings: Settings) -> str:
    lines = []
    for group, keys in settings.items():
        lines += [f"[{group}]", *(f"{key}={value}" for key, value in keys.items())]
    return "\n".join(lines) + "\n"


def wait_until(condition: Callable[[], object], what: str, patience: float = PATIENCE) -> None:
    deadline = time.monotonic() + patience
    while not condition():
        if time.monotonic() > deadline:
            raise NotSeen(f"not in {patience} s: {what}")
        time.sleep(0.005)


def post(text: str | bytes, path: Path = DEFAULT_INPUT) -> None:
    """Writes to the event pipe in one write, as another process would. The daemon must have it open."""
    data = text.encode() if isinstance(text, str) else text
    descriptor = os.open(path, os.O_WRONLY | os.O_NONBLOCK)
    try:
        os.set_blocking(descriptor, True)
        assert os.write(descriptor, data) == len(data)
    finally:
        os.close(descriptor)


def block(event_type: str, **properties: object) -> str:
    return f"[{event_type}]\n" + "".join(f"{key}={value}\n" for key, value in properties.items()) + ".\n"


def unstamped(events: list[Event]) -> list[tuple[str, dict[str, str]]]:
    """Events as tuples of type and properties, less the stamps and the eventType that repeats the header."""
    for event in events:
        assert event.properties["eventType"] == event.type and STAMPS <= event.properties.keys()
    left_out = STAMPS | {"eventType"}
    return [
        (event.type, {key: value for key, value in event.properties.items() if key not in left_out}) for event in events
    ]


def bytes_ready_at(path: Path) -> int:
    descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
    try:
        return bytes_ready(descriptor)
    finally:
        os.close(descriptor)


def record_time(line: str) -> float:
    """The local time of a log record, in seconds; only differences mean something."""
    stamp, millis = re.match(r"([-\dT:]{19})\.(\d{3}) ", line).groups()
    return time.mktime(time.strptime(stamp, "%Y-%m-%dT%H:%M:%S")) + int(millis) / 1000


def always_open() -> int:
    """How many descriptors, as the document's sum has it; its other summands are letters."""
    return sum(int(number) for number in re.findall(r"^[+ ] (\d+)   ", LIMITS.read_text(), re.MULTILINE))


def assert_paced(ticks: list[float], seconds: float) -> None:
    """One tick a period: a busy machine may be late with one, so it is the quickest that must not be too slow."""
    gaps = [later - earlier for earlier, later in pairwise(ticks)]
    assert 0.5 * seconds < min(gaps) < 1.5 * seconds, gaps


def resident_kib(program: DaemonProcess) -> int:
    text = Path(f"/proc/{program.pid}/smaps_rollup").read_text()
    return int(re.search(r"^Rss:\s+(\d+) kB", text, re.MULTILINE).group(1))


class Daemon(DaemonProcess):
    """A daemon whose settings are a file that the test may write anew."""

    def __init__(self, folder: Path, settings: Settings | str | None, level: str = "Debug", **options) -> None:
        self.settings_file = folder / "settings.ini"
        self._seen_signals = 0
        if settings is not None:
            self.write_settings(settings)
        environment = {"KELTO_LOG": level} | options.pop("environment", {})
        store = options.pop("store", self.settings_file)
        self._logs_signals = level in ("Trace", "Debug") and environment["KELTO_LOG"] == level
        self._logs_the_run = level in ("Trace", "Debug", "Information") and environment["KELTO_LOG"] == level
        super().__init__(PROGRAM, store, folder, environment=environment, **options)

    def wait_until_ready(self, patience: float = PATIENCE) -> None:
        super().wait_until_ready(patience)
        if self._logs_the_run:  # the socket that it notified through is closed by then
            self.log.wait_for("Dropping to run state")

    def send(self, number: int) -> None:
        super().send(number)
        while LOSES_SIGNALS and self._logs_signals and not self._has_caught(number):
            super().send(number)

    def write_settings(self, settings: Settings | str) -> None:
        self.settings_file.write_text(settings if isinstance(settings, str) else ini_text(settings))

    def reload(self, signal_number: int = 1, until: str = CONFIGURED) -> int:
        """One SIGHUP and its whole reload; returns the log index behind it."""
        before = len(self.log.items)
        self.send(signal_number)
        after = self.log.wait_for(r"got: 'R' \(82\)", after=before)
        return self.log.wait_for(until, after=after)

    def _has_caught(self, number: int) -> bool:
        try:
            self._seen_signals = self.log.wait_for(f"signal caught: {number}$", after=self._seen_signals, patience=1)
        except NotSeen:
            return self.process.poll() is not None
        return True

    def queued_commands(self) -> int:
        """How many signals wait in the daemon's pipe to itself, the only pipe that it has besides its log."""
        for path in Path(f"/proc/{self.pid}/fd").iterdir():
            if int(path.name) > 2 and os.readlink(path).startswith("pipe:"):
                return bytes_ready_at(path)
        raise NotSeen("the daemon has no pipe to itself")

    def thread_names(self) -> list[str]:
        """The names of all threads but the main one and those that a sanitizer adds under the main one's name."""
        main, names = Path(f"/proc/{self.pid}/comm").read_text().strip(), []
        for task in Path(f"/proc/{self.pid}/task").iterdir():
            try:
                names.append((task / "comm").read_text().strip())
            except (FileNotFoundError, ProcessLookupError):  # ended since the folder was listed
                continue
        return sorted(name for name in names if name != main)

    def descriptors(self) -> int:
        # READY=1 is seen before the socket that it was sent by is closed.
        self.log.wait_for("Dropping to run state$", after=0)
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def resident_kib(self) -> int:
        return resident_kib(self)

    def assert_orderly_end(self) -> None:
        """To be called after the exit: everything that was started was stopped, and no sanitizer complained."""
        assert not self.log.matching(SANITIZER_REPORT)
        for source_class in ("TimerEventSource", "EventServerSource"):
            started = len(self.log.matching(f"{source_class} started"))
            # The level of the log may have let the start pass in silence.
            assert len(self.log.matching(f"{source_class} stopped")) >= started


class SettingsPipe:
    """A settings store that the daemon cannot finish reading until the test lets it."""

    def __init__(self, path: Path) -> None:
        self.path = path
        self._writer: int | None = None
        os.mkfifo(path)

    def hold(self) -> None:
        """Waits until the daemon has begun a fetch; it then waits for release()."""
        wait_until(self._try_open, "the daemon opens its settings")

    def release(self, text: str) -> None:
        try:
            os.write(self._writer, text.encode())
        except (BrokenPipeError, BlockingIOError):
            pass  # it was the end of a fetch, or one that has been given more than it has come to read
        finally:
            os.close(self._writer)
            self._writer = None

    def serve(self, text: str, until: Callable[[], object]) -> None:
        """Answers fetches until the condition holds."""
        while not until():
            wait_until(lambda: until() or self._try_open(), "the daemon fetches its settings")
            if self._writer is not None:
                self.release(text)

    def _try_open(self) -> bool:
        try:
            self._writer = os.open(self.path, os.O_WRONLY | os.O_NONBLOCK)
        except OSError as error:
            assert error.errno == errno.ENXIO  # nobody reads
        return self._writer is not None
