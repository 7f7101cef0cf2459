"""Targets of the outbox: their accounts, what holds them up, and what is told of it."""

import json
import os
import resource
import secrets
import signal
from collections.abc import Iterator
from pathlib import Path

import pytest
from outbox import CONFIGURATION, FLASH, HELD, RAM, Outbox, picture
from testing.ftp_server import FtpServer
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is tried in release, with real servers")
pytest_plugins = ["outbox_fixtures"]

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


def test_a_target_waits_while_there_is_no_thread_for_it(outbox: Outbox, ftp: FtpServer):
    outbox.start()
    status = Path(f"/proc/{outbox.process.pid}/status").read_text()
    size = next(int(line.split()[1]) for line in status.splitlines() if line.startswith("VmSize")) * 1024
    _, most = resource.getrlimit(resource.RLIMIT_AS)
    # A stack has no place in it.
    resource.prlimit(outbox.process.pid, resource.RLIMIT_AS, (size + (4 << 20), most))
    number = outbox.put(b"picture")
    outbox.wait_for_state(number, "wait")
    assert "no thread" in outbox.target()["reason"]
    resource.prlimit(outbox.process.pid, resource.RLIMIT_AS, (most, most))
    outbox.run("flush")
    outbox.wait_for(delivered=1, queued=0)


def test_verbs_without_a_service_and_wrong_words(outbox: Outbox):
    for words in (["list"], ["status"], ["show", "x"], ["flush"], ["drop", "x"], ["hold"], ["release"]):
        assert outbox.run(*words).returncode == 3, words
    for words in ([], ["nonsense"], ["show"], ["list", "x"], ["--format", "xml", "list"], ["--nonsense"]):
        assert outbox.run(*words).returncode == 2, words
    outbox.start()
    assert outbox.run("show", "0000000000000001").returncode == 1
    assert outbox.run("flush", "nobody").returncode == 1


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
    wait_until((RAM.parent / "trouble").exists, "it is noted that it was posted")
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
