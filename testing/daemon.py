"""Runs the daemon and watches it from outside: its log, its notifications, its threads and descriptors."""

import os
import signal
import subprocess
from collections.abc import Mapping, Sequence
from pathlib import Path

from testing.collector import Lines
from testing.notifications import NotifySocket
from testing.pipes import bytes_ready_at
from testing.processes import dies_with_us, resident_kib
from testing.settings import Settings, ini_text
from testing.waiting import PATIENCE, NotSeen, wait_until

PROGRAM = os.environ.get("HALVEK_DAEMON", "")
# ThreadSanitizer puts a caught signal off to the next call that it knows, and a thread that ends takes it along.
LOSES_SIGNALS = "HALVEK_TEST_LOST_SIGNALS" in os.environ
CONFIGURED = "Done starting sources"
SANITIZER_REPORT = r"(Address|Leak|Thread|UndefinedBehavior)Sanitizer|runtime error:"


class DaemonProcess:
    """One run of the daemon with a log and a notification socket of its own. Dies with its starter."""

    def __init__(
        self,
        program: str,
        settings: Path,
        folder: Path,
        *,
        arguments: Sequence[str] = (),
        prefix: Sequence[str] = (),
        environment: Mapping[str, str] | None = None,
    ) -> None:
        self.notifications = NotifySocket(folder / "notify")
        inherited = {name: value for name, value in os.environ.items() if name != "JOURNAL_STREAM"}
        own = {"KELTO_SETTINGS": str(settings), "NOTIFY_SOCKET": str(self.notifications.path)}
        self.process = subprocess.Popen(
            dies_with_us(*prefix, program, *arguments),
            env=inherited | own | dict(environment or {}),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
        )
        self.pid = self.process.pid
        self.log = Lines(os.dup(self.process.stderr.fileno()), "log")
        self.process.stderr.close()

    def wait_until_ready(self, patience: float = PATIENCE) -> None:
        self.notifications.wait_for("READY=1", patience=patience)

    def send(self, number: signal.Signals) -> None:
        self.process.send_signal(number)

    def wait_for_exit(self, patience: float = PATIENCE) -> int:
        """The exit status (negative: the signal that ended it); the log is complete afterwards."""
        try:
            status = self.process.wait(patience)
        except subprocess.TimeoutExpired:
            raise NotSeen(f"the daemon is still running {patience} s after it should have ended") from None
        self.log.wait_for_end()
        return status

    def stop(self, number: signal.Signals = signal.SIGTERM, patience: float = PATIENCE) -> int:
        self.send(number)
        return self.wait_for_exit(patience)

    def close(self) -> None:
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.log.close()
        self.notifications.close()
        self.notifications.path.unlink()


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

    def is_asleep(self) -> bool:
        """Whether the main thread waits for something."""
        fields = Path(f"/proc/{self.pid}/stat").read_text().rpartition(")")[2].split()
        return fields[0] == "S"

    def descriptors(self) -> int:
        # READY=1 is seen before the socket that it was sent by is closed.
        self.log.wait_for("Dropping to run state$", after=0)
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def wait_for_descriptors(self, count: int) -> None:
        """For a moment there may be more: it opens the folder of pipes at an event, and without a bus looks for one."""
        wait_until(lambda: self.descriptors() == count, f"{count} descriptors, not {self.descriptors()}")

    def resident_kib(self) -> int:
        return resident_kib(self.pid)

    def assert_orderly_end(self) -> None:
        """To be called after the exit: everything that was started was stopped, and no sanitizer complained."""
        assert not self.log.matching(SANITIZER_REPORT)
        for source_class in ("TimerEventSource", "EventServerSource"):
            started = len(self.log.matching(f"{source_class} started"))
            # The level of the log may have let the start pass in silence.
            assert len(self.log.matching(f"{source_class} stopped")) >= started
