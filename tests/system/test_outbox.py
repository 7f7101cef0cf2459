"""The outbox between the daemon and its servers: what is handed over arrives, or is accounted for."""

import os
import re
import shutil
import signal
import time
from pathlib import Path

import pytest
from outbox import FLASH, MAIL, RAM, SOCKET, Outbox, picture
from spool_calls import SpoolCalls
from testing.ftp_server import FtpServer
from testing.waiting import PATIENCE, wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is tried in release, with real servers")
pytest_plugins = ["outbox_fixtures"]


def test_a_picture_arrives_under_its_name_and_nothing_else_is_left(outbox: Outbox, ftp: FtpServer):
    outbox.start()
    content = picture()
    outbox.put(content, "/up/shot.jpg")
    outbox.wait_for(delivered=1, queued=0)
    assert ftp.content("/up/shot.jpg") == content
    assert [path.name for path in (ftp.folder / "up").iterdir()] == ["shot.jpg"]
    assert list(RAM.iterdir()) == list(FLASH.iterdir()) == []


@pytest.mark.parametrize("name", ["a b.jpg", "%41.jpg", "x;type=a", "#1.jpg", "?q=1", "ä.jpg", "~", '"q".jpg'])
def test_a_name_means_itself(outbox: Outbox, ftp: FtpServer, name: str):
    outbox.start()
    outbox.put(b"picture", f"/up/{name}")
    outbox.wait_for(delivered=1)
    assert [path.name for path in (ftp.folder / "up").iterdir()] == [name]


def test_the_camera_may_replace_the_file_behind_it(outbox: Outbox, ftp: FtpServer, tmp_path: Path):
    ftp.set_fault("refuse")
    outbox.start()
    outbox.put(b"the picture of the moment")
    ftp.set_fault("none")
    outbox.run("flush")
    outbox.wait_for(delivered=1)
    assert ftp.content("/shot.jpg") == b"the picture of the moment"


def test_a_server_that_is_away_gets_all_of_it_in_its_order_when_it_is_back(outbox: Outbox, ftp: FtpServer):
    ftp.set_fault("refuse")
    outbox.start()
    contents = {f"/up/{number}.jpg": picture(1000) for number in range(5)}
    numbers = [outbox.put(content, name) for name, content in contents.items()]
    outbox.wait_for_state(numbers[0], "wait")
    assert outbox.target()["state"] == "wait"
    ftp.set_fault("none")
    assert outbox.run("flush").returncode == 0
    outbox.wait_for(delivered=5, queued=0)
    assert {name: ftp.content(name) for name in contents} == contents


def test_only_what_has_failed_once_is_written_to_flash(outbox: Outbox, ftp: FtpServer):
    outbox.start()
    outbox.put(picture())
    outbox.wait_for(delivered=1)
    ftp.set_fault("refuse")
    number = outbox.put(picture())
    wait_until(lambda: [path.name for path in FLASH.iterdir()] == [number], "it is on flash")
    wait_until(lambda: list(RAM.iterdir()) == [], "it is nowhere else")


def test_an_item_is_a_header_the_payload_and_a_line_that_tells_their_end(outbox: Outbox, ftp: FtpServer):
    ftp.set_fault("refuse")
    outbox.configure("[Outbox]\nDurability=early\n")
    outbox.start()
    content = picture()
    number = outbox.put(content)
    path = FLASH / number
    _, _, rest = path.read_bytes().partition(b"\n\n")
    assert rest.startswith(content)
    assert re.fullmatch(rb"\nend 30000 [0-9a-f]{8}\n", rest[len(content) :])
    assert path.stat().st_mode & 0o777 == 0o600
    assert FLASH.stat().st_mode & 0o777 == 0o700


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM])
def test_what_waits_survives_an_end_and_is_delivered_once(outbox: Outbox, ftp: FtpServer, number: int):
    ftp.set_fault("refuse")
    outbox.start()
    content = picture()
    item = outbox.put(content)
    outbox.wait_for_state(item, "wait")
    outbox.stop(number)
    ftp.set_fault("none")
    outbox.start()
    outbox.wait_for(delivered=1, queued=0)
    assert ftp.received.count(f"/.halvek-{item}.part") == 1 and ftp.content("/shot.jpg") == content


def test_a_stop_is_done_within_a_second_while_a_server_says_nothing(outbox: Outbox, ftp: FtpServer):
    ftp.set_fault("hang")
    outbox.start()
    number = outbox.put(picture())
    ftp.wait_for_hung_connection()
    begin = time.monotonic()
    assert outbox.stop() == 0
    assert time.monotonic() - begin < 1 + 1  # the machine may stand still for a second
    assert [path.name for path in FLASH.iterdir()] == [number]


def test_damaged_files_are_set_aside_and_the_others_delivered(outbox: Outbox, ftp: FtpServer):
    ftp.set_fault("refuse")
    outbox.configure("[Outbox]\nDurability=early\n")
    outbox.start()
    numbers = [outbox.put(picture(), f"/{name}.jpg") for name in range(4)]
    outbox.stop(signal.SIGKILL)
    cut, flipped, changed = (FLASH / number for number in numbers[:3])
    cut.write_bytes(cut.read_bytes()[:-40])
    flipped.write_bytes(flipped.read_bytes()[:-1000] + b"?" + flipped.read_bytes()[-999:])
    changed.write_bytes(changed.read_bytes().replace(b"host=127.0.0.1", b"host=127.0.0.2"))
    (FLASH / "rubbish").write_bytes(b"")
    ftp.set_fault("none")
    outbox.start()
    outbox.wait_for(delivered=1, queued=0)
    assert {path.name for path in FLASH.with_name("bad").iterdir()} == {*numbers[:3], "rubbish"}
    assert ftp.received == [f"/.halvek-{numbers[3]}.part"]


def test_a_full_spool_gives_up_the_oldest_picture_first_and_refuses_what_never_fits(outbox: Outbox, ftp: FtpServer):
    ftp.set_fault("refuse")
    outbox.configure("[Outbox]\nSpoolLimit=100K\n")
    outbox.start()
    mail = outbox.mail(MAIL)
    numbers = [outbox.put(picture(40_000), "/0.jpg")]
    outbox.wait_for_state(numbers[0], "wait")  # what is on its way is not given up
    numbers += [outbox.put(picture(40_000), f"/{name}.jpg") for name in (1, 2)]
    assert [item["id"] for item in outbox.answer("list")["items"]] == [mail, *numbers[1:]]
    assert outbox.counts()["dropped"] == 1
    local = outbox.folder / "large"
    local.write_bytes(picture(200_000))
    assert outbox.submit("ftpput", "127.0.0.1", "x", str(local)).returncode == 75


def test_what_is_too_old_expires(outbox: Outbox, ftp: FtpServer):
    ftp.set_fault("refuse")
    outbox.configure("[Outbox]\nMaxAge=1\n")
    outbox.start()
    outbox.put(picture())
    outbox.wait_for(expired=1, queued=0)


def test_every_number_is_counted_under_one_name(outbox: Outbox, ftp: FtpServer):
    ftp.set_fault("refuse")
    outbox.start()
    numbers = [outbox.put(picture(10), f"/{name}.jpg") for name in range(3)]
    assert outbox.run("drop", numbers[0]).returncode == 0
    assert outbox.run("drop", numbers[0]).returncode == 1
    ftp.set_fault("none")
    outbox.run("flush")
    outbox.wait_for(delivered=2)
    assert outbox.counts() == {
        "queued": 0, "delivered": 2, "failed": 0, "expired": 0, "dropped": 1, "uncertain": 0
    }  # fmt: skip


def test_descriptors_and_memory_stay_as_they_are(outbox: Outbox, ftp: FtpServer):
    def descriptors() -> int:
        return len(os.listdir(f"/proc/{outbox.process.pid}/fd"))

    outbox.start()
    outbox.put(picture(), "/first.jpg")
    outbox.wait_for(delivered=1)
    wait_until(lambda: len(os.listdir(f"/proc/{outbox.process.pid}/task")) == 1, "its threads have ended")
    before = descriptors()
    for number in range(30):
        outbox.put(picture(100), f"/{number}.jpg")
        if number % 10 == 5:
            ftp.set_fault("refuse")
        if number % 10 == 9:
            ftp.set_fault("none")
    outbox.run("flush")
    outbox.wait_for(delivered=31, queued=0)
    wait_until(lambda: descriptors() == before, "its descriptors are closed")


def test_a_service_that_was_started_by_its_socket_ends_after_a_minute_without_work(
    outbox: Outbox, ftp: FtpServer, tmp_path: Path
):
    calls = SpoolCalls(tmp_path / "control")
    activate = shutil.which("systemd-socket-activate")
    assert activate
    variables = [f"--setenv={name}={value}" for name, value in calls.environment.items()]
    outbox.start(activate, *variables, "-l", str(SOCKET))
    outbox.put(picture())
    outbox.wait_for(delivered=1)
    ftp.set_fault("refuse")
    number = outbox.put(picture())
    outbox.wait_for_state(number, "wait")
    calls.let_pass(120)
    outbox.run("hold")
    assert outbox.process.poll() is None  # something waits
    ftp.set_fault("none")
    outbox.run("release")
    outbox.wait_for(delivered=2)
    outbox.process.send_signal(signal.SIGHUP)
    outbox.counts()  # it has seen the signal, and had work just now
    # It would wake up by itself, but time does not pass for the kernel.
    calls.let_pass(61)
    outbox.process.send_signal(signal.SIGHUP)
    assert outbox.process.wait(PATIENCE) == 0


@pytest.mark.not_under("suite", reason="a minute is long")
def test_a_service_without_work_ends_by_itself(outbox: Outbox):
    outbox.start(shutil.which("systemd-socket-activate"), "-l", str(SOCKET))
    outbox.counts()
    begin = time.monotonic()
    assert outbox.process.wait(60 + PATIENCE) == 0
    assert time.monotonic() - begin > 55


def test_a_service_that_made_its_socket_itself_stays(outbox: Outbox, tmp_path: Path):
    calls = SpoolCalls(tmp_path / "control")
    outbox.environment = dict(calls.environment)
    outbox.start()
    calls.let_pass(61)
    outbox.process.send_signal(signal.SIGHUP)
    outbox.counts()
    calls.let_pass(61)
    outbox.counts()
    assert outbox.process.poll() is None
