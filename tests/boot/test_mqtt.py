"""The package that publishes events on a broker: started by its administrator, in its sandbox, gone without a trace."""

import json
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from machine import SNAPSHOT, Journal, Consumer, configure, is_active, post, processes_of, run, run_as, show
from testing.broker import PORT, Broker, Subscriber
from testing.settings import SERVER, source
from testing.waiting import wait_until

PACKAGE_FILES = list(Path("/srv/companions").glob("halvek-mqtt_*.deb"))
NAME = "halvek-mqtt"
UNIT = "halvek-mqtt.service"
PIPE = Path("/run/halvek/zz-mqtt.halvek.any")
FOLDER = Path("/etc/halvek-mqtt")
CONFIG = FOLDER / "mqtt.conf"
SECRETS = FOLDER / "secrets"
PICTURE = SNAPSHOT.with_name("front.jpg")  # a camera that is on puts its own picture in the place of SNAPSHOT
PASSWORD = "hunter2-on-the-broker"
CONFIGURATION = f"""[Mqtt]
Broker=mqtt://127.0.0.1:{PORT}
Id=cam1
User=cam1
Secret=broker
AllowPlain=yes
"""


@pytest.fixture(scope="module", autouse=True)
def package() -> Iterator[None]:
    run("dpkg", "--install", *PACKAGE_FILES)
    yield
    run("dpkg", "--purge", NAME)


@pytest.fixture(scope="module")
def broker(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Broker]:
    folder = tmp_path_factory.mktemp("broker")
    run("mosquitto_passwd", "-c", "-b", folder / "passwords", "cam1", PASSWORD)
    started = Broker(folder, f"listener {PORT} 127.0.0.1\nallow_anonymous true\npassword_file {folder}/passwords\n")
    yield started
    started.close()


@pytest.fixture
def running(service: None, broker: Broker) -> Iterator[None]:
    configure(SERVER)
    CONFIG.write_text(CONFIGURATION)
    SECRETS.write_text(f"broker={PASSWORD}\n")
    SECRETS.chmod(0o600)
    journal = Journal(UNIT)
    run("systemctl", "restart", UNIT)
    journal.wait_for("Connected to mqtt://127.0.0.1")
    yield
    run("systemctl", "stop", UNIT)


def told() -> dict:
    return json.loads(run("halvek-mqtt", "status", "--format", "json"))


@pytest.fixture
def subscriber(broker: Broker) -> Iterator[Subscriber]:
    heard = Subscriber()
    yield heard
    heard.close()


def test_the_package_starts_nothing():
    assert not is_active(UNIT)
    assert subprocess.run(["systemctl", "is-enabled", "-q", UNIT]).returncode != 0


def test_an_event_goes_out_with_the_secret_that_systemd_hands_over(running: None, subscriber: Subscriber):
    post("Doorbell", button="front")
    event = subscriber.wait_for_message("halvek/cam1/event/Doorbell").json()
    assert event["props"]["button"] == "front"
    assert show("StatusText", UNIT).startswith("Connected to mqtt://127.0.0.1")
    wait_until(lambda: told()["counters"]["sent"] >= 1, "it is counted")
    assert told()["state"] == "connected"
    assert event["clock"] in ("synced", "unsynced")


def test_the_secret_is_in_no_command_line_no_environment_and_no_journal(running: None):
    pid = show("MainPID", UNIT)
    for name in ("cmdline", "environ"):
        assert PASSWORD.encode() not in Path(f"/proc/{pid}/{name}").read_bytes()
    assert PASSWORD not in run("journalctl", "--quiet", "-o", "cat", "-b")
    assert PASSWORD not in Path("/run/halvek-mqtt/status.json").read_text()
    assert "Permission denied" in run_as("nobody", command=f"cat {SECRETS}").stderr


def test_it_may_read_the_settings_and_the_picture(running: None, subscriber: Subscriber):
    PICTURE.write_text("a picture")
    configure(SERVER | source(1, "Window") | {"Video/Quickview": {"SnapshotPath": PICTURE}})
    CONFIG.write_text(CONFIGURATION + "Discovery=homeassistant\nSnapshot=on\n")
    run("systemctl", "restart", UNIT)
    described = subscriber.wait_for_message("homeassistant/device/cam1/config").json()
    assert "event_Window" in described["cmps"]
    post("Doorbell", button="front")
    subscriber.wait_for_message("halvek/cam1/snapshot", "a picture")
    PICTURE.unlink()


def test_its_pipe_is_its_own_and_goes_with_it(running: None):
    assert run("stat", "-c", "%U", PIPE) == "halvek-mqtt"
    assert "Permission denied" in run_as("nobody", command=f"cat <>{PIPE}").stderr
    run("systemctl", "stop", UNIT)
    assert not PIPE.exists() and show("Result", UNIT) == "success"


def test_a_kill_leaves_no_pipe_and_it_comes_back(running: None):
    journal = Journal(UNIT)
    run("systemctl", "kill", "--signal=KILL", UNIT)
    journal.wait_for("Connected to")
    assert PIPE.exists()


def test_one_that_stands_still_is_killed_and_comes_back(running: None):
    journal = Journal(UNIT)
    pid = show("MainPID", UNIT)
    run("kill", "-STOP", pid)
    wait_until(lambda: show("MainPID", UNIT) not in ("0", pid), "another process", patience=60)
    journal.wait_for("Connected to")


def test_a_wrong_configuration_is_not_tried_again(running: None):
    run("systemctl", "stop", UNIT)
    CONFIG.write_text("[Mqtt]\nBroker=nowhere\n")
    subprocess.run(["systemctl", "start", UNIT], capture_output=True, timeout=60)
    wait_until(lambda: show("ActiveState", UNIT) == "failed", "it has failed")
    assert show("ExecMainStatus", UNIT) == "78"
    run("systemctl", "reset-failed", UNIT)


def test_without_secrets_it_starts_as_well(running: None, subscriber: Subscriber):
    SECRETS.unlink()
    CONFIG.write_text(f"[Mqtt]\nBroker=mqtt://127.0.0.1:{PORT}\nId=cam2\n")
    run("systemctl", "restart", UNIT)
    subscriber.wait_for_message("halvek/cam2/status", "online")


def test_the_daemon_does_not_mind(running: None):
    consumer = Consumer()
    run("systemctl", "kill", "--signal=KILL", UNIT)
    for number in range(100):
        post("Door", number=number)
    consumer.wait_for_event("Door", count=100)
    consumer.close()


def test_a_purge_leaves_nothing_behind(running: None):
    files = [Path(line) for line in run("dpkg", "-L", NAME).splitlines() if Path(line).is_file()]
    SECRETS.unlink()
    run("dpkg", "--purge", NAME)
    assert [path for path in files if path.exists()] == []
    assert processes_of("halvek-mqtt") == [] and not PIPE.exists() and not FOLDER.exists()
    run("dpkg", "--install", *PACKAGE_FILES)
