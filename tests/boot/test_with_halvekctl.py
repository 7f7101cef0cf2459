"""What asks halvekctl on a camera: the page of the virtual camera, and recipes of the cookbook."""

import json
import re
import shutil
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from cookbook import Cookbook
from machine import (
    SETTINGS,
    UNIT,
    Consumer,
    camera_call,
    configure,
    is_active,
    on_door,
    post,
    run,
)
from test_page import PAGE_UNIT, SOCKET, ask
from testing.waiting import wait_until

NAME_OF_PAGE = PAGE_UNIT.removesuffix(".service")
FULL = re.MULTILINE | re.DOTALL
ARCHIVE, ARCHIVE_SOCKET = "halvek-archive.service", "halvek-archive.socket"

pytestmark = pytest.mark.usefixtures("halvekctl")


def drop_in_of_the_man_page() -> str:
    text = Path("/srv/source/docs/kelto-vcam-page.1").read_text().replace("\\-", "-")
    (found,) = re.findall(
        f"^# systemctl edit {NAME_OF_PAGE}\n(.*?)^# systemctl try-restart {NAME_OF_PAGE}$", text, FULL
    )
    return found


@pytest.fixture
def let_page() -> Iterator[Callable[[], None]]:
    """Does what the man page of the page shows."""
    path = Path(f"/etc/systemd/system/{PAGE_UNIT}.d/override.conf")

    def let() -> None:
        path.parent.mkdir()
        path.write_text(drop_in_of_the_man_page())
        run("systemctl", "daemon-reload")
        run("systemctl", "try-restart", NAME_OF_PAGE)

    run("systemctl", "start", SOCKET)
    yield let
    run("systemctl", "stop", SOCKET, PAGE_UNIT)
    shutil.rmtree(path.parent, ignore_errors=True)
    run("systemctl", "daemon-reload")


def test_the_page_shows_the_wiring_once_its_drop_in_lets_it_read_the_settings(camera: None, let_page):
    configure(on_door(("Preset", {"Id": 7})))
    told = json.loads(ask("/wiring"))
    assert told["drawing"] == "" and "Permission denied" in told["problem"], told
    let_page()
    told = json.loads(ask("/wiring"))
    assert told["problem"] == "" and "preset 7" in told["drawing"], told
    wait_until(lambda: json.loads(ask("/state"))["eventPipe"]["open"], "the page listens")
    post("Door")
    wait_until(lambda: json.loads(ask("/explain"))["seq"] == 1, "the event")
    told = json.loads(ask("/explain"))
    assert [(row["group"], row["acts"]) for row in told["rows"]] == [("Events/Handler#1", True)], told


def archived() -> list[str]:
    text = "".join(path.read_text() for path in Path("/var/lib/halvek-archive").glob("*.events"))
    return re.findall(r"^number=(\d+)$", text, re.M)


def test_the_cookbooks_archive_misses_nothing_while_it_and_the_daemon_are_restarted(
    cookbook: Cookbook, consumer: Consumer
):
    cookbook.take("archive")
    cookbook.type_in("A listener that must miss nothing", but="cat")
    wait_until(lambda: archived() == ["1"], "the first receipt is archived")
    assert "number=1\n" in cookbook.type_in("A listener that must miss nothing", containing="cat")
    numbers = [str(number) for number in range(1, 102)]
    run("systemctl", "stop", ARCHIVE)
    for number in numbers[1:51]:
        post("Receipt", number=number)
    # What is still in the event pipe would go with the daemon.
    consumer.wait_for_event("Receipt", properties={"number": "51"})
    run("systemctl", "restart", UNIT)
    for number in numbers[51:]:
        post("Receipt", number=number)
    run("systemctl", "start", ARCHIVE)
    wait_until(lambda: archived() == numbers, "all receipts are archived")
    run("systemctl", "disable", "--now", ARCHIVE, ARCHIVE_SOCKET)
    assert not Path("/run/halvek/00-archive.halvek.any").is_symlink() and is_active()


def test_what_the_cookbook_saves_comes_back_and_what_is_the_cameras_own_stays(cookbook: Cookbook):
    cookbook.take("backup")
    cookbook.type_in("Settings for another camera", containing="save")
    cookbook.close()
    own = SETTINGS.with_name("zz-camera.ini")
    own.write_text("[Events/Handler#backup/Preset]\nId=9\n")
    cookbook.type_in("Settings for another camera", containing="restore")
    run("kelto-vcam", "alarm", "6", "on")
    wait_until(lambda: "9, 1, 400" in camera_call("GetActions"), "the head goes to this camera's own preset")
    own.unlink()
