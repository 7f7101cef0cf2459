"""What the daemon and its commands cannot do. Each attempt succeeds for the same user outside the sandbox."""

import json
import shutil
from pathlib import Path

import intruder
import pytest
from harness import wait_until
from machine import SNAPSHOT, USER, Journal, configure, main_pid, on_door, open_door, run_as

PROGRAM = Path("/usr/local/bin/intruder")
REPORTS = Path("/tmp/intruder")
ID_OF_ROOT = Path("/usr/local/bin/id-of-root")


@pytest.fixture(scope="module", autouse=True)
def open_places() -> None:
    """Folders that everybody may write to as far as their modes go, and a program that gives root's identity."""
    for folder in (*intruder.FOLDERS, REPORTS):
        Path(folder).mkdir()
        Path(folder).chmod(0o777)
    Path("/home/open/secret").write_text("secret")
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
    journal.wait_for("Illegal file name or path" if folder.startswith("/home") else "Read-only file system")
    assert [path.name for path in Path(folder).iterdir() if path.name != "secret"] == []


def test_the_folder_handler_reads_nothing_below_home(camera: None):
    shutil.copy(SNAPSHOT, "/home/open/img.jpg")
    settings = on_door(("Folder", {"DestinationPath": "/tmp", "DestName": "stolen.jpg", "Attachment": "true"}))
    settings["Video/Quickview"] = {"SnapshotPath": "/home/open/img.jpg"}
    configure(settings)
    journal = Journal()
    open_door()
    journal.wait_for("Illegal file name or path")
    assert not Path("/tmp/stolen.jpg").exists()
    Path("/home/open/img.jpg").unlink()


def test_the_daemon_has_survived_all_of_it(camera: None):
    assert Path(f"/proc/{main_pid()}").exists()
    configure(on_door(("Relay", {"Index": 1})))
