"""The packages on a running machine: gone without a trace, and back."""

import stat
import subprocess
from pathlib import Path

import pytest
from machine import (
    CAMERA_UNIT,
    EVENT_PIPE,
    SERVER,
    SETTINGS,
    SNAPSHOT,
    Consumer,
    is_active,
    post,
    processes_of,
    run,
    run_as,
    show,
    write_settings,
)

FOLDER = SNAPSHOT.parent
PACKAGES = sorted(Path("/srv/packages").glob("*.deb"))
NAMES = [run("dpkg-deb", "--field", path, "Package") for path in PACKAGES]


def installed_files() -> list[Path]:
    """What belongs to these packages alone; folders are shared."""
    listed = (Path(line) for name in NAMES for line in run("dpkg", "-L", name).splitlines())
    return [path for path in listed if path.is_file()]


def test_a_purge_stops_the_services_and_leaves_nothing_behind():
    run("systemctl", "start", CAMERA_UNIT)
    files = installed_files()
    assert Path("/usr/sbin/halvek") in files
    SETTINGS.unlink(missing_ok=True)  # ours, not the package's
    run("dpkg", "--purge", *NAMES)
    assert [path for path in files if path.exists()] == []
    assert processes_of("halvek") == processes_of("kelto-vcam") == []
    assert show("LoadState") == show("LoadState", CAMERA_UNIT) == "not-found"
    assert not EVENT_PIPE.exists() and not Path("/run/halvek").exists()
    assert not Path("/etc/kelto").exists() and not Path("/var/lib/halvek").exists()


def owner_and_mode(path: Path) -> tuple[int, int]:
    found = path.lstat()
    return found.st_uid, stat.S_IMODE(found.st_mode)


def install_only_the_daemon() -> None:
    """Where a real camera, or nobody, makes the folder of the snapshot."""
    run("dpkg", "--install", *(path for path in PACKAGES if path.name.startswith("halvek_")))


STRANGERS_WORK = ("mkdir {0}; mkfifo {0}/img2.jpg", "mkdir -p /tmp/mine; ln -s /tmp/mine {0}", "mkfifo {0}")


@pytest.mark.parametrize("work", STRANGERS_WORK)
def test_an_installation_takes_the_folder_of_the_snapshot_from_a_stranger(work: str):
    run("rm", "-rf", FOLDER)
    run_as("nobody", command=work.format(FOLDER))
    assert owner_and_mode(FOLDER)[0] != 0
    install_only_the_daemon()
    assert owner_and_mode(FOLDER) == (0, 0o755)
    assert list(FOLDER.iterdir()) == []
    assert "Permission denied" in run_as("nobody", command=f"mkfifo {FOLDER}/img2.jpg").stderr


def test_an_installation_leaves_the_folder_of_the_snapshot_to_a_cameras_own_user():
    run("chown", "daemon", FOLDER)
    owner = owner_and_mode(FOLDER)
    install_only_the_daemon()
    assert owner_and_mode(FOLDER) == owner


def test_at_boot_the_folder_of_the_snapshot_is_made_before_anybody_can():
    run("rm", "-rf", FOLDER)
    run("systemd-tmpfiles", "--boot", "--remove", "--create", f"--prefix={FOLDER}")
    assert owner_and_mode(FOLDER) == (0, 0o755)


def test_an_installation_on_a_running_machine_starts_the_service_with_its_event_pipe():
    run("dpkg", "--install", *PACKAGES)
    assert is_active()
    consumer = Consumer()
    post("Bell")
    consumer.wait_for_event("Bell")
    consumer.close()


def test_the_virtual_camera_is_not_started_by_its_package():
    assert not is_active(CAMERA_UNIT)
    assert subprocess.run(["systemctl", "is-enabled", "-q", CAMERA_UNIT]).returncode != 0
    run("systemctl", "start", CAMERA_UNIT)
    assert is_active(CAMERA_UNIT)


def test_another_installation_of_the_same_keeps_the_service_running():
    write_settings(SERVER)
    run("dpkg", "--install", *PACKAGES)
    assert is_active()
    assert SETTINGS.exists()
