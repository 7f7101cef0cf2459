"""Measures what the daemon takes up, and how long it takes to start and to reload. Started by bench/footprint."""

import contextlib
import os
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time
from collections.abc import Iterator
from pathlib import Path
from typing import NamedTuple

from testing.bus import PrivateBus
from testing.camera import VirtualCamera

STARTS = 20
RELOADS = 50
COUNTS = (1, 10, 100, 1000)
SOURCES = (1, 11)
PATIENCE = 60.0  # seconds
SETTLING = 1.0  # seconds after the start or the last reload, before the memory is looked at
MOST_READY, MOST_RELOAD, MOST_ARMHF = 30.0, 10.0, 600.0  # ms, ms for 100 handlers, KiB
MOST_CURVE = 1.5  # what a handler among a thousand costs, by what it costs among a hundred
TICKS = Path("/var/run/halvek/reload.Timer")

SERVER = "[Applications/halvek/Server]\nType=Pipe\n[Video/Quickview]\nSnapshotPath=/tmp/snapshot/img2.jpg\n"
TIMER = "[Events/Source#Z]\nType=Timer\n[Events/Source#Z/Timer]\nInterval.sec=3600\n"
SNAPSHOT = "DestName=%H%M%S.jpg\nAttachment=true\n"
OWN_KEYS = {
    "Relay": "BankName=Local\nPulseCount=3\n",
    "Preset": "Id=3\n",
    "Tour": "Id=1\n",
    "Folder": f"DestinationPath=/tmp\nLimitSize=500M\n{SNAPSHOT}",
    "Ftp": f"Server=ftp.example.org\nUsername=camera\nPassword=secret\n{SNAPSHOT}",
    "Email": "To=guard@example.org\nFrom=camera@example.org\nSubject=Alarm\nMessage=QXQgJUg6JU0K\nAttachment=true\n",
    "Extern": "",
}


class Reload(NamedTuple):
    """Milliseconds, and of a processor: others that are busy count in the first only."""

    duration: float
    processor: float
    memory: "Memory"


class Memory(NamedTuple):
    resident: int  # KiB
    proportional: int  # KiB
    threads: int


def handler(number: int, kind: str, keys: str) -> str:
    """The groups of a handler that an alarm triggers."""
    group = f"Events/Handler#{number:04}"
    return f"[{group}]\nType={kind}\n[{group}/SourceIds]\n0=Events/Source#A0\n[{group}/{kind}]\n{keys}"


def handlers(count: int) -> str:
    """Handlers of all types in turns; none has to ask the camera for anything."""
    kinds = list(OWN_KEYS.items())
    return "".join(handler(number, *kinds[number % len(kinds)]) for number in range(count))


def alarms(count: int, keys: str = "BankName=Local\n") -> str:
    groups = ((f"Events/Source#A{number}", number) for number in range(count))
    return "".join(f"[{group}]\nType=Alarm\n[{group}/Alarm]\n{keys}Index={number}\n" for group, number in groups)


def everything() -> str:
    """A handler of each type and two alarms; whatever can be left to the camera is asked for."""
    kinds = OWN_KEYS | {"Relay": "PulseCount=3\n"}
    return SERVER + TIMER + alarms(2, "") + "".join(handler(i, *kind) for i, kind in enumerate(kinds.items()))


class Bench:
    """The daemon on a bus with a virtual camera; what it logs goes through a pipe to somebody else."""

    def __init__(self, program: Path, folder: Path, bus: PrivateBus) -> None:
        self.program = program
        self.settings = folder / "settings.ini"
        self.notify = folder / "notify"
        foreign = ("JOURNAL_STREAM", "KELTO_LOG", "TZ")
        inherited = {name: value for name, value in os.environ.items() if name not in foreign}
        own = {"KELTO_SETTINGS": str(self.settings), "NOTIFY_SOCKET": str(self.notify)}
        self.environment = inherited | own | bus.environment

    @contextlib.contextmanager
    def started(self, settings: str) -> Iterator[tuple[subprocess.Popen, float]]:
        """The process, and the milliseconds from before its start to READY=1."""
        self.settings.write_text(settings)
        self.notify.unlink(missing_ok=True)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notifications, journal() as log:
            notifications.bind(str(self.notify))
            notifications.settimeout(PATIENCE)
            begin = time.perf_counter()
            process = subprocess.Popen([self.program], env=self.environment, stderr=log)
            try:
                if notifications.recv(100) != b"READY=1":
                    raise RuntimeError(f"{self.program} does not get ready")
                yield process, (time.perf_counter() - begin) * 1e3
                process.send_signal(signal.SIGTERM)
                process.wait(PATIENCE)
            finally:
                process.kill()
                process.wait()

    def start_time(self, settings: str) -> float:
        times = []
        for _ in range(STARTS):
            with self.started(settings) as (_, milliseconds):
                times.append(milliseconds)
        return statistics.median(times)

    def memory(self, settings: str) -> Memory:
        with self.started(settings) as (process, _):
            return memory_of(process)

    def reload(self, settings: str) -> Reload:
        """From SIGHUP to the tick of the source that starts last, and the memory after all reloads."""
        times = []
        with ticks() as arrivals, self.started(settings) as (process, _):
            wait_for_tick(arrivals)
            for _ in range(RELOADS):
                begin, used = time.perf_counter(), processor_time(process)
                process.send_signal(signal.SIGHUP)
                wait_for_tick(arrivals)
                times.append(((time.perf_counter() - begin) * 1e3, processor_time(process) - used))
            duration, processor = map(statistics.median, zip(*times))
            return Reload(duration, processor, memory_of(process))


@contextlib.contextmanager
def journal() -> Iterator[int]:
    """The end of a pipe that another process empties."""
    with subprocess.Popen(["cat"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL) as reader:
        yield reader.stdin.fileno()


@contextlib.contextmanager
def ticks() -> Iterator[int]:
    os.mkfifo(TICKS)
    descriptor = os.open(TICKS, os.O_RDWR)
    try:
        yield descriptor
    finally:
        os.close(descriptor)
        TICKS.unlink()


def wait_for_tick(descriptor: int) -> None:
    if not os.read(descriptor, 4096).endswith(b"\n.\n"):
        raise RuntimeError("the timer's event came in pieces")


def processor_time(process: subprocess.Popen) -> float:
    """Of the main thread, which makes the configurations, in milliseconds."""
    return int(Path(f"/proc/{process.pid}/schedstat").read_text().split()[0]) / 1e6


def memory_of(process: subprocess.Popen) -> Memory:
    time.sleep(SETTLING)
    texts = "".join(Path(f"/proc/{process.pid}/{name}").read_text() for name in ("smaps_rollup", "status"))
    return Memory(*(int(re.search(rf"^{key}:\s+(\d+)", texts, re.M)[1]) for key in ("Rss", "Pss", "Threads")))


def stripped_size(program: Path, strip: str) -> float:
    """KiB."""
    with tempfile.NamedTemporaryFile() as file:
        subprocess.run([strip, "-o", file.name, program], check=True)
        return os.stat(file.name).st_size / 1024


def limit(name: str, value: float, most: float, unit: str) -> None:
    print(f"  {name:<46} {value:8.2f} {unit:<4} at most {most:<6} {'met' if value <= most else 'NOT MET'}")


def show_sizes(program: Path) -> None:
    print(f"stripped, {os.uname().machine}: {stripped_size(program, 'strip'):.0f} KiB")
    armhf = program.parents[2] / "armhf/bin/halvek"
    strip = shutil.which("arm-linux-gnueabihf-strip")
    if armhf.exists() and strip:
        limit("stripped, armhf", stripped_size(armhf, strip), MOST_ARMHF, "KiB")
    else:
        print("stripped, armhf: there is none in build/armhf")


def show_memory(name: str, memory: Memory) -> None:
    print(f"  {name:<46} {memory.resident} KiB resident, {memory.proportional} proportional, {memory.threads} threads")


def show_growth(bench: Bench) -> None:
    for kind, settings in (("timer", timers), ("alarm", alarms)):
        few, many = (bench.memory(SERVER + settings(count)) for count in SOURCES)
        grown, threads = ((many[i] - few[i]) / (SOURCES[1] - SOURCES[0]) for i in (1, 2))
        print(f"  a source more ({kind}): {grown:.0f} KiB proportional, {threads:.0f} thread")


def timers(count: int) -> str:
    groups = (f"Events/Source#T{number}" for number in range(count))
    return "".join(f"[{group}]\nType=Timer\n[{group}/Timer]\nInterval.sec=3600\n" for group in groups)


def show_reloads(bench: Bench) -> None:
    measured = {count: bench.reload(SERVER + alarms(1) + handlers(count) + TIMER) for count in COUNTS}
    for count, (duration, processor, memory) in measured.items():
        show_memory(f"{count:>4} handlers: reload {duration:6.2f} ms, processor {processor:6.2f}", memory)
    steps = [(measured[some], measured[more], more - some) for some, more in ((1, 100), (100, 1000))]
    each = [(after.processor - before.processor) / count * 1e3 for before, after, count in steps]
    grown = [(after.memory.proportional - before.memory.proportional) / count for before, after, count in steps]
    print(f"  a handler more, up to 100: {each[0]:.1f} us of a processor, {grown[0]:.2f} KiB proportional")
    print(f"  a handler more, up to 1000: {each[1]:.1f} us of a processor, {grown[1]:.2f} KiB proportional")
    limit("reload of 100 handlers", measured[100].duration, MOST_RELOAD, "ms")
    limit("a handler among 1000 by one among 100", each[1] / each[0], MOST_CURVE, "")


def main() -> int:
    program = Path(sys.argv[1]) / "halvek"
    show_sizes(program)
    print(f"load average at the start: {os.getloadavg()[0]:.2f}")
    with tempfile.TemporaryDirectory(prefix="halvek-bench-") as name, contextlib.ExitStack() as stack:
        folder = Path(name)
        bus = stack.enter_context(contextlib.closing(PrivateBus(folder)))
        stack.enter_context(VirtualCamera(bus, folder, program=str(program.with_name("kelto-vcam"))))
        bench = Bench(program, folder, bus)
        show_memory("the event pipe and a timer", bench.memory(SERVER + TIMER))
        show_memory("two alarms, a timer and all seven handlers", bench.memory(everything()))
        show_growth(bench)
        limit(f"start to READY=1 (median of {STARTS})", bench.start_time(everything()), MOST_READY, "ms")
        show_reloads(bench)
    return 0


sys.exit(main())
