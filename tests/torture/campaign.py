"""Makes one call of the daemon fail after the other, and judges what comes of it."""

import signal
import sys
import time
from collections import Counter, defaultdict
from collections.abc import Iterable, Iterator
from itertools import islice
from typing import NamedTuple, TypeVar

from daemon_process import NotSeen
from harness import SANITIZER_REPORT, wait_until

from actions import PART, TWICE, Action, Posting, probe, threads, wait_for
from faults import ERRORS, Fault
from scene import HANG, SLOWNESS, STOP_LIMIT, Scene

T = TypeVar("T")
# From best to worst.
HARMLESS, SAID, SILENT, HANGS, CRASHES, WRONG = OUTCOMES = ("harmless", "said", "silent", "hang", "crash", "wrong")
BAD = (HANGS, CRASHES, WRONG)
AT_ONCE, NEXT_RELOAD, RESTART, NEXT_SIGNAL = "at once", "after a reload", "after a restart", "after the next signal"
START, RELOAD, STOP = "starting", "reloading", "stopping"
MAIN_THREAD = "halvek"
# What is no loss of an event but a fault of the daemon.
WRONGS = {TWICE, PART, "half a snapshot", "a file that was to stay", "a file is left behind", "a part of the mail"}
QUICK = 0.3  # seconds
FEW = 4  # of what is the same everywhere
KEPT_OPEN = r"FIFO Write failed|FIFO write failed to write all data"


class Finding(NamedTuple):
    """What came of one failure."""

    action: str
    fault: Fault
    outcome: str
    lost: frozenset[str]
    told: tuple[str, ...]
    back: str
    detail: str
    callers: tuple[str, ...]

    def __str__(self) -> str:
        lines = [f"{self.outcome}: {self.action}: {self.fault}: {', '.join(sorted(self.lost)) or 'nothing'} lost"]
        lines += [f"back {self.back}" if self.back else "", self.detail]
        lines += [f"  told: {line}" for line in self.told] + [f"  in {caller}" for caller in self.callers[:12]]
        return "\n".join(line for line in lines if line)


class Trouble(Exception):
    """The daemon does not do any more what it is there for."""

    def __init__(self, outcome: str, detail: str) -> None:
        super().__init__(detail)
        self.outcome, self.detail = outcome, detail


class Campaign:
    def __init__(
        self, scene: Scene, most: int, all_errors: bool, without: str = "", share: tuple[int, int] = (0, 1)
    ) -> None:
        """At most so many failures are tried of each call in each action, spread evenly over all.

        Of several campaigns that divide the work each has its share: the first, the second... of so many.
        """
        self.scene = scene
        self.most = most
        self.all_errors = all_errors
        self.without = without
        self.share, self.shares = share
        self.findings: list[Finding] = []
        self._tried: Counter[str] = Counter()

    def mine(self, all_of_them: Iterable[T]) -> Iterator[T]:
        return islice(all_of_them, self.share, None, self.shares)

    def choose(self, counts: dict[str, int]) -> Iterator[Fault]:
        return self.mine(self._choose(counts))

    def _choose(self, counts: dict[str, int]) -> Iterator[Fault]:
        for call, count in counts.items():
            if call == self.without:
                continue
            errors = ERRORS[call] if self.all_errors else ERRORS[call][:1]
            for error in errors:
                step = max(1, -(-count // (FEW if call == "log" else self.most)))
                # Another offset each time, so that the actions together see more of what they share.
                self._tried[call] += 1
                for number in range(1 + self._tried[call] % step, count + 1, step):
                    yield Fault(call, number, error)

    def note(
        self, action: str, fault: Fault, outcome: str, lost: set[str], told: list[str], back="", detail=""
    ) -> None:
        callers = tuple(self.scene.faults.callers)
        finding = Finding(action, fault, outcome, frozenset(lost), tuple(told), back, detail, callers)
        self.findings.append(finding)
        if outcome in BAD:
            print(f"\n{finding}\n", file=sys.stderr, flush=True)

    # --- a running daemon

    def torture_running(self, action: Action) -> None:
        self.launch()
        self.warm_up()
        for fault in self.choose(self.count(action)):
            if not self.scene.is_alive():
                self.launch()
                self.warm_up()
            self.inject(action, fault)
        self.finish()

    def launch(self) -> None:
        self.scene.launch_ready()
        assert self.scene.wait_for_mark()
        self.reloads = 0

    def warm_up(self) -> None:
        """Connections are opened and libraries loaded by the first action of a kind."""
        lost = probe(self.scene, HANG)
        if lost:
            raise NotSeen(f"without a fault there is no {', '.join(lost)}: {self.scene.told(0)}")

    def count(self, action: Action) -> dict[str, int]:
        action.prepare(self.scene)
        self.scene.faults.watch(action.thread)
        token = action.trigger(self.scene)
        assert wait_for(lambda: not action.lost(self.scene, token), HANG), f"{action.name} without a fault"
        self.scene.faults.disarm()
        assert action.settle(self.scene, token)
        return self.scene.faults.counts

    def inject(self, action: Action, fault: Fault) -> None:
        scene, back = self.scene, AT_ONCE
        action.prepare(scene)
        after, at_rest = len(scene.daemon.log.items), threads(scene)
        scene.armed_at = after
        scene.faults.arm(fault, action.thread)
        token = action.trigger(scene)
        wait_for(lambda: scene.faults.injected or not scene.is_alive() or not action.lost(scene, token), 5 * SLOWNESS)
        reached = scene.faults.injected > 0
        lost: set[str] = set()
        try:
            settled = action.settle(scene, token)
            scene.faults.disarm()
            self.check_alive()
            if not settled and not action.has_ended(scene):
                raise Trouble(HANGS, "nothing more comes of it")
            lost = action.lost(scene, token)
            if not settled:
                lost.add("what follows")
                back = NEXT_RELOAD
                self.reload()
            self.check_next(action)
            wait_until(lambda: threads(scene) == at_rest, f"threads {at_rest}", 2 * SLOWNESS)
            self.check_descriptors()
        except Trouble as trouble:
            if reached:
                told = scene.told(after)
                self.note(action.name, fault, trouble.outcome, lost, told, RESTART, trouble.detail)
            scene.end_daemon()
            return
        except (AssertionError, OSError) as error:
            self.note(action.name, fault, WRONG, lost, scene.told(after), "", f"{type(error).__name__}: {error}")
            scene.end_daemon()
            return
        if reached:
            told = scene.told(after)
            self.note(action.name, fault, judge(lost, told), lost, told, back if lost else "")

    def check_alive(self) -> None:
        daemon = self.scene.daemon
        if self.scene.is_alive():
            return
        status = daemon.wait_for_exit()
        if status == 1 and any("Error halvek Main: " in line for line in daemon.log.items):
            raise Trouble(SAID, "it ends with status 1 and the reason")
        if status == 0 and daemon.log.matching("shutting down event monitor"):
            raise Trouble(SILENT, "it stops in good order")
        raise Trouble(CRASHES, f"it ended with status {status}: " + "\n".join(daemon.log.items[-30:]))

    def check_next(self, action: Action) -> None:
        """The next event of the kind is done as if nothing had been."""
        action.prepare(self.scene)
        token = action.trigger(self.scene)
        settled = action.settle(self.scene, token)
        self.check_alive()
        # What comes over a bus that has to be found again is asked for more than once.
        lost = action.lost(self.scene, token) if isinstance(action, Posting) else set()
        if lost or not settled:
            raise Trouble(WRONG if settled else HANGS, f"the next time: {lost} of {action.name} lost")

    def check_descriptors(self) -> None:
        """No more than at the start, but for those that are left open by custom."""
        log = self.scene.daemon.log
        allowed = self.at_start() + self.reloads + len(log.matching(KEPT_OPEN))
        if not wait_for(lambda: self.scene.descriptors() <= allowed, 2 * SLOWNESS):
            raise Trouble(WRONG, f"{self.scene.descriptors()} descriptors instead of {allowed}")

    def at_start(self) -> int:
        """With a connection for each thread that calls, the main one and that of the event pipe; see docs/limits.md."""
        return 3 + 1 + 2 + 1 + 2 + 1

    def reload(self) -> None:
        self.reloads += 1
        try:
            self.scene.reload()
        except AssertionError as error:
            self.check_alive()
            raise Trouble(WRONG, f"the reload: {error}") from None

    def finish(self, action: str = STOP) -> None:
        """The daemon still stops as it should."""
        daemon = self.scene.daemon
        if daemon is None or not self.scene.is_alive():
            self.scene.end_daemon()
            return
        started = time.monotonic()
        try:
            status = daemon.stop(patience=HANG)
        except NotSeen:
            status = None
        took = time.monotonic() - started
        reports = daemon.log.matching(SANITIZER_REPORT)
        fault = self.findings[-1].fault if self.findings else Fault("", 0, 0)
        if status != 0 or reports or took > STOP_LIMIT:
            detail = f"afterwards it stops with status {status} after {took:.1f} s\n" + "\n".join(
                daemon.log.items[-40:]
            )
            self.note(action, fault, CRASHES if status else HANGS, set(), [], "", detail)
        self.scene.end_daemon()

    # --- start, reload and stop

    def torture_starts(self) -> None:
        self.scene.faults.watch(MAIN_THREAD)
        self.launch_watched()
        counts = self.scene.faults.counts
        self.finish()
        for fault in self.choose(counts):
            self.inject_start(fault)

    def launch_watched(self) -> None:
        self.scene.end_daemon(disarm=False)
        daemon = self.scene.launch(disarm=False)
        self.reloads = 0
        wait_for(lambda: daemon.process.poll() is not None or has_started(daemon), HANG)
        self.scene.faults.disarm()

    def inject_start(self, fault: Fault) -> None:
        scene = self.scene
        scene.faults.arm(fault, MAIN_THREAD)
        self.launch_watched()
        reached = scene.faults.injected > 0
        if not reached:
            self.finish(START)
            return
        lost: set[str] = set()
        back, outcome, detail = "", "", ""
        try:
            self.check_alive()
            if not has_started(scene.daemon):
                raise Trouble(HANGS, "it does not get ready")
            told = scene.told(0)
            lost, back = self.check_all(told)
            if "READY=1" not in scene.daemon.notifications.items:
                lost.add("READY=1")
                back = RESTART
        except Trouble as trouble:
            outcome, detail, back = trouble.outcome, trouble.detail, RESTART
            lost |= {"everything"}
        told = scene.told(0)
        self.note(START, fault, outcome or judge(lost, told), lost, told, back if lost else "", detail)
        self.finish(START)

    def missing(self, told: list[str]) -> set[str]:
        """What does not work; where nothing is told of trouble, a busy machine is given time."""
        return probe(self.scene, QUICK if told else HANG / 5)

    def check_all(self, told: list[str]) -> tuple[set[str], str]:
        """What is missing, and what brings it back; a reload has to."""
        lost = self.missing(told)
        self.check_alive()
        if not lost:
            return lost, ""
        self.reload()
        # A bus that was lost may take until now to be found again.
        deadline = time.monotonic() + HANG
        while (still := probe(self.scene, QUICK)) and time.monotonic() < deadline and self.scene.is_alive():
            pass
        self.check_alive()
        if still:
            raise Trouble(WRONG, f"a reload does not bring back {still}")
        return lost, NEXT_RELOAD

    def torture_reloads(self) -> None:
        scene = self.scene
        self.launch()
        self.warm_up()
        scene.faults.watch(MAIN_THREAD)
        self.reload()
        scene.faults.disarm()
        for fault in self.choose(scene.faults.counts):
            if not scene.is_alive():
                self.launch()
                self.warm_up()
            self.inject_reload(fault)
        self.finish(RELOAD)

    def inject_reload(self, fault: Fault) -> None:
        scene = self.scene
        after = len(scene.daemon.log.items)
        lost: set[str] = set()
        back, outcome, detail = "", "", ""
        scene.faults.arm(fault, MAIN_THREAD)
        scene.daemon.send(signal.SIGHUP)
        wait_for(
            lambda: not scene.is_alive() or scene.daemon.log.matching("TimerEventSource started", after), 2 * SLOWNESS
        )
        try:
            self.check_alive()
            try:
                scene.wait_until_main_waits()
            except NotSeen as error:
                raise Trouble(HANGS, str(error)) from None
            scene.faults.disarm()
            self.reloads += 1
            lost, back = self.check_all(scene.told(after))
            if not scene.daemon.log.matching("TimerEventSource started", after):
                lost.add("the reload")
                back = NEXT_RELOAD
        except Trouble as trouble:
            outcome, detail, back = trouble.outcome, trouble.detail, RESTART
            lost |= {"everything"}
        scene.faults.disarm()
        if scene.faults.injected:
            told = scene.told(after)
            self.note(RELOAD, fault, outcome or judge(lost, told), lost, told, back if lost else "", detail)
        if outcome:
            scene.end_daemon()

    def torture_stops(self) -> None:
        counts = self.stop_once(None)
        for fault in self.choose(counts):
            self.stop_once(fault)

    def stop_once(self, fault: Fault | None) -> dict[str, int]:
        scene = self.scene
        self.launch()
        scene.daemon.log.wait_for("Dropping to run state")
        after = len(scene.daemon.log.items)
        if fault is None:
            scene.faults.watch(MAIN_THREAD)
        else:
            scene.faults.arm(fault, MAIN_THREAD)
        daemon = scene.daemon
        daemon.send(signal.SIGTERM)
        started, outcome, detail = time.monotonic(), "", ""
        lost: set[str] = set()
        try:
            status = daemon.wait_for_exit(STOP_LIMIT)
        except NotSeen:
            # What was told to the pipe to itself may have been lost on the way: the next one must do.
            status = None
        scene.faults.disarm()
        if status is None:
            lost.add("the stop")
            try:
                status = daemon.stop(patience=STOP_LIMIT)
            except NotSeen:
                outcome, detail = HANGS, f"still there after {time.monotonic() - started:.1f} s"
        reports = daemon.log.matching(SANITIZER_REPORT)
        if outcome == "" and (status not in (0, 1) or reports):
            outcome, detail = CRASHES, f"status {status}\n" + "\n".join(daemon.log.items[-40:])
        if fault is not None and scene.faults.injected:
            told = scene.told(after)
            self.note(STOP, fault, outcome or judge(lost, told), lost, told, NEXT_SIGNAL if lost else "", detail)
        scene.end_daemon()
        return scene.faults.counts


def has_started(daemon) -> bool:
    return bool(daemon.log.matching("Dropping to run state"))


def judge(lost: set[str], told: list[str]) -> str:
    if lost & WRONGS or ("the attachment" in lost and not told):
        return WRONG
    if told:
        return SAID
    return SILENT if lost else HARMLESS


def table(findings: list[Finding]) -> str:
    """The counts of the classes for each call."""
    counts: defaultdict[str, Counter[str]] = defaultdict(Counter)
    for finding in findings:
        counts[finding.fault.call][finding.outcome] += 1
    width = max(len(call) for call in ERRORS)
    lines = [f"{'':{width}} {'reached':>8}" + "".join(f"{outcome:>10}" for outcome in OUTCOMES)]
    for call in (*ERRORS, "limit"):
        if counts[call]:
            numbers = "".join(f"{counts[call][outcome]:10}" for outcome in OUTCOMES)
            lines.append(f"{call:{width}} {counts[call].total():8}{numbers}")
    total = sum(counts.values(), Counter())
    lines.append(f"{'all':{width}} {total.total():8}" + "".join(f"{total[outcome]:10}" for outcome in OUTCOMES))
    return "\n".join(lines)
