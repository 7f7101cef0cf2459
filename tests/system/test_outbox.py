"""The outbox between the daemon and its servers: what is handed over arrives, or is accounted for."""

import json
import os
import re
import secrets
import shutil
import signal
import socket
import threading
import time
from collections.abc import Iterator
from pathlib import Path

import pytest
from outbox import CONFIGURATION, FLASH, HELD, RAM, SOCKET, LyingFtpServer, Outbox, make_private
from testing.ftp_server import FtpServer
from testing.mail_sink import MailSink
from testing.users import FIRST_UID
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is tried in release, with real servers")

MAIL = "From: Camera <camera@x.example>\nTo: guard@x.example\nSubject: Alarm\n\nA door.\n"


@pytest.fixture(scope="module", autouse=True)
def own_machine(tmp_path_factory: pytest.TempPathFactory) -> None:
    make_private(tmp_path_factory.mktemp("machine"))


@pytest.fixture
def outbox(tmp_path: Path) -> Iterator[Outbox]:
    made = Outbox(tmp_path)
    yield made
    made.close()


@pytest.fixture
def ftp(tmp_path: Path) -> Iterator[FtpServer]:
    folder = tmp_path / "server"
    (folder / "up").mkdir(parents=True)
    with FtpServer(folder) as server:
        yield server


@pytest.fixture
def lying(request: pytest.FixtureRequest) -> Iterator[LyingFtpServer]:
    server = LyingFtpServer(request.param)
    thread = threading.Thread(target=server.serve, daemon=True)
    thread.start()
    yield server
    server.close()
    thread.join()


def picture(size: int = 30_000) -> bytes:
    return secrets.token_bytes(size)


# --- pictures


def test_a_picture_arrives_under_its_name_and_nothing_else_is_left(outbox: Outbox, ftp: FtpServer):
    outbox.start()
    content = picture()
    outbox.put(content, "/up/shot.jpg")
    outbox.wait_for(delivered=1, queued=0)
    assert ftp.content("/up/shot.jpg") == content
    assert [path.name for path in (ftp.folder / "up").iterdir()] == ["shot.jpg"]
    assert list(RAM.iterdir()) == list(FLASH.iterdir()) == []


@pytest.mark.parametrize("name", ["a b.jpg", "%41.jpg", "x;type=a", "#1.jpg", "?q=1", "ä.jpg", "~", '"q".jpg'])
def test_a_name_means_itself(outbox: Outbox, ftp: FtpServer, name: str):
    outbox.start()
    outbox.put(b"picture", f"/up/{name}")
    outbox.wait_for(delivered=1)
    assert [path.name for path in (ftp.folder / "up").iterdir()] == [name]


def test_the_camera_may_replace_the_file_behind_it(outbox: Outbox, ftp: FtpServer, tmp_path: Path):
    ftp.set_fault("refuse")
    outbox.start()
    outbox.put(b"the picture of the moment")
    ftp.set_fault("none")
    outbox.run("flush")
    outbox.wait_for(delivered=1)
    assert ftp.content("/shot.jpg") == b"the picture of the moment"


def test_a_server_that_is_away_gets_all_of_it_in_its_order_when_it_is_back(outbox: Outbox, ftp: FtpServer):
    ftp.set_fault("refuse")
    outbox.start()
    contents = {f"/up/{number}.jpg": picture(1000) for number in range(5)}
    numbers = [outbox.put(content, name) for name, content in contents.items()]
    outbox.wait_for_state(numbers[0], "wait")
    assert outbox.target()["state"] == "wait"
    ftp.set_fault("none")
    assert outbox.run("flush").returncode == 0
    outbox.wait_for(delivered=5, queued=0)
    assert {name: ftp.content(name) for name in contents} == contents


def test_only_what_has_failed_once_is_written_to_flash(outbox: Outbox, ftp: FtpServer):
    outbox.start()
    outbox.put(picture())
    outbox.wait_for(delivered=1)
    ftp.set_fault("refuse")
    number = outbox.put(picture())
    wait_until(lambda: [path.name for path in FLASH.iterdir()] == [number], "it is on flash")
    assert list(RAM.iterdir()) == []


def test_an_item_is_a_header_the_payload_and_a_line_that_tells_their_end(outbox: Outbox, ftp: FtpServer):
    ftp.set_fault("refuse")
    outbox.configure("[Outbox]\nDurability=early\n")
    outbox.start()
    content = picture()
    number = outbox.put(content)
    path = FLASH / number
    _, _, rest = path.read_bytes().partition(b"\n\n")
    assert rest.startswith(content)
    assert re.fullmatch(rb"\nend 30000 [0-9a-f]{8}\n", rest[len(content) :])
    assert path.stat().st_mode & 0o777 == 0o600
    assert FLASH.stat().st_mode & 0o777 == 0o700


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM])
def test_what_waits_survives_an_end_and_is_delivered_once(outbox: Outbox, ftp: FtpServer, number: int):
    ftp.set_fault("refuse")
    outbox.start()
    content = picture()
    item = outbox.put(content)
    outbox.wait_for_state(item, "wait")
    outbox.stop(number)
    ftp.set_fault("none")
    outbox.start()
    outbox.wait_for(delivered=1, queued=0)
    assert ftp.received.count(f"/.halvek-{item}.part") == 1 and ftp.content("/shot.jpg") == content


def test_a_stop_is_done_within_a_second_while_a_server_says_nothing(outbox: Outbox, ftp: FtpServer):
    ftp.set_fault("hang")
    outbox.start()
    number = outbox.put(picture())
    ftp.wait_for_hung_connection()
    begin = time.monotonic()
    assert outbox.stop() == 0
    assert time.monotonic() - begin < 1 + 1  # the machine may stand still for a second
    assert [path.name for path in FLASH.iterdir()] == [number]


def test_damaged_files_are_set_aside_and_the_others_delivered(outbox: Outbox, ftp: FtpServer):
    ftp.set_fault("refuse")
    outbox.configure("[Outbox]\nDurability=early\n")
    outbox.start()
    numbers = [outbox.put(picture(), f"/{name}.jpg") for name in range(4)]
    outbox.stop(signal.SIGKILL)
    cut, flipped, changed = (FLASH / number for number in numbers[:3])
    cut.write_bytes(cut.read_bytes()[:-40])
    flipped.write_bytes(flipped.read_bytes()[:-1000] + b"?" + flipped.read_bytes()[-999:])
    changed.write_bytes(changed.read_bytes().replace(b"host=127.0.0.1", b"host=127.0.0.2"))
    (FLASH / "rubbish").write_bytes(b"")
    ftp.set_fault("none")
    outbox.start()
    outbox.wait_for(delivered=1, queued=0)
    assert {path.name for path in FLASH.with_name("bad").iterdir()} == {*numbers[:3], "rubbish"}
    assert ftp.received == [f"/.halvek-{numbers[3]}.part"]


def test_a_full_spool_gives_up_the_oldest_picture_first_and_refuses_what_never_fits(outbox: Outbox, ftp: FtpServer):
    ftp.set_fault("refuse")
    outbox.configure("[Outbox]\nSpoolLimit=100K\n")
    outbox.start()
    mail = outbox.mail(MAIL)
    numbers = [outbox.put(picture(40_000), "/0.jpg")]
    outbox.wait_for_state(numbers[0], "wait")  # what is on its way is not given up
    numbers += [outbox.put(picture(40_000), f"/{name}.jpg") for name in (1, 2)]
    assert [item["id"] for item in outbox.answer("list")["items"]] == [mail, *numbers[1:]]
    assert outbox.counts()["dropped"] == 1
    local = outbox.folder / "large"
    local.write_bytes(picture(200_000))
    assert outbox.submit("ftpput", "127.0.0.1", "x", str(local)).returncode == 75


def test_what_is_too_old_expires(outbox: Outbox, ftp: FtpServer):
    ftp.set_fault("refuse")
    outbox.configure("[Outbox]\nMaxAge=1\n")
    outbox.start()
    outbox.put(picture())
    outbox.wait_for(expired=1, queued=0)


def test_every_number_is_counted_under_one_name(outbox: Outbox, ftp: FtpServer):
    ftp.set_fault("refuse")
    outbox.start()
    numbers = [outbox.put(picture(10), f"/{name}.jpg") for name in range(3)]
    assert outbox.run("drop", numbers[0]).returncode == 0
    assert outbox.run("drop", numbers[0]).returncode == 1
    ftp.set_fault("none")
    outbox.run("flush")
    outbox.wait_for(delivered=2)
    assert outbox.counts() == {
        "queued": 0, "delivered": 2, "failed": 0, "expired": 0, "dropped": 1, "uncertain": 0
    }  # fmt: skip


# --- what comes of the answers of FTP servers

WAIT, HOLD, OK = "wait", "hold", "ok"


@pytest.mark.parametrize(
    ("lying", "state"),
    [
        ({"": "421 too many"}, WAIT),
        ({"USER": "421 too many"}, WAIT),
        ({"STOR": "425 no connection"}, WAIT),
        ({"STOR": "426 broken"}, WAIT),
        ({"STOR": "450 busy"}, WAIT),
        ({"STOR": "451 local error"}, WAIT),
        ({"STOR": "452 no room"}, WAIT),
        ({"STOR": None}, WAIT),
        ({"PASS": None}, WAIT),
        ({"SIZE": "213 1"}, WAIT),
        ({"PASS": "530 no"}, HOLD),
        ({"USER": "530 no"}, HOLD),
        ({"STOR": "530 log in"}, HOLD),
        ({"STOR": "534 not without TLS"}, HOLD),
        ({"STOR": "552 over quota"}, HOLD),
    ],
    indirect=["lying"],
    ids=lambda value: None if isinstance(value, str) else "-".join(f"{k} {v}" for k, v in value.items()).strip(),
)
def test_an_item_is_kept_after(outbox: Outbox, lying: LyingFtpServer, state: str):
    outbox.start()
    number = outbox.put(picture(), options=f"-P {lying.port}")
    item = outbox.wait_for_state(number, state)
    assert item["attempts"] == 1 and item["error"]
    assert (outbox.target()["state"], outbox.counts()["queued"]) == (state, 1)
    # One that waits is tried again in 5 s, a quarter more or less; one on hold in an hour.
    assert outbox.target()["next_ms"] <= (6250 if state == WAIT else 3_600_000)
    assert state == WAIT or outbox.target()["next_ms"] > 3_500_000


@pytest.mark.parametrize(
    "lying",
    [{"STOR": "550 no such folder"}, {"STOR": "553 no such name"}],
    indirect=True,
    ids=["550", "553"],
)
def test_an_item_fails_and_its_header_is_kept_without_a_password_after(outbox: Outbox, lying: LyingFtpServer):
    outbox.start()
    number = outbox.put(picture(), "/shot.jpg", options=f"-P {lying.port}")
    outbox.wait_for(failed=1, queued=0)
    (kept,) = FLASH.with_name("failed").iterdir()
    text = kept.read_text()
    assert kept.name == number and "remote=/shot.jpg\n" in text and "secret" not in text


@pytest.mark.parametrize(
    "lying",
    [{"RNFR": "500 never heard"}, {"RNTO": "553 not again"}],
    indirect=True,
    ids=["RNFR", "RNTO"],
)
def test_a_server_that_does_not_rename_gets_the_file_under_its_name(outbox: Outbox, lying: LyingFtpServer):
    outbox.start()
    content = picture()
    outbox.put(content, options=f"-P {lying.port}")
    outbox.wait_for(delivered=1)
    assert lying.received == [content, content]
    assert lying.commands[-3:] != ["RNFR", "RNTO"] and "DELE" in lying.commands


# --- targets


TARGET = "[Target archive]\nMatch=ftp.example.org\nUrl=ftp://127.0.0.1\nUser=camera\nSecret=NAME\nAllowPlain=yes\n"


def test_a_target_has_an_account_of_its_own_and_what_the_daemon_says_is_forgotten(outbox: Outbox, ftp: FtpServer):
    ftp.set_fault("password")
    outbox.configure(TARGET, NAME="secret")
    outbox.start()
    number = outbox.put(picture(), host="ftp.example.org")
    item = outbox.wait_for_state(number, "hold")
    assert item["target"] == "archive"
    assert b"password=\n" in (FLASH / number).read_bytes()
    ftp.set_fault("none")
    assert outbox.run("release").returncode == 0
    outbox.wait_for(delivered=1)


def test_a_changed_target_is_tried_at_once(outbox: Outbox, ftp: FtpServer):
    outbox.configure(TARGET, NAME="wrong")
    outbox.start()
    number = outbox.put(picture(), host="ftp.example.org")
    outbox.wait_for_state(number, "hold")
    outbox.configure(TARGET, NAME="secret")
    outbox.process.send_signal(signal.SIGHUP)
    outbox.wait_for(delivered=1)


def test_a_wrong_configuration_takes_items_and_holds_them(outbox: Outbox, ftp: FtpServer):
    outbox.configure("[Outbox]\nSpoolLimit=much\n")
    checked = outbox.run("check")
    assert checked.returncode == 1 and f"{CONFIGURATION}:2:12: SpoolLimit" in checked.stdout
    outbox.start()
    number = outbox.put(picture())
    outbox.wait_for_state(number, "hold")
    assert f"{CONFIGURATION}:2" in outbox.run("status").stdout
    outbox.configure("")
    outbox.process.send_signal(signal.SIGHUP)
    outbox.wait_for(delivered=1)
    assert outbox.run("check").returncode == 0


def test_a_service_that_ends_with_a_wrong_configuration_says_so_by_its_status(outbox: Outbox):
    outbox.configure("[Nothing]\n")
    outbox.start()
    assert outbox.stop() == 78


@pytest.mark.parametrize(
    ("text", "line"),
    [
        ("[Outbox]\nDurability=never\n", 2),
        ("[Outbox]\nMaxAge=old\n", 2),
        ("[Target a]\nMatch=x\n", 1),
        ("[Target a]\nUrl=http://x\n", 2),
        ("[Target a]\nUrl=ftp://x/folder\n", 2),
        ("[Target a]\nUrl=ftp://x\nSecret=A\n", 2),
        ("[Target a]\nUrl=sftp://x\nUnknown=1\n", 3),
        ("[Target a]\nUrl=sftp://x\n[Target a]\nUrl=sftp://y\n", 3),
        ("[Mail]\nRelay=ftp://x\n", 2),
        ("nonsense\n", 1),
    ],
)
def test_check_finds_and_says_where(outbox: Outbox, text: str, line: int):
    outbox.configure(text)
    result = outbox.run("check")
    assert result.returncode == 1 and f"{CONFIGURATION}:{line}:" in result.stdout
    (finding,) = json.loads(outbox.run("check", "--format", "json").stdout)["findings"]
    assert finding["line"] == line


def test_hold_and_release(outbox: Outbox, ftp: FtpServer):
    outbox.start()
    assert outbox.run("hold").returncode == 0
    number = outbox.put(picture())
    assert outbox.item(number)["state"] == "hold"
    assert outbox.run("release").returncode == 0
    outbox.wait_for(delivered=1)


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM])
@pytest.mark.parametrize("words", [[], ["camera@127.0.0.1"]], ids=["all", "a target"])
def test_what_is_on_hold_stays_so_until_it_is_released(outbox: Outbox, ftp: FtpServer, words: list[str], number: int):
    outbox.start()
    outbox.run("hold")
    item = outbox.put(picture())
    if words:
        assert outbox.run("hold", *words).returncode == 0
        outbox.stop()
        HELD.write_text(f"target={words[0]}\n")
        outbox.start()
    outbox.stop(number)
    outbox.start()
    assert outbox.item(item)["state"] == outbox.target()["state"] == "hold"
    assert 'held by "halvek-outbox hold"' in outbox.run("status").stdout
    assert outbox.run("release", *words).returncode == 0
    outbox.wait_for(delivered=1)
    assert not HELD.exists()


def test_a_password_that_the_daemon_gives_anew_counts_for_all_that_waits(outbox: Outbox, ftp: FtpServer):
    outbox.start()
    local = outbox.folder / "picture"
    local.write_bytes(b"picture")
    words = ["-u", "camera", "-p", "wrong", "127.0.0.1", "/first.jpg", str(local)]
    number = outbox.number_of(outbox.submit("ftpput", *words))
    outbox.wait_for_state(number, "hold")
    outbox.put(b"picture", "/second.jpg")
    outbox.wait_for(delivered=2, queued=0)
    assert {path.name for path in ftp.folder.glob("*.jpg")} == {"first.jpg", "second.jpg"}


def test_verbs_without_a_service_and_wrong_words(outbox: Outbox):
    for words in (["list"], ["status"], ["show", "x"], ["flush"], ["drop", "x"], ["hold"], ["release"]):
        assert outbox.run(*words).returncode == 3, words
    for words in ([], ["nonsense"], ["show"], ["list", "x"], ["--format", "xml", "list"], ["--nonsense"]):
        assert outbox.run(*words).returncode == 2, words
    outbox.start()
    assert outbox.run("show", "0000000000000001").returncode == 1
    assert outbox.run("flush", "nobody").returncode == 1


# --- front ends


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


# --- mails


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


# --- processes


def test_a_password_stands_in_no_argument_log_or_answer(outbox: Outbox, ftp: FtpServer):
    word = f"marker-{secrets.token_hex(8)}"
    ftp.set_fault("password")
    outbox.configure(TARGET, NAME=word)
    outbox.start()
    number = outbox.put(picture(), host="ftp.example.org")
    outbox.wait_for_state(number, "hold")
    said = outbox.run("status").stdout + outbox.run("list").stdout + outbox.run("show", number).stdout
    process = Path(f"/proc/{outbox.process.pid}")
    for text in (
        said,
        outbox.log.read_text(),
        *(process.joinpath(name).read_text() for name in ("cmdline", "environ")),
    ):
        assert word not in text
    assert all(word.encode() not in path.read_bytes() for path in FLASH.parent.rglob("*") if path.is_file())


@pytest.mark.parametrize("lying", [{"PASS": "530 secret is no password of camera"}], indirect=True, ids=["530"])
def test_a_server_that_repeats_the_password_does_not_have_it_logged(outbox: Outbox, lying: LyingFtpServer):
    outbox.start()
    number = outbox.put(picture(), options=f"-P {lying.port}")
    assert outbox.wait_for_state(number, "hold")["error"].endswith("530 *** is no password of camera")
    assert "secret" not in outbox.log.read_text() + outbox.run("status").stdout


# --- what the daemon is told


@pytest.fixture
def event_pipe() -> Iterator[int]:
    path = Path("/run/halvek.pipe")
    os.mkfifo(path)
    reader = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
    yield reader
    os.close(reader)
    path.unlink()


def test_trouble_is_posted_when_it_begins_and_when_it_is_over(outbox: Outbox, ftp: FtpServer, event_pipe: int):
    posted = bytearray()

    def read() -> bytes:
        try:
            posted.extend(os.read(event_pipe, 1 << 16))
        except BlockingIOError:
            pass
        return bytes(posted)

    outbox.configure("[Outbox]\nPost=yes\n")
    ftp.set_fault("refuse")
    outbox.start()
    outbox.put(picture())
    wait_until(lambda: read().endswith(b".\n"), "the trouble is posted")
    assert posted.startswith(b"[OutboxTrouble]\ntarget=camera@127.0.0.1\nreason=") and posted.count(b"\n") == 4
    posted.clear()
    outbox.stop(signal.SIGKILL)
    outbox.start()
    outbox.run("flush")
    wait_until(lambda: outbox.target()["reason"].find("restart") < 0, "it was tried in vain")
    assert read() == b""
    ftp.set_fault("none")
    outbox.run("flush")
    outbox.wait_for(delivered=1)
    wait_until(lambda: read() == b"[OutboxRecovered]\ntarget=camera@127.0.0.1\n.\n", "its end is posted")


def test_trouble_is_not_posted_unasked(outbox: Outbox, ftp: FtpServer, event_pipe: int):
    ftp.set_fault("refuse")
    outbox.start()
    outbox.wait_for_state(outbox.put(picture()), "wait")
    assert os.read(event_pipe, 100) == b""


def test_no_mail_tells_of_trouble_with_mails(outbox: Outbox, tmp_path: Path):
    settings = tmp_path / "settings.ini"
    settings.write_text(
        "[Events/Source#1]\nType=OutboxTrouble\n[Events/Handler#1]\nType=Email\n"
        "[Events/Handler#1/SourceIds]\n0=Events/Source#1\n"
    )
    outbox.configure("[Outbox]\nPost=yes\n")
    environment = os.environ | {"KELTO_SETTINGS": str(settings)}
    result = outbox.run("check", env=environment)
    assert result.returncode == 1 and f"{CONFIGURATION}:2:6: Post: Events/Handler#1" in result.stdout
    settings.write_text(settings.read_text().replace("Email", "Relay"))
    assert outbox.run("check", env=environment).returncode == 0


def test_descriptors_and_memory_stay_as_they_are(outbox: Outbox, ftp: FtpServer):
    def descriptors() -> int:
        return len(os.listdir(f"/proc/{outbox.process.pid}/fd"))

    outbox.start()
    outbox.put(picture(), "/first.jpg")
    outbox.wait_for(delivered=1)
    wait_until(lambda: len(os.listdir(f"/proc/{outbox.process.pid}/task")) == 1, "its threads have ended")
    before = descriptors()
    for number in range(30):
        outbox.put(picture(100), f"/{number}.jpg")
        if number % 10 == 5:
            ftp.set_fault("refuse")
        if number % 10 == 9:
            ftp.set_fault("none")
    outbox.run("flush")
    outbox.wait_for(delivered=31, queued=0)
    wait_until(lambda: descriptors() == before, "its descriptors are closed")


def test_a_socket_that_the_service_manager_made_is_taken_over(outbox: Outbox, ftp: FtpServer, tmp_path: Path):
    activate = shutil.which("systemd-socket-activate")
    assert activate
    outbox.start(activate, "-l", str(SOCKET))
    outbox.put(picture())
    outbox.wait_for(delivered=1)
