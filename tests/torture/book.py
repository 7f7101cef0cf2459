"""The book of faults, docs/faults.md: one row for each place in the daemon and each call that fails there."""

import re
from collections import defaultdict
from typing import NamedTuple

from campaign import HARMLESS, SAID, SILENT, Finding

# Where the daemon is, told by the nearest of its functions in the first place that fits; the rest is told by what it was
# asked to do.
STEPS = (
    (r"FdInputBuffer::|ReceiveEvent|EventServerSource::OpenFifo|WaitForInput\(int", "reading the event pipe"),
    (r"ExternEventHandler::", "forwarding an event"),
    (r"RelayEventHandler::PerformAction|RelayEventHandler::DriveRelay", "switching a relay"),
    (r"PresetEventHandler::PerformAction", "sending the head to a preset"),
    (r"TourEventHandler::PerformAction", "starting a tour"),
    (r"FolderEventHandler::PerformAction|FolderEventHandler::SaveSnapshot", "saving a snapshot"),
    (r"FtpEventHandler::PerformAction|FtpEventHandler::Upload", "uploading a snapshot"),
    (r"EmailEventHandler::PerformAction", "sending a mail"),
    (r"EventServerSource::FireReceived|EventServerSource::FireEvent|EventServerSource::Run", "reading the event pipe"),
    (r"BusListener::|MsgBus::Deliver", "hearing from the bus"),
    (r"DeliveryQueue::", "delivering what the bus said"),
    (r"TimerEventSource::Run", "a timer's tick"),
    (r"ParkEventSource::Run", "the head's rest"),
    (r"OnSignal|Application::HandleSignal", "catching a signal"),
    (r"Application::WaitFor|Application::CreateSelfPipe", "waiting for signals"),
    (r"EventMonitor::LoadServers", "loading the event pipe"),
    (r"EventMonitor::LoadSource", "loading a source"),
    (r"EventMonitor::LoadHandler|EventMonitor::AttachToSource", "loading a handler"),
    (r"EventMonitor::LoadAlwaysOn|EventMonitor::AttachToAll", "loading the forwarding handler"),
    (r"EventMonitor::StartSources", "starting the sources"),
    (r"EventMonitor::StopSources|EventMonitor::ClearSources|~EventMonitor", "stopping the sources"),
    (r"HalvekEnv::StartMsgBus|MsgBus::Start", "connecting to the bus"),
    (r"LogManager::", "reading the log's settings"),
    (r"KeltoSettingsClient::|SettingsStore::|IniParser::", "reading the settings"),
)
BY_ACTION = {"start": "start", "reload": "reload", "stop": "stop"}
# Why nothing is said where nothing is said.
REASONS: dict[tuple[str, str], str] = {}

HEAD = "What the daemon does | fails | is lost | is told | comes back"


class Row(NamedTuple):
    step: str
    call: str
    outcomes: frozenset[str]
    lost: frozenset[str]
    told: frozenset[str]
    back: frozenset[str]


def step_of(finding: Finding) -> str:
    own = [caller.partition(":")[2] for caller in finding.callers if caller.startswith("halvek:")]
    for function in own:
        for pattern, step in STEPS:
            if re.search(pattern, function):
                return step
    return BY_ACTION.get(finding.action, finding.action)


def general(text: str) -> str:
    """A record without what is of this run only."""
    text = re.sub(r"/run/tests/[\w./-]+", "PATH", text)
    return re.sub(r"\b\d+\b", "N", text)


def rows(findings: list[Finding]) -> list[Row]:
    grouped: defaultdict[tuple[str, str], list[Finding]] = defaultdict(list)
    for finding in findings:
        grouped[step_of(finding), finding.fault.call].append(finding)
    return [
        Row(
            step,
            call,
            frozenset(finding.outcome for finding in group),
            frozenset(lost for finding in group for lost in finding.lost),
            frozenset(general(told) for finding in group for told in finding.told),
            frozenset(finding.back for finding in group if finding.back),
        )
        for (step, call), group in sorted(grouped.items())
    ]


__all__ = ["HARMLESS", "SAID", "SILENT", "rows"]
