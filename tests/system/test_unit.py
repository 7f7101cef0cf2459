"""The units and what they need of the system, as far as that can be told without booting it."""

import configparser
import os
import re
import stat
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
PACKAGING = ROOT / "packaging"
DAEMON = Path(os.environ["HALVEK_DAEMON"])
UNITS = {"halvek": "/usr/sbin/halvek", "kelto-vcam": "/usr/bin/kelto-vcam"}
WORST_EXPOSURE = 20  # tenths

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
        "IgnoreSIGPIPE": ["no"],
        "User": ["halvek"],
        "Group": ["halvek"],
        "Environment": ["PATH=/usr/lib/halvek/bin:/usr/local/bin:/usr/bin:/bin", "HOME=/nonexistent"],
        "EnvironmentFile": ["-/etc/default/halvek"],
        "ProtectSystem": ["strict"],
        "ReadWritePaths": ["-/media -/tmp"],
        "MountFlags": ["slave"],
        "PrivateTmp": ["no"],
        "ProtectHome": ["yes"],
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
        assert text.count(f"ExecStart={UNITS[unit]}\n") == 1
        text = text.replace(f"ExecStart={UNITS[unit]}\n", f"ExecStart={DAEMON}\n" + "".join(more))
        (tmp_path / f"{unit}.service").write_text(text)
        return tmp_path / f"{unit}.service"

    return write


def verify(unit: Path) -> str:
    """What systemd has to say: its status is 0 for keys that it does not know."""
    return run("systemd-analyze", "verify", "--man=no", unit).stderr


@pytest.mark.parametrize("unit", UNITS)
def test_systemd_has_nothing_to_say_about_the_unit(installed_unit, unit):
    assert verify(installed_unit(unit)) == ""


def test_a_setting_that_systemd_does_not_know_would_be_seen(installed_unit):
    assert "Unknown key name 'RestartSeconds'" in verify(installed_unit("halvek", "RestartSeconds=1\n"))


def test_the_sandbox_is_as_tight_as_it_shall_be(installed_unit):
    unit = installed_unit("halvek")
    result = run("systemd-analyze", "security", "--offline=true", f"--threshold={WORST_EXPOSURE}", unit)
    assert result.returncode == 0, result.stdout
    exposure = re.search(r"Overall exposure level for halvek\.service: (\d+\.\d)", result.stdout)
    assert float(exposure[1]) <= WORST_EXPOSURE / 10


@pytest.mark.parametrize("section, key", [(section, key) for section, keys in PROMISES.items() for key in keys])
def test_the_unit_keeps_to(section, key):
    assert settings("halvek")[section].get(key) == PROMISES[section][key]


@pytest.mark.parametrize("key", FORBIDDEN)
def test_the_unit_does_without(key):
    assert key not in settings("halvek")["Service"], FORBIDDEN[key]


def test_every_block_of_the_unit_says_why():
    """A setting stands below a comment, its own or that of the settings just above it."""
    service = (PACKAGING / "halvek.service").read_text().split("[Service]\n")[1].split("[Install]")[0]
    blocks = re.split(r"\n\n|(?<=[^#\n])\n(?=#)", service.strip())
    own = {"Type=notify", "ExecReload", "Restart=", "KillMode", "TimeoutStopSec", "LimitNOFILE", "IgnoreSIGPIPE", "User="}
    own |= {"UMask", "Environment=PATH", "Environment=HOME", "ProtectSystem", "ReadWritePaths", "MountFlags", "PrivateTmp"}
    own |= {"StateDirectory", "ProtectHome", "NoNewPrivileges", "RestrictAddressFamilies", "SystemCallFilter"}
    for setting in own:
        block = next(text for text in service.split("\n") if text.startswith(setting))
        lines = service.split("\n")
        assert lines[lines.index(block) - 1].startswith("#"), f"{setting} has no reason beside it"
    assert all("#" in block for block in blocks)


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
    for unit in UNITS:
        result = run("systemd-sysusers", f"--root={root}", PACKAGING / f"{unit}.sysusers")
        assert result.returncode == 0, result.stderr
    return root


def test_the_users_are_made(root):
    users, groups = accounts(root)
    for user in UNITS:
        _, password, uid, gid, _, home, shell = users[user]
        assert (password, home, shell) == ("x", "/nonexistent", "/usr/sbin/nologin")
        assert 0 < int(uid) < 1000 and groups[user][2] == gid
    assert groups["halvek-post"][3] == ""
    assert groups["halvek-listen"][3] == "halvek"


def make_folders(root: Path, unit: str) -> None:
    result = run("systemd-tmpfiles", f"--root={root}", "--create", PACKAGING / f"{unit}.tmpfiles")
    assert (result.returncode, result.stderr) == (0, "")
