"""A daemon that is short of something for a while: descriptors, memory, room on the card, the right time."""

import contextlib
import itertools
import os
import re
import subprocess
import time
from collections.abc import Callable, Iterator, Sequence
from functools import partial
from operator import itemgetter
from pathlib import Path

from memory_disk import memory_disk
from testing.users import HAS_USERS

from actions import LATER, probe, wait_for
from campaign import WRONG, Campaign, Trouble, has_started, judge
from faults import Fault
from scene import HANG, SANITIZED, Scene

DAY = 86400
# The last record of a daemon whose mail library got no memory, see the book's introduction.
SENDING_MAIL = "Sending email to guard@x.example"
ENOUGH = {"nofile": 1024, "nproc": 1024}
ZONES = Path("/usr/share/zoneinfo")
LIMITED = "short of "  # what the names of the rows begin with


def status(scene: Scene, name: str) -> int:
    text = Path(f"/proc/{scene.daemon.pid}/status").read_text()
    return int(re.search(rf"^{name}:\s+(\d+)", text, re.MULTILINE).group(1))


def limit(scene: Scene, what: str, soft: int | str) -> None:
    """As the daemon's user: not everywhere may root set another's limits."""
    command = ["setpriv", f"--reuid={status(scene, 'Uid')}", "prlimit"]
    subprocess.run([*command, "--pid", str(scene.daemon.pid), f"--{what}={soft}:"], check=True)


def spare_descriptors(scene: Scene, count: int) -> int:
    """The limit that lets the daemon open this many more; it is on their numbers, so gaps count."""
    used = {int(name) for name in os.listdir(f"/proc/{scene.daemon.pid}/fd")}
    return next(itertools.islice((number for number in itertools.count() if number not in used), count, None))


@contextlib.contextmanager
def ordinary_user(scene: Scene) -> Iterator[list[str]]:
    """Root may have as many processes as it likes. Gives what starts a program as a user of its own, who may do with
    files what root may; the bus has to find it in the list of users."""
    may, user = "+dac_override,+fowner", 100_000 + os.getpid()
    users, mails = scene.folder / "passwd", scene.folder / ".esmtprc"
    users.write_text(f"{Path('/etc/passwd').read_text()}tortured:x:{user}:0::/:/bin/false\n")
    subprocess.run(["mount", "-n", "--bind", users, "/etc/passwd"], check=True)
    os.chown(mails, user, 0)
    try:
        yield ["setpriv", f"--reuid={user}", f"--inh-caps={may}", f"--ambient-caps={may}", "--"]
    finally:
        os.chown(mails, 0, 0)
        subprocess.run(["umount", "-n", "/etc/passwd"], check=True)


def address_space(scene: Scene) -> int:
    return status(scene, "VmSize") * 1024


@contextlib.contextmanager
def few_descriptors(scene: Scene, spare: int) -> Iterator[None]:
    limit(scene, "nofile", spare_descriptors(scene, spare))
    yield
    limit(scene, "nofile", 1024)


@contextlib.contextmanager
def little_memory(scene: Scene, spare: int) -> Iterator[None]:
    limit(scene, "as", address_space(scene) + spare)
    yield
    limit(scene, "as", "unlimited")


@contextlib.contextmanager
def full_card(scene: Scene, size: int) -> Iterator[None]:
    """A card of its own, with what has to go and what has to stay, and no room for another picture."""
    card = scene.folder / "card"
    with memory_disk(card, f"size={size},mode=755"):
        (card / "old.jpg").write_bytes(bytes(4096))
        os.utime(card / "old.jpg", (1, 1))
        (card / "kept.jpg").write_bytes(bytes(size - 8192))
        yield
        assert sorted(scene.files_on_card()) in (["kept.jpg"], ["kept.jpg", "old.jpg"])


def check_time(scene: Scene, now: time.struct_time) -> None:
    """Events and records go by the clock as it is now, give or take a minute."""
    seen = len(scene.pipe.items)
    scene.wait_for_mark()
    stamp = next(event.properties["FormattedTime"] for event in scene.pipe.items[seen:] if event.type == "Mark")
    stamped = time.strptime(stamp, "%Y-%d-%mT%H:%M:%S+00:00")
    recorded = time.strptime(scene.daemon.log.items[-1][:19], "%Y-%m-%dT%H:%M:%S")
    for found in (stamped, recorded):
        if abs(time.mktime(found) - time.mktime(now)) > 60:
            raise Trouble(WRONG, f"the time is {time.asctime(found)} instead of {time.asctime(now)}")


@contextlib.contextmanager
def clock_set(scene: Scene, seconds: float) -> Iterator[None]:
    scene.faults.step_clock(seconds)
    yield
    check_time(scene, time.localtime(time.time() + seconds))
    scene.faults.step_clock(-seconds)


@contextlib.contextmanager
def zone_changed(scene: Scene, zone: str) -> Iterator[None]:
    """The daemon's records go by it after a signal."""
    subprocess.run(["mount", "-n", "--bind", ZONES / zone, "/etc/localtime"], check=True)
    try:
        yield
        # Ours is read once only.
        seconds = int(subprocess.check_output(["date", "+%:::z"], text=True)) * 3600
        check_time(scene, time.gmtime(time.time() + seconds))
    finally:
        subprocess.run(["umount", "-n", "/etc/localtime"], check=True)


SHORTAGES: dict[str, Callable[[Scene], contextlib.AbstractContextManager]] = {
    "descriptors, none left": lambda scene: few_descriptors(scene, 0),
    "descriptors, one left": lambda scene: few_descriptors(scene, 1),
    "descriptors, three left": lambda scene: few_descriptors(scene, 3),
    "memory, none left": lambda scene: little_memory(scene, 0),
    "memory, a MiB left": lambda scene: little_memory(scene, 1 << 20),
    "time, a day ahead": lambda scene: clock_set(scene, DAY),
    "time, a day behind": lambda scene: clock_set(scene, -DAY),
    "time, in another zone": lambda scene: zone_changed(scene, "Asia/Tokyo"),
}
STARTS = {
    "descriptors at the start": ("nofile", range(4, 24)),
    "memory at the start": ("as", [mib << 20 for mib in range(12, 120, 6)]),
    "stack at the start": ("stack", [kib << 10 for kib in (128, 256, 1024)]),
}

# Threads count: too few for them, enough for them alone, and for a shell without or with all that it starts.
PROCESSES = (5, 9, 10, 12)


class Starving:
    def __init__(self, campaign: Campaign) -> None:
        self.campaign = campaign
        self.scene = campaign.scene

    def run(self) -> None:
        for _, trial in self.campaign.mine(enumerate(self.trials()), itemgetter(0)):
            trial()

    def trials(self) -> Iterator[Callable[[], None]]:
        # A sanitizer takes as much memory as it likes.
        for name, shortage in SHORTAGES.items():
            if not (SANITIZED and name.startswith("memory")):
                yield partial(self.starve, name, shortage)
        yield self.fill_card
        for name, (what, limits) in STARTS.items():
            for soft in limits if what == "nofile" or not SANITIZED else ():
                yield partial(self.start_with, name, what, soft)
        # Who has no users to give away is root in a namespace of its own, and root may have as many as it likes.
        for soft in PROCESSES if HAS_USERS else ():
            yield partial(self.start_as_user, soft)

    def starve(self, name: str, shortage: Callable[[Scene], contextlib.AbstractContextManager]) -> None:
        """Everything is asked for while it lasts, and a reload; when it is over, a reload brings everything back."""
        scene, campaign = self.scene, self.campaign
        campaign.launch()
        campaign.warm_up()
        after = len(scene.daemon.log.items)
        lost, back, outcome, detail = set(), "", "", ""
        try:
            with shortage(scene):
                lost = probe(scene, LATER)
                scene.daemon.send(1)
                wait_for(lambda: scene.daemon.log.matching("TimerEventSource started|Error reloading", after), 2)
                scene.wait_until_main_waits()
                lost |= probe(scene, LATER)
                campaign.check_alive()
            campaign.reloads += 1
            _, back = campaign.check_all()
            if lost:
                back = back or "at once"
        except Trouble as trouble:
            outcome, detail = trouble.outcome, trouble.detail
        told = scene.told(after)
        self.note(name, outcome or judge(lost, told), lost, told, back if lost else "", detail)
        campaign.finish(name)

    def fill_card(self) -> None:
        """No room on the card: the folder's limit is kept, the picture is not saved, and nothing stays behind."""
        scene, campaign = self.scene, self.campaign
        campaign.launch()
        for size in (16384, 12288):
            scene.lay_out_card()
            after = len(scene.daemon.log.items)
            with full_card(scene, size):
                number = scene.post("Folder")
                scene.wait_for_mark()
                lost = set() if "new.jpg" in scene.files_on_card() else {"the saved snapshot"}
                assert scene.events("number", number) == 1
            told = scene.told(after)
            self.note("room on the card", judge(lost, told), lost, told, "at once")
            scene.lay_out_card()
            scene.post("Folder")
            scene.wait_for_mark()
            assert "new.jpg" in scene.files_on_card()
        campaign.finish("room on the card")

    def start_as_user(self, soft: int) -> None:
        with ordinary_user(self.scene) as prefix:
            self.start_with("processes at the start", "nproc", soft, prefix)
            self.scene.end_daemon()

    def start_with(self, name: str, what: str, soft: int, prefix: Sequence[str] = ()) -> None:
        scene, campaign = self.scene, self.campaign
        scene.end_daemon()
        campaign.reloads = 0
        daemon = scene.launch(prefix=["prlimit", f"--{what}={soft}:", "--", *prefix])
        wait_for(lambda: daemon.process.poll() is not None or has_started(daemon), HANG)
        lost: set[str] = set()
        outcome = detail = back = ""
        told = []
        if daemon.process.poll() is not None:
            status = daemon.wait_for_exit()
            told = scene.told(0)
            lost, back = {"everything"}, "after a restart"
            if status < 0 or not told:
                outcome, detail = "crash", f"status {status} with {what}={soft}"
        else:
            lost = probe(scene, LATER)
            told = scene.told(0)
            try:
                campaign.check_alive()
                limit(scene, what, ENOUGH.get(what, "unlimited"))
                back = campaign.check_all()[1] or "at once"
            except Trouble as trouble:
                if what == "as" and scene.daemon.log.items[-1].endswith(SENDING_MAIL):
                    return
                outcome, detail = trouble.outcome, f"{trouble.detail} with {what}={soft}"
        if what == "as" and any("loading shared libraries" in line for line in told):
            told = ["(the system cannot load it)"]
        self.note(name, outcome or judge(lost, told), lost, told, back if lost else "", detail)
        if scene.is_alive():
            campaign.finish(name)

    def note(self, name: str, outcome: str, lost: set[str], told: list[str], back: str, detail: str = "") -> None:
        self.scene.faults.watch()
        self.scene.faults.disarm()
        self.campaign.note(LIMITED + name, Fault(0, 0, 0), outcome, lost, told, back, detail)
