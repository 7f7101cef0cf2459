"""Makes one call of the daemon fail after the other, and judges what comes of it."""

import contextlib
import signal
import sys
import time
from collections import Counter, defaultdict
from collections.abc import Callable, Iterable, Iterator
from typing import NamedTuple, TypeVar

from testing.daemon import SANITIZER_REPORT
from testing.waiting import NotSeen, wait_until

from actions import LATER, PART, THREADS, TWICE, Action, Posting, probe, threads, wait_for
from faults import ERRORS, Fault, call_of, place_of
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
TRIES = 3  # of what depends on what comes first
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

    def mine(self, all_of_them: Iterable[T], number: Callable[[T], int]) -> list[T]:
        """The same one is always the same campaign's, whatever else there is."""
        return [one for one in all_of_them if number(one) % self.shares == self.share]

    def choose(self, counts: dict[int, int], quick: bool = True) -> list[Fault]:
        """Where trying one takes long, a site that is come by more than once has its first time only."""
        return self.mine(self._choose(counts, quick), lambda fault: place_of(fault.site))

    def _choose(self, counts: dict[int, int], quick: bool) -> Iterator[Fault]:
        for call, errors in ERRORS.items():
            times = {site: count for site, count in counts.items() if call_of(site) == call != self.without}
            first = [Fault(site, 1, errors[0]) for site in times]
            later = [Fault(site, number, errors[0]) for site in times for number in later_times(times[site])]
            others = [Fault(site, 1, error) for error in errors[1:] for site in times] if self.all_errors else []
            if not quick:
                # A record that cannot be written is the same wherever it is.
                later, others = [], [] if call == "log" else others
            yield from spread([*first, *later, *others], self.most)

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
            self.try_until_reached(lambda fault=fault: self.inject(action, fault))
        self.finish()

    def try_until_reached(self, inject: Callable[[], bool]) -> None:
        """What a thread waits for may be there before: then it does not wait."""
        for _ in range(TRIES):
            if not self.scene.is_alive():
                self.launch()
                self.warm_up()
            if inject():
                return

    def launch(self) -> None:
        self.scene.launch_ready()
        assert self.scene.wait_for_mark()
        self.reloads = 0

    def warm_up(self) -> None:
        """Connections are opened and libraries loaded by the first action of a kind."""
        lost = probe(self.scene, HANG) and probe(self.scene, HANG)
        if lost:
            raise NotSeen(f"without a fault there is no {', '.join(lost)}: {self.scene.told(0)}")

    def count(self, action: Action) -> dict[int, int]:
        counts: dict[int, int] = {}
        for _ in range(TRIES):
            action.prepare(self.scene)
            self.scene.faults.watch(action.thread)
            token = action.trigger(self.scene)
            assert wait_for(lambda: not action.lost(self.scene, token), HANG), f"{action.name} without a fault"
            counts = self.scene.faults.counts | counts
            # What comes of it is seen before the last calls are made; behind them is another event already.
            assert action.settle(self.scene, token)
            self.scene.faults.disarm()
            counts = dict.fromkeys(self.scene.faults.counts, 1) | counts
        return counts

    def inject(self, action: Action, fault: Fault) -> bool:
        """Whether it has come to the fault."""
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
            return reached
        except (AssertionError, OSError) as error:
            self.note(action.name, fault, WRONG, lost, scene.told(after), "", f"{type(error).__name__}: {error}")
            scene.end_daemon()
            return True
        if reached:
            told = scene.told(after)
            self.note(action.name, fault, judge(lost, told), lost, told, back if lost else "")
        return reached

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

    def check_main(self) -> None:
        """The main thread waits for commands, or the daemon has ended as it should: a signal kills one that ends."""
        try:
            self.scene.wait_until_main_waits()
        except NotSeen as error:
            raise Trouble(HANGS, str(error)) from None
        self.check_alive()

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
        daemon.send(signal.SIGTERM)
        outcome, detail = self.judge_stop((0,))
        if outcome:
            fault = self.findings[-1].fault if self.findings else Fault(0, 0, 0)
            self.note(action, fault, outcome, set(), [], "", f"afterwards {detail}")
        self.scene.end_daemon()

    def judge_stop(self, good: tuple[int, ...]) -> tuple[str, str]:
        """What is wrong with the end that has been asked for, and how it came; nothing if it is as it should be."""
        daemon = self.scene.daemon
        try:
            status = daemon.wait_for_exit(HANG)
        except NotSeen:
            return HANGS, "it does not stop"
        took = self.scene.stopping_seconds()
        outcome = CRASHES if status not in good or daemon.log.matching(SANITIZER_REPORT) else HANGS
        if outcome == HANGS and took <= STOP_LIMIT:
            return "", ""
        return outcome, "\n".join([f"it stops with status {status} after {took:.1f} s", *daemon.log.items[-40:]])

    # --- start, reload and stop

    def torture_starts(self) -> None:
        for thread in (MAIN_THREAD, *THREADS):
            counts: dict[int, int] = {}
            for _ in range(TRIES):
                self.scene.faults.watch(thread)
                self.launch_watched()
                counts = self.scene.faults.counts | counts
                self.finish()
            for fault in self.choose(counts, quick=False):
                self.inject_start(fault, thread)

    def launch_watched(self) -> None:
        self.scene.end_daemon(disarm=False)
        daemon = self.scene.launch(disarm=False)
        self.reloads = 0
        wait_for(lambda: daemon.process.poll() is not None or has_started(daemon), HANG)
        with contextlib.suppress(NotSeen):
            self.scene.wait_until_main_waits()
        self.scene.faults.disarm()

    def inject_start(self, fault: Fault, thread: str) -> None:
        scene = self.scene
        for _ in range(TRIES):
            scene.faults.arm(fault, thread)
            self.launch_watched()
            if scene.faults.injected > 0:
                break
            self.finish(START)
        else:
            return
        lost: set[str] = set()
        back, outcome, detail = "", "", ""
        try:
            self.check_alive()
            if not has_started(scene.daemon):
                raise Trouble(HANGS, "it does not get ready")
            lost, back = self.check_all()
            if "READY=1" not in scene.daemon.notifications.items:
                lost.add("READY=1")
                back = RESTART
        except Trouble as trouble:
            outcome, detail, back = trouble.outcome, trouble.detail, RESTART
            lost |= {"everything"}
        told = scene.told(0)
        self.note(START, fault, outcome or judge(lost, told), lost, told, back if lost else "", detail)
        self.finish(START)

    def check_all(self) -> tuple[set[str], str]:
        """What is missing, and what brings it back; a reload has to."""
        lost = probe(self.scene, LATER)
        self.check_main()
        if not lost:
            return lost, ""
        self.reload()
        # A bus that was lost may take until now to be found again.
        deadline = time.monotonic() + HANG
        while (still := probe(self.scene, LATER)) and time.monotonic() < deadline and self.scene.is_alive():
            pass
        self.check_alive()
        if still:
            raise Trouble(WRONG, f"a reload does not bring back {still}")
        return lost, NEXT_RELOAD

    def torture_reloads(self) -> None:
        scene = self.scene
        self.launch()
        self.warm_up()
        counts: dict[int, int] = {}
        for _ in range(TRIES):
            scene.faults.watch(MAIN_THREAD)
            self.reload()
            scene.faults.disarm()
            counts = scene.faults.counts | counts
        for fault in self.choose(counts, quick=False):
            self.try_until_reached(lambda fault=fault: self.inject_reload(fault))
        self.finish(RELOAD)

    def inject_reload(self, fault: Fault) -> bool:
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
            self.check_main()
            scene.faults.disarm()
            self.reloads += 1
            lost, back = self.check_all()
            if not scene.daemon.log.matching("TimerEventSource started", after):
                lost.add("the reload")
                back = NEXT_RELOAD
        except Trouble as trouble:
            outcome, detail, back = trouble.outcome, trouble.detail, RESTART
            lost |= {"everything"}
        scene.faults.disarm()
        reached = scene.faults.injected > 0
        if reached:
            told = scene.told(after)
            self.note(RELOAD, fault, outcome or judge(lost, told), lost, told, back if lost else "", detail)
        if outcome:
            scene.end_daemon()
        return reached

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
        lost: set[str] = set()
        if not wait_for(lambda: not scene.is_alive() or daemon.log.matching("got: |select failed", after), STOP_LIMIT):
            # What was told to the pipe to itself has been lost on the way: the next one must do.
            lost.add("the stop")
            daemon.send(signal.SIGTERM)
        outcome, detail = self.judge_stop((0, 1))
        scene.faults.disarm()
        if fault is not None and scene.faults.injected:
            told = scene.told(after)
            self.note(STOP, fault, outcome or judge(lost, told), lost, told, NEXT_SIGNAL if lost else "", detail)
        scene.end_daemon()
        return scene.faults.counts


def later_times(count: int) -> list[int]:
    """Of the times that a site is come by: one in the middle and the last."""
    return sorted({number for number in (count // 2, count) if number > 1})


def spread(faults: list[Fault], most: int) -> list[Fault]:
    """So many of them at most, evenly over all."""
    return faults[:: max(1, -(-len(faults) // most))]


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
