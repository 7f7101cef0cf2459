"""What the daemon starts instead of ftpput and esmtp: it hands over, or has the real program do it."""

import os
import shutil
import signal
import socket
import threading
import time
from pathlib import Path

import pytest
from outbox import FLASH, MAIL, RAM, SOCKET, Outbox, picture
from testing.ftp_server import FtpServer
from testing.mail_sink import MailSink
from testing.users import FIRST_UID
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is tried in release, with real servers")
pytest_plugins = ["outbox_fixtures"]


@pytest.mark.parametrize(
    ("words", "status"),
    [
        (["-u", "-p", "127.0.0.1", "/shot.jpg", "FILE"], 0),
        (["-u", "-p", "x", "127.0.0.1", "/shot.jpg", "FILE"], 1),
        (["-x", "127.0.0.1", "FILE"], 1),
        (["127.0.0.1"], 1),
        (["127.0.0.1", "/shot.jpg", "/not/there"], 66),
        (["-v", "-c", "127.0.0.1", "/shot.jpg", "FILE"], 0),
        (["-P", "nonsense", "127.0.0.1", "/shot.jpg", "FILE"], 1),
        (["127.0.0.1:2121", "/shot.jpg", "FILE"], 0),
        (["-u", "camera", "-p", "127.0.0.1", "/up/shot.jpg", "FILE"], 1),
    ],
)
def test_ftpput_reads_its_words_as_the_applet_does(outbox: Outbox, tmp_path: Path, words: list[str], status: int):
    local = tmp_path / "picture"
    local.write_bytes(b"picture")
    outbox.start()
    result = outbox.submit("ftpput", *(str(local) if word == "FILE" else word for word in words))
    assert result.returncode == status, result
    assert outbox.answer("list")["counts"]["queued"] == (1 if status == 0 else 0)


@pytest.mark.parametrize(
    ("words", "mail", "status"),
    [
        (["-t"], MAIL, 0),
        (["-t", "-i", "-oi", "-f", "me@x.example", "--"], MAIL, 0),
        ([], MAIL, 64),
        (["-t", "-x"], MAIL, 64),
        (["-t", "other@x.example"], MAIL, 64),
        (["-t"], "", 65),
        (["-t"], "Subject: for nobody\n\ntext\n", 65),
        (["-t"], MAIL + "x" * (10 << 20), 65),
    ],
    ids=["mail", "all words", "without -t", "-x", "recipient", "empty", "for nobody", "too long"],
)
def test_esmtp_ends_with(outbox: Outbox, words: list[str], mail: str, status: int):
    outbox.start()
    assert outbox.submit("esmtp", *words, input=mail.encode()).returncode == status


def stand_in(folder: Path, name: str) -> Path:
    """Another program of that name, which notes what it was given."""
    programs = folder / "real"
    programs.mkdir()
    path = programs / name
    path.write_text(f'#!/bin/sh\n{{ echo "$@"; cat; }} >{folder}/{name}.txt\n')
    path.chmod(0o755)
    return programs


@pytest.mark.parametrize("name", ["ftpput", "esmtp"])
@pytest.mark.parametrize("trouble", ["no socket", "refused", "silent"])
def test_the_real_program_does_it_if_the_outbox_cannot_be_reached(outbox: Outbox, name: str, trouble: str):
    programs = stand_in(outbox.folder, name)
    path = f"{outbox.programs}:{programs}:{os.environ['PATH']}"
    words = {"ftpput": ["-u", "u", "-p", "p", "127.0.0.1", "x", "/etc/hostname"], "esmtp": ["-t"]}[name]
    with socket.socket(socket.AF_UNIX) as listener:
        if trouble != "no socket":
            listener.bind(str(SOCKET))
        if trouble == "silent":
            listener.listen()
        begin = time.monotonic()
        result = outbox.submit(name, *words, environment={"PATH": path}, input=MAIL.encode())
        duration = time.monotonic() - begin
    assert result.returncode == 0 and duration < (7 if trouble == "silent" else 2)
    assert (outbox.folder / f"{name}.txt").read_text() == " ".join(words) + "\n" + MAIL
    assert str(programs / name).encode() in result.stderr


def test_what_is_on_the_path_before_a_front_end_is_not_started_by_it(outbox: Outbox):
    """A script around it, and a second copy of it."""
    programs = stand_in(outbox.folder, "ftpput")
    before, copy = outbox.folder / "before", outbox.folder / "copy"
    shutil.copytree(outbox.programs, copy)
    before.mkdir()
    script = before / "ftpput"
    script.write_text(f'#!/bin/sh\nexec {copy}/ftpput "$@"\n')
    script.chmod(0o755)
    path = ":".join(map(str, (before, copy, outbox.programs, programs, os.environ["PATH"])))
    result = outbox.submit("ftpput", "127.0.0.1", "x", "/etc/hostname", environment={"PATH": path}, input=b"")
    assert result.returncode == 0
    started = [line.rpartition(", so ")[2] for line in result.stderr.decode().splitlines()]
    assert started == [f"{outbox.programs}/ftpput does it", f"{programs}/ftpput does it"]


@pytest.mark.not_under("one user", reason="it needs another user")
def test_somebody_elses_item_is_refused_and_the_real_program_does_it(outbox: Outbox):
    outbox.start()
    SOCKET.chmod(0o666)
    programs = stand_in(outbox.folder, "esmtp")
    for folder in (outbox.folder, *list(outbox.folder.parents)[:3]):
        folder.chmod(0o777)
    path = f"{outbox.programs}:{programs}:{os.environ['PATH']}"
    result = outbox.submit("esmtp", "-t", input=MAIL.encode(), environment={"PATH": path}, user=FIRST_UID)
    assert result.returncode == 0 and b"may not ask" in result.stderr
    assert outbox.counts()["queued"] == 0


def test_an_item_whose_bringer_does_not_hear_of_it_is_forgotten(outbox: Outbox, tmp_path: Path):
    outbox.start()
    outbox.run("hold")
    header = outbox_header()
    local = tmp_path / "picture"
    local.write_bytes(b"picture")
    with socket.socket(socket.AF_UNIX) as connection, local.open("rb") as file:
        connection.connect(str(SOCKET))
        socket.send_fds(connection, [header], [file.fileno()])
        assert connection.recv(100).startswith(b"queued ")
        assert connection.recv(100) == b"forgotten\n"
    assert outbox.counts()["queued"] == 0 and list(RAM.iterdir()) == []


def test_an_item_whose_bringer_has_not_answered_is_forgotten_with_the_service(outbox: Outbox, tmp_path: Path):
    outbox.configure("[Outbox]\nDurability=early\n")
    outbox.start()
    outbox.run("hold")
    local = tmp_path / "picture"
    local.write_bytes(b"picture")
    with socket.socket(socket.AF_UNIX) as connection, local.open("rb") as file:
        connection.connect(str(SOCKET))
        socket.send_fds(connection, [outbox_header()], [file.fileno()])
        assert connection.recv(100).startswith(b"queued ")
        outbox.stop(signal.SIGKILL)
    outbox.start()
    assert outbox.counts()["queued"] == 0 and list(FLASH.iterdir()) == []


@pytest.mark.parametrize("name", ["ftpput", "esmtp"])
def test_a_service_that_ends_before_it_has_listened_leaves_it_to_the_real_program(outbox: Outbox, name: str):
    programs = stand_in(outbox.folder, name)
    words = {"ftpput": ["127.0.0.1", "x", "/etc/hostname"], "esmtp": ["-t"]}[name]

    def answer_and_leave(listener: socket.socket) -> None:
        connection = listener.accept()[0]
        connection.recv(1 << 16)
        connection.sendall(b"queued 0000000000000001\n")
        # It is not read, so the front end hears of it.
        wait_until(lambda: connection.recv(16, socket.MSG_PEEK) == b"ok\n", "the front end has answered")
        connection.close()

    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(SOCKET))
        listener.listen()
        thread = threading.Thread(target=answer_and_leave, args=(listener,))
        thread.start()
        path = f"{outbox.programs}:{programs}:{os.environ['PATH']}"
        result = outbox.submit(name, *words, environment={"PATH": path}, input=MAIL.encode())
        thread.join()
    assert result.returncode == 0 and b"queued" not in result.stderr
    assert (outbox.folder / f"{name}.txt").exists()


def crc32c(data: bytes) -> int:
    state = 0xFFFFFFFF
    for byte in data:
        state ^= byte
        for _ in range(8):
            state = (state >> 1) ^ (0x82F63B78 if state & 1 else 0)
    return state ^ 0xFFFFFFFF


def outbox_header() -> bytes:
    fields = b"kind=picture\nhost=127.0.0.1\nport=21\nuser=u\nremote=/x\n"
    return b"verb=submit\n" + fields + f"header-crc={crc32c(fields):08x}\n\n".encode()


@pytest.mark.parametrize("trouble", ["none", "refuse", "hang", "password"])
def test_the_caller_does_not_wait_whatever_the_server_does(outbox: Outbox, ftp: FtpServer, trouble: str):
    ftp.set_fault(trouble)
    outbox.start()
    local = outbox.folder / "picture"
    local.write_bytes(picture(100_000))
    durations = []
    for number in range(20):
        begin = time.monotonic()
        assert outbox.submit("ftpput", "127.0.0.1", f"/{number}.jpg", str(local)).returncode == 0
        durations.append(time.monotonic() - begin)
    # The machine may be busy with something else now and then.
    assert sorted(durations)[10] < 0.05


def test_a_mail_arrives_with_its_lines_and_without_bcc(outbox: Outbox):
    with MailSink() as sink:
        outbox.configure(f"[Mail]\nRelay=smtp://127.0.0.1:{sink.port}\n")
        outbox.start()
        outbox.mail(MAIL.replace("Subject", 'Cc: "A, B" <a@x.example>, c@x.example\nBcc: hidden@x.example\nSubject'))
        outbox.wait_for(delivered=1, queued=0)
        (mail,) = sink.wait_for(1)
    assert mail.sender == "camera@x.example"
    assert mail.recipients == ["guard@x.example", "a@x.example", "c@x.example", "hidden@x.example"]
    assert b"hidden" not in mail.data and b"Message-ID: <" in mail.data and b"Date: " in mail.data
    assert mail.data.endswith(b"\r\n\r\nA door.\r\n")


def test_without_a_relay_the_configuration_of_esmtp_counts(outbox: Outbox):
    with MailSink() as sink:
        Path("/etc/esmtprc").write_text(f'# where to\nhostname = "127.0.0.1:{sink.port}"\nmda "x"\n')
        outbox.start()
        outbox.mail(MAIL)
        outbox.wait_for(delivered=1)
        sink.wait_for(1)
    assert "line 3: mda means nothing to the outbox" in outbox.log.read_text()
