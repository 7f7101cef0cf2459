"""The unit of halvek-mqtt, and what it needs of the system, as far as that can be told without booting it."""

import os
import re
import subprocess
from pathlib import Path

import pytest

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is the same in every build")

ROOT = Path(__file__).resolve().parents[2]
UNIT = ROOT / "packaging/halvek-mqtt.service"
ACCOUNTS = ROOT / "packaging/halvek-mqtt.sysusers"
PROGRAM = os.environ.get("HALVEK_MQTT", "")
WORST_EXPOSURE = 19  # tenths

# What others rely on, letter for letter.
PROMISES = {
    "ExecStart": ["/usr/bin/halvek-mqtt"],
    "User": ["halvek-mqtt"],
    "SupplementaryGroups": ["halvek-listen halvek-post", "halvek"],
    "ProtectSystem": ["strict"],
    "ReadWritePaths": ["/run/halvek"],
    "RestrictAddressFamilies": ["AF_UNIX AF_INET AF_INET6"],
    "MemoryMax": ["32M"],
    "PrivateDevices": ["yes"],
    "ExecStopPost": ["-/bin/rm -f /run/halvek/zz-mqtt.halvek.any"],
    "WatchdogSec": ["10s"],
    "RestartPreventExitStatus": ["78"],
    "Restart": ["on-failure"],
    "LoadCredential": ["secrets:/etc/halvek-mqtt/secrets", "client.key:/etc/halvek-mqtt/client.key"],
}


def run(*command: object) -> subprocess.CompletedProcess:
    return subprocess.run([str(word) for word in command], capture_output=True, text=True, timeout=60)


def values(key: str) -> list[str]:
    return re.findall(rf"^{key}=(.*)$", UNIT.read_text(), re.M)


@pytest.fixture
def installed_unit(tmp_path: Path) -> Path:
    """The unit with the program that was built in place of the installed one."""
    path = tmp_path / UNIT.name
    path.write_text(UNIT.read_text().replace("ExecStart=/usr/bin/halvek-mqtt\n", f"ExecStart={PROGRAM}\n"))
    return path


def test_systemd_has_nothing_to_say_about_the_unit(installed_unit):
    assert run("systemd-analyze", "verify", "--man=no", installed_unit).stderr == ""


def test_the_sandbox_is_as_tight_as_it_shall_be(installed_unit):
    result = run("systemd-analyze", "security", "--offline=true", f"--threshold={WORST_EXPOSURE}", installed_unit)
    assert result.returncode == 0, result.stdout
    assert float(re.search(r"Overall exposure level .*: (\d+\.\d)", result.stdout)[1]) < 2


@pytest.mark.parametrize("key", PROMISES)
def test_the_unit_keeps_to(key):
    assert values(key) == PROMISES[key]


def test_it_goes_without_the_daemon_and_comes_after_it():
    assert values("After") == ["halvek.service network.target"]
    assert values("Requires") == values("Wants") == values("BindsTo") == []


def test_its_user_is_made(tmp_path):
    (tmp_path / "etc").mkdir()
    made = run("systemd-sysusers", f"--root={tmp_path}", ACCOUNTS)
    assert made.returncode == 0, made.stderr
    assert re.search(
        r"^halvek-mqtt:x:\d+:\d+:.*:/nonexistent:/usr/sbin/nologin$", (tmp_path / "etc/passwd").read_text()
    )


def test_the_configuration_of_the_package_only_lacks_the_broker(tmp_path):
    checked = run(PROGRAM, "check", ROOT / "packaging/mqtt.conf")
    assert checked.returncode == 1
    assert re.fullmatch(r"\S+:\d+:\d+: error: Broker is missing.*\n", checked.stdout)
    whole = re.sub(r"^;(?=\w+=)", "", (ROOT / "packaging/mqtt.conf").read_text(), flags=re.M)
    keys = set(re.findall(r"^(\w+)=", whole, re.M))
    page = (ROOT / "docs/halvek-mqtt.1").read_text()
    described = set(re.findall(r"\w+", " ".join(re.findall(r"^\.It Li (\w.*)$", page, re.M))))
    assert keys <= described
