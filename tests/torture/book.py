"""The book of faults, docs/faults.md: a row for each place in the daemon and each call that may fail there.

The page is made of what a run has found. It is read back too: whatever a later run finds has to stand in it.
"""

import os
import re
from collections import defaultdict
from collections.abc import Iterable
from pathlib import Path
from typing import NamedTuple

from actions import HANDLINGS, SIGNALLED
from attack import ATTACKS
from campaign import RELOAD, SILENT, START, Finding
from faults import ERRORS

PAGE = Path(__file__).resolve().parents[2] / "docs/faults.md"
# Where the daemon is: the nearest of its functions that is among these says it, or else what it was asked to do.
STEPS = (
    (r"FdInputBuffer::|EventReader::|ReceiveEvent|EventServerSource::OpenFifo", "reading the event pipe"),
    (r"ExternEventHandler::", "forwarding an event"),
    (r"RelayEventHandler::(PerformAction|DriveRelay)", "switching a relay"),
    (r"PresetEventHandler::PerformAction", "sending the head to a preset"),
    (r"TourEventHandler::PerformAction", "starting a tour"),
    (r"FolderEventHandler::(PerformAction|SaveSnapshot)", "saving a snapshot"),
    (r"FtpEventHandler::(PerformAction|Upload)", "uploading a snapshot"),
    (r"EmailEventHandler::PerformAction", "sending a mail"),
    (r"EventServerSource::(FireReceived|FireEvent|Run)", "reading the event pipe"),
    (r"BusListener::|MsgBus::Deliver", "hearing from the bus"),
    (r"DeliveryQueue::", "delivering what the bus said"),
    (r"TimerEventSource::Run", "a timer's tick"),
    (r"ParkEventSource::Run", "watching the head rest"),
    (r"OnSignal|Application::HandleSignal", "catching a signal"),
    (r"Application::(WaitFor|CreateSelfPipe|Run)", "waiting for signals"),
    (r"EventMonitor::LoadServers", "loading the event pipe"),
    (r"EventMonitor::LoadSource", "loading the sources"),
    (r"EventMonitor::(LoadHandler|AttachToSource)", "loading the handlers"),
    (r"EventMonitor::(LoadAlwaysOn|AttachToAll)", "loading the forwarding"),
    (r"EventMonitor::StartSources", "starting the sources"),
    (r"EventMonitor::(StopSources|ClearSources)|~EventMonitor", "stopping the sources"),
    (r"HalvekEnv::StartMsgBus|MsgBus::Start", "connecting to the bus"),
    (r"LogManager::", "reading the log's settings"),
    (r"KeltoSettingsClient::|SettingsStore::|IniParser::", "reading the settings"),
)
# Why nothing is said where nothing is said.
NO_RECORD = "what its program says is all there is, see [limits.md](limits.md)"
NEVER_REFUSED = "the system refuses no read from a pipe that it has called readable"
REASONS = {
    ("reading the event pipe", "read"): f"it counts as the end of what was posted, for {NEVER_REFUSED}",
    ("waiting for signals", "read"): f"the signal counts as a stop, for {NEVER_REFUSED}",
    ("catching a signal", "write"): "the system refuses it only when 65,536 signals wait already",
    ("uploading a snapshot", "spawn"): NO_RECORD,
    ("sending a mail", "spawn"): NO_RECORD,
    ("sending a mail", "allocation"): f"the mail program could not be started, and {NO_RECORD}",
}
TOLD = "Told"
COLUMNS = ("While the daemon is", "fails", "Lost", TOLD, "Well again")
NOTHING = "nothing"
BETWEEN = "; "
HANDLED = {action.name for action in HANDLINGS[1:]}
HEARD = {action.name for action in (HANDLINGS[0], *SIGNALLED)}
CALLS = {
    "log": "write of a record",
    "spawn": "popen, system",
    "ppoll": "poll, ppoll, select",
    "mkdir": "mkfifo",
    "limit": "-",
}

INTRODUCTION = """\
# The book of faults

What becomes of the daemon when the system lets it down. `scripts/torture --book` has written this page: it runs the
daemon with every source and every handler on the virtual camera, makes one call fail after the other, and notes what
came of it. Whatever `scripts/torture` finds has to stand here, and no failure may crash the daemon or make it hang.

- Lost is what the one failure costs. What comes after it is done as ever, at once unless something else is named under
  "well again"; a restart is the service manager's, which the packaged unit asks for.
- Told are Warnings and Errors, without numbers, paths and the system's reason. A failure that costs nothing may be
  told too.
- The rows that begin with "short of" are a while without something: everything is asked for meanwhile, and a reload.
- A failed or short write to an output pipe leaves its descriptor open, as [limits.md](limits.md) says. No other failure
  costs a descriptor, a thread or memory.
- Two things are not made to fail. The mail library ends the process when it gets no memory: so attachments have at most
  16 MiB, and the service manager starts the daemon again. And no system refuses a write to the counter that wakes the
  thread which listens to the bus.
"""

UNDER_ATTACK = """
## Under attack

While one of these goes on, an alarm comes out at most 200 ms late, the daemon's memory stays below 12 MiB, no
descriptor is lost, a reload does what it does, and the daemon stops within 2 s of SIGTERM:

{attacks}

What stays in a poster's or listener's power is in [limits.md](limits.md): a full output pipe, an empty line.
"""


class Row(NamedTuple):
    step: str
    call: str
    lost: frozenset[str]
    told: frozenset[str]
    back: frozenset[str]

    @property
    def key(self) -> tuple[str, str]:
        return self.step, self.call


def step_of(finding: Finding) -> str:
    for caller in finding.callers:
        module, _, function = caller.partition(":")
        for pattern, step in STEPS if module == "halvek" else ():
            if re.search(pattern, function):
                return step
    return finding.action


def general(text: str) -> str:
    """A record without what is of one run only: numbers, paths, and which of the reasons it was."""
    text = re.sub(r"(?<![\w.])/[\w./-]*\w", "PATH", text)
    text = re.sub(r"(?:org\.freedesktop|System)[\w.]*: ", "", text)
    reasons = {os.strerror(error) for errors in ERRORS.values() for error in errors}
    # The longer ones first: one may begin with another.
    for reason in (*sorted(reasons, key=len, reverse=True), "std::bad_alloc"):
        text = text.replace(reason, "REASON")
    return re.sub(r"\b\d+\b", "N", text).replace("|", "/")


def general_loss(finding: Finding, lost: str) -> str:
    """What a start or a reload did not get ready, without which one of them it was."""
    if finding.action not in (START, RELOAD):
        return lost
    return "some of the handlers" if lost in HANDLED else "some of the sources" if lost in HEARD else lost


def rows(findings: Iterable[Finding]) -> list[Row]:
    grouped: defaultdict[tuple[str, str], list[Finding]] = defaultdict(list)
    for finding in findings:
        grouped[step_of(finding), finding.fault.call].append(finding)
    made = []
    for (step, call), group in grouped.items():
        told = {general(text) for finding in group for text in finding.told}
        if any(finding.outcome == SILENT for finding in group):
            told.add(f"{NOTHING}: {REASONS.get((step, call), '?')}")
        lost = frozenset(general_loss(finding, text) for finding in group for text in finding.lost)
        back = frozenset(finding.back for finding in group if finding.back)
        made.append(Row(step, CALLS.get(call, call), lost, frozenset(told), back))
    return sorted(made, key=lambda row: row.key)


def written(found: list[Row]) -> str:
    lines = [f"| {' | '.join(COLUMNS)} |", "|---" * len(COLUMNS) + "|"]
    for row in found:
        cells = [BETWEEN.join(sorted(cell)) or NOTHING for cell in (row.lost, row.told)]
        lines.append(f"| {row.step} | {row.call} | {' | '.join(cells)} | {BETWEEN.join(sorted(row.back)) or '-'} |")
    return "\n".join(lines) + "\n"


def page(found: list[Row]) -> str:
    attacks = "\n".join(f"- {attack.name}" for attack in ATTACKS)
    return f"{INTRODUCTION}\n{written(found)}{UNDER_ATTACK.format(attacks=attacks)}"


def read(text: str) -> dict[tuple[str, str], Row]:
    found = {}
    for line in text.splitlines():
        cells = [cell.strip() for cell in line.strip("|").split(" | ")]
        if len(cells) == len(COLUMNS) and cells[0] != COLUMNS[0] and not line.startswith("|---"):
            lost, told, back = (frozenset(cell.split(BETWEEN)) - {NOTHING, "-"} for cell in cells[2:])
            row = Row(cells[0], cells[1], lost, told, back)
            found[row.key] = row
    return found


def differences(found: list[Row], known_rows: dict[tuple[str, str], Row], whole: bool) -> list[str]:
    """What was found and does not stand in the page; after a whole run also what stands there and was not found."""
    said = []
    for row in found:
        known = known_rows.get(row.key, Row(*row.key, frozenset(), frozenset(), frozenset()))
        # How much is missing is the machine's affair.
        for column, mine, theirs in zip(COLUMNS[2:], row[2:], known[2:], strict=True) if row.call != "-" else ():
            new = sorted(text for text in mine - theirs if column != TOLD or is_certain(text))
            said += [f"not in {PAGE.name}: {row.step}, {row.call}: {column}: {text}" for text in new]
        if row.key not in known_rows:
            said.append(f"not in {PAGE.name}: {row.step}, {row.call}")
    if whole:
        gone = known_rows.keys() - {row.key for row in found}
        said += [f"only in {PAGE.name}: {step}, {call}" for step, call in sorted(gone)]
    return said


def is_certain(told: str) -> bool:
    """Whether a failure is told in these words each time.

    What a command says that has lost its other end hangs on which of the two is quicker, and whether messages wait
    when the sources are stopped on what came just before.
    """
    return told.startswith(("Error ", "Warning ", NOTHING)) and not told.endswith("their subscription has ended")


def unexplained(found: list[Row]) -> list[str]:
    return [f"silent, and no reason why: {row.step}, {row.call}" for row in found if f"{NOTHING}: ?" in row.told]
