"""What the outbox promises in figures: what it costs, and what holds up whom, whatever goes wrong around it.

HALVEK_TEST_BY_HAND=1 takes all of the calls and 10,000 items, and prints the figures.
"""

import errno
import itertools
import os
import secrets
import signal
import statistics
import subprocess
import threading
import time
from collections.abc import Iterator
from pathlib import Path

import pytest
from outbox import FLASH, Outbox, SilentTargets, TalkativeTargets
from spool_calls import FAIL, KILL_AFTER, KILL_BEFORE, SpoolCalls
from testing.ftp_server import FtpServer
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is tried in release, with real servers")
pytest_plugins = ["outbox_fixtures"]

BY_HAND = bool(os.environ.get("HALVEK_TEST_BY_HAND"))
ACCOUNT = "[Target {name}]\nMatch={name}\nUrl=ftp://127.0.0.1:{port}\nUser=camera\nSecret=word\nAllowPlain=yes\n"
# Starts a program in a folder, with as large a core as may be.
LEAVES_CORES = ["sh", "-c", 'ulimit -c "$(ulimit -H -c)"; cd "$0" && exec "$@"']
# What a loaded machine may add to the figures, which are printed: it may stand still for a second.
STANDSTILL = 1.0


# --- calls that kill or fail


class Life:
    """A picture that fails first, and is delivered after a restart; the calls of all that have numbers."""

    def __init__(self, outbox: Outbox, ftp: FtpServer, calls: SpoolCalls, durability: str) -> None:
        self.outbox, self.ftp, self.calls = outbox, ftp, calls
        outbox.environment = dict(calls.environment)
        outbox.configure(f"[Outbox]\nDurability={durability}\n")
        self.pictures = 0
        self.accepted: dict[str, bytes] = {}
        self.before: dict[str, int] = {}

    def submit(self) -> None:
        self.pictures += 1
        name, content = f"/{self.pictures}.jpg", secrets.token_bytes(2000)
        local = self.outbox.folder / "picture"
        local.write_bytes(content)
        words = ("ftpput", "-u", "camera", "-p", "secret", "127.0.0.1", name, str(local))
        if self.outbox.submit(*words, environment={"PATH": str(self.outbox.programs)}).returncode == 0:
            self.accepted[name] = content

    def run(self) -> None:
        """It may end anywhere in here."""
        self.submit()
        self._ask("list")
        self.ftp.set_fault("none")
        self._ask("flush")
        try:
            wait_until(lambda: self.is_dead() or self._count("queued") == 0, "it is delivered", patience=5)
        except AssertionError:
            self._ask("flush")

    def is_dead(self) -> bool:
        return self.outbox.process.poll() is not None

    def _ask(self, verb: str) -> None:
        if not self.is_dead():
            self.outbox.run(verb)

    def _count(self, word: str) -> int:
        result = self.outbox.run("status")
        words = result.stdout.replace(",", " ").split()
        return int(words[words.index(word) + 1]) if word in words else -1

    def recover(self) -> None:
        """A picture that was accepted arrives, and is counted; one that was not may have."""
        self.calls.disarm()
        if not self.is_dead():
            self.outbox.stop()
        self.outbox.process.wait()
        self.outbox.start()
        self.ftp.set_fault("none")
        self.outbox.run("flush")
        self.outbox.wait_for(queued=0)
        for name, content in self.accepted.items():
            assert self.ftp.content(name) == content
        counts = self.outbox.counts()
        assert len(self.accepted) <= counts["delivered"] <= self.pictures, (counts, self.outbox.log.read_text())
        assert sum(counts.values()) == counts["delivered"], counts
        self.ftp.set_fault("refuse")


@pytest.mark.parametrize("durability", ["late", "early"])
def test_a_kill_or_an_error_at_any_call_costs_no_picture(
    outbox: Outbox, ftp: FtpServer, tmp_path: Path, durability: str
):
    calls = SpoolCalls(tmp_path / "control")
    life = Life(outbox, ftp, calls, durability)
    ftp.set_fault("refuse")
    outbox.start()
    calls.watch()
    life.run()
    there_are = calls.count
    life.recover()
    assert there_are > 10
    modes = [(KILL_BEFORE, 0), (KILL_AFTER, 0), (FAIL, errno.EIO), (FAIL, errno.ENOSPC)]
    cases = list(itertools.product(range(1, there_are + 1), modes))
    step = 1 if BY_HAND else len(cases) // 8
    for number, (mode, error) in cases[:: max(step, 1)]:
        calls.arm(mode, number, error)
        life.run()
        life.recover()
    print(f"{durability}: {there_are} calls, {len(cases[:: max(step, 1)])} failures, {len(life.accepted)} accepted")


# --- targets and each other


THREADS = 6  # each has a target of its own, and takes others along
MOST_AT_ONCE = 32


@pytest.fixture
def silent(request: pytest.FixtureRequest, outbox: Outbox) -> Iterator[SilentTargets]:
    """So many, and a server that is well."""
    targets = SilentTargets(request.param)
    outbox.configure(targets.settings + ACCOUNT.format(name="well", port=21), word="secret")
    outbox.start()
    yield targets
    targets.close()


def seconds_until_delivered(outbox: Outbox, times: int) -> list[float]:
    taken = []
    for _ in range(times):
        count = outbox.counts()["delivered"]
        begin = time.monotonic()
        outbox.put(b"picture", f"/{count}.jpg", host="well")
        outbox.wait_for(delivered=count + 1)
        taken.append(time.monotonic() - begin)
    return taken


@pytest.mark.parametrize("is_new", [False, True], ids=["one that is well", "a new one"])
@pytest.mark.parametrize("silent", [THREADS - 1, MOST_AT_ONCE - 1], indirect=True)
def test_targets_that_are_down_delay_no_other(outbox: Outbox, ftp: FtpServer, silent: SilentTargets, is_new: bool):
    alone = [] if is_new else seconds_until_delivered(outbox, 10)
    silent.hold_up(outbox)
    beside = seconds_until_delivered(outbox, 10)
    assert len(os.listdir(f"/proc/{outbox.process.pid}/task")) <= 1 + THREADS
    figures = " / ".join(
        f"{statistics.median(t) * 1000:.0f}, at worst {max(t) * 1000:.0f} ms" for t in (alone, beside) if t
    )
    print(f"alone / beside {len(silent.servers)} that are down: {figures}")
    # The first of a new one counts by itself: it would wait for the others' time-out.
    assert beside[0] < 0.1 + 2 * STANDSTILL
    assert is_new or statistics.median(beside) < statistics.median(alone) + 0.1 + STANDSTILL / 10


def test_servers_that_keep_all_threads_busy_delay_no_other(outbox: Outbox, ftp: FtpServer):
    targets = TalkativeTargets(THREADS)
    try:
        outbox.configure(targets.settings + ACCOUNT.format(name="well", port=21), word="secret")
        outbox.start()
        targets.hold_up(outbox)
        taken = seconds_until_delivered(outbox, 10)
    finally:
        targets.close()
    print(f"{statistics.median(taken) * 1000:.0f}, at worst {max(taken) * 1000:.0f} ms")
    assert statistics.median(taken) < 0.3 + STANDSTILL / 10


@pytest.mark.parametrize("silent", [MOST_AT_ONCE], indirect=True)
def test_a_stop_waits_for_no_server_however_many_are_silent(outbox: Outbox, silent: SilentTargets):
    silent.hold_up(outbox)
    begin = time.monotonic()
    assert outbox.stop() == 0
    taken = time.monotonic() - begin
    print(f"{taken * 1000:.0f} ms")
    assert taken < 1 + STANDSTILL


def test_many_items_for_a_server_that_comes_and_goes_leave_nothing_behind(outbox: Outbox, ftp: FtpServer):
    count = 10_000 if BY_HAND else 60
    outbox.start()
    process = Path(f"/proc/{outbox.process.pid}")

    def figures() -> tuple[int, int, int]:
        lines = (process / "status").read_text().splitlines()
        memory = next(int(line.split()[1]) for line in lines if line.startswith("RssAnon"))
        files = sum(
            path.is_file() for folder in (FLASH.parent, Path("/run/halvek-outbox")) for path in folder.rglob("*")
        )
        return memory, len(os.listdir(process / "fd")), files

    def settle(items: int) -> tuple[int, int, int]:
        def is_done() -> bool:
            outbox.run("flush")
            return outbox.counts()["queued"] == 0

        wait_until(is_done, "nothing is queued", patience=200)
        # No more than 500 wait for the server: then the oldest go.
        counts = outbox.counts()
        assert counts["delivered"] + counts["dropped"] == items, counts
        wait_until(lambda: len(os.listdir(process / "task")) == 1, "its threads have ended")
        return figures()

    before = None
    for number in range(count):
        if number % 20 == 5:
            ftp.set_fault("refuse")
        if number % 20 == 15:
            ftp.set_fault("none")
        outbox.put(secrets.token_bytes(500), f"/{number % 100}.jpg")
        if number == count // 3:
            ftp.set_fault("none")
            before = settle(number + 1)
    ftp.set_fault("none")
    after = settle(count)
    print(f"{count} items: kB, descriptors, files {before} -> {after}")
    assert after[1:] == before[1:]
    assert after[0] < before[0] + 512


# --- secrets


def processes() -> Iterator[Path]:
    return (path for path in Path("/proc").iterdir() if path.name.isdigit() and int(path.name) != os.getpid())


def test_no_process_file_or_log_shows_a_password(outbox: Outbox, ftp: FtpServer, tmp_path: Path):
    word = f"marker-{secrets.token_hex(8)}"
    ftp.password = word
    ftp.set_fault("none")
    outbox.configure(ACCOUNT.format(name="well", port=21), word=word)
    outbox.start(*LEAVES_CORES, str(tmp_path))
    found: list[str] = []
    samples = 0
    ending = threading.Event()

    def sample() -> None:
        nonlocal samples
        while not ending.is_set():
            samples += 1
            for process, name in itertools.product(processes(), ("cmdline", "environ")):
                try:
                    if word.encode() in (process / name).read_bytes():
                        found.append(f"{process}/{name}")
                except OSError:
                    pass  # it has ended

    sampler = threading.Thread(target=sample)
    sampler.start()
    for number in range(10):
        outbox.put(b"picture", f"/{number}.jpg", host="well", options="")
    outbox.wait_for(delivered=10)
    ftp.set_fault("password")
    held = outbox.put(b"picture", "/held.jpg", host="well")
    outbox.wait_for_state(held, "hold")
    ending.set()
    sampler.join()
    assert samples > 0 and found == []
    folders = (FLASH.parent, Path("/run/halvek-outbox"))
    files = [path for folder in folders for path in folder.rglob("*") if path.is_file()]
    assert files and all(word.encode() not in path.read_bytes() for path in (*files, outbox.log))
    assert all(path.stat().st_mode & 0o077 == 0 for path in files)
    for verb in ("status", "list"):
        assert word not in outbox.run(verb, "--format", "json").stdout
    # A crash leaves nothing to look into.
    assert cores_of(outbox.process, tmp_path) == []


def test_a_core_would_be_seen(tmp_path: Path):
    with subprocess.Popen([*LEAVES_CORES, str(tmp_path), "sleep", "60"]) as process:
        name = Path(f"/proc/{process.pid}/comm")
        wait_until(lambda: name.read_text() == "sleep\n", "it sleeps")
        assert cores_of(process, tmp_path) != []


def cores_of(process: subprocess.Popen, folder: Path) -> list[Path]:
    process.send_signal(signal.SIGABRT)
    process.wait()
    return list(folder.glob("core*"))
