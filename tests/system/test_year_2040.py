"""The daemon past the end of 32-bit time, the 19th of January 2038 at 03:14:07 UTC.

The commands that the daemon runs are children like any other and live in its time; an emulated daemon's are the
machine's own, in the present.
"""

import os
import re
import shutil
import subprocess
from collections.abc import Callable
from datetime import datetime, timedelta, timezone
from email.utils import parsedate_to_datetime
from pathlib import Path

import pytest
from daemon_on_bus import alarm, ids
from mailing import mail_handler
from memory_disk import BLOCK, memory_disk
from testing.camera import LOCAL
from testing.daemon import CONFIGURED, PROGRAM
from testing.ftp_server import HOST, FtpServer
from testing.pipes import Event, block, post
from testing.settings import SERVER, Settings, encoded, handler, source, timer

pytest_plugins = ["camera_fixtures", "mail_fixtures"]
pytestmark = pytest.mark.not_under("sanitizer", reason="no other clock can be put into it")

DOOR = SERVER | source(1, "Door")
SUNDAY = datetime(2040, 3, 25, 20, 30)
LAST_SECOND = datetime(2038, 1, 19, 3, 14, 7)
LATE = timedelta(minutes=10)  # what a test may take; the clock goes on as ever
GIB = 1 << 30
PROGRAMS = Path(PROGRAM).parents[1] / "bin"  # an emulated daemon is started by a script beside it
SAVED = "Debug halvek: Copy succeeded$"


def clock(start: datetime, zone: str = "UTC") -> dict[str, str]:
    """What has a program start at another local time: the environment that faketime would give it.

    As its child it would keep the daemon's signals to itself. The clock that waits go by is left alone, and so are the
    dates of files.
    """
    (library,) = Path("/usr/lib").glob("*/faketime/libfaketimeMT.so.1")
    own = {"FAKETIME_DONT_FAKE_MONOTONIC": "1", "NO_FAKE_STAT": "1", "TZ": zone}
    return {"LD_PRELOAD": str(library), "FAKETIME": f"@{start}"} | own


def at(event: Event) -> datetime:
    """The stamp that has the date, whose day stands before its month."""
    moment = datetime.strptime(event.properties["FormattedTime"], "%Y-%d-%mT%H:%M:%S+00:00")
    assert event.properties["Timestamp"] == f"{moment:%H:%M:%S}"
    return moment


def assert_just_past(start: datetime, moment: datetime) -> None:
    assert start <= moment < start + LATE


@pytest.fixture
def launch_at(launch) -> Callable:
    """As launch, at another time."""

    def start(moment: datetime, settings: Settings, zone: str = "UTC", environment: dict | None = None):
        return launch(settings, environment=(environment or {}) | clock(moment, zone))

    return start


@pytest.mark.parametrize("zone", ["UTC", "EAST-9", "WEST3:30"])
def test_events_and_log_are_stamped_with_the_local_time(launch_at, output_pipe, zone):
    pipe = output_pipe()
    daemon = launch_at(SUNDAY, SERVER | timer(1, 3600), zone)
    post(block("Door"))
    for event_type in ("Door", "Timer"):
        assert_just_past(SUNDAY, at(pipe.wait_for_event(event_type)))
    for line in daemon.log.items:
        if stamp := re.match(r"([-\dT:]{19})\.\d{3} ", line):
            assert_just_past(SUNDAY, datetime.fromisoformat(stamp.group(1)))


def test_a_timer_ticks_across_the_end_of_32_bit_time(launch_at, output_pipe):
    pipe = output_pipe()
    start = LAST_SECOND - timedelta(seconds=2)
    daemon = launch_at(start, SERVER | timer(1, 1))
    pipe.wait_for_event("Timer", count=6)
    moments = [at(event) for event in pipe.of_type("Timer")]
    assert_just_past(start, moments[0])
    assert moments == sorted(moments) and moments[-1] > LAST_SECOND
    sleeps = [int(line.split()[-2]) for line in daemon.log.matching(r"next tick: \d+ ms$")]
    assert all(0 < sleep <= 1000 for sleep in sleeps)
    daemon.reload()
    pipe.wait_for_event("Timer", count=8)


FILTERS = {
    "its day": ({"EnabledDays": "U"}, True),
    "the other days": ({"EnabledDays": "MTWRFS"}, False),
    "its hour": ({"EnabledTimes": "2030-2130"}, True),
    "the other hours": ({"EnabledTimes": "0-2030,2130-2400"}, False),
}


@pytest.mark.parametrize("keys, passes", FILTERS.values(), ids=FILTERS.keys())
def test_a_handler_is_filtered_by(launch_at, output_pipe, keys, passes):
    pipe = output_pipe()
    launch_at(SUNDAY, DOOR | handler(1, "Events/Source#1", **keys))
    post(block("Door") + block("Last"))
    pipe.wait_for_event("Last")
    assert len(pipe.of_type("Door")) == 1 + passes


def test_an_alarm_switches_a_relay(launch_at, bus, camera, output_pipe):
    pipe = output_pipe()
    settings = SERVER | alarm(1, 3) | handler(1, *ids(1), handler_type="Relay", BankName=LOCAL, Index=1, Mode=1)
    daemon = launch_at(SUNDAY, settings, environment=bus.environment)
    camera.set_alarm(LOCAL, 3, True)
    camera.lines.wait_for("relay Local:1 on ")
    assert_just_past(SUNDAY, at(pipe.wait_for_event("Alarm")))
    daemon.reload()
    assert not daemon.log.matching(" (Warning|Error) ")


def test_the_mail_has_the_date_and_the_text(launch_at, sink, mail_environment):
    settings = DOOR | mail_handler(Message=encoded("%Y-%m-%d %H"))
    launch_at(SUNDAY, settings, environment=mail_environment)
    post(block("Door"))
    (mail,) = sink.wait_for(1)
    moment = parsedate_to_datetime(mail.message["Date"])
    assert moment.tzinfo == timezone.utc
    assert_just_past(SUNDAY, moment.replace(tzinfo=None))
    assert mail.message.get_content().strip() == "2040-03-25 20"


def test_the_upload_has_the_time_in_its_name(launch_at, tmp_path):
    programs, folder, snapshot = tmp_path / "bin", tmp_path / "server", tmp_path / "snapshot.jpg"
    programs.mkdir()
    folder.mkdir()
    (programs / "ftpput").symlink_to(shutil.which("busybox"))
    snapshot.write_bytes(b"picture")
    own = {
        "Server": HOST,
        "Username": "camera",
        "Password": "secret",
        "DestName": "%Y%m%d-%H.jpg",
        "Attachment": "true",
    }
    settings = DOOR | handler(1, "Events/Source#1", handler_type="Ftp", **own)
    with FtpServer(folder) as server:
        daemon = launch_at(
            SUNDAY,
            settings | {"Video/Quickview": {"SnapshotPath": snapshot}},
            environment={"PATH": f"{programs}:{os.environ['PATH']}"},
        )
        post(block("Door"))
        assert server.wait_for_file("/20400325-20.jpg") == b"picture"
        assert daemon.stop() == 0


def put(path: Path, modified: datetime, size: int = BLOCK) -> None:
    """A file that uses one block, whatever its size."""
    path.write_bytes(b"x" * BLOCK)
    os.truncate(path, size)
    moment = int(modified.replace(tzinfo=timezone.utc).timestamp())
    os.utime(path, (moment, moment))


@pytest.fixture
def card(tmp_path):
    folder = tmp_path / "card"
    folder.mkdir()
    with memory_disk(folder, "size=1M"):
        yield folder


@pytest.fixture
def save_at(launch_at, tmp_path, card):
    """Saves a snapshot of one block into the card, whose limit is given in blocks."""
    snapshot = tmp_path / "snapshot.jpg"
    snapshot.write_bytes(b"p" * BLOCK)

    def save(moment: datetime, limit: int):
        own = {"DestinationPath": card, "DestName": "%Y.jpg", "LimitSize": limit * BLOCK, "Attachment": "true"}
        settings = DOOR | handler(1, "Events/Source#1", handler_type="Folder", **own)
        daemon = launch_at(moment, settings | {"Video/Quickview": {"SnapshotPath": snapshot}})
        post(block("Door"))
        daemon.log.wait_for(SAVED)
        assert not daemon.log.matching(" Error ")
        return sorted(os.listdir(card))

    return save


def test_the_oldest_files_give_way_whichever_side_of_2038_they_are_from(save_at, card):
    put(card / "a-2041", datetime(2041, 1, 1))
    put(card / "b-2037", datetime(2037, 1, 1))
    put(card / "c-2040", datetime(2040, 1, 1))
    put(card / "d-last", LAST_SECOND)
    put(card / "e-next", LAST_SECOND + timedelta(seconds=1))
    # The oldest gives way as long as snapshot and folder are past the limit: 6, 5, 4, then 3 blocks.
    assert save_at(SUNDAY, limit=3) == ["2040.jpg", "a-2041", "c-2040"]


def test_a_file_of_2040_can_be_deleted_and_overwritten(save_at, card):
    put(card / "2040.jpg", datetime(2040, 1, 2))
    put(card / "older", datetime(2040, 1, 1))
    put(card / "newer", datetime(2040, 1, 3))
    assert save_at(SUNDAY, limit=3) == ["2040.jpg", "newer"]
    assert (card / "2040.jpg").read_bytes() == b"p" * BLOCK


@pytest.mark.parametrize("modified", [datetime(2020, 1, 1), datetime(2040, 1, 1)], ids=["2020", "2040"])
def test_a_file_of_3_gib_gives_way_when_it_is_the_oldest(save_at, card, modified):
    put(card / "huge", modified, size=3 * GIB)
    put(card / "newer", modified + timedelta(days=1))
    assert save_at(SUNDAY, limit=2) == ["2040.jpg", "newer"]


def test_a_snapshot_of_3_gib_counts_in_full(launch_at, tmp_path, card):
    snapshot = tmp_path / "snapshot.jpg"
    put(snapshot, datetime(2040, 1, 1), size=3 * GIB)
    put(card / "old", datetime(2039, 1, 1))
    own = {"DestinationPath": card, "DestName": "new.jpg", "LimitSize": "3G", "Attachment": "true"}
    settings = DOOR | handler(1, "Events/Source#1", handler_type="Folder", **own)
    daemon = launch_at(SUNDAY, settings | {"Video/Quickview": {"SnapshotPath": snapshot}})
    post(block("Door"))
    daemon.log.wait_for("Debug halvek: Copy really failed now$")  # the card is smaller
    (size,) = daemon.log.matching("Debug halvek: Current File size: ")
    assert int(size.split()[-1]) % (4 * GIB) == 3 * GIB  # a long has 32 bits on the camera, and only the log shows it
    assert os.listdir(card) == []


def test_the_settings_may_be_dated_2040_and_are_read_anew(launch_at, output_pipe):
    pipe = output_pipe()
    daemon = launch_at(SUNDAY, DOOR)
    daemon.write_settings(DOOR | handler(1, "Events/Source#1"))
    moment = SUNDAY.replace(tzinfo=timezone.utc).timestamp()
    os.utime(daemon.settings_file, (moment, moment))
    daemon.reload(until=CONFIGURED)
    post(block("Door"))
    pipe.wait_for_event("Door", count=2)


def test_nothing_is_used_that_keeps_32_bit_time_on_arm():
    """The C++ library's own calls for the date, and for what is known of a file, whoever it was built by."""
    command = ["nm", "--dynamic", "--undefined-only", PROGRAMS / "halvek", PROGRAMS / "kelto-mail.so"]
    names = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    assert "strftime" in names and "localtime" in names
    assert not re.search("system_clock|utc_clock|St10filesystem", names)
