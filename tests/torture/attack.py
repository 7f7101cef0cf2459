"""The daemon under attack: what it may cost, and how well the others are served meanwhile."""

import contextlib
import os
import re
import subprocess
import sys
import time
from collections.abc import Iterator
from pathlib import Path
from statistics import mean
from typing import NamedTuple

from daemon_on_bus import alarm, connections
from testing.bus import PrivateBus
from testing.camera import LOCAL, VirtualCamera
from testing.daemon import PROGRAM, SANITIZER_REPORT, Daemon
from testing.pipes import DEFAULT_INPUT, PIPE_FOLDER, OutputPipe
from testing.processes import resident_kib
from testing.settings import SERVER, handler, source, timer
from testing.waiting import NotSeen, wait_until

from actions import wait_for
from scene import SANITIZED, SLOWNESS

ATTACKERS = Path(__file__).with_name("attackers.py")
MOST_KIB = 12 * 1024
MOST_LATE = 0.2 * SLOWNESS  # seconds
STOP_LIMIT = 2.0 * SLOWNESS  # seconds
RELOAD_LIMIT = 5.0 * SLOWNESS  # seconds
PACE = 0.1  # seconds
BUSY = 0.004  # seconds
ATTEMPTS = 3


class Attack(NamedTuple):
    name: str
    attackers: tuple[str, ...]


BUS = ("large_alerts", "small_alerts", "signals_to_connections")
POSTS = ("large_blocks", "large_line", "endless_block", "endless_line", "small_events")
ATTACKS = (
    Attack("a poster of blocks of 200 kB", ("large_blocks",)),
    Attack("a poster of lines of 200 kB", ("large_line",)),
    Attack("a block that never ends", ("endless_block",)),
    Attack("a line that never ends", ("endless_line",)),
    Attack("a poster of as many events as there is room for", ("small_events",)),
    Attack("alerts of 100 kB, as many as the bus takes", ("large_alerts",)),
    Attack("small alerts, as many as the bus takes", ("small_alerts",)),
    Attack("signals addressed to each of the daemon's connections", ("signals_to_connections",)),
    Attack("links, folders and pipes that come and go among the output pipes", ("strange_outputs",)),
    Attack("all of these at once", (*POSTS, *BUS, "strange_outputs")),
)


class Measured(NamedTuple):
    attack: Attack
    latest: float  # seconds
    machine: float  # how late a thread that only sleeps was at the same time
    most_kib: int
    reloaded: float
    stopped: float
    faults: list[str]

    def __str__(self) -> str:
        late = f"alarms at most {self.latest * 1e3:.0f} ms late (the machine {self.machine * 1e3:.0f})"
        return (
            f"{self.attack.name}: {late}, {self.most_kib} KiB, reload {self.reloaded:.2f} s, stop {self.stopped:.2f} s"
            + "".join(f"\n  FAULT: {fault}" for fault in self.faults)
        )


class Victim:
    """A daemon on a bus with a camera; alarms come in and go out at a pace while others attack."""

    def __init__(self, folder: Path) -> None:
        folder.mkdir()
        self.bus = PrivateBus(folder)
        self.camera = VirtualCamera(self.bus, folder / "camera")
        self.pipe = OutputPipe("Alarm.fifo")
        relay = handler(1, "Events/Source#1", handler_type="Relay", BankName=LOCAL, Mode=1)
        settings = SERVER | alarm(1, 1) | relay | source(2, "Analytics") | timer(3, 1)
        environment = dict(self.bus.environment)
        prefix = ["sh", "-c", 'exec 2>"$0" "$@"', folder / "log"]  # a log that costs this process nothing
        self.log = folder / "log"
        self.daemon = Daemon(
            folder, settings, level="Warning", environment=environment, prefix=[str(x) for x in prefix]
        )
        self.daemon.wait_until_ready()
        self.state = False

    def change_alarm(self) -> float:
        """How long it takes until the change comes out."""
        self.state = not self.state
        seen, started = len(self.pipe.items), time.monotonic()
        self.camera.set_alarm(LOCAL, 1, self.state)
        asked = time.monotonic() - started
        self.pipe.wait_for_event("Alarm", after=seen, patience=20)
        # What the bus and the camera need to answer us is not the daemon's.
        return max(0.0, self.pipe.time_of(len(self.pipe.items) - 1) - started - asked)

    def close(self) -> None:
        self.daemon.close()
        self.pipe.close()
        self.camera.close()
        self.bus.close()
        DEFAULT_INPUT.unlink(missing_ok=True)
        for path in PIPE_FOLDER.iterdir():
            path.rmdir() if path.is_dir() and not path.is_symlink() else path.unlink()


def start(name: str, victim: Victim) -> subprocess.Popen:
    arguments = [str(victim.bus.socket)] if name in BUS else []
    arguments += [str(victim.daemon.pid)] if name == "signals_to_connections" else []
    command = ["setpriv", "--pdeathsig", "KILL", sys.executable, "-B", str(ATTACKERS), name, *arguments]
    return subprocess.Popen(command, env=os.environ | {"HALVEK_DAEMON": PROGRAM})


@contextlib.contextmanager
def attacking(attack: Attack, victim: Victim) -> Iterator[list[subprocess.Popen]]:
    running = [start(name, victim) for name in attack.attackers]
    try:
        yield running
    finally:
        for process in running:
            process.kill()
            process.wait()


def lateness() -> float:
    """How much longer than it should a sleep takes."""
    started = time.monotonic()
    time.sleep(PACE)
    return time.monotonic() - started - PACE


def slowness() -> float:
    """How many times longer than alone a busy thread takes: the others have their share of the processor too."""
    wall, own = time.monotonic(), time.thread_time()
    while time.thread_time() - own < BUSY:
        pass
    return (time.monotonic() - wall) / BUSY


def run(attack: Attack, folder: Path, seconds: float) -> Measured:
    victim = Victim(folder)
    daemon, faults = victim.daemon, []
    latest = machine = reloaded = stopped = 0.0
    most_kib = 0
    slow = [1.0]
    try:
        victim.change_alarm()
        victim.change_alarm()
        wait_until(lambda: len(connections(victim.bus.client(), daemon)) >= 2, "connections")
        descriptors = len(os.listdir(f"/proc/{daemon.pid}/fd"))
        with attacking(attack, victim) as running:
            end = time.monotonic() + seconds
            while time.monotonic() < end and daemon.process.poll() is None:
                machine = max(machine, lateness())
                slow.append(slowness())
                latest = max(latest, victim.change_alarm())
                most_kib = max(most_kib, resident_kib(daemon.pid))
            faults += [f"{process.args[-1]} has ended" for process in running if process.poll() is not None]
            reloaded = time_reload(victim)
            used = len(os.listdir(f"/proc/{daemon.pid}/fd"))
            if not wait_for(lambda: len(os.listdir(f"/proc/{daemon.pid}/fd")) <= descriptors + 1, 2):
                faults.append(f"{used} descriptors, {descriptors} before, with one reload")
            started = time.monotonic()
            status = daemon.stop()
            stopped = time.monotonic() - started
        faults += [f"status {status}"] if status else []
    except (NotSeen, OSError) as error:
        faults.append(f"{error} {daemon.process.poll()}")
    finally:
        victim.close()
    text = victim.log.read_text(errors="replace")
    if re.search(SANITIZER_REPORT, text):
        faults.append(text[-5000:])
    if most_kib > MOST_KIB and not SANITIZED:
        faults.append(f"{most_kib} KiB")
    faults += [f"late: {latest:.3f} s"] if latest > MOST_LATE * mean(slow) + machine else []
    faults += [f"the stop takes {stopped:.2f} s"] if stopped > STOP_LIMIT else []
    faults += [f"the reload takes {reloaded:.2f} s"] if reloaded > RELOAD_LIMIT else []
    return Measured(attack, latest, machine, most_kib, reloaded, stopped, faults)


def time_reload(victim: Victim) -> float:
    """From the signal until all sources are there anew, which a new thread for the event pipe shows."""

    def listeners() -> set[str]:
        return set(os.listdir(f"/proc/{victim.daemon.pid}/task"))

    before, started = listeners(), time.monotonic()
    victim.daemon.send(1)
    wait_until(lambda: len(listeners() - before) >= 4, "the threads are new ones", 20 * SLOWNESS)
    took = time.monotonic() - started
    victim.change_alarm()
    return took


def run_best(attack: Attack, folder: Path, seconds: float) -> Measured:
    """A machine that stands still for a moment makes anybody late, so one of some attempts has to be well."""
    for attempt in range(ATTEMPTS):
        measured = run(attack, folder / f"attack{ATTACKS.index(attack)}-{attempt}", seconds)
        print(measured, flush=True)
        if not measured.faults:
            break
    return measured
