"""What the daemon and its commands cannot do. Each attempt succeeds for the same user outside the sandbox."""

import json
import shutil
from pathlib import Path

import intruder
import pytest
from machine import SNAPSHOT, UNIT, USER, Journal, configure, main_pid, on_door, open_door, run, run_as
from testing.waiting import wait_until

PROGRAM = Path("/usr/local/bin/intruder")
REPORTS = Path("/tmp/intruder")
ID_OF_ROOT = Path("/usr/local/bin/id-of-root")
DROP_IN = Path("/etc/systemd/system/halvek.service.d/boot-test.conf")


@pytest.fixture(scope="module", autouse=True)
def open_places() -> None:
    """Folders that everybody may write to as far as their modes go, and a program that gives root's identity."""
    for folder in (*intruder.FOLDERS, REPORTS):
        Path(folder).mkdir()
        Path(folder).chmod(0o777)
    shutil.copy("/usr/bin/id", ID_OF_ROOT)
    ID_OF_ROOT.chmod(0o4755)
    shutil.copy(intruder.__file__, PROGRAM)
    PROGRAM.chmod(0o755)


@pytest.fixture(scope="module")
def outside(open_places: None) -> dict[str, str]:
    report = REPORTS / "outside"
    result = run_as(USER, command=f"{PROGRAM} {report}")
    assert result.returncode == 0, result.stderr
    return json.loads(report.read_text())


@pytest.fixture(scope="module")
def inside(open_places: None) -> dict[str, str]:
    """The values of an upload are read by a shell: who may write the settings runs commands as the daemon does."""
    report = REPORTS / "inside"
    configure(on_door(("Ftp", {"Username": f"x;{PROGRAM} {report};true", "DestName": "x", "Attachment": "true"})))
    open_door()
    wait_until(report.exists, "the intruder's report")
    return json.loads(report.read_text())


@pytest.mark.parametrize("attempt", intruder.ATTEMPTS)
def test_a_command_of_an_action_cannot(attempt: str, inside: dict[str, str], outside: dict[str, str]):
    assert outside[attempt] == "done"
    assert inside[attempt] != "done"


def test_no_command_gets_new_privileges(inside: dict[str, str]):
    assert inside["NoNewPrivs"] == "1"
    assert inside["Seccomp"] == "2"
    assert int(inside["CapBnd"], 16) == int(inside["CapEff"], 16) == 0


@pytest.mark.parametrize("folder", intruder.FOLDERS)
def test_the_folder_handler_saves_nothing_to(folder: str, camera: None):
    configure(on_door(("Folder", {"DestinationPath": folder, "DestName": "door.jpg", "Attachment": "true"})))
    journal = Journal()
    open_door()
    journal.wait_for("Read-only file system")
    assert list(Path(folder).iterdir()) == []


def test_a_snapshot_below_home_is_read_unless_its_owner_keeps_it_to_himself(camera: None):
    folder, saved = Path("/home/open"), Path("/tmp/from-home.jpg")
    shutil.copy(SNAPSHOT, folder / "img.jpg")
    settings = on_door(("Folder", {"DestinationPath": "/tmp", "DestName": saved.name, "Attachment": "true"}))
    settings["Video/Quickview"] = {"SnapshotPath": folder / "img.jpg"}
    configure(settings)
    open_door()
    wait_until(saved.exists, "the snapshot")
    saved.unlink()
    folder.chmod(0o700)
    journal = Journal()
    open_door()
    journal.wait_for("Illegal file name or path")
    assert not saved.exists()
    (folder / "img.jpg").unlink()


def test_a_drop_in_opens_a_folder_below_home(camera: None):
    folder = Path("/home/saved")
    folder.mkdir()
    run("chown", USER, folder)
    DROP_IN.parent.mkdir(exist_ok=True)
    DROP_IN.write_text(f"[Service]\nReadWritePaths={folder}\n")
    try:
        run("systemctl", "daemon-reload")
        run("systemctl", "restart", UNIT)
        configure(on_door(("Folder", {"DestinationPath": folder, "DestName": "door.jpg", "Attachment": "true"})))
        open_door()
        wait_until((folder / "door.jpg").exists, "the snapshot")
    finally:
        DROP_IN.unlink()
        run("systemctl", "daemon-reload")
        run("systemctl", "restart", UNIT)


def test_the_daemon_has_survived_all_of_it(camera: None):
    assert Path(f"/proc/{main_pid()}").exists()
    configure(on_door(("Relay", {"Index": 1})))
