"""Runs halvek-rules: its verbs, and the service with its records and what it tells its manager."""

import json
import os
import signal
import subprocess
from collections.abc import Sequence
from pathlib import Path

from testing.collector import Lines
from testing.notifications import NotifySocket
from testing.pipes import PIPE_FOLDER, bytes_ready_at
from testing.processes import dies_with_us
from testing.waiting import PATIENCE, wait_until

PROGRAM = os.environ.get("HALVEK_RULES", "")
PIPE = PIPE_FOLDER / "zz-rules.halvek.any"
LEFT_OUT = ("JOURNAL_STREAM", "NOTIFY_SOCKET")


def environment(**variables: str) -> dict[str, str]:
    return {name: value for name, value in os.environ.items() if name not in LEFT_OUT} | variables


def rules(*words: object, **options) -> subprocess.CompletedProcess:
    """Runs the program to its end."""
    settings = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "timeout": PATIENCE} | options
    return subprocess.run([PROGRAM, *map(str, words)], env=environment(), **settings)


def answer(*words: object, status: int = 0, **options) -> str:
    done = rules(*words, **options)
    assert done.returncode == status, (done.returncode, done.stdout, done.stderr)
    return done.stdout.decode()


def rule(name: str, *lines: str) -> str:
    return "\n".join([f"[Rule {name}]", *lines, ""])


def posts(folder: Path, rule_text: str, script: str) -> list[dict]:
    """What comes out of a script, whatever it expects."""
    (folder / "rules.conf").write_text(rule_text)
    (folder / "script").write_text(script)
    done = rules("--rules", folder / "rules.conf", "--format", "json", "test", folder / "script")
    assert done.returncode in (0, 1), done
    return json.loads(done.stdout)["posts"]


class RulesService:
    """The running service. Dies with its starter."""

    def __init__(
        self,
        folder: Path,
        text: str,
        *arguments: str,
        prefix: Sequence[str] = (),
        stderr: int | None = None,
        ready=True,
    ) -> None:
        folder.mkdir(exist_ok=True)
        self.file = folder / "rules.conf"
        self.file.write_text(text)
        self.notifications = NotifySocket(folder / "notify")
        self.process = subprocess.Popen(
            dies_with_us(*prefix, PROGRAM, "--rules", str(self.file), *arguments),
            env=environment(NOTIFY_SOCKET=str(self.notifications.path)),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE if stderr is None else stderr,
        )
        self.pid = self.process.pid
        self.log = None
        if self.process.stderr is not None:
            self.log = Lines(os.dup(self.process.stderr.fileno()), "halvek-rules")
            self.process.stderr.close()
        if ready:
            self.notifications.wait_for("READY=1")

    def status(self) -> str:
        """What it told last of itself."""
        told = [text for text in self.notifications.items if text.startswith("STATUS=")]
        return told[-1].removeprefix("STATUS=")

    def reload(self, text: str, until: str) -> None:
        after = len(self.log.items)
        self.file.write_text(text)
        self.process.send_signal(signal.SIGHUP)
        self.log.wait_for(until, after=after)

    def stop(self, number: signal.Signals = signal.SIGTERM) -> int:
        self.process.send_signal(number)
        return self.process.wait(PATIENCE)

    def wait_until_read(self) -> None:
        """Its pipe is empty: what it has not taken yet, it has in hand."""
        wait_until(lambda: bytes_ready_at(PIPE) == 0, "the rules have read their pipe")

    def close(self) -> None:
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        if self.log is not None:
            self.log.close()
        self.notifications.close()
        self.notifications.path.unlink()
