"""The outbox with mail servers that encrypt and want an account, with FTPS from the first byte on, and with keys."""

import os
import signal
import socket
import ssl
import struct
import threading
from collections.abc import Iterator
from pathlib import Path

import pytest
from outbox import Outbox, SecretWatch, pin_of
from testing.certificates import Authority
from testing.ftp_server import FtpServer
from testing.mail_sink import MailSink
from testing.waiting import wait_until

pytestmark = [
    pytest.mark.not_under("sanitizer", "emulator", reason="it is tried in release, with real servers"),
    # One sink takes passwords without encryption, so that it would be seen who gives them.
    pytest.mark.filterwarnings("ignore:Requiring AUTH while not requiring TLS"),
]
pytest_plugins = ["outbox_fixtures"]

ACCOUNT, PASSWORD = "camera", "s3cret-of-the-server"
MAIL = "From: camera@x.example\nTo: guard@x.example\nSubject: Alarm\n\nA door.\n"


@pytest.fixture
def authority(tmp_path: Path) -> Authority:
    return Authority(tmp_path)


@pytest.fixture
def context(authority: Authority) -> ssl.SSLContext:
    made = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    made.load_cert_chain(*authority.issue("server"))
    return made


def relay(scheme: str, sink: MailSink, *more: str) -> str:
    lines = ["[Mail]", f"Relay={scheme}://127.0.0.1:{sink.port}", f"User={ACCOUNT}", "Secret=word", *more]
    return "\n".join(lines) + "\n"


@pytest.mark.parametrize("starttls", [False, True], ids=["smtps", "starttls"])
def test_a_mail_goes_out_encrypted_with_an_account(
    outbox: Outbox, authority: Authority, context: ssl.SSLContext, starttls: bool
):
    with MailSink(tls=context, starttls=starttls, account=(ACCOUNT, PASSWORD)) as sink:
        scheme = "smtp" if starttls else "smtps"
        outbox.configure(relay(scheme, sink, f"CaFile={authority.path}"), word=PASSWORD)
        outbox.start()
        outbox.mail(MAIL)
        outbox.wait_for(delivered=1, queued=0)
        (mail,) = sink.wait_for(1)
    assert mail.recipients == ["guard@x.example"] and mail.data.endswith(b"\r\n\r\nA door.\r\n")


@pytest.mark.parametrize("starttls", [False, True], ids=["smtps", "starttls"])
def test_a_password_for_mails_is_seen_nowhere(
    outbox: Outbox, authority: Authority, context: ssl.SSLContext, starttls: bool
):
    scheme = "smtp" if starttls else "smtps"
    with MailSink(tls=context, starttls=starttls, account=(ACCOUNT, PASSWORD)) as sink, SecretWatch(PASSWORD) as watch:
        outbox.configure(relay(scheme, sink, f"CaFile={authority.path}"), word=PASSWORD)
        outbox.start()
        outbox.mail(MAIL)
        outbox.wait_for(delivered=1)
        outbox.configure(relay(scheme, sink), word=PASSWORD)
        outbox.process.send_signal(signal.SIGHUP)
        outbox.wait_for_state(outbox.mail(MAIL), "hold")
    watch.check(outbox)


@pytest.mark.parametrize("starttls", [False, True], ids=["smtps", "starttls"])
def test_a_wrong_account_holds_the_mail_and_what_changes_sends_it(
    outbox: Outbox, authority: Authority, context: ssl.SSLContext, starttls: bool
):
    with MailSink(tls=context, starttls=starttls, account=(ACCOUNT, PASSWORD)) as sink:
        text = relay("smtp" if starttls else "smtps", sink, f"CaFile={authority.path}")
        outbox.configure(text, word="wrong")
        outbox.start()
        number = outbox.mail(MAIL)
        outbox.wait_for_state(number, "hold")
        assert "535" in outbox.item(number)["error"] and sink.mails == []
        outbox.configure(text, word=PASSWORD)
        outbox.stop()
        outbox.start()
        outbox.wait_for(delivered=1)
        sink.wait_for(1)


@pytest.mark.parametrize("starttls", [False, True], ids=["smtps", "starttls"])
def test_a_certificate_that_nobody_vouches_for_holds_the_mail(outbox: Outbox, context: ssl.SSLContext, starttls: bool):
    with MailSink(tls=context, starttls=starttls, account=(ACCOUNT, PASSWORD)) as sink:
        outbox.configure(relay("smtp" if starttls else "smtps", sink), word=PASSWORD)
        outbox.start()
        outbox.wait_for_state(outbox.mail(MAIL), "hold")
        assert sink.mails == []


def test_a_password_does_not_go_to_a_mail_server_without_encryption(outbox: Outbox):
    with MailSink(account=(ACCOUNT, PASSWORD)) as sink:
        outbox.configure(relay("smtp", sink), word=PASSWORD)
        outbox.start()
        outbox.wait_for_state(outbox.mail(MAIL), "hold")
        assert sink.mails == []


@pytest.mark.parametrize(("begins", "ends"), [(-3, -1), (1, 3)], ids=["expired", "not yet valid"])
def test_a_certificate_out_of_its_time_keeps_the_mail(outbox: Outbox, authority: Authority, begins: int, ends: int):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(*authority.issue("late", begins=begins, ends=ends))
    with MailSink(tls=context, account=(ACCOUNT, PASSWORD)) as sink:
        outbox.configure(relay("smtps", sink, f"CaFile={authority.path}"), word=PASSWORD)
        outbox.start()
        number = outbox.mail(MAIL)
        wait_until(lambda: outbox.item(number)["state"] in ("hold", "wait"), "it is kept")
        assert outbox.item(number)["error"] and sink.mails == []


class Resetting:
    """Says what a server says until TLS begins, and resets the connection when the other begins with it."""

    HANDSHAKE = 0x16  # the first byte of TLS, and of no command

    def __init__(self, greeting: bytes, answers: dict[bytes, bytes]) -> None:
        self._greeting, self._answers = greeting, answers
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self.resets = 0
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self) -> None:
        while True:
            try:
                connection = self._listener.accept()[0]
            except OSError:
                return
            with connection:
                self._talk(connection)

    def _talk(self, connection: socket.socket) -> None:
        connection.sendall(self._greeting)
        while said := connection.recv(4096):
            if said[0] == self.HANDSHAKE:
                self.resets += 1
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                return
            connection.sendall(self._answers[said.split()[0]])

    def close(self) -> None:
        self._listener.shutdown(socket.SHUT_RDWR)
        self._thread.join()
        self._listener.close()


HELLO = {b"EHLO": b"250-x.example\r\n250 STARTTLS\r\n", b"STARTTLS": b"220 go on\r\n"}
RESETS = {
    "ftps": (b"220 hello\r\n", {b"AUTH": b"234 go on\r\n"}),
    "ftps-implicit": (b"", {}),
    "smtp": (b"220 x.example\r\n", HELLO),
    "smtps": (b"", {}),
}


@pytest.fixture(params=RESETS)
def resetting(request: pytest.FixtureRequest) -> Iterator[tuple[str, Resetting]]:
    server = Resetting(*RESETS[request.param])
    yield request.param, server
    server.close()


def test_an_item_waits_after_a_server_has_reset_the_handshake(outbox: Outbox, resetting: tuple[str, Resetting]):
    scheme, server = resetting
    section = "Mail]\nRelay" if scheme.startswith("smtp") else "Target x]\nMatch=x\nUrl"
    account = f"User={ACCOUNT}\nSecret=word\n"
    outbox.configure(f"[{section}={scheme}://127.0.0.1:{server.port}\n{account}", word=PASSWORD)
    outbox.start()
    number = outbox.mail(MAIL) if scheme.startswith("smtp") else outbox.put(b"picture", host="x")
    assert outbox.wait_for_state(number, "wait")["error"]
    assert server.resets == 1 and outbox.target()["next_ms"] <= 6250


def test_a_server_must_have_the_key_of_its_pin(outbox: Outbox, authority: Authority, context: ssl.SSLContext):
    right = pin_of(authority.path.with_name("server.pem"))
    wrong = pin_of(authority.path)
    with MailSink(tls=context, account=(ACCOUNT, PASSWORD)) as sink:
        outbox.configure(relay("smtps", sink, f"CaFile={authority.path}", f"Pin={wrong}"), word=PASSWORD)
        outbox.start()
        number = outbox.mail(MAIL)
        outbox.wait_for_state(number, "hold")
        outbox.configure(relay("smtps", sink, f"CaFile={authority.path}", f"Pin={right}"), word=PASSWORD)
        outbox.stop()
        outbox.start()
        outbox.wait_for(delivered=1)
        sink.wait_for(1)


def test_folders_are_made_where_the_target_says_so(outbox: Outbox, tmp_path: Path):
    (tmp_path / "server").mkdir()
    text = "[Target {0}]\nMatch={0}\nUrl=ftp://127.0.0.1\nUser=camera\nSecret=word\nAllowPlain=yes\nMakeFolders={1}\n"
    outbox.configure(text.format("makes", "yes") + text.format("does-not", "no"), word="secret")
    content = os.urandom(5000)
    with FtpServer(tmp_path / "server") as ftp:
        outbox.start()
        outbox.put(content, "/2026/11/22/shot.jpg", host="makes")
        outbox.wait_for(delivered=1)
        outbox.put(content, "/2026/11/22/next.jpg", host="makes")
        outbox.wait_for(delivered=2)
        outbox.put(content, "/2027/shot.jpg", host="does-not")
        outbox.wait_for(failed=1, queued=0)
        assert ftp.content("/2026/11/22/shot.jpg") == ftp.content("/2026/11/22/next.jpg") == content
        assert [path.name for path in ftp.folder.iterdir()] == ["2026"]
        assert len(list((ftp.folder / "2026/11/22").iterdir())) == 2
