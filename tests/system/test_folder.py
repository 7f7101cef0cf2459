"""Snapshots into a folder of limited size, with the real du, find, xargs, ls and head."""

import os
import re
from collections.abc import Iterator
from pathlib import Path

import pytest
from memory_disk import BLOCK, MemoryDisk, memory_disk, used
from testing.daemon import Daemon
from testing.pipes import block, post
from testing.settings import SERVER, Settings, handler, source, timer
from testing.waiting import wait_until

SAVED = "Debug halvek: Copy succeeded$"
DOOR = SERVER | source(1, "Door")


@pytest.fixture
def snapshot(tmp_path: Path) -> Path:
    path = tmp_path / "snapshot.jpg"
    path.write_bytes(b"0" * 2 * BLOCK)
    return path


@pytest.fixture
def disk(tmp_path: Path) -> Iterator[MemoryDisk]:
    folder = tmp_path / "card"
    folder.mkdir()
    with memory_disk(folder, "size=256k") as mounted:
        yield mounted


@pytest.fixture
def card(disk: MemoryDisk) -> Path:
    return disk.folder


def saving(snapshot: Path, folder: Path, limit: object = "", name: str = "new.jpg", **keys: object) -> Settings:
    """A handler of the first source that saves the snapshot."""
    own = {"DestinationPath": folder, "DestName": name, "LimitSize": limit, "Attachment": "true"} | keys
    return handler(1, "Events/Source#1", handler_type="Folder", **own) | {"Video/Quickview": {"SnapshotPath": snapshot}}


def names(folder: Path) -> list[str]:
    """All names, hidden ones too."""
    return sorted(os.listdir(folder))


def put(path: Path, size: int, modified: int) -> None:
    path.write_bytes(b"x" * size)
    os.utime(path, (modified, modified))


def test_a_folder_stays_below_its_limit_over_many_events_and_the_newest_files_stay(launch, snapshot, card):
    limit = 16 * BLOCK
    put(card / "old", BLOCK, 1)
    daemon = launch(DOOR | saving(snapshot, card, limit))
    kept = limit // (2 * BLOCK)
    for number in range(40):
        snapshot.write_bytes(f"{number:03}".encode() + b"x" * (2 * BLOCK - 3))
        post(block("Door"))
        daemon.log.wait_for(SAVED, count=number + 1)
        (card / "new.jpg").rename(card / f"{number:03}.jpg")
        assert used(card) <= limit
    newest = [f"{number:03}.jpg" for number in range(40 - kept, 40)]
    assert names(card) == newest
    assert [(card / name).read_bytes()[:3].decode() + ".jpg" for name in newest] == newest
    assert not daemon.log.matching(" Error ")


def test_a_timer_saves_as_fast_as_it_fires_and_the_folder_stays_below_its_limit(launch, snapshot, card):
    limit = 10 * BLOCK
    for number in range(20):
        put(card / f"{number:02}", BLOCK, 1000 + number)
    daemon = launch(timer(1, 0) | saving(snapshot, card, "40k"))
    after = daemon.log.wait_for("Debug halvek: Current Limit size:     40960$")
    daemon.log.wait_for(SAVED, after=after, count=30)
    assert daemon.stop() == 0
    daemon.assert_orderly_end()
    assert used(card) <= limit
    assert names(card) == [f"{number:02}" for number in range(14, 20)] + ["new.jpg"]
    assert not daemon.log.matching(" Error ")


def test_the_name_of_the_copy_has_the_local_time(launch, snapshot, card):
    daemon = launch(DOOR | saving(snapshot, card, name="%Z%z.jpg"), environment={"TZ": "HERE-3:30"})
    post(block("Door"))
    daemon.log.wait_for(SAVED)
    assert names(card) == ["HERE+0330.jpg"]


@pytest.fixture
def bait(tmp_path: Path) -> Path:
    folder = tmp_path / "bait"
    (folder / "card").mkdir(parents=True)
    for name in ("a", "door.jpg", "new.jpg", "with a blank", "two\nlines", "card/old.jpg"):
        put(folder / name, 1, 0)
    return folder


def everything(folder: Path) -> list[Path]:
    return sorted(folder.rglob("*"))


@pytest.mark.parametrize(
    ("folder", "files"),
    [
        ("card", ["sub/file"]),
        ("card", ["front door.jpg"]),
        ("card", ["old\na"]),
        ("my card", ["front.jpg"]),
    ],
    ids=str,
)
def test_nothing_outside_the_folder_is_removed(launch, snapshot, card, bait, folder, files):
    target = card / folder
    for name in files:
        (target / name).parent.mkdir(parents=True)
        put(target / name, 1, 1)
    if " " in folder:
        put(card / "my", 1, 0)
    before = everything(bait) + everything(card)
    daemon = launch(DOOR | saving(snapshot, target, 1), prefix=("env", "-C", str(bait)))
    for count in (1, 2):
        post(block("Door"))
        failure = "Error halvek: FolderEventHandler: unable to delete oldest file, permission problem\\?$"
        daemon.log.wait_for(failure, count=count)
    assert everything(bait) + everything(card) == before


def test_a_full_disk_costs_its_events_only(launch, snapshot, card):
    put(card / "new.jpg", BLOCK, 1)
    put(card / "filler", 62 * BLOCK, 2)
    daemon = launch(DOOR | saving(snapshot, card))
    for count in (1, 2):
        post(block("Door"))
        daemon.log.wait_for("Debug halvek: Copy really failed now$", count=count)
    assert len(daemon.log.matching("Error kelto.osa: Cannot write .*: No space left on device$")) == 4
    assert names(card) == ["filler", "new.jpg"]
    assert (card / "new.jpg").read_bytes() == b"x" * BLOCK
    (card / "filler").unlink()
    post(block("Door"))
    daemon.log.wait_for(SAVED)
    assert (card / "new.jpg").read_bytes() == snapshot.read_bytes()


def test_a_read_only_disk_costs_its_events_only(launch, snapshot, disk):
    put(disk.folder / "old.jpg", BLOCK, 1)
    disk.make_read_only()
    daemon = launch(DOOR | saving(snapshot, disk.folder))
    post(block("Door"))
    daemon.log.wait_for("Debug halvek: Copy really failed now$")
    assert len(daemon.log.matching("Error kelto.osa: Cannot write into .*: Read-only file system$")) == 2
    assert names(disk.folder) == ["old.jpg"]
    disk.make_writable()
    post(block("Door"))
    daemon.log.wait_for(SAVED)
    assert names(disk.folder) == ["new.jpg", "old.jpg"]


def test_a_name_that_the_disk_refuses_is_written_short(launch, snapshot, card):
    daemon = launch(DOOR | saving(snapshot, card, name="12:30:45 front door" + 255 * "x" + ".jpg"))
    post(block("Door"))
    after = daemon.log.wait_for("Debug halvek: Copy failed, trying shorter filename$")
    daemon.log.wait_for(SAVED, after=after)
    assert names(card) == ["12_30_45.jpg"]


REFUSED = {
    "no attachment": (
        {"Attachment": "false"},
        {},
        "FolderEventHandler: No file attachment wanted, what's the point then\\?",
    ),
    "an attachment that is no bool": ({"Attachment": "perhaps"}, {}, ".*Attachment.*perhaps"),
    "no snapshot in the settings": ({}, {"Video/Quickview": {}}, ".*SnapshotPath.*Video/Quickview"),
    "an empty path": (
        {},
        {"Video/Quickview": {"SnapshotPath": ""}},
        "FolderEventHandler: the path of the source file was not found",
    ),
}


@pytest.mark.parametrize(("keys", "groups", "reason"), REFUSED.values(), ids=REFUSED.keys())
def test_a_handler_that_is_refused_is_skipped_and_a_reload_brings_it_back(
    launch, snapshot, card, output_pipe, keys, groups, reason
):
    pipe = output_pipe("Door.fifo")
    good = DOOR | saving(snapshot, card)
    daemon = launch(DOOR | saving(snapshot, card, **keys) | groups)
    daemon.log.wait_for(f"Warning halvek: Error LoadHandlers: {reason}$")
    post(block("Door"))
    pipe.wait_for_event("Door")
    assert names(card) == []
    daemon.write_settings(good)
    daemon.reload()
    post(block("Door"))
    daemon.log.wait_for(SAVED)


def test_without_a_bus_the_card_may_be_written(launch, snapshot):
    with memory_disk(Path("/media")):
        Path("/media/sd").mkdir()
        daemon = launch(DOOR | saving(snapshot, Path("/media/sd")))
        post(block("Door"))
        daemon.log.wait_for(SAVED)
        assert names(Path("/media/sd")) == ["new.jpg"]
        assert not daemon.log.matching(" Error ")


def thread_of_the_event_server(daemon: Daemon) -> Path:
    tasks = Path(f"/proc/{daemon.pid}/task").iterdir()
    return next(task for task in tasks if (task / "comm").read_text().startswith("EventServer"))


def count_waits(thread: Path) -> int:
    """How often a thread has begun to wait for something, anew after each interruption."""
    status = (thread / "status").read_text()
    return int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)$", status, re.MULTILINE).group(1))


@pytest.fixture
def held_du(tmp_path: Path) -> Iterator[tuple[dict[str, str], int]]:
    """A du that says 16 in two halves: the environment that has it, and a descriptor to write to between the two."""
    programs = tmp_path / "programs"
    programs.mkdir()
    go_on = tmp_path / "go on"
    os.mkfifo(go_on)
    script = programs / "du"
    lines = ("#!/bin/sh", "printf 1", "echo waiting >&2", f"read line < '{go_on}'", "printf '6\\t/card\\n'", "")
    script.write_text("\n".join(lines))
    script.chmod(0o755)
    descriptor = os.open(go_on, os.O_RDWR)
    yield {"PATH": f"{programs}:{os.environ['PATH']}"}, descriptor
    os.close(descriptor)


def test_a_stop_waits_for_a_command_and_does_not_cut_what_it_says(launch, snapshot, card, held_du):
    environment, go_on = held_du
    daemon = launch(DOOR | saving(snapshot, card, "24576"), environment=environment)
    post(block("Door"))
    daemon.log.wait_for("^waiting$")
    thread = thread_of_the_event_server(daemon)
    before = count_waits(thread)
    daemon.send(15)
    wait_until(lambda: count_waits(thread) > before + 5, "the thread is asked to stop again and again")
    assert daemon.process.poll() is None
    os.write(go_on, b"\n")
    assert daemon.wait_for_exit() == 0
    daemon.assert_orderly_end()
    assert daemon.log.matching(SAVED)
    assert names(card) == ["new.jpg"]
