"""What the mail handler costs in memory."""

import os
import re
from collections.abc import Callable
from pathlib import Path

import pytest
from mailing import DOOR, mail_handler, maps_the_mail_library, snapshot
from testing.daemon import DaemonProcess
from testing.pipes import block, post
from testing.processes import resident_kib
from testing.settings import SERVER, timer

pytest_plugins = ["mail_fixtures"]
pytestmark = [
    pytest.mark.not_under("sanitizer", "coverage", reason="it has memory of its own"),
    pytest.mark.not_under("emulator", reason="its memory would be measured too"),
]

# A bare C++ program with libsystemd has 3.9 MiB where the daemon may have 5.5; how much the kernel maps of the
# libraries depends on what it has in its cache.
ALLOWED_ABOVE_BARE = (5.5 - 3.9) * 1024  # KiB
MAILS = 300
WINDOW = 50
LARGEST = 16 * 1024 * 1024
UNIT = Path(__file__).resolve().parents[2] / "packaging/halvek.service"
ALLOWED_GROWTH = 512  # KiB


@pytest.fixture
def allowed(tmp_path) -> Callable[[], float]:
    """The resident memory of a daemon that has not mailed, in KiB; to be asked for with the libraries in the cache."""

    def measure() -> float:
        bare = DaemonProcess(os.environ["HALVEK_BARE_PROCESS"], tmp_path, tmp_path)
        try:
            bare.wait_until_ready()
            return resident_kib(bare.pid) + ALLOWED_ABOVE_BARE
        finally:
            bare.close()

    return measure


def test_an_idle_daemon_that_mails_nothing_stays_small(launch, output_pipe, allowed):
    pipe = output_pipe()
    daemon = launch(SERVER | timer(1, 1))
    pipe.wait_for_event("Timer", count=2)
    assert not maps_the_mail_library(daemon)
    resident, limit = daemon.resident_kib(), allowed()
    print(f"resident without a mail handler: {resident} KiB of {limit:.0f}")
    assert resident < limit


def test_a_mail_handler_that_has_not_mailed_stays_small_and_its_first_mail_loads_the_library(
    launch_mailing, sink, output_pipe, allowed
):
    pipe = output_pipe()
    daemon = launch_mailing(DOOR | timer(2, 1) | mail_handler())
    pipe.wait_for_event("Timer", count=2)
    before = daemon.resident_kib()
    assert not maps_the_mail_library(daemon)
    assert before < allowed()
    post(block("Door"))
    sink.wait_for(1)
    print(f"resident before the first mail: {before} KiB, {daemon.resident_kib() - before} KiB more after it")
    assert maps_the_mail_library(daemon)


def test_mails_leave_the_resident_memory_flat(launch_mailing, sink, output_pipe, tmp_path):
    pipe, picture = output_pipe(), tmp_path / "img2.jpg"
    picture.write_bytes(bytes(100_000))
    daemon = launch_mailing(DOOR | snapshot(picture) | mail_handler(Attachment="true", RawEventData="true"))
    resident = []
    for number in range(1, MAILS + 1):
        post(block("Door"))
        pipe.wait_for_event("Door", count=number)
        resident.append(daemon.resident_kib())
    sink.wait_for(MAILS)
    # It goes up and down by the buffers of a mail, so the least of many counts.
    settled, at_last = min(resident[WINDOW : 2 * WINDOW]), min(resident[-WINDOW:])
    print(f"resident: {settled} KiB after {2 * WINDOW} mails, {at_last - settled} KiB more after {MAILS}")
    assert at_last - settled <= ALLOWED_GROWTH


def test_the_service_has_room_for_two_of_the_largest_mails_at_a_time(launch_mailing, sink, tmp_path):
    picture = tmp_path / "img2.jpg"
    picture.write_bytes(bytes(LARGEST))
    daemon = launch_mailing(DOOR | snapshot(picture) | mail_handler(Attachment="true"))
    post(block("Door"))
    (mail,) = sink.wait_for(1)
    (attached,) = mail.message.iter_attachments()
    assert len(attached.get_content()) == LARGEST
    peak = int(re.search(r"VmHWM:\s+(\d+) kB", Path(f"/proc/{daemon.pid}/status").read_text())[1])
    allowed = int(re.search(r"^MemoryMax=(\d+)M$", UNIT.read_text(), re.M)[1]) * 1024
    print(f"resident at most: {peak} KiB; the service may use {allowed} KiB")
    assert 2 * peak < allowed
