"""What a long life of reloads costs in memory."""

import re
import subprocess
from pathlib import Path

import pytest
from testing.daemon import Daemon
from testing.pipes import DEFAULT_INPUT, block, post
from testing.settings import SERVER, handler, server, timer

pytestmark = [
    pytest.mark.not_under("sanitizer", reason="it has memory of its own"),
    pytest.mark.not_under("emulator", reason="its memory would be measured too"),
]

RELOADS = 1000
SETTLED_AFTER = 50
ALLOWED_GROWTH = 512  # KiB
LARGEST_EVENT = 3072  # KiB: sixty thousand bytes in thousands of small texts
ROOM_FOR_ONE_THREAD = 1_500_000  # bytes; each has a stack of 1 MiB
TYPES = ["Door", "Window", "Roof", "Gate"]


def test_a_thousand_reloads_leave_the_resident_memory_flat(launch, output_pipe, tmp_path):
    pipe, event_pipe = output_pipe(), tmp_path / "events.pipe"
    settings = server(event_pipe) | timer(1, 3600)
    settings |= {f"Events/Source#{number}": {"Type": name} for number, name in enumerate(TYPES, start=2)}
    ids = [f"Events/Source#{number}" for number in range(1, 6)]
    for number in range(10):
        settings |= handler(number, *ids, EnabledDays="UMTWRFS", EnabledTimes="0-1200,1200-2400")
    daemon = launch(settings, prefix=["prlimit", "--nofile=4096", "--"])
    settled = 0
    for number in range(1, RELOADS + 1):
        daemon.reload()
        before = len(pipe.items)
        post(block(TYPES[number % 4], number=number), event_pipe)
        # Once from the always-on handler, and once from each of the ten.
        pipe.wait_for_event(TYPES[number % 4], properties={"number": str(number)}, after=before, count=11)
        if number == SETTLED_AFTER:
            settled = daemon.resident_kib()
    growth = daemon.resident_kib() - settled
    print(f"resident: {settled} KiB after {SETTLED_AFTER} reloads, {growth} KiB more after {RELOADS}")
    assert growth <= ALLOWED_GROWTH


def limit_memory(daemon: Daemon, limit: object) -> None:
    subprocess.run(["prlimit", f"--as={limit}:", f"--pid={daemon.pid}"], check=True)


def test_a_thread_that_cannot_be_started_leaves_the_sources_behind_it_silent_until_a_reload(launch, output_pipe):
    pipe = output_pipe()
    daemon = launch(SERVER)
    mapped = int(re.search(r"VmSize:\s+(\d+) kB", Path(f"/proc/{daemon.pid}/status").read_text())[1]) * 1024
    limit_memory(daemon, mapped + ROOM_FOR_ONE_THREAD)
    daemon.write_settings(SERVER | timer(1, 3600) | timer(2, 3600) | timer(3, 3600))
    daemon.reload(until="Error reloading, invalid configuration: Thread TimerEventSource cannot be started")
    pipe.wait_for_event("Timer")
    post(block("Door"))
    pipe.wait_for_event("Door")
    assert len(pipe.of_type("Timer")) == 1
    limit_memory(daemon, "unlimited")
    daemon.reload()
    pipe.wait_for_event("Timer", count=4)


def test_an_event_without_an_end_takes_no_more_memory_than_the_largest_event(launch):
    daemon = launch(SERVER, level="Information")
    before = daemon.resident_kib()
    with DEFAULT_INPUT.open("wb") as pipe:
        for key in range(400_000):
            pipe.write(b"%d=\n" % key)
    grown = daemon.resident_kib() - before
    assert grown <= LARGEST_EVENT


def test_a_line_without_an_end_takes_no_more_memory_than_the_largest_event(launch):
    daemon = launch(SERVER, level="Information")
    before = daemon.resident_kib()
    with DEFAULT_INPUT.open("wb") as pipe:
        pipe.write(b"x=" + b"y" * 4_000_000)
    grown = daemon.resident_kib() - before
    assert grown <= LARGEST_EVENT
