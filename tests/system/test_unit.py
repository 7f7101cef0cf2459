"""The units and what they need of the system, as far as that can be told without booting it."""

import os
import re
import shutil
import stat
import struct
import subprocess
from pathlib import Path

import pytest
from testing.users import HAS_USERS

pytestmark = pytest.mark.not_under("sanitizer", reason="it runs no program of ours, and so is the same in every build")

ROOT = Path(__file__).resolve().parents[2]
PACKAGING = ROOT / "packaging"
DAEMON = Path(os.environ["HALVEK_DAEMON"])
UNITS = {"halvek": "/usr/sbin/halvek", "kelto-vcam": "/usr/bin/kelto-vcam"}
# Services beside the daemon: the packages bring users for them, and no folders.
COMPANIONS = {
    "halvek-outbox": "/usr/bin/halvek-outbox serve",
    "halvek-rules": "/usr/bin/halvek-rules",
    "kelto-vcam-page": "/usr/bin/kelto-vcam-page",
}
PROGRAMS = UNITS | COMPANIONS
WORST_EXPOSURE = 20  # tenths

# Entries of an access control list, as the kernel keeps them
USER_ENTRY, MASK_ENTRY, READ_AND_WRITE = 0x02, 0x10, 6

# What the daemon and those who live with it rely on, letter for letter.
PROMISES = {
    "Unit": {"StartLimitIntervalSec": ["0"]},
    "Service": {
        "Type": ["notify"],
        "ExecStart": ["/usr/sbin/halvek"],
        "ExecReload": ["/bin/kill -HUP $MAINPID"],
        "Restart": ["on-failure"],
        "KillMode": ["control-group"],
        "TimeoutStopSec": ["90s"],
        "LimitNOFILE": ["1024"],
        "MemoryMax": ["256M"],
        "OOMPolicy": ["continue"],
        "IgnoreSIGPIPE": ["no"],
        "User": ["halvek"],
        "Group": ["halvek"],
        "Environment": ["PATH=/usr/lib/halvek/bin:/usr/local/bin:/usr/bin:/bin", "HOME=/nonexistent"],
        "EnvironmentFile": ["-/etc/default/halvek"],
        "ProtectSystem": ["strict"],
        "ReadOnlyPaths": ["/run"],
        "ReadWritePaths": ["-/media -/tmp -/run/halvek"],
        "MountFlags": ["slave"],
        "PrivateTmp": ["no"],
        "ProtectHome": ["read-only"],
        "NoNewPrivileges": ["yes"],
        "CapabilityBoundingSet": [""],
        "RestrictAddressFamilies": ["AF_UNIX AF_INET AF_INET6"],
        "SystemCallFilter": ["@system-service", "~@privileged @resources", "setuid setuid32"],
        "SystemCallErrorNumber": ["EPERM"],
    },
}
FORBIDDEN = {  # and why not
    "RuntimeDirectory": "the pipes of the listeners would go with a stop",
    "PrivateNetwork": "uploads and mails go over it",
    "IPAddressDeny": "uploads and mails go over it",
    "InaccessiblePaths": "a path becomes a mount of the unit",
}


def run(*command: object, **options) -> subprocess.CompletedProcess:
    return subprocess.run([str(word) for word in command], capture_output=True, text=True, timeout=60, **options)


def settings(unit: str) -> dict[str, dict[str, list[str]]]:
    """All values of each key of a unit, by section."""
    sections: dict[str, dict[str, list[str]]] = {}
    for line in (PACKAGING / f"{unit}.service").read_text().splitlines():
        if line.startswith("["):
            section = sections.setdefault(line[1:-1], {})
        elif line and not line.startswith("#"):
            key, value = line.split("=", 1)
            section.setdefault(key, []).append(value)
    return sections


@pytest.fixture
def installed_unit(tmp_path):
    """A unit whose program exists: in place of the installed one it names the one that was built."""

    def write(unit: str, *more: str) -> Path:
        text = (PACKAGING / f"{unit}.service").read_text()
        assert text.count(f"ExecStart={PROGRAMS[unit]}\n") == 1
        text = text.replace(f"ExecStart={PROGRAMS[unit]}\n", f"ExecStart={DAEMON}\n" + "".join(more))
        # What a reload or a stop runs has to be there too.
        text = text.replace(f"{PROGRAMS[unit]} ", f"{DAEMON} ")
        (tmp_path / f"{unit}.service").write_text(text)
        for socket in PACKAGING.glob(f"{unit}.socket"):
            shutil.copy(socket, tmp_path)
        return tmp_path / f"{unit}.service"

    return write


def verify(unit: Path) -> str:
    """What systemd has to say: its status is 0 for keys that it does not know."""
    return run("systemd-analyze", "verify", "--man=no", unit).stderr


@pytest.mark.parametrize("unit", PROGRAMS)
def test_systemd_has_nothing_to_say_about_the_unit(installed_unit, unit):
    assert verify(installed_unit(unit)) == ""


def test_the_page_has_no_network_of_its_own():
    service = settings("kelto-vcam-page")["Service"]
    assert service["PrivateNetwork"] == ["yes"] and service["RestrictAddressFamilies"] == ["AF_UNIX"]


def test_a_setting_that_systemd_does_not_know_would_be_seen(installed_unit):
    assert "Unknown key 'RestartSeconds'" in verify(installed_unit("halvek", "RestartSeconds=1\n"))


@pytest.mark.parametrize("name", ["halvek", *COMPANIONS])
def test_the_sandbox_is_as_tight_as_it_shall_be(installed_unit, name):
    unit = installed_unit(name)
    result = run("systemd-analyze", "security", "--offline=true", f"--threshold={WORST_EXPOSURE}", unit)
    assert result.returncode == 0, result.stdout
    exposure = re.search(r"Overall exposure level for " + re.escape(name) + r"\.service: (\d+\.\d)", result.stdout)
    assert float(exposure[1]) <= WORST_EXPOSURE / 10


@pytest.mark.parametrize("section, key", [(section, key) for section, keys in PROMISES.items() for key in keys])
def test_the_unit_keeps_to(section, key):
    assert settings("halvek")[section].get(key) == PROMISES[section][key]


@pytest.mark.parametrize("key", FORBIDDEN)
def test_the_unit_does_without(key):
    assert key not in settings("halvek")["Service"], FORBIDDEN[key]


@pytest.mark.parametrize("name", ["halvek", *COMPANIONS])
def test_every_setting_has_its_reason_above_it(name):
    """Its own comment, or that of a run of settings that it belongs to; a blank line or a comment ends a run."""
    for section in ("[Unit]", "[Service]"):
        text = (PACKAGING / f"{name}.service").read_text().split(section)[1].split("\n[")[0]
        explained = section == "[Unit]"  # what the unit is needs no reason
        for line in text.strip().splitlines():
            explained = line.startswith("#") or (explained and line != "")
            assert explained or line == "", line


def access_list(path: Path) -> list[tuple[int, int, int]]:
    """Tag, permissions and id of each entry."""
    return list(struct.iter_unpack("<HHI", os.getxattr(path, "system.posix_acl_access")[4:]))


def accounts(root: Path) -> tuple[dict[str, list[str]], dict[str, list[str]]]:
    """Users and groups by name, as the fields of their lines."""
    lines = [(root / "etc" / name).read_text().splitlines() for name in ("passwd", "group")]
    users, groups = ({line.split(":")[0]: line.split(":") for line in file} for file in lines)
    return users, groups


@pytest.fixture
def root(tmp_path) -> Path:
    """A system with nothing in it but the accounts."""
    root = tmp_path / "root"
    (root / "etc").mkdir(parents=True)
    for unit in PROGRAMS:
        result = run("systemd-sysusers", f"--root={root}", PACKAGING / f"{unit}.sysusers")
        assert result.returncode == 0, result.stderr
    return root


def test_the_users_are_made(root):
    users, groups = accounts(root)
    for user in PROGRAMS:
        _, password, uid, gid, _, home, shell = users[user]
        assert (password, home, shell) == ("x", "/nonexistent", "/usr/sbin/nologin")
        assert 0 < int(uid) < 1000 and groups[user][2] == gid
    assert groups["halvek-post"][3] == groups["halvek-analytics"][3] == ""
    assert groups["halvek-listen"][3] == "halvek"


def make_folders(root: Path, unit: str) -> dict[str, tuple[int, int]]:
    """Returns user and group of what was made, by name. An ordinary user can give nothing away: all is its own."""
    said = create(root, PACKAGING / f"{unit}.tmpfiles")
    assert said == ""
    users, groups = accounts(root)
    return {name: (int(users[unit][2]), int(groups[name][2])) for name in groups}


def create(root: Path, *files: Path) -> str:
    """Has these files applied, or those that are installed in the root; returns what was said of them."""
    if not HAS_USERS:
        for name in ("passwd", "group"):
            accounts_file = root / "etc" / name
            accounts_file.write_text(re.sub(r"(?<=:)\d+(?=:)", "0", accounts_file.read_text()))
    # Names in access control lists are looked up outside the root.
    script = 'for f in passwd group; do mount -n --bind "$0/etc/$f" "/etc/$f" || exit; done; exec "$@"'
    tmpfiles = ["systemd-tmpfiles", f"--root={root}", "--create", *files]
    result = run("unshare", "-m", "sh", "-c", script, root, *tmpfiles)
    assert result.returncode == 0, result.stderr
    return result.stderr


def kind_mode_and_owner(path: Path) -> tuple[int, int, tuple[int, int]]:
    found = path.lstat()
    return stat.S_IFMT(found.st_mode), stat.S_IMODE(found.st_mode), (found.st_uid, found.st_gid)


def test_the_event_pipe_is_read_by_the_daemon_alone_and_written_by_those_who_may_post(root):
    ids = make_folders(root, "halvek")
    assert kind_mode_and_owner(root / "run/halvek.pipe") == (stat.S_IFIFO, 0o620, ids["halvek-post"])


def test_the_folder_of_pipes_is_for_those_who_may_listen(root):
    ids = make_folders(root, "halvek")
    assert kind_mode_and_owner(root / "run/halvek") == (stat.S_IFDIR, 0o3770, ids["halvek-listen"])


@pytest.mark.parametrize("umask", [0o022, 0o077], ids=oct)
def test_whoever_makes_an_output_pipe_the_daemon_can_write_to_it(root, umask):
    ids = make_folders(root, "halvek")
    pipe = root / "run/halvek/log.halvek.any"
    subprocess.run(["sh", "-c", f'umask {umask:o}; mkfifo "$0"', pipe], check=True)
    assert (USER_ENTRY, READ_AND_WRITE, ids["halvek"][0]) in access_list(pipe)
    assert (MASK_ENTRY, READ_AND_WRITE) in [entry[:2] for entry in access_list(pipe)]
    assert stat.S_IMODE(pipe.stat().st_mode) & 0o007 == 0


def test_the_folder_of_the_snapshot_is_the_virtual_cameras(root):
    ids = make_folders(root, "kelto-vcam")
    assert kind_mode_and_owner(root / "tmp/snapshot") == (stat.S_IFDIR, 0o755, ids["kelto-vcam"])


def owner_after_boot(root: Path, **lines: str) -> tuple[int, int, tuple[int, int]]:
    """Of the folder of the snapshot, with the daemon's files installed, and others by their names."""
    installed = root / "usr/lib/tmpfiles.d"
    installed.mkdir(parents=True)
    renamed = re.findall(
        r"install\(FILES (\S+\.tmpfiles) COMPONENT daemon .* RENAME (\S+)\)", (PACKAGING / "CMakeLists.txt").read_text()
    )
    own = {"halvek.conf": "halvek.tmpfiles"} | {name: file for file, name in renamed if "$" not in name}
    assert len(own) == 2
    for name, file in own.items():
        (installed / name).write_text((PACKAGING / file).read_text())
    for name, text in lines.items():
        (installed / f"{name}.conf").write_text(text)
    create(root)
    return kind_mode_and_owner(root / "tmp/snapshot")


def test_without_a_camera_the_folder_of_the_snapshot_is_roots(root):
    assert owner_after_boot(root) == (stat.S_IFDIR, 0o755, (os.getuid(), os.getgid()))


def test_a_cameras_own_line_for_the_folder_of_the_snapshot_counts(root):
    kind, mode, _ = owner_after_boot(root, zoom="d /tmp/snapshot 0775 halvek halvek-post -\n")
    assert (kind, mode) == (stat.S_IFDIR, 0o775)


def test_a_folder_of_the_snapshot_that_is_there_stays_its_owners(root):
    folder = root / "tmp/snapshot"
    folder.mkdir(parents=True)
    folder.chmod(0o700)
    if HAS_USERS:
        os.chown(folder, 123, 123)
    before = kind_mode_and_owner(folder)
    assert owner_after_boot(root) == before


@pytest.mark.parametrize("unit", UNITS)
def test_making_the_folders_again_changes_nothing(root, unit):
    make_folders(root, unit)
    (root / "run").mkdir(exist_ok=True)
    before = {path: kind_mode_and_owner(path) for top in ("run", "tmp") for path in (root / top).rglob("*")}
    make_folders(root, unit)
    assert before and {path: kind_mode_and_owner(path) for path in before} == before
