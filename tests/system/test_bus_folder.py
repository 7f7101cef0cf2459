"""The SD card while the camera records to it, as the camera's recording service tells."""

from collections.abc import Iterator
from pathlib import Path

import pytest
from daemon_on_bus import alarm
from memory_disk import memory_disk
from testing.camera import LOCAL, VirtualCamera
from testing.settings import Settings, handler

pytest_plugins = ["camera_fixtures"]

SAVED = "Debug halvek: Copy succeeded$"
FORBIDDEN = "Error halvek: Local recording disables saving snapshots to the SD card.$"
GET_SUMMARY = "RecordingInformation.GetSummary"
SOURCE = "Events/Source#1"


@pytest.fixture
def card() -> Iterator[Path]:
    with memory_disk(Path("/media")):
        folder = Path("/media/sd")
        (folder / "pics").mkdir(parents=True)
        yield folder


@pytest.fixture
def alarm_saves(launch_on_bus, camera):
    """Has an alarm save the snapshot to a folder; gives the daemon."""

    def start(folder: Path, **keys: object):
        own = {"DestinationPath": folder, "DestName": "new.jpg", "Attachment": "true"} | keys
        saving: Settings = handler(1, SOURCE, handler_type="Folder", **own)
        return launch_on_bus(alarm(1, 3) | saving | {"Video/Quickview": {"SnapshotPath": camera.snapshot}})

    return start


def raise_alarm(camera: VirtualCamera) -> None:
    for active in (True, False):
        camera.set_alarm(LOCAL, 3, active)


def assert_picture(path: Path) -> None:
    """A whole picture of the camera."""
    content = path.read_bytes()
    assert content[:2] == b"\xff\xd8" and content[-2:] == b"\xff\xd9"


def test_an_alarm_saves_the_cameras_picture_to_the_card(alarm_saves, camera, card):
    daemon = alarm_saves(card)
    raise_alarm(camera)
    daemon.log.wait_for(SAVED)
    assert_picture(card / "new.jpg")
    asked = [action.arguments for action in camera.actions(GET_SUMMARY)]
    assert set(asked) == {"recording_information"}
    assert not daemon.log.matching(" Error ")


@pytest.mark.parametrize("recording", [(True, False), (False, True), (True, True)], ids=str)
def test_while_the_camera_records_nothing_is_saved_and_nothing_deleted(alarm_saves, camera, card, recording):
    (card / "old.jpg").write_text("old")
    camera.set_recording(*recording)
    daemon = alarm_saves(card, LimitSize=5000)
    camera.set_alarm(LOCAL, 3, True)
    daemon.log.wait_for(FORBIDDEN)
    assert len(camera.actions(GET_SUMMARY)) == 1
    assert sorted(path.name for path in card.iterdir()) == ["old.jpg", "pics"]
    assert len(daemon.log.matching(" Error ")) == 1
    camera.set_recording(False, False)
    camera.set_alarm(LOCAL, 3, False)
    daemon.log.wait_for("Debug halvek: Directory past limit, deleting oldest file$")


def test_recording_does_not_keep_pictures_from_a_sub_folder_of_the_card(alarm_saves, camera, card):
    camera.set_recording(True, True)
    daemon = alarm_saves(card / "pics")
    raise_alarm(camera)
    daemon.log.wait_for(SAVED)
    assert_picture(card / "pics/new.jpg")
    assert camera.actions(GET_SUMMARY) == []


@pytest.mark.parametrize("fault", ["error", "hang"])
def test_a_recording_service_that_does_not_answer_forbids_nothing(alarm_saves, camera, card, fault):
    camera.set_recording(True, True)
    camera.set_fault("RecordingInformation", fault)
    daemon = alarm_saves(card)
    camera.set_alarm(LOCAL, 3, True)
    daemon.log.wait_for(SAVED)
    assert_picture(card / "new.jpg")
    camera.set_fault("RecordingInformation", "none")
    camera.set_alarm(LOCAL, 3, False)
    daemon.log.wait_for(FORBIDDEN)
