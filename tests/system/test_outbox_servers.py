"""The outbox with servers that encrypt, and with mail servers that refuse, hesitate or vanish."""

import json
import os
import re
import shutil
import signal
import socket
import subprocess
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest
from outbox import CONFIGURATION, FLASH, KNOWN_HOSTS, Outbox, SecretWatch, SilentTargets, make_private, pin_of
from testing.certificates import Authority
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", "one user", reason="real servers, which start as root")
pytest_plugins = ["outbox_fixtures"]

ACCOUNT, PASSWORD = "outboxtest", "s3cret-of-the-server"
MAIL = "From: camera@x.example\nTo: a@x.example, b@x.example\nSubject: Alarm\n\nA door.\n"


@pytest.fixture(scope="module", autouse=True)
def own_machine(tmp_path_factory: pytest.TempPathFactory) -> None:
    """With an account for the servers: /etc is a copy of itself."""
    folder = tmp_path_factory.mktemp("machine")
    make_private(folder)
    home = folder / "home"
    subprocess.run(["useradd", "-M", "-d", home, "-s", "/bin/sh", ACCOUNT], check=True)
    subprocess.run(["chpasswd"], input=f"{ACCOUNT}:{PASSWORD}\n", text=True, check=True)
    (home / "up").mkdir(parents=True)
    for path in (home, home / "up"):
        shutil.chown(path, ACCOUNT)
    for path in (folder, *list(folder.parents)[:-2]):
        path.chmod(0o755)


@pytest.fixture
def home() -> Iterator[Path]:
    path = Path(os.path.expanduser(f"~{ACCOUNT}"))
    yield path
    for entry in (path / "up").iterdir():
        entry.unlink()


@pytest.fixture
def authority(tmp_path: Path) -> Path:
    """A certificate of 127.0.0.1 and its key, in one file, which is its own authority."""
    path = tmp_path / "server.pem"
    subject = ["-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1"]
    command = ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", *subject]
    subprocess.run([*command, "-keyout", path, "-out", tmp_path / "ca.pem"], check=True, capture_output=True)
    path.write_text(path.read_text() + (tmp_path / "ca.pem").read_text())
    return tmp_path / "ca.pem"


def wait_for_port(port: int) -> None:
    def answers() -> bool:
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", port)) == 0

    wait_until(answers, f"somebody listens on {port}")


@contextmanager
def vsftpd(tmp_path: Path, authority: Path, port: int, *more: str) -> Iterator[None]:
    """With TLS for everything, whose session the data connection has to take up again."""
    configuration = tmp_path / "vsftpd.conf"
    empty = tmp_path / "empty"
    empty.mkdir()
    pem = authority.with_name("server.pem")
    configuration.write_text(
        "listen=YES\nbackground=NO\nanonymous_enable=NO\nlocal_enable=YES\nwrite_enable=YES\nseccomp_sandbox=NO\n"
        "check_shell=NO\nssl_enable=YES\nforce_local_data_ssl=YES\nforce_local_logins_ssl=YES\n"
        f"require_ssl_reuse=YES\nrsa_cert_file={pem}\nrsa_private_key_file={pem}\nsecure_chroot_dir={empty}\n"
        "pam_service_name=vsftpd\nisolate=NO\nisolate_network=NO\n"
        f"listen_port={port}\n" + "".join(f"{line}\n" for line in more)
    )
    with subprocess.Popen(["/usr/sbin/vsftpd", configuration]) as server:
        wait_for_port(port)
        try:
            yield
        finally:
            server.kill()


@pytest.fixture
def ftps(tmp_path: Path, authority: Path) -> Iterator[None]:
    with vsftpd(tmp_path, authority, 21):
        yield


@pytest.fixture
def ftps_implicit(tmp_path: Path, authority: Path) -> Iterator[None]:
    with vsftpd(tmp_path, authority, 990, "implicit_ssl=YES"):
        yield


@pytest.fixture
def sftp(tmp_path: Path) -> Iterator[Path]:
    """Returns its key."""
    key = tmp_path / "host_key"
    subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", key], check=True)
    Path("/run/sshd").mkdir(exist_ok=True)
    configuration = tmp_path / "sshd_config"
    configuration.write_text(
        f"Port 22\nListenAddress 127.0.0.1\nHostKey {key}\nPasswordAuthentication yes\nUsePAM no\n"
        "Subsystem sftp internal-sftp\nPidFile none\nStrictModes no\n"
    )
    with subprocess.Popen(["/usr/sbin/sshd", "-D", "-e", "-f", configuration], stderr=subprocess.DEVNULL) as server:
        wait_for_port(22)
        yield key
        server.kill()


@pytest.fixture
def silent() -> Iterator[SilentTargets]:
    """As many as the outbox has threads."""
    targets = SilentTargets(6)
    yield targets
    targets.close()


def target(url: str, *more: str) -> str:
    lines = ["[Target archive]", "Match=archive", f"Url={url}", f"User={ACCOUNT}", "Secret=word", *more]
    return "\n".join(lines) + "\n"


@pytest.mark.parametrize("tls", ["1.2", "1.3"])
def test_pictures_go_to_a_server_with_tls(outbox: Outbox, ftps: None, home: Path, authority: Path, tls: str):
    outbox.configure(target("ftps://127.0.0.1", f"CaFile={authority}", f"TlsMax={tls}"), word=PASSWORD)
    outbox.start()
    contents = {f"{number}.jpg": os.urandom(700_000) for number in range(3)}
    for name, content in contents.items():
        outbox.put(content, f"{home}/up/{name}", host="archive")
    # This libcurl now and then cuts an upload off with TLS 1.3. The size tells, and it is sent again after a while.
    outbox.wait_for(delivered=3, patience=100)
    assert {path.name: path.read_bytes() for path in (home / "up").iterdir()} == contents


def test_pictures_go_to_a_server_with_tls_from_the_first_byte_on(
    outbox: Outbox, ftps_implicit: None, home: Path, authority: Path
):
    outbox.configure(target("ftps-implicit://127.0.0.1", f"CaFile={authority}", "TlsMax=1.2"), word=PASSWORD)
    outbox.start()
    content = os.urandom(100_000)
    outbox.put(content, f"{home}/up/x.jpg", host="archive")
    outbox.wait_for(delivered=1, patience=100)
    assert [path.read_bytes() for path in (home / "up").iterdir()] == [content]


def test_a_certificate_of_nobody_holds_the_target(outbox: Outbox, ftps: None, home: Path):
    outbox.configure(target("ftps://127.0.0.1"), word=PASSWORD)
    outbox.start()
    number = outbox.put(b"picture", f"{home}/up/x.jpg", host="archive")
    outbox.wait_for_state(number, "hold")
    assert list((home / "up").iterdir()) == []


def test_a_server_with_tls_must_have_the_key_of_its_pin(outbox: Outbox, ftps: None, home: Path, authority: Path):
    right = pin_of(authority)
    (authority.parent / "other").mkdir()
    wrong = pin_of(Authority(authority.parent / "other").path)
    lines = ["ftps://127.0.0.1", f"CaFile={authority}", "TlsMax=1.2"]
    outbox.configure(target(*lines, f"Pin={wrong}"), word=PASSWORD)
    outbox.start()
    number = outbox.put(b"picture", f"{home}/up/x.jpg", host="archive")
    outbox.wait_for_state(number, "hold")
    assert list((home / "up").iterdir()) == []
    outbox.configure(target(*lines, f"Pin={right}"), word=PASSWORD)
    outbox.process.send_signal(signal.SIGHUP)
    outbox.wait_for(delivered=1, patience=100)
    assert [path.read_bytes() for path in (home / "up").iterdir()] == [b"picture"]


def test_pictures_go_by_sftp_once_the_key_is_trusted(outbox: Outbox, sftp: Path, home: Path):
    outbox.configure(target("sftp://127.0.0.1"), word=PASSWORD)
    outbox.start()
    number = outbox.put(b"new", f'{home}/up/%41 "b".jpg', host="archive")
    outbox.wait_for_state(number, "hold")
    assert outbox.run("trust", "127.0.0.1", stdin=subprocess.DEVNULL).returncode == 1
    assert not KNOWN_HOSTS.exists()
    asked = json.loads(outbox.run("trust", "127.0.0.1", "--format", "json").stdout)
    shown = outbox.run("trust", "127.0.0.1", "--yes").stdout
    assert (asked["fingerprint"], asked["stored"]) == (shown.split()[2], False)
    listed = subprocess.run(["ssh-keygen", "-l", "-f", sftp], capture_output=True, text=True, check=True).stdout
    assert shown.split()[2] == listed.split()[1]
    outbox.run("flush")
    outbox.wait_for(delivered=1)
    (path,) = (home / "up").iterdir()
    assert (path.name, path.read_bytes()) == ('%41 "b".jpg', b"new")


@pytest.mark.parametrize("scheme", ["ftps", "sftp"])
def test_pictures_that_threads_of_silent_targets_take_along_arrive_as_ever(
    outbox: Outbox, home: Path, authority: Path, scheme: str, request: pytest.FixtureRequest, silent: SilentTargets
):
    request.getfixturevalue(scheme)
    settings = target(f"{scheme}://127.0.0.1", f"CaFile={authority}", "TlsMax=1.2")
    outbox.configure(settings + silent.settings, word=PASSWORD)
    outbox.start()
    outbox.run("trust", "127.0.0.1", "--yes")
    silent.hold_up(outbox)
    contents = {f"{number}.jpg": os.urandom(700_000) for number in range(3)}
    for name, content in contents.items():
        outbox.put(content, f"{home}/up/{name}", host="archive")
    outbox.wait_for(delivered=3)
    assert {path.name: path.read_bytes() for path in (home / "up").iterdir()} == contents
    assert all(item["state"] == "sending" for item in outbox.answer("list")["items"])


@pytest.mark.parametrize("scheme", ["ftps", "sftp"])
def test_a_password_for_uploads_is_seen_nowhere(
    outbox: Outbox, home: Path, authority: Path, scheme: str, request: pytest.FixtureRequest
):
    request.getfixturevalue(scheme)
    with SecretWatch(PASSWORD) as watch:
        outbox.configure(target(f"{scheme}://127.0.0.1", f"CaFile={authority}", "TlsMax=1.2"), word=PASSWORD)
        outbox.start()
        outbox.run("trust", "127.0.0.1", "--yes")
        outbox.put(b"picture", f"{home}/up/x.jpg", host="archive")
        outbox.wait_for(delivered=1, patience=100)
        outbox.configure(target(f"{scheme}://127.0.0.1", "Pin=sha256//nobodys"), word=PASSWORD)
        KNOWN_HOSTS.unlink(missing_ok=True)
        outbox.process.send_signal(signal.SIGHUP)
        outbox.wait_for_state(outbox.put(b"picture", f"{home}/up/x.jpg", host="archive"), "hold")
    watch.check(outbox)


def test_sftp_replaces_a_file_and_a_changed_key_holds_the_target(outbox: Outbox, sftp: Path, home: Path):
    outbox.configure(target("sftp://127.0.0.1"), word=PASSWORD)
    outbox.start()
    outbox.run("trust", "127.0.0.1", "--yes")
    (home / "up" / "x.jpg").write_bytes(b"old")
    shutil.chown(home / "up" / "x.jpg", ACCOUNT)
    outbox.put(b"new", f"{home}/up/x.jpg", host="archive")
    outbox.wait_for(delivered=1)
    assert [path.read_bytes() for path in (home / "up").iterdir()] == [b"new"]
    other = sftp.with_name("other_key")
    subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", other], check=True)
    KNOWN_HOSTS.write_text("127.0.0.1 " + " ".join(other.with_suffix(".pub").read_text().split()[:2]) + "\n")
    number = outbox.put(b"newer", f"{home}/up/x.jpg", host="archive")
    outbox.wait_for_state(number, "hold")


def test_a_folder_that_is_not_there_fails_the_item(outbox: Outbox, sftp: Path, home: Path):
    outbox.configure(target("sftp://127.0.0.1"), word=PASSWORD)
    outbox.start()
    outbox.run("trust", "127.0.0.1", "--yes")
    outbox.put(b"new", f"{home}/not/there.jpg", host="archive")
    outbox.wait_for(failed=1)


# --- mail servers that do as a script says


class LyingMailServer:
    """Says what a script of (command, answers in turn) tells it to, and yes to all else; None hangs up."""

    def __init__(self, answers: dict[str, list[str | None]]) -> None:
        self.answers = {command: list(texts) for command, texts in answers.items()}
        self.mails: list[bytes] = []
        self.recipients: list[str] = []
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]

    def serve(self) -> None:
        while True:
            try:
                connection = self.listener.accept()[0]
            except OSError:
                return
            with connection, connection.makefile("rb") as lines:
                try:
                    self._talk(connection, lines)
                except OSError:
                    pass

    def _answer(self, command: str, usual: str) -> str | None:
        left = self.answers.get(command, [])
        return left.pop(0) if left else usual

    def _talk(self, connection: socket.socket, lines) -> None:
        connection.sendall(b"220 hello\r\n")
        while line := lines.readline():
            command = line.decode().split()[0].upper()
            answer = self._answer(command, "354 go on" if command == "DATA" else "250 fine")
            if answer is None:
                return
            if command == "RCPT" and answer.startswith("250"):
                self.recipients.append(line.decode().partition("<")[2].partition(">")[0])
            connection.sendall(f"{answer}\r\n".encode())
            if answer.startswith("354"):
                content = b""
                while (line := lines.readline()) not in (b".\r\n", b""):
                    content += line
                self.mails.append(content)
                answer = self._answer(".", "250 taken")
                if answer is None:
                    return
                connection.sendall(f"{answer}\r\n".encode())

    def close(self) -> None:
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()


@pytest.fixture
def smtp(request: pytest.FixtureRequest, outbox: Outbox) -> Iterator[LyingMailServer]:
    server = LyingMailServer(request.param)
    thread = threading.Thread(target=server.serve, daemon=True)
    thread.start()
    outbox.configure(f"[Mail]\nRelay=smtp://127.0.0.1:{server.port}\n")
    outbox.start()
    yield server
    outbox.close()
    server.close()
    thread.join()


def script(*answers: dict[str, list[str | None]]) -> pytest.MarkDecorator:
    return pytest.mark.parametrize("smtp", answers, indirect=True, ids=[str(answer) for answer in answers])


@script({"MAIL": ["451 later"]}, {"RCPT": ["450 later", "450 later"]}, {".": ["451 later"]}, {"DATA": ["421 bye"]})
def test_a_mail_waits_after(outbox: Outbox, smtp: LyingMailServer):
    number = outbox.mail(MAIL)
    outbox.wait_for_state(number, "wait")
    outbox.run("flush")
    outbox.wait_for(delivered=1)


@script({})
def test_mails_that_threads_of_silent_targets_take_along_arrive_as_ever(
    outbox: Outbox, smtp: LyingMailServer, silent: SilentTargets
):
    CONFIGURATION.write_text(CONFIGURATION.read_text() + silent.settings)
    outbox.process.send_signal(signal.SIGHUP)
    silent.hold_up(outbox)
    for _ in range(3):
        outbox.mail(MAIL)
    outbox.wait_for(delivered=3)
    assert len(set(smtp.mails)) == 3 and all(mail.endswith(b"A door.\r\n") for mail in smtp.mails)
    assert smtp.recipients == ["a@x.example", "b@x.example"] * 3


@script({"MAIL": ["530 log in"]}, {".": ["452 full"]}, {".": ["552 mailbox full"]}, {"RCPT": ["552 full", "552 full"]})
def test_a_mail_and_those_behind_it_are_held_after(outbox: Outbox, smtp: LyingMailServer):
    number = outbox.mail(MAIL)
    outbox.wait_for_state(number, "hold")
    assert outbox.target() | {"reason": "", "next_ms": 0} == {
        "name": "mail",
        "state": "hold",
        "reason": "",
        "next_ms": 0,
    }


@script({"RCPT": ["550 nobody", "551 nobody"]}, {".": ["554 spam"]}, {"MAIL": ["552 too large"]})
def test_a_mail_fails_after(outbox: Outbox, smtp: LyingMailServer):
    outbox.mail(MAIL)
    outbox.wait_for(failed=1, queued=0)


@script({"RCPT": ["550 nobody"]})
def test_who_is_refused_does_not_cost_the_others_their_mail(outbox: Outbox, smtp: LyingMailServer):
    outbox.mail(MAIL)
    outbox.wait_for(delivered=1)
    assert smtp.recipients == ["b@x.example"] and len(smtp.mails) == 1
    assert "a@x.example: 550 nobody" in outbox.log.read_text()


@script({"RCPT": ["450 later"]})
def test_who_is_put_off_gets_the_mail_later_and_the_others_once(outbox: Outbox, smtp: LyingMailServer):
    number = outbox.mail(MAIL)
    wait_until(lambda: smtp.mails, "the first one has it")
    wait_until(lambda: outbox.item(number)["error"], "the other one is known to wait")
    outbox.stop(signal.SIGKILL)
    outbox.start()
    outbox.run("flush")
    outbox.wait_for(delivered=1)
    assert smtp.recipients == ["b@x.example", "a@x.example"] and len(smtp.mails) == 2


@script({".": [None]})
def test_a_mail_without_a_last_answer_is_uncertain_and_blocks_no_other(outbox: Outbox, smtp: LyingMailServer):
    number = outbox.mail(MAIL)
    outbox.wait_for_state(number, "uncertain")
    outbox.mail(MAIL)
    outbox.wait_for(delivered=1, queued=1)
    for end in (signal.SIGKILL, signal.SIGTERM):
        outbox.stop(end)
        outbox.start()
        assert outbox.item(number)["state"] == "uncertain" and len(smtp.mails) == 2
    # What would be after a quarter of an hour comes with a reboot.
    outbox.stop(signal.SIGTERM)
    note = FLASH.with_name("notes") / number
    note.write_text(re.sub("boot=.*", "boot=another", note.read_text()))
    outbox.start()
    outbox.wait_for(delivered=2, queued=0)

    def ids() -> list[bytes]:
        return [line for mail in smtp.mails for line in mail.splitlines() if line.startswith(b"Message-ID")]

    assert ids()[0] == ids()[2] != ids()[1]
