"""The virtual camera's picture, its start and its end."""

import os
import shutil
import signal
import struct
import subprocess
import time
from itertools import pairwise
from pathlib import Path

import pytest
from testing.camera import ALERT, ATTEMPTS, CAMERA_PROGRAM, INTERFACE_FILES, LATE, LOCAL, VirtualCamera
from testing.collector import Lines
from testing.processes import dies_with_us
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures"]
pytestmark = pytest.mark.not_under("emulator", reason="what is tried here is never on a camera")


class Jpeg:
    """What a file says of itself, read from its markers alone."""

    def __init__(self, data: bytes) -> None:
        assert data.startswith(b"\xff\xd8"), "no start of image"
        assert data.endswith(b"\xff\xd9"), "no end of image"
        position, self.segments = 2, []
        while not self.segments or self.segments[-1] != 0xDA:
            marker, code, size = struct.unpack_from(">BBH", data, position)
            assert marker == 0xFF
            if code in (0xC0, 0xC2):
                _, self.height, self.width, self.components = struct.unpack_from(">BHHB", data, position + 4)
            self.segments.append(code)
            position += 2 + size
        self.scan = data[position:-2]


def test_the_snapshot_is_a_real_picture(camera):
    picture = Jpeg(camera.snapshot.read_bytes())
    assert (picture.width, picture.height, picture.components) == (320, 240, 3)
    assert {0xC0, 0xC4, 0xDB} <= set(picture.segments)  # a frame, Huffman and quantisation tables
    assert len(picture.scan) > 2000


def test_the_snapshot_changes_every_second_and_is_whole_whenever_it_is_read(camera):
    def is_in_time() -> bool:
        seen: dict[bytes, float] = {}

        def three_more_pictures() -> bool:
            data = camera.snapshot.read_bytes()
            Jpeg(data)
            seen.setdefault(data, time.monotonic())
            return len(seen) == 4

        wait_until(three_more_pictures, "four pictures")
        _, *times = seen.values()
        return all(1.0 - LATE < later - earlier < 1.0 + LATE for earlier, later in pairwise(times))

    assert any(is_in_time() for _ in range(ATTEMPTS))
    assert {path.name for path in camera.snapshot.parent.iterdir()} <= {"notify", "img2.jpg"} | {
        f".kelto-vcam-{camera.process.pid}"
    }


def test_a_new_picture_takes_the_place_of_whatever_was_there(bus, tmp_path):
    target = tmp_path / "precious"
    target.write_text("not to be written to")
    link = tmp_path / "camera" / "img2.jpg"
    link.parent.mkdir()
    link.symlink_to(target)
    with VirtualCamera(bus, tmp_path / "camera") as camera:
        assert not link.is_symlink() and Jpeg(link.read_bytes())
        assert camera.stop() == 0
    assert target.read_text() == "not to be written to"
    assert {path.name for path in link.parent.iterdir()} == {"img2.jpg"}


def test_a_picture_that_cannot_be_written_is_told_once_and_comes_back(bus, tmp_path):
    folder = tmp_path / "pictures"
    with VirtualCamera(bus, tmp_path / "camera", "--snapshot", str(folder / "now.jpg")) as camera:
        for _ in range(2):
            before = len(camera.complaints.items)
            shutil.move(folder, tmp_path / "away")
            camera.complaints.wait_for("kelto-vcam: Cannot write .*: No such file or directory$", after=before)
            camera.let_pass(1500)  # and the next one cannot be written either
            shutil.move(tmp_path / "away", folder)
            (folder / "now.jpg").unlink(missing_ok=True)
            wait_until((folder / "now.jpg").exists, "a picture again")
        assert len(camera.complaints.items) == 2
        assert camera.stop() == 0


def test_without_an_option_the_picture_is_where_the_daemon_looks_for_it(bus, tmp_path):
    """In a /tmp of its own; what is in it is seen through the camera's root folder."""
    program = tmp_path / "kelto-vcam"
    shutil.copy(CAMERA_PROGRAM, program)
    private_tmp = ("unshare", "-m", "sh", "-c", 'mount -n -t tmpfs tmpfs /tmp && exec "$@"', "sh")
    process = subprocess.Popen(
        dies_with_us(*private_tmp, str(program)),
        env=os.environ | bus.environment,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
    )
    lines = Lines(os.dup(process.stdout.fileno()), "kelto-vcam")
    try:
        lines.wait_for("ready, a new picture every second in /tmp/snapshot/img2.jpg$")
        assert Jpeg(Path(f"/proc/{process.pid}/root/tmp/snapshot/img2.jpg").read_bytes())
    finally:
        process.kill()
        process.wait()
        process.stdout.close()
        lines.close()


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_signal_ends_it_cleanly_in_the_middle_of_everything(camera, number):
    camera.configure_relay(LOCAL, 0, on=10, off=10, count=10_000)
    camera.activate(LOCAL, 0, 3)
    camera.call("Tour", "Start", "si", "2", 400)
    camera.set_fault("MotionState", "hang")
    camera.begin_call("MotionState", "GetIdleState")
    wait_until(lambda: camera.actions("MotionState.GetIdleState"), "the call arrives")
    assert camera.stop(number) == 0
    assert camera.complaints.items == [] and camera.notifications.items == ["READY=1"]
    assert {path.name for path in camera.snapshot.parent.iterdir()} == {"notify", "img2.jpg"}
    assert camera.client.owner("com.kelto.VirtualCamera") is None


@pytest.mark.parametrize("name", INTERFACE_FILES)
def test_it_does_not_start_where_one_of_its_names_is_taken(bus, tmp_path, name):
    bus.client().own(f"com.kelto.{name}")
    with VirtualCamera(bus, tmp_path / "camera", ready=False) as camera:
        assert camera.wait_for_exit() == 1
        assert camera.complaints.items == [
            f"kelto-vcam: The name com.kelto.{name} is taken on this bus: is another kelto-vcam running?"
        ]
        assert camera.notifications.items == [] and not camera.snapshot.exists()


def test_a_second_camera_leaves_the_first_alone(camera, bus, tmp_path):
    with VirtualCamera(bus, tmp_path / "second", ready=False) as second:
        assert second.wait_for_exit() == 1
        assert second.complaints.matching("is another kelto-vcam running") and second.lines.items == []
    camera.set_alarm(LOCAL, 0, True)
    camera.lines.wait_for("alarm Local:0 active")


def test_without_a_bus_it_says_so_and_ends(bus, tmp_path):
    bus.stop()
    with VirtualCamera(bus, tmp_path / "camera", ready=False) as camera:
        assert camera.wait_for_exit() == 1
        assert len(camera.complaints.matching("^kelto-vcam: Cannot open the system bus: ")) == 1
        assert len(camera.complaints.items) == 1


def test_a_bus_that_goes_away_ends_it_and_a_new_camera_finds_the_new_bus(camera, bus, tmp_path):
    camera.configure_relay(LOCAL, 0, on=1, off=1, count=100_000)
    camera.activate(LOCAL, 0, 3)
    bus.kill()
    assert camera.wait_for_exit() == 1
    assert camera.complaints.items == ["kelto-vcam: The bus has gone away"]
    bus.start()
    with VirtualCamera(bus, tmp_path / "again") as again:
        again.set_alarm(LOCAL, 0, True)
        again.lines.wait_for("alarm Local:0 active")
        assert again.stop() == 0


def test_a_picture_that_cannot_be_written_at_the_start_ends_it(bus, tmp_path):
    with VirtualCamera(bus, tmp_path / "camera", "--snapshot", "/proc/no/such.jpg", ready=False) as camera:
        assert camera.wait_for_exit() == 1
        assert camera.complaints.items == ["kelto-vcam: Cannot make the folder /proc/no/: No such file or directory"]


def test_activity_leaves_no_descriptor_behind(camera):
    def descriptors() -> int:
        return len(os.listdir(f"/proc/{camera.process.pid}/fd"))

    camera.activate(LOCAL, 0, 3)
    camera.lines.wait_for("off .*pulse")
    before = min(descriptors() for _ in range(20))  # less the picture that is just being written
    for _ in range(200):
        camera.set_alarm(LOCAL, 0, True)
        camera.activate(LOCAL, 1, 3)
        camera.go_to("5")
        camera.go_to("6")
        camera.raise_alert(*ALERT)
    wait_until(lambda: descriptors() == before, "as many descriptors as before")
