"""The outbox in a machine of its own making: its folders are private to the tests, and so is all of /etc."""

import base64
import hashlib
import json
import os
import secrets
import shutil
import signal
import socket
import subprocess
import threading
from collections.abc import Callable
from pathlib import Path

from testing.waiting import PATIENCE, wait_until

PROGRAM = os.environ.get("HALVEK_OUTBOX", "")
FRONT_END = os.environ.get("HALVEK_OUTBOX_SUBMIT", "")
CONFIGURATION = Path("/etc/halvek-outbox/outbox.conf")
KNOWN_HOSTS = CONFIGURATION.with_name("known_hosts")
ESMTPRC = Path("/etc/esmtprc")
SOCKET = Path("/run/halvek-outbox/submit")
RAM = Path("/run/halvek-outbox/q")
FLASH = Path("/var/spool/halvek-outbox/q")
HELD = FLASH.with_name("held")
LISTEN_FDS_START = 3
MAIL = "From: Camera <camera@x.example>\nTo: guard@x.example\nSubject: Alarm\n\nA door.\n"


def make_private(folder: Path) -> None:
    """What scripts/private-run leaves as it is: /etc becomes a copy of itself, and the spools are empty."""
    if not CONFIGURATION.parent.exists():
        copy = folder / "etc"
        subprocess.run(["cp", "-a", "/etc", copy], stderr=subprocess.DEVNULL, check=False)
        subprocess.run(["mount", "-n", "--bind", copy, "/etc"], check=True)
        subprocess.run(["mount", "-n", "-t", "tmpfs", "tmpfs", "/var/spool"], check=True)
        CONFIGURATION.parent.mkdir()


def picture(size: int = 30_000) -> bytes:
    return secrets.token_bytes(size)


def pin_of(certificate: Path) -> str:
    """What Pin says of the key in it."""
    key = subprocess.run(["openssl", "x509", "-in", certificate, "-noout", "-pubkey"], check=True, capture_output=True)
    der = subprocess.run(["openssl", "pkey", "-pubin", "-outform", "der"], input=key.stdout, capture_output=True)
    return "sha256//" + base64.b64encode(hashlib.sha256(der.stdout).digest()).decode()


class Outbox:
    """The service, started as its unit says, and everything that people do with it."""

    def __init__(self, folder: Path) -> None:
        self.folder = folder
        self.programs = folder / "bin"
        self.programs.mkdir()
        for name in ("ftpput", "esmtp"):
            shutil.copy(FRONT_END, self.programs / name)
        self.log = folder / "outbox.log"
        self.environment: dict[str, str] = {}
        self.process: subprocess.Popen | None = None
        for path in (SOCKET.parent, FLASH.parent):
            shutil.rmtree(path, ignore_errors=True)
            path.mkdir(mode=0o755)
        for path in (CONFIGURATION, KNOWN_HOSTS, ESMTPRC):
            path.unlink(missing_ok=True)

    def configure(self, text: str, **passwords: str) -> None:
        CONFIGURATION.write_text(text)
        if passwords:
            credentials = self.folder / "credentials"
            credentials.mkdir(exist_ok=True)
            (credentials / "secrets").write_text("".join(f"{name}={word}\n" for name, word in passwords.items()))
            self.environment["CREDENTIALS_DIRECTORY"] = str(credentials)

    def start(self, *prefix: str) -> None:
        with self.log.open("ab") as log:
            self.process = subprocess.Popen(
                [*prefix, PROGRAM, "serve"], stderr=log, env=os.environ | self.environment, close_fds=True
            )
        wait_until(self._answers, "the outbox answers")

    def _answers(self) -> bool:
        assert self.process.poll() is None, self.log.read_text()
        return self.run("status").returncode == 0

    def stop(self, number: int = signal.SIGTERM) -> int:
        self.process.send_signal(number)
        return self.process.wait(PATIENCE)

    def close(self) -> None:
        if self.process is not None and self.process.poll() is None:
            self.process.kill()
            self.process.wait()

    def run(self, *words: str, **options: object) -> subprocess.CompletedProcess:
        return subprocess.run([PROGRAM, *words], capture_output=True, text=True, timeout=60, **options)

    def answer(self, verb: str = "status", *words: str) -> dict:
        result = self.run(verb, *words, "--format", "json")
        assert result.returncode == 0, result.stderr
        return json.loads(result.stdout)

    def counts(self) -> dict[str, int]:
        return self.answer()["counts"]

    def submit(self, name: str, *words: str, **options: object) -> subprocess.CompletedProcess:
        environment = os.environ | {"PATH": f"{self.programs}:{os.environ['PATH']}"} | options.pop("environment", {})
        return subprocess.run([name, *words], capture_output=True, env=environment, timeout=60, **options)

    def put(self, content: bytes, remote: str = "/shot.jpg", *, host: str = "127.0.0.1", options: str = "") -> str:
        """Hands over a picture; returns its number."""
        local = self.folder / f"picture-{secrets.token_hex(4)}"
        local.write_bytes(content)
        result = self.submit("ftpput", "-u", "camera", "-p", "secret", *options.split(), host, remote, str(local))
        local.unlink()
        assert result.returncode == 0, result
        return self.number_of(result)

    def mail(self, text: str) -> str:
        result = self.submit("esmtp", "-t", input=text.encode())
        assert result.returncode == 0, result
        return self.number_of(result)

    @staticmethod
    def number_of(result: subprocess.CompletedProcess) -> str:
        before, _, number = result.stderr.decode().strip().rpartition("queued ")
        assert before and len(number) == 16, result
        return number

    def wait_for(self, patience: float = PATIENCE, **counts: int) -> None:
        wait_until(lambda: counts.items() <= self.counts().items(), f"{counts}, log: {self.log.read_text()}", patience)

    def item(self, number: str) -> dict:
        return self.answer("show", number)["item"]

    def wait_for_state(self, number: str, state: str) -> dict:
        wait_until(lambda: self.item(number)["state"] == state, f"{number} is {state}")
        return self.item(number)

    def target(self) -> dict:
        (target,) = self.answer()["targets"]
        return target


class SecretWatch:
    """Looks for a word in the command lines and environments of all processes but ours, over and over."""

    def __init__(self, word: str) -> None:
        self.word = word.encode()
        self.samples = 0
        self.found: list[str] = []
        self._ending = threading.Event()
        self._thread = threading.Thread(target=self._look)

    def __enter__(self) -> "SecretWatch":
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._ending.set()
        self._thread.join()

    def _look(self) -> None:
        while not self._ending.is_set():
            for process in os.listdir("/proc"):
                if process.isdigit() and int(process) != os.getpid():
                    self._look_into(Path("/proc", process))
            self.samples += 1

    def _look_into(self, process: Path) -> None:
        for path in (process / "cmdline", process / "environ"):
            try:
                if self.word in path.read_bytes():
                    self.found.append(str(path))
            except OSError:
                pass  # it has ended

    def check(self, outbox: Outbox) -> None:
        """Nor in what the outbox keeps, logs and tells."""
        assert self.samples > 0 and self.found == []
        kept = [path for folder in (FLASH.parent, SOCKET.parent) for path in folder.rglob("*") if path.is_file()]
        assert kept and all(self.word not in path.read_bytes() for path in (*kept, outbox.log))
        for verb in ("status", "list"):
            assert self.word.decode() not in outbox.run(verb, "--format", "json").stdout


class SilentTargets:
    """Servers that take connections and say nothing."""

    def __init__(self, count: int) -> None:
        self.servers = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
        self.settings = "".join(
            f"[Target silent{i}]\nMatch=silent{i}\nUrl=ftp://127.0.0.1:{server.getsockname()[1]}\n"
            for i, server in enumerate(self.servers)
        )

    def hold_up(self, outbox: Outbox) -> None:
        """Has it try all of them at once."""
        numbers = [outbox.put(b"picture", "/x.jpg", host=f"silent{i}") for i in range(len(self.servers))]
        wait_until(lambda: all(outbox.item(number)["state"] == "sending" for number in numbers), "all hang")

    def close(self) -> None:
        for server in self.servers:
            server.close()


class TalkativeTargets(SilentTargets):
    """They greet, and come to no end of it: whoever listens to one is always busy."""

    def __init__(self, count: int) -> None:
        super().__init__(count)
        for server in self.servers:
            server.settimeout(PATIENCE)
        self._ending = threading.Event()
        self._thread = threading.Thread(target=self._talk)
        self._thread.start()

    def _talk(self) -> None:
        connections = [server.accept()[0] for server in self.servers]
        while not self._ending.wait(0.002):
            for connection in connections:
                connection.sendall(b"220-and\r\n")
        for connection in connections:
            connection.close()

    def close(self) -> None:
        self._ending.set()
        self._thread.join()
        super().close()


class LyingFtpServer:
    """Says what a script of (command, answer) tells it to, and yes to all else; None hangs up, "silence" says nothing.

    It takes no more than a file at a time. To STOR it may say "stall": it wants the file, and takes nothing of it.
    """

    def __init__(
        self, answers: dict[str, str | None], before: Callable[[str], None] = lambda _: None, host: str = "127.0.0.1"
    ) -> None:
        self.answers = answers
        self.before = before
        self.host = host
        self.commands: list[str] = []
        self.received: list[bytes] = []
        self.listener = socket.create_server((host, 0))
        self.port = self.listener.getsockname()[1]
        self.connections: list[socket.socket] = []

    def serve(self) -> None:
        while True:
            try:
                connection = self.listener.accept()[0]
            except OSError:
                return
            self.connections.append(connection)
            try:
                self._talk(connection)
            except OSError:
                pass
            connection.close()

    def _talk(self, connection: socket.socket) -> None:
        data: socket.socket | None = None
        size = 0
        lines = connection.makefile("rb")
        connection.sendall((self.answers.get("", "220 hello") + "\r\n").encode())
        while line := lines.readline():
            command, _, argument = line.decode().strip().partition(" ")
            self.commands.append(command)
            self.before(command)
            usual = {"USER": "331 password", "PASS": "230 in", "EPSV": "", "STOR": "226 done", "RNFR": "350 go on"}
            answer = self.answers.get(command, usual.get(command, "250 done"))
            if command == "EPSV":
                data = socket.create_server((self.host, 0))
                answer = f"229 passive (|||{data.getsockname()[1]}|)"
            if command == "SIZE" and "SIZE" not in self.answers:
                answer = f"213 {size}"
            if command == "STOR" and (answer is None or answer.startswith(("226", "426", "451", "452", "552"))):
                connection.sendall(b"150 go on\r\n")
                sender = data.accept()[0]
                with sender.makefile("rb") as stream:
                    content = stream.read()
                sender.close()
                size = len(content)
                self.received.append(content)
            if answer is None:
                return
            if answer == "stall":
                answer = "150 go on"
            if answer != "silence":
                connection.sendall(f"{answer}\r\n".encode())

    def close(self) -> None:
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        for connection in self.connections:
            connection.close()
