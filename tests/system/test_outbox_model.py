"""The conservation of items: each is delivered byte for byte, or counted under one other name, whatever happens.

HALVEK_OUTBOX_STEPS says how many steps are taken beside those that always are; 10,000 take some minutes.
"""

import errno
import itertools
import os
import random
import secrets
import signal
import subprocess
import textwrap
from pathlib import Path

import pytest
from hypothesis import HealthCheck, Phase, example, given, settings
from hypothesis import strategies as st
from memory_disk import MemoryDisk
from outbox import FLASH, RAM, Outbox, make_private
from spool_calls import FAIL, KILL_AFTER, KILL_BEFORE, SpoolCalls
from testing.ftp_server import FtpServer
from testing.mail_sink import MailSink
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it starts hundreds of programs")

STEPS = int(os.environ.get("HALVEK_OUTBOX_STEPS", "0"))
STEPS_OF_ONE = 40
MAIL_PORT = 25
CONFIGURATION = "[Outbox]\nSpoolLimit=300K\nRamLimit=150K\nDurability={}\n[Mail]\nRelay=smtp://127.0.0.1:25\n"
UNCERTAIN_DELAY = 15 * 60  # seconds
FATES = ("delivered", "failed", "expired", "dropped", "uncertain")


class Accepted:
    def __init__(self, content: bytes, interruptions: int) -> None:
        self.content = content
        # Those from then on may have had the outbox send it once more, or not know that it has arrived.
        self.interruptions = interruptions


# What may happen, and with what.
STEPS_THERE_ARE: dict[str, list] = {
    "submit_picture": [1000, 0, 1, 30_000, 70_000, 200_000],
    "submit_mail": [2000, 1, 50_000],
    "change_ftp": ["none", "none", "refuse", "hang", "password"],
    "change_mail": [None],
    "restart": [signal.SIGKILL, signal.SIGKILL, signal.SIGTERM],
    "die_at_a_call": list(itertools.product(range(1, 13), [KILL_BEFORE, KILL_AFTER])),
    "fail_at_a_call": list(itertools.product(range(1, 9), [errno.ENOSPC, errno.EIO, errno.EROFS])),
    "change_durability": ["late", "early", "ram"],
    "flush": [None],
    "drop_one": [None],
    "step_clock": [-90_000, -60, 60, 90_000],
    "let_pass": [6, 6, 6, 3600, 90_000],
    "change_sync": [True, False],
    "fill": [FLASH.parent, RAM.parent],
    "make_space": [FLASH.parent, RAM.parent],
    "make_read_only": [None],
    "make_writable": [None],
}
# Half of all steps hand something over.
NAMES = [*["submit_picture"] * 12, *["submit_mail"] * 4, *STEPS_THERE_ARE]
a_step = st.sampled_from(NAMES).flatmap(lambda name: st.tuples(st.just(name), st.sampled_from(STEPS_THERE_ARE[name])))


def some_steps(seed: int) -> list[tuple]:
    """Begins with a server that is away. The first examples of hypothesis are small ones, and there are few here."""
    chance = random.Random(seed)
    names = [chance.choice(NAMES) for _ in range(STEPS_OF_ONE)]
    return [("change_ftp", "refuse"), *((name, chance.choice(STEPS_THERE_ARE[name])) for name in names)]


class Machine:
    """One camera with its servers, and what it knows of all that it has handed over."""

    def __init__(self, folder: Path) -> None:
        self.own = folder
        (self.own / "server").mkdir(parents=True)
        self.ftp = FtpServer(self.own / "server")
        self.sink: MailSink | None = MailSink(MAIL_PORT)
        self.mails: list[bytes] = []
        self.outbox = Outbox(self.own)
        self.disk = MemoryDisk(FLASH.parent, "size=512k,mode=700")
        self.ram = MemoryDisk(RAM.parent, "size=512k,mode=755")
        self.calls = SpoolCalls(self.own / "control")
        self.calls.set_synced(True)
        self.outbox.environment = dict(self.calls.environment)
        self.pictures: dict[str, Accepted] = {}
        self.mails_accepted: dict[str, Accepted] = {}
        self.refused: list[str] = []
        self.interruptions = 0
        self.kills = 0
        self.is_read_only = False
        self.outbox.configure(CONFIGURATION.format("late"))
        self.outbox.start()

    # --- what is handed over

    def submit_picture(self, size: int) -> None:
        content = secrets.token_bytes(size)
        name = f"/{len(self.pictures) + len(self.refused)}.jpg"
        local = self.own / "picture"
        local.write_bytes(content)
        result = self._submit("ftpput", "-u", "camera", "-p", "secret", "127.0.0.1", name, str(local))
        self._note(result, self.pictures, name, content)

    def submit_mail(self, size: int) -> None:
        subject = f"mail {len(self.mails_accepted) + len(self.refused)}"
        body = "\n".join([*textwrap.wrap(secrets.token_hex(size // 2)), ".", "..", "end"])
        text = f"From: camera@x.example\nTo: guard@x.example\nSubject: {subject}\n\n{body}\n"
        result = self._submit("esmtp", "-t", input=text.encode())
        self._note(result, self.mails_accepted, subject, body.replace("\n", "\r\n").encode() + b"\r\n")

    def _submit(self, *words: str, **options: object) -> subprocess.CompletedProcess:
        """Where nobody else could deliver it."""
        return self.outbox.submit(*words, environment={"PATH": str(self.outbox.programs)}, **options)

    def _note(self, result: subprocess.CompletedProcess, where: dict, name: str, content: bytes) -> None:
        if result.returncode == 0:
            where[name] = Accepted(content, self.interruptions)
        else:
            # Full, or it cannot be taken at all.
            assert result.returncode in (75, 1), result
            self.refused.append(name)

    # --- what happens to the servers

    def change_ftp(self, fault: str) -> None:
        self.interruptions += 1
        self.ftp.set_fault(fault)

    def change_mail(self, _: None) -> None:
        self.interruptions += 1
        if self.sink is None:
            self.sink = MailSink(MAIL_PORT)
        else:
            self._close_sink()

    def _close_sink(self) -> None:
        self.sink.close()
        self.mails += [mail.data for mail in self.sink.mails]
        self.sink = None

    # --- what happens to the service

    def restart(self, number: int) -> None:
        self.interruptions += 1
        self.kills += number == signal.SIGKILL
        self.outbox.stop(number)
        self.calls.disarm()
        self.outbox.start()

    def die_at_a_call(self, what: tuple[int, int]) -> None:
        """A kill in the middle of whatever it does to its files next."""
        call, mode = what
        self.interruptions += 1
        self.calls.arm(mode, call)
        self.outbox.run("flush")
        try:
            wait_until(lambda: self.outbox.process.poll() is not None, "it dies", patience=0.1)
        except AssertionError:
            self.outbox.process.kill()
        self.calls.disarm()
        self.kills += 1
        self.outbox.process.wait()
        self.outbox.start()

    def fail_at_a_call(self, what: tuple[int, int]) -> None:
        self.calls.arm(FAIL, *what)

    def change_durability(self, durability: str) -> None:
        self.outbox.configure(CONFIGURATION.format(durability))
        self.outbox.process.send_signal(signal.SIGHUP)

    def flush(self, _: None) -> None:
        assert self.outbox.run("flush").returncode == 0

    def drop_one(self, _: None) -> None:
        for item in self.outbox.answer("list")["items"][:1]:
            self.interruptions += item["state"] == "sending"
            self.outbox.run("drop", item["id"])

    # --- what happens to time and to the media

    def step_clock(self, seconds: int) -> None:
        self.calls.step_clock(seconds)

    def let_pass(self, seconds: int) -> None:
        self.calls.let_pass(seconds)

    def change_sync(self, is_synced: bool) -> None:
        self.calls.set_synced(is_synced)

    def fill(self, folder: Path) -> None:
        try:
            with (folder / "others").open("ab", buffering=0) as file:
                while file.write(bytes(4096)):
                    pass
        except OSError as failure:
            assert failure.errno in (errno.ENOSPC, errno.EROFS)

    def make_space(self, folder: Path) -> None:
        if folder != FLASH.parent or not self.is_read_only:
            (folder / "others").unlink(missing_ok=True)

    def make_read_only(self, _: None) -> None:
        if self.is_read_only:
            return
        try:
            self.disk.make_read_only()
            self.is_read_only = True
        except subprocess.CalledProcessError:
            pass  # something is just being written

    def make_writable(self, _: None) -> None:
        if self.is_read_only:
            self.disk.make_writable()
            self.is_read_only = False

    # --- what became of it all

    def check(self) -> None:
        self._settle()
        self._compare()

    def close(self) -> None:
        self.outbox.close()
        self.ftp.close()
        if self.sink is not None:
            self.sink.close()
        self.disk.take_away()
        self.ram.take_away()

    def _settle(self) -> None:
        """All is well again; what was uncertain goes out after a quarter of an hour, restart or not."""
        self.calls.disarm()
        self.interruptions += 1
        self.ftp.set_fault("none")
        if self.sink is None:
            self.sink = MailSink(MAIL_PORT)
        if self.is_read_only:
            self.disk.make_writable()
        for folder in (FLASH.parent, RAM.parent):
            (folder / "others").unlink(missing_ok=True)
        self.outbox.stop()
        self.outbox.start()
        self.calls.let_pass(UNCERTAIN_DELAY)

        def is_done() -> bool:
            self.outbox.run("flush")
            return self.outbox.counts()["queued"] == 0

        try:
            wait_until(is_done, "nothing is queued")
        except AssertionError as failure:
            raise AssertionError(f"{self.outbox.answer('list')}\n{self.outbox.log.read_text()}") from failure
        self._close_sink()
        wait_until(lambda: self.outbox.run("status").returncode == 0, "it answers")

    def _compare(self) -> None:
        log = self.outbox.log.read_text()
        counts = self.outbox.counts()
        accepted = len(self.pictures) + len(self.mails_accepted)
        assert sum(counts.values()) == accepted, (counts, accepted, log)
        arrived = self._compare_pictures(log) + self._compare_mails(log)
        # One that arrived unheard of may be counted otherwise: its answer went with a server or with the service.
        assert counts["delivered"] + counts["uncertain"] <= arrived <= counts["delivered"] + self.interruptions, log
        ended = [
            line.split()[0] for line in log.splitlines() if line.split()[1:2] and line.split()[1].strip(",") in FATES
        ]
        assert len(ended) == len(set(ended)), log
        assert accepted - self.kills <= len(ended) <= accepted, log
        for folder in (RAM, FLASH, *(place.with_name("tmp") for place in (RAM, FLASH))):
            assert list(folder.iterdir()) == [], folder
        for place in (RAM, FLASH):
            assert list(place.with_name("bad").iterdir()) == [], log

    def _compare_pictures(self, log: str) -> int:
        arrived = 0
        for name, picture in self.pictures.items():
            path = self.ftp.folder / name.removeprefix("/")
            if path.exists():
                assert path.read_bytes() == picture.content, (name, log)
                arrived += 1
        names = {path.name for path in self.ftp.folder.iterdir() if not path.name.endswith(".part")}
        assert names <= {name.removeprefix("/") for name in self.pictures}, log
        return arrived

    def _compare_mails(self, log: str) -> int:
        arrived = 0
        for subject, mail in self.mails_accepted.items():
            line = f"\r\nSubject: {subject}\r\n".encode()
            copies = [data for data in self.mails if line in data]
            assert all(data.partition(b"\r\n\r\n")[2] == mail.content for data in copies), (subject, log)
            assert len(copies) <= 1 + self.interruptions - mail.interruptions, (subject, log)
            arrived += bool(copies)
        known = [f"\r\nSubject: {subject}\r\n".encode() for subject in self.mails_accepted]
        assert all(any(line in data for line in known) for data in self.mails), log
        return arrived


def test_every_item_is_delivered_or_counted_under_one_other_name(tmp_path: Path):
    make_private(tmp_path)
    numbers = itertools.count()

    def live(steps: list[tuple]) -> None:
        folder = tmp_path / str(next(numbers))
        folder.mkdir()
        machine = Machine(folder)
        try:
            for name, what in steps:
                getattr(machine, name)(what)
            machine.check()
        finally:
            machine.close()

    for seed in range(4):
        live = example(some_steps(seed))(live)
    settings(
        max_examples=max(1, STEPS // STEPS_OF_ONE),
        deadline=None,
        database=None,
        suppress_health_check=list(HealthCheck),
        phases=[Phase.explicit, *([Phase.generate, Phase.shrink] if STEPS > 0 else [])],
    )(given(st.lists(a_step, min_size=STEPS_OF_ONE, max_size=STEPS_OF_ONE))(live))()
