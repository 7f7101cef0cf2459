"""The package of the outbox: in front of the daemon's programs, in its sandbox, gone without a trace."""

import json
import re
from collections.abc import Iterator
from pathlib import Path

import pytest
from cookbook import Cookbook
from machine import SERVER, Consumer, configure, is_active, post, processes_of, run, run_as, show
from testing.ftp_server import HOST, FtpServer
from testing.mail_sink import MailSink
from testing.settings import handler, source
from testing.waiting import wait_until

(PACKAGE,) = Path("/srv/companions").glob("halvek-outbox_*.deb")
NAME = "halvek-outbox"
UNIT = f"{NAME}.service"
SOCKET = f"{NAME}.socket"
PICTURE = Path("/var/lib/halvek/outbox-test.jpg")
FLASH = Path("/var/spool/halvek-outbox/q")
UPLOAD = {"Server": HOST, "Username": "camera", "Password": "secret", "DestName": "shot.jpg", "Attachment": "true"}
SETTINGS = (
    SERVER
    | source(1, "Door")
    | handler(1, "Events/Source#1", handler_type="Ftp", **UPLOAD)
    | {"Video/Quickview": {"SnapshotPath": PICTURE}}
)

MAIL = {"To": "guard@x.example", "From": "camera@x.example", "Subject": "Alarm"}


@pytest.fixture(scope="module", autouse=True)
def package() -> Iterator[None]:
    run("dpkg", "--install", PACKAGE)
    yield
    run("dpkg", "--purge", NAME)
    run("systemctl", "restart", "halvek.service")


@pytest.fixture
def ftp(tmp_path: Path) -> Iterator[FtpServer]:
    with FtpServer(tmp_path) as server:
        yield server


@pytest.fixture
def running(service: None) -> None:
    """The daemon with the outbox in front of it, and a picture to upload."""
    PICTURE.write_bytes(b"picture")
    configure(SETTINGS)
    run("systemctl", "restart", "halvek.service")


def test_the_socket_listens_and_the_service_rests(service: None):
    assert is_active(SOCKET) and show("UnitFileState", SOCKET) == "enabled"
    run("systemctl", "stop", UNIT)
    assert not is_active(UNIT)


def test_a_picture_of_the_daemon_is_delivered(running: None, ftp: FtpServer):
    post("Door")
    wait_until(lambda: (ftp.folder / "shot.jpg").exists(), "the picture arrives")
    assert ftp.content("/shot.jpg") == b"picture"
    assert processes_of(NAME) == ["/usr/bin/halvek-outbox serve"]


def test_a_picture_survives_an_outage_and_a_restart(running: None, ftp: FtpServer):
    ftp.set_fault("refuse")
    post("Door")
    wait_until(lambda: FLASH.is_dir() and any(FLASH.iterdir()), "it is kept")
    run("systemctl", "stop", UNIT)
    ftp.set_fault("none")
    run("systemctl", "start", f"{NAME}-resume.service")
    wait_until(lambda: is_active(UNIT), "the outbox runs again")
    wait_until(lambda: (ftp.folder / "shot.jpg").exists(), "the picture arrives")
    wait_until(lambda: not any(FLASH.iterdir()), "nothing is left of it")


def test_it_finds_the_secrets_and_the_clock_in_its_sandbox(running: None, ftp: FtpServer):
    folder = Path("/etc/halvek-outbox")
    (folder / "secrets").write_text("archive=secret\n")
    (folder / "secrets").chmod(0o600)
    conf = folder / "outbox.conf"
    shipped = conf.read_text()
    conf.write_text(f"[Target archive]\nMatch={HOST}\nUrl=ftp://{HOST}\nSecret=archive\nAllowPlain=yes\n")
    try:
        run("systemctl", "restart", UNIT)
        post("Door")
        wait_until(lambda: (ftp.folder / "shot.jpg").exists(), "the picture arrives")
        assert "delivered" in run("halvek-outbox", "status")
    finally:
        conf.write_text(shipped)
        (folder / "secrets").unlink()


def test_a_mail_of_the_daemon_is_delivered(service: None, sink: MailSink):
    configure(SERVER | source(1, "Door") | handler(1, "Events/Source#1", handler_type="Email", **MAIL))
    conf = Path("/etc/halvek-outbox/outbox.conf")
    shipped = conf.read_text()
    conf.write_text(f"[Mail]\nRelay=smtp://{HOST}:25\n")
    try:
        run("systemctl", "restart", "halvek.service")
        run("systemctl", "reload-or-restart", UNIT)
        post("Door")
        (mail,) = sink.wait_for(1)
        assert mail.message["Subject"] == MAIL["Subject"] and mail.recipients == [MAIL["To"]]
    finally:
        conf.write_text(shipped)


def test_the_daemon_hears_of_a_server_in_trouble(running: None, ftp: FtpServer, consumer: Consumer):
    conf = Path("/etc/halvek-outbox/outbox.conf")
    shipped = conf.read_text()
    conf.write_text("[Outbox]\nPost=yes\n")
    configure(SETTINGS | source(2, "OutboxTrouble"))
    ftp.set_fault("refuse")
    try:
        run("systemctl", "reload-or-restart", UNIT)
        post("Door")
        consumer.wait_for_event("OutboxTrouble")
        ftp.set_fault("none")
        run(NAME, "flush")
        wait_until(lambda: (ftp.folder / "shot.jpg").exists(), "the picture arrives")
    finally:
        conf.write_text(shipped)


def test_its_sandbox_is_tight():
    told = run("systemd-analyze", "security", UNIT)
    assert float(re.search(r"Overall exposure level .*: (\d+\.\d)", told)[1]) < 2


def test_what_the_cookbook_says_of_an_outage_has_a_picture_wait(cookbook: Cookbook):
    conf, secrets = (Path(f"/etc/halvek-outbox/{name}") for name in ("outbox.conf", "secrets"))
    shipped = conf.read_text()
    cookbook.take("outage")
    try:
        cookbook.type_in("Uploads through an outage")
        wait_until(lambda: json.loads(run(NAME, "list", "--format", "json"))["items"], "a picture waits")
        (item,) = json.loads(run(NAME, "list", "--format", "json"))["items"]
        assert item["target"] == "ramp"
        run(NAME, "drop", item["id"])
    finally:
        conf.write_text(shipped)
        secrets.unlink(missing_ok=True)


def test_a_stranger_cannot_reach_the_socket_nor_the_spool(running: None):
    assert "Permission denied" in run_as("nobody", command="halvek-outbox status").stderr
    assert "Permission denied" in run_as("nobody", command="ls /var/spool/halvek-outbox").stderr


def test_a_purge_leaves_nothing_behind_and_the_daemon_its_own_programs(running: None):
    files = [Path(line) for line in run("dpkg", "-L", NAME).splitlines() if Path(line).is_file()]
    run("dpkg", "--purge", NAME)
    assert [path for path in files if path.exists()] == []
    assert run("find", "/etc", "/usr", "/var", "/run", "-xdev", "-name", f"*{NAME}*") == ""
    assert NAME not in show("Environment", "halvek.service")
