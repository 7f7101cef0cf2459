"""Mails on their whole way: an event, the daemon, the real mail program, a real server, an independent parser."""

import os
import random
import re
import socket
import subprocess
import time
from email.utils import parsedate_to_datetime

import pytest
from daemon_on_bus import alert
from mailing import DOOR, SENT, mail_handler, maps_the_mail_library, snapshot, stand_in
from scripted_service import ALERT, ALERT_INTERFACE, ALERT_PATH, ALERT_SIGNATURE
from testing.pipes import block, post
from testing.settings import encoded, handler, source, timer
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures", "mail_fixtures"]

TOO_LONG = "The configured email message was too long, please use less than 5000 characters"
PARTS = ["text/plain", "text/plain", "image/jpeg"]


def text_of(part) -> str:
    """A text with plain line ends, less the one that every mail ends with."""
    return part.get_content().replace("\r\n", "\n").removesuffix("\n")


@pytest.fixture
def mailed(launch_mailing, sink):
    """Starts a daemon that mails an event of the type Door, posts one and returns the mail."""

    def mail(settings=None, /, text: str = block("Door"), **keys):
        daemon = mail.daemon = launch_mailing(DOOR | (settings or {}) | mail_handler(**keys))
        post(text)
        (received,) = sink.wait_for(1)
        daemon.log.wait_for(SENT)
        return received

    return mail


def test_an_event_is_mailed(mailed):
    before = int(time.time())
    mail = mailed(Message=encoded("Alarm at %H:%M"))
    message = mail.message
    assert mail.sender == "camera@x.example"
    assert mail.recipients == ["guard@x.example"]
    assert message["From"] == "Camera <camera@x.example>"
    assert message["To"] == "guard@x.example"
    assert message["Subject"] == "Alarm"
    assert before <= parsedate_to_datetime(message["Date"]).timestamp() <= time.time()
    assert re.fullmatch(rf"<[0-9a-f]{{32}}@{re.escape(socket.gethostname())}>", message["Message-ID"])
    assert message["MIME-Version"] == "1.0"
    assert len(message.items()) == len({name.lower() for name in message.keys()})
    assert message.get_content_type() == "text/plain"
    assert re.fullmatch(r"Alarm at \d\d:\d\d", text_of(message))
    assert not message.defects


def test_what_is_handed_over_is_as_long_as_the_log_says_and_has_only_whole_lines_on_the_wire(mailed):
    mail = mailed(Message=encoded("one\r\ntwo\nthree\n"))
    (line,) = mailed.daemon.log.matching(SENT)
    assert len(mail.data.replace(b"\r\n", b"\n")) == int(line.split()[-1])
    assert b"\r" not in mail.data.replace(b"\r\n", b"") and b"\n" not in mail.data.replace(b"\r\n", b"")
    assert text_of(mail.message) == "one\ntwo\nthree"


def test_a_subject_and_names_beyond_ascii_arrive(mailed):
    mail = mailed(
        Subject="Grüße vom Tor ☃ " + "und noch mehr " * 10 + "Ende",
        From="Kamera Süd <camera@x.example>",
        To="Jürgen Müller <guard@x.example>",
    )
    assert mail.message["Subject"] == "Grüße vom Tor ☃ " + "und noch mehr " * 10 + "Ende"
    assert mail.message["From"].addresses[0].display_name == "Kamera Süd"
    assert mail.message["To"].addresses[0].display_name == "Jürgen Müller"
    assert mail.recipients == ["guard@x.example"]
    assert mail.data.isascii()
    assert b"utf-8" in mail.data.lower()


@pytest.mark.parametrize("length, expected", [(5000, "x" * 5000), (5001, TOO_LONG)])
def test_a_body_may_have_5000_bytes_and_no_more(mailed, length, expected):
    assert text_of(mailed(Message=encoded("x" * length)).message) == expected


def test_the_limit_counts_bytes_beyond_ascii(mailed):
    assert text_of(mailed(Message=encoded("ü" * 2500)).message) == "ü" * 2500


def test_several_recipients_all_get_the_mail(mailed):
    mail = mailed(To='a@x, b@y; "Last, First" <c@z>')
    assert sorted(mail.recipients) == ["a@x", "b@y", "c@z"]
    addresses = mail.message["To"].addresses
    assert [address.addr_spec for address in addresses] == ["a@x", "b@y", "c@z"]
    assert addresses[2].display_name == "Last, First"


def test_lines_that_begin_with_a_dot_arrive(mailed):
    body = ".\n..\n.hidden\n\n.\nQUIT\nthe end."
    assert text_of(mailed(Message=encoded(body)).message) == body


def test_raw_event_data_comes_in_the_order_of_the_keys(mailed):
    mail = mailed(text=block("Door", b="2", a="x = y", B=""), Message=encoded("text"), RawEventData="true")
    first, second = mail.message.iter_parts()
    assert text_of(first) == "text"
    text = second.get_content().replace("\r\n", "\n")
    stamped = (
        r"\nB = \nFormattedTime = [^\n]+\nTimestamp = [^\n]+\na = x = y\nb = 2\neventId = Door\neventType = Door\n"
    )
    assert re.fullmatch(stamped, text)


def test_without_raw_event_data_the_properties_stay_here(mailed):
    mail = mailed(text=block("Door", secret="1"), Message=encoded("text"))
    assert b"secret" not in mail.data and not mail.message.is_multipart()


def test_a_carriage_return_in_subject_and_event_adds_neither_recipient_nor_header(mailed):
    mail = mailed(
        text=block("Door", key="x\rBcc: evil@y.example\r\r.\rQUIT"),
        Subject="s\rBcc: evil@y.example\r\r.\rX-Evil: 1",
        Message=encoded("text"),
        RawEventData="true",
    )
    assert mail.recipients == ["guard@x.example"]
    assert mail.message["Subject"] == "sBcc: evil@y.example.X-Evil: 1"
    assert {"Bcc", "X-Evil"}.isdisjoint(mail.message.keys())
    assert [part.get_content_type() for part in mail.message.iter_parts()] == PARTS[:2]


def test_line_breaks_in_an_event_add_neither_recipient_nor_header_nor_part(bus, launch, sink, mail_environment):
    """An alert is the way by which a line feed can come in."""
    settings = source(1, "Analytics") | mail_handler(RawEventData="true", Message=encoded("text"))
    evil = "x\nBcc: evil@y.example\nTo: evil@y.example\n\n.\nQUIT\n--=\n"
    launch(settings, environment=bus.environment | mail_environment)
    bus.client().emit(ALERT_PATH, ALERT_INTERFACE, ALERT, ALERT_SIGNATURE, *alert(evil))
    (mail,) = sink.wait_for(1)
    assert mail.recipients == ["guard@x.example"]
    assert "Bcc" not in mail.message
    assert mail.message["To"] == "guard@x.example"
    assert len(mail.message.get_all("To")) == 1
    first, second = mail.message.iter_parts()
    assert text_of(first) == "text"
    assert evil in second.get_content().replace("\r\n", "\n")
    assert not mail.message.defects


def test_the_snapshot_arrives_byte_for_byte(mailed, tmp_path):
    picture = random.Random(1).randbytes(300_001)
    path = tmp_path / "img2.jpg"
    path.write_bytes(picture)
    mail = mailed(snapshot(path), Message=encoded("text"), RawEventData="1", Attachment="true")
    parts = list(mail.message.iter_parts())
    assert [part.get_content_type() for part in parts] == PARTS
    assert parts[2].get_content() == picture
    assert parts[2].get_filename() == "img2.jpg"
    assert parts[2].get_content_disposition() == "attachment"
    assert parts[2]["Content-Transfer-Encoding"] == "base64"


def test_the_name_of_the_snapshot_may_have_blanks_and_letters_beyond_ascii(mailed, tmp_path):
    path = tmp_path / 'Tor "Süd" 2.png'
    path.write_bytes(b"picture")
    mail = mailed(snapshot(path), Attachment="true")
    (attachment,) = mail.message.iter_attachments()
    assert attachment.get_filename() == 'Tor "Süd" 2.png'
    assert attachment.get_content_type() == "image/png"
    assert attachment.get_content() == b"picture"


WITHOUT_SNAPSHOT = {"no such key": {}, "no path": snapshot("")}


@pytest.mark.parametrize("settings", WITHOUT_SNAPSHOT.values(), ids=WITHOUT_SNAPSHOT.keys())
def test_without_a_place_of_the_snapshot_the_mail_goes_out_alone(mailed, settings):
    mail = mailed(settings, Message=encoded("text"), Attachment="true")
    assert text_of(mail.message) == "text" and not mail.message.is_multipart()
    log = mailed.daemon.log
    found = "Error halvek: \tEmailEventHandler: the user wanted an attachment, but none is found$"
    assert len(log.matching(found)) == 1
    assert len(log.matching("Warning halvek: \tEmailEventHandler: ")) == (not settings)
    assert log.matching("Debug halvek: _attach: 0 \t path: $")


def test_a_snapshot_that_cannot_be_read_costs_a_warning_and_the_attachment(mailed, tmp_path):
    mail = mailed(snapshot(tmp_path / "none.jpg"), Message=encoded("text"), Attachment="true")
    assert text_of(mail.message) == "text" and not mail.message.is_multipart()
    (warning,) = mailed.daemon.log.matching("Warning kelto.inet: ")
    assert warning.endswith(f"Cannot read {tmp_path}/none.jpg: No such file or directory")


def test_every_mail_has_an_id_of_its_own(mailed, sink):
    mailed()
    for _ in range(4):
        post(block("Door"))
    assert len({mail.message["Message-ID"] for mail in sink.wait_for(5)}) == 5


@pytest.mark.not_under("emulator", reason="it has one of the libraries loaded itself")
def test_the_mail_library_comes_with_the_first_mail(launch_mailing, sink, output_pipe):
    pipe = output_pipe()
    daemon = launch_mailing(DOOR | mail_handler())
    post(block("Window"))
    pipe.wait_for_event("Window")
    assert not maps_the_mail_library(daemon)
    post(block("Door"))
    sink.wait_for(1)
    assert maps_the_mail_library(daemon)


def test_a_reload_keeps_the_library_and_mails_go_on(mailed, sink):
    mailed()
    mailed.daemon.reload()
    assert maps_the_mail_library(mailed.daemon)
    post(block("Door"))
    sink.wait_for(2)


def test_a_missing_mail_library_costs_one_error_a_mail_and_the_daemon_goes_on(launch, output_pipe):
    pipe = output_pipe()
    daemon = launch(DOOR | mail_handler(), environment={"KELTO_MAIL_MODULE": "/nowhere/mail.so"})
    for count in (1, 2):
        post(block("Door"))
        daemon.log.wait_for("Error halvek: Cannot load the mail library: /nowhere/mail.so: ", count=count)
        pipe.wait_for_event("Door", count=count)
    assert len(daemon.log.matching(" Error ")) == 2
    assert not daemon.log.matching(SENT)


def test_a_mail_program_that_dies_at_once_does_not_take_the_daemon_along(launch, output_pipe, tmp_path):
    pipe, picture = output_pipe(), tmp_path / "img2.jpg"
    picture.write_bytes(bytes(3_000_000))
    settings = DOOR | snapshot(picture) | mail_handler(Attachment="true")
    daemon = launch(settings, environment=stand_in(tmp_path / "bin", "exit 1"))
    for count in (1, 2, 3):
        post(block("Door"))
        daemon.log.wait_for(SENT, count=count)
        pipe.wait_for_event("Door", count=count)
    assert not daemon.log.matching(" Error | kelto.inet: ")


def test_a_mail_program_that_is_not_there_does_no_harm(launch, output_pipe):
    pipe = output_pipe()
    daemon = launch(DOOR | mail_handler(), prefix=["/usr/bin/env", "PATH=/nowhere"])
    post(block("Door"))
    daemon.log.wait_for("esmtp: not found")
    pipe.wait_for_event("Door")
    assert not daemon.log.matching(" Error | kelto.inet: ")


def test_a_server_that_refuses_does_no_harm(launch_mailing, sink, output_pipe):
    pipe = output_pipe()
    daemon = launch_mailing(DOOR | mail_handler())
    sink.close()
    post(block("Door"))
    daemon.log.wait_for(SENT)
    pipe.wait_for_event("Door")
    assert not daemon.log.matching(" Error | kelto.inet: ")


def test_a_mail_program_that_hangs_delays_only_its_own_source(launch, output_pipe, tmp_path):
    pipe, go = output_pipe(), tmp_path / "go"
    environment = stand_in(tmp_path / "bin", f"mkfifo {go}; read line <{go}; exec cat >{tmp_path}/mail")
    daemon = launch(DOOR | timer(2, 1) | mail_handler() | handler(2, "Events/Source#2"), environment=environment)
    post(block("Door") + block("Window"))
    daemon.log.wait_for(SENT)
    ticks = len(pipe.of_type("Timer"))
    pipe.wait_for_event("Timer", count=ticks + 4)  # two copies of each
    assert not pipe.of_type("Window")
    go.write_text("\n")
    pipe.wait_for_event("Window")
    assert b"Subject: Alarm" in (tmp_path / "mail").read_bytes()


def test_a_link_in_the_snapshots_place_is_followed_at_each_mail(launch_mailing, sink, tmp_path):
    link = tmp_path / "img2.jpg"
    daemon = launch_mailing(DOOR | snapshot(link) | mail_handler(Attachment="true"))
    for number, name in enumerate(("one", "two"), 1):
        (tmp_path / name).write_text(name)
        link.unlink(missing_ok=True)
        link.symlink_to(name)
        post(block("Door"))
        (attached,) = sink.wait_for(number)[-1].message.iter_attachments()
        assert attached.get_content() == name.encode()
    assert daemon.stop() == 0


def limit_descriptors(daemon, limit: int) -> None:
    subprocess.run(["prlimit", f"--nofile={limit}:", f"--pid={daemon.pid}"], check=True)


def test_a_mail_program_that_cannot_be_started_costs_its_mail_without_a_record(launch, bus, mail_environment, sink):
    """On a bus, so that nobody takes a descriptor for a moment to look for one."""
    daemon = launch(DOOR | mail_handler(), environment=bus.environment | mail_environment)
    post(block("Door"))
    sink.wait_for(1)
    in_order = range(len(os.listdir(f"/proc/{daemon.pid}/fd")))
    wait_until(
        lambda: sorted(map(int, os.listdir(f"/proc/{daemon.pid}/fd"))) == list(in_order), "nothing is open above"
    )
    limit_descriptors(daemon, len(in_order))
    before = len(daemon.log.items)
    post(block("Door"))
    daemon.log.wait_for(SENT, after=before)
    post(block("Door", again=1))
    daemon.log.wait_for(SENT, after=before, count=2)
    trouble = daemon.log.matching(" (?:Warning|Error) ", after=before)
    assert [line for line in trouble if not line.endswith("Cannot list /var/run/halvek: Too many open files")] == []
    limit_descriptors(daemon, 100)
    post(block("Door"))
    assert len(sink.wait_for(2)) == 2
