"""Measures the daemon beside its peers and prints the report. Started by bench/run, with a /run of its own."""

import contextlib
import json
import os
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from collections.abc import Callable, Iterator, Sequence
from pathlib import Path
from typing import NamedTuple

from testing.bus import PrivateBus

HERE = Path(__file__).parent

THROUGHPUT_ROUNDS, THROUGHPUT_EVENTS = 25, 10_000
LATENCY_ROUNDS, LATENCY_EVENTS = 8, 1_000
BUS_ROUNDS, BUS_ALARMS = 9, 500
ISOLATION_EVENTS = 100
UPLOAD_HANGS = 5.0  # seconds
# What starting and stopping cost falls out of the difference between two counts.
STRACE_EVENTS = (1_000, 3_000)
CALLGRIND_EVENTS = (2_000, 12_000)
LOG_CALLS = (1_000, 101_000)
STARTS = 20
RELOADS = 20
PATIENCE = 60.0  # seconds
SETTLING = 1.0  # seconds after the start, before the memory is looked at


class Limit(NamedTuple):
    name: str
    value: float
    most: float | None = None
    least: float | None = None
    unit: str = ""

    def __str__(self) -> str:
        met = (self.most is None or self.value <= self.most) and (self.least is None or self.value >= self.least)
        bound = f"at most {self.most}" if self.least is None else f"at least {self.least}"
        return f"  {self.name:<46} {self.value:8.2f}{self.unit:<4} {bound:<14} {'met' if met else 'NOT MET'}"


class Programs:
    """The programs under measurement, as command lines."""

    def __init__(self, folder: Path) -> None:
        self.load = str(folder / "pipe_load")
        self.disabled_log = str(folder / "disabled_log")
        self.bus_load = str(folder / "bus_load")
        self.bus_peer = str(folder / "bus_peer")
        self.bare_process = [str(folder / "bare_process")]
        self.daemon = [str(folder / "halvek")]
        self.peer = [str(folder / "pipe_loop"), "/var/run/peer.pipe", "/var/run/peer"]
        # Alone under load, the peer takes the daemon's place.
        self.lone_peer = [str(folder / "pipe_loop"), "/var/run/halvek.pipe", "/var/run/halvek"]


def environment(settings: str, level: str = "Warning", **more: str) -> dict[str, str]:
    inherited = {name: value for name, value in os.environ.items() if name not in ("JOURNAL_STREAM", "TZ")}
    return inherited | {"KELTO_SETTINGS": str(HERE / settings), "KELTO_LOG": level} | more


def run(command: Sequence[str], settings: str = "server.ini", **variables: str) -> subprocess.CompletedProcess:
    """Runs a program, with the settings of the event server if none are named; what it says is shown if it fails."""
    result = subprocess.run(command, env=environment(settings, **variables), capture_output=True, text=True)
    if result.returncode != 0:
        raise RuntimeError(f"{' '.join(command)} failed:\n{result.stderr.strip()}")
    return result


def title(text: str) -> None:
    print(f"\n{text}\n{'-' * len(text)}", flush=True)


class Pair(NamedTuple):
    """A figure of the daemon and of its peer, round by round."""

    daemon: list[float]
    peer: list[float]

    def ratios(self) -> list[float]:
        return [daemon / peer for daemon, peer in zip(self.daemon, self.peer, strict=True)]

    def ratio(self) -> float:
        return statistics.median(self.ratios())

    def show(self, name: str, unit: str) -> None:
        daemon, peer, ratios = statistics.median(self.daemon), statistics.median(self.peer), self.ratios()
        spread = f"{min(ratios):.2f} to {max(ratios):.2f}"
        print(f"  {name:<24} {daemon:10.2f} {peer:10.2f} {unit:<9} {self.ratio():6.3f}   {spread}")


def measure_side_by_side(programs: Programs, mode: str, rounds: int, events: int) -> Callable[[str], Pair]:
    """Runs the load on both programs; returns a look-up of a figure by its name."""
    command = [programs.load, mode, str(rounds), str(events), *programs.daemon, "--", *programs.peer]
    figures: dict[tuple[str, str], list[float]] = {}
    for line in run(command).stdout.splitlines():
        who, *words = line.split()
        for name, value in zip(words[::2], words[1::2], strict=True):
            figures.setdefault((who, name), []).append(float(value))
    return lambda name: Pair(figures["daemon", name], figures["peer", name])


def show_heading() -> None:
    print(f"  {'median of the rounds':<24} {'daemon':>10} {'peer':>10} {'':<9} {'ratio':>6}   its range")


def measure_throughput(programs: Programs) -> list[Limit]:
    events = THROUGHPUT_EVENTS
    title(f"Events through the pipe, {THROUGHPUT_ROUNDS} rounds of {events:,}, daemon and peer in turns")
    figures = measure_side_by_side(programs, "throughput", THROUGHPUT_ROUNDS, events)
    seconds, processor = figures("seconds"), figures("processor-seconds")
    cost = Pair(*([second / events * 1e6 for second in side] for side in processor))
    rate = Pair(*([events / second for second in side] for side in seconds))
    show_heading()
    cost.show("processor time an event", "us")
    rate.show("events a second", "")
    print(f"  All {THROUGHPUT_ROUNDS * events:,} numbered events came out of both: none lost, doubled or out of order.")
    return [
        Limit("processor time an event, ratio", cost.ratio(), most=1.12),
        Limit("events a second, ratio", rate.ratio(), least=0.9),
    ]


def measure_latency(programs: Programs) -> list[Limit]:
    title(f"Single events, 100 a second, {LATENCY_ROUNDS} rounds of {LATENCY_EVENTS:,}, daemon and peer in turns")
    figures = measure_side_by_side(programs, "latency", LATENCY_ROUNDS, LATENCY_EVENTS)
    median, tail = (Pair(*([second * 1e6 for second in side] for side in figures(name))) for name in ("p50", "p99"))
    show_heading()
    median.show("latency, p50", "us")
    tail.show("latency, p99", "us")
    return [
        Limit("latency at p50, ratio", median.ratio(), most=1.05),
        Limit("latency at p99, ratio", tail.ratio(), most=1.3),
    ]


def run_on_bus(command: Sequence[str], settings: str = "bus.ini", **variables: str) -> list[list[str]]:
    """Runs a program on a bus of its own; returns the words of each line that it prints."""
    with tempfile.TemporaryDirectory(prefix="halvek-bench-") as folder:
        with contextlib.closing(PrivateBus(Path(folder))) as bus:
            lines = run(command, settings, **bus.environment, **variables).stdout.splitlines()
    # The daemon leaves its event pipe behind; the next load wants to make it.
    Path("/var/run/halvek.pipe").unlink(missing_ok=True)
    return [line.split() for line in lines]


def measure_bus(programs: Programs) -> list[Limit]:
    title(f"From an alarm on the bus to its relay, 100 a second, {BUS_ROUNDS} rounds of {BUS_ALARMS}, in turns")
    two, one = ([programs.bus_peer, number, calls] for number, calls in (("1", "two"), ("2", "one")))
    command = [programs.bus_load, "latency", str(BUS_ROUNDS), str(BUS_ALARMS), *programs.daemon, "--", *two, "--", *one]
    times: dict[tuple[str, str], list[float]] = {}
    for who, *words in run_on_bus(command):
        for name, seconds in zip(words[::2], words[1::2], strict=True):
            times.setdefault((who, name), []).append(float(seconds) * 1e6)
    show_heading()
    print("  the peer asks for the relay's configuration, then activates it, as the daemon does:")
    same_calls = {name: Pair(times["0", name], times["1", name]) for name in ("p50", "p99")}
    for name, pair in same_calls.items():
        pair.show(f"latency, {name}", "us")
    print("  the peer activates the relay, and that is all:")
    for name in ("p50", "p99"):
        Pair(times["0", name], times["2", name]).show(f"latency, {name}", "us")
    return [Limit("alarm to relay at p50, ratio, same calls", same_calls["p50"].ratio(), most=1.5)]


def show_paces(lines: list[list[str]]) -> dict[str, float]:
    """Returns the figures of the pace while alarms came, in seconds."""
    paces = {words[0]: dict(zip(words[1::2], map(float, words[2::2]), strict=True)) for words in lines}
    for name, text in (("quiet", "no alarms"), ("alarms", "an alarm a second")):
        median, worst = (paces[name][figure] * 1e3 for figure in ("median", "worst"))
        print(f"  {text:<24} from one event to the next: median {median:6.1f} ms, longest {worst:6.1f} ms")
    return paces["alarms"]


def measure_isolation(programs: Programs) -> list[Limit]:
    title(f"{ISOLATION_EVENTS} posted events, one every 100 ms, beside a relay service that answers after 3 s")
    pace = show_paces(run_on_bus([programs.bus_load, "isolation", str(ISOLATION_EVENTS), *programs.daemon]))
    print(f"  The relay service took {pace['calls']:.0f} calls meanwhile.")
    return [Limit("longest gap beside a slow relay", pace["worst"] * 1e3, most=200, unit="ms")]


@contextlib.contextmanager
def silent_ftp_server() -> Iterator[list[float]]:
    """Says nothing to anybody for a while and then hangs up; gives when who came, as the list grows."""
    arrivals: list[float] = []

    def keep_waiting(listener: socket.socket) -> None:
        with contextlib.suppress(OSError):  # shut down
            while True:
                connection, _ = listener.accept()
                arrivals.append(time.monotonic())
                timer = threading.Timer(UPLOAD_HANGS, connection.close)
                timer.daemon = True
                timer.start()

    with socket.create_server(("127.0.0.1", 21)) as server:
        thread = threading.Thread(target=keep_waiting, args=[server])
        thread.start()
        try:
            yield arrivals
        finally:
            server.shutdown(socket.SHUT_RDWR)
            thread.join()


def measure_upload(programs: Programs) -> list[Limit]:
    title(f"{ISOLATION_EVENTS} posted events, one every 100 ms, beside ftpput that hangs for {UPLOAD_HANGS:.0f} s")
    busybox = shutil.which("busybox")
    if busybox is None:
        raise RuntimeError("there is no busybox to upload with")
    command = [programs.bus_load, "pace", str(ISOLATION_EVENTS), *programs.daemon]
    with tempfile.TemporaryDirectory(prefix="halvek-bench-") as folder, silent_ftp_server() as arrivals:
        Path(folder, "ftpput").symlink_to(busybox)
        pace = show_paces(run_on_bus(command, "upload.ini", PATH=f"{folder}:{os.environ['PATH']}"))
    if len(arrivals) < 2 or arrivals[1] - arrivals[0] < UPLOAD_HANGS:
        raise RuntimeError(f"no upload has hung for {UPLOAD_HANGS} s: they came at {arrivals}")
    print(f"  {len(arrivals)} uploads hung meanwhile.")
    return [Limit("longest gap beside an upload that hangs", pace["worst"] * 1e3, most=200, unit="ms")]


def count_system_calls(command: Sequence[str], under_load: Sequence[str] = ()) -> dict[str, int]:
    with tempfile.NamedTemporaryFile("r", prefix="halvek-bench-") as table:
        run([*under_load, "strace", "-c", "-f", "-o", table.name, *command])
        rows = [line.split() for line in table.read().splitlines()]
    return {row[-1]: int(row[3]) for row in rows if len(row) >= 5 and row[3].isdigit()}


def calls_an_event(programs: Programs, command: Sequence[str]) -> tuple[dict[str, int], dict[str, float]]:
    """The calls of the longer run, and what an event adds."""
    fewer, more = (
        count_system_calls(command, [programs.load, "throughput", "1", str(events)]) for events in STRACE_EVENTS
    )
    events = STRACE_EVENTS[1] - STRACE_EVENTS[0]
    return more, {name: (calls - fewer.get(name, 0)) / events for name, calls in more.items()}


def measure_system_calls(programs: Programs) -> list[Limit]:
    title(f"System calls: strace -c -f, {STRACE_EVENTS[1]:,} events and 200 to warm up, from start to end")
    daemon, daemon_event = calls_an_event(programs, programs.daemon)
    peer, peer_event = calls_an_event(programs, programs.lone_peer)
    print(f"  {'':<18} {'calls':>9} {'calls':>9}   {'an event':>9} {'an event':>9}")
    print(f"  {'':<18} {'daemon':>9} {'peer':>9}   {'daemon':>9} {'peer':>9}")
    for name in sorted(daemon | peer, key=lambda name: (-peer.get(name, 0), -daemon.get(name, 0))):
        print(
            f"  {name:<18} {daemon.get(name, 0):>9} {peer.get(name, 0):>9}"
            f"   {daemon_event.get(name, 0):>9.2f} {peer_event.get(name, 0):>9.2f}"
        )
    # A select that ran into its timeout while strace held everything up is none of the event's.
    surplus = sum(max(0, round(daemon_event[name] - peer_event.get(name, 0), 2)) for name in daemon if name != "total")
    return [Limit("system calls an event beyond the peer's", surplus, most=0)]


def count_instructions(command: Sequence[str], under_load: Sequence[str] = ()) -> int:
    callgrind = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"]
    result = run([*under_load, *callgrind, *command])
    collected = re.search(r"Collected : (\d+)", result.stderr)
    if collected is None:
        raise RuntimeError(f"valgrind counted nothing:\n{result.stderr}")
    return int(collected.group(1))


def instructions_an_event(programs: Programs, command: Sequence[str]) -> float:
    fewer, more = (
        count_instructions(command, [programs.load, "throughput", "1", str(events)]) for events in CALLGRIND_EVENTS
    )
    return (more - fewer) / (CALLGRIND_EVENTS[1] - CALLGRIND_EVENTS[0])


def measure_instructions(programs: Programs) -> list[Limit]:
    title("Instructions in user space, as callgrind counts them")
    daemon = instructions_an_event(programs, programs.daemon)
    peer = instructions_an_event(programs, programs.lone_peer)
    print(f"  an event: daemon {daemon:,.0f}, peer {peer:,.0f}: {daemon / peer:.1f} of it")
    return [Limit("instructions an event", daemon, most=17_000)]


def measure_disabled_log(programs: Programs) -> list[Limit]:
    title("A Debug call while the level is Warning")
    options = ["--benchmark_format=json", "--benchmark_repetitions=5", "--benchmark_report_aggregates_only=true"]
    benchmarks = json.loads(run([programs.disabled_log, *options]).stdout)["benchmarks"]
    times = {entry["run_name"]: entry["cpu_time"] for entry in benchmarks if entry["aggregate_name"] == "median"}
    print(f"  processor time: {times['DisabledDebug']:.2f} ns, an empty loop {times['EmptyLoop']:.2f} ns")

    commands = [[programs.disabled_log, f"--calls={count}"] for count in LOG_CALLS]
    calls = LOG_CALLS[1] - LOG_CALLS[0]
    fewer, more = map(count_instructions, commands)
    print(f"  instructions: {(more - fewer) / calls:.1f} a call, loop included")
    fewer, more = (count_system_calls(command)["total"] for command in commands)
    print(f"  system calls: {more - fewer} in {calls:,} calls")
    return [Limit("system calls of a disabled log call", (more - fewer) / calls, most=0)]


@contextlib.contextmanager
def started(command: Sequence[str], settings: str, **options) -> Iterator[tuple[subprocess.Popen, float]]:
    """Runs a program from its start to READY=1; gives it and the seconds that this took."""
    with tempfile.TemporaryDirectory(prefix="halvek-bench-") as folder:
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notifications:
            notifications.bind(f"{folder}/notify")
            notifications.settimeout(PATIENCE)
            level = options.pop("level", "Warning")
            variables = environment(settings, level, NOTIFY_SOCKET=f"{folder}/notify")
            begin = time.perf_counter()
            process = subprocess.Popen(command, env=variables, **{"stderr": subprocess.DEVNULL} | options)
            try:
                if notifications.recv(100) != b"READY=1":
                    raise RuntimeError(f"{command[0]} does not get ready")
                yield process, time.perf_counter() - begin
                process.send_signal(signal.SIGTERM)
                process.wait(PATIENCE)
            finally:
                process.kill()
                process.wait()


def read_fields(path: str) -> dict[str, str]:
    lines = Path(path).read_text(encoding="utf-8").splitlines()
    return {name: value.strip() for name, _, value in (line.partition(":") for line in lines)}


def show_memory(name: str, command: Sequence[str]) -> float:
    """Returns the resident set in MiB."""
    with started(command, "idle.ini") as (process, _):
        time.sleep(SETTLING)
        rollup = read_fields(f"/proc/{process.pid}/smaps_rollup")
        threads = read_fields(f"/proc/{process.pid}/status")["Threads"]
    resident, proportional = (int(rollup[key].split()[0]) / 1024 for key in ("Rss", "Pss"))
    print(f"  {name:<34} {resident:6.2f} MiB resident, {proportional:5.2f} MiB proportional, threads: {threads}")
    return resident


def measure_memory(programs: Programs) -> list[Limit]:
    title("Memory")
    resident = show_memory("idle daemon with timer and server", programs.daemon)
    show_memory("bare C++ program with libsystemd", programs.bare_process)
    return [Limit("resident set of the idle daemon", resident, most=4.9, unit="MiB")]


def start_time(command: Sequence[str]) -> float:
    times = []
    for _ in range(STARTS):
        with started(command, "idle.ini") as (_, seconds):
            times.append(seconds)
    return statistics.median(times)


def reload_time(command: Sequence[str]) -> float:
    """From the SIGHUP until the log says that the last source has started; logging is part of it."""
    times = []
    with started(command, "idle.ini", level="Information", stderr=subprocess.PIPE, text=True) as (process, _):
        log = iter(process.stderr.readline, "")

        def wait_for_last_source() -> None:
            next(line for line in log if "TimerEventSource started" in line)

        wait_for_last_source()
        for _ in range(RELOADS):
            begin = time.perf_counter()
            process.send_signal(signal.SIGHUP)
            wait_for_last_source()
            times.append(time.perf_counter() - begin)
        process.stderr.close()
    return statistics.median(times)


def show_start_and_reload(programs: Programs) -> None:
    title("Start and reload, for information")
    print(f"  start to READY=1: {start_time(programs.daemon) * 1e3:.1f} ms", end="")
    print(f", the bare program {start_time(programs.bare_process) * 1e3:.1f} ms (medians of {STARTS})")
    print(f"  reload: {reload_time(programs.daemon) * 1e3:.2f} ms, log included (median of {RELOADS})")


def show_machine() -> None:
    model = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text(encoding="utf-8"))
    system = os.uname()
    print(f"{model.group(1) if model else system.machine}, {os.cpu_count()} processors, Linux {system.release}")
    print(f"load average at the start: {os.getloadavg()[0]:.2f}")


def main() -> int:
    programs = Programs(Path(sys.argv[1]))
    show_machine()
    limits: list[Limit] = []
    try:
        limits += measure_throughput(programs)
        limits += measure_latency(programs)
        limits += measure_bus(programs)
        limits += measure_isolation(programs)
        limits += measure_upload(programs)
        limits += measure_system_calls(programs)
        limits += measure_instructions(programs)
        limits += measure_disabled_log(programs)
        limits += measure_memory(programs)
        show_start_and_reload(programs)
    except (RuntimeError, OSError, subprocess.SubprocessError) as error:
        print(f"bench/run: {error}", file=sys.stderr)
        return 1
    title("Limits")
    print("  All 250,000 events passed on, none lost, doubled or out of order")
    print(*limits, sep="\n")
    return 0


sys.exit(main())
