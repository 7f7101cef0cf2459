"""How long the daemon waits for the outbox, whatever network, server and spool do.

HALVEK_TEST_BY_HAND=1 measures what stands in front of it without the outbox, too: the figures are printed.
"""

import os
import secrets
import shutil
import socket
import statistics
import threading
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from outbox import Outbox
from spool_calls import SpoolCalls
from testing.ftp_server import HOST, FtpServer
from testing.pipes import block, post
from testing.settings import SERVER, handler
from testing.waiting import NotSeen

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is tried in release, with real servers")
pytest_plugins = ["outbox_fixtures"]

BY_HAND = bool(os.environ.get("HALVEK_TEST_BY_HAND"))
FINISHED = r"FTPEventHandler::PerformAction Finished FTP command now$"
NOBODY = "192.0.2.1"
PICTURE_SIZE = 30_000
# What a loaded machine may add to the figures, which are printed: it may stand still for a second.
STANDSTILL = 1.0
TROUBLES = ["no network", "silent server", "10 B/s", "500 items", "full spool", "slow flash"]


@pytest.fixture
def slow_server(ftp: FtpServer) -> Iterator[None]:
    """Says at 10 B/s what never comes to an end."""
    ftp.set_fault("refuse")
    listener = socket.create_server((HOST, 21))

    def talk(connection: socket.socket) -> None:
        try:
            for byte in b"220 here is a very slow server, which takes its time for all that it says\r\n" * 10:
                connection.send(bytes([byte]))
                time.sleep(0.1)
        except OSError:
            pass

    def serve() -> None:
        while True:
            try:
                connection = listener.accept()[0]
            except OSError:
                return
            threading.Thread(target=talk, args=(connection,), daemon=True).start()

    thread = threading.Thread(target=serve, daemon=True)
    thread.start()
    yield
    listener.shutdown(socket.SHUT_RDWR)
    thread.join()
    listener.close()


@pytest.fixture(params=TROUBLES)
def trouble(request: pytest.FixtureRequest, outbox: Outbox, ftp: FtpServer, tmp_path: Path) -> str:
    """The outbox runs, and is in it."""
    name = request.param
    if name == "silent server":
        ftp.set_fault("hang")
    elif name == "10 B/s":
        request.getfixturevalue("slow_server")
    else:
        ftp.set_fault("refuse")
    if name == "slow flash":
        calls = SpoolCalls(tmp_path / "control")
        calls.slow_down(10)
        outbox.environment = dict(calls.environment)
    if name == "full spool":
        outbox.configure("[Outbox]\nSpoolLimit=100K\n")
    outbox.start()
    waiting = {"500 items": 500, "full spool": 3, "slow flash": 50}.get(name, 0)
    outbox.run("hold")
    for number in range(waiting):
        outbox.put(bytes(PICTURE_SIZE if name == "full spool" else 5), f"/{number}.jpg")
    outbox.run("release")
    return name


def host_for(trouble: str) -> str:
    return NOBODY if trouble == "no network" else HOST


def tell(who: str, trouble: str, taken: list[float]) -> None:
    middle, worst = statistics.median(taken) * 1000, max(taken) * 1000
    print(f"{who}, {trouble}: {middle:.1f} ms, at worst {worst:.1f} ms, of {len(taken)}")


def check(who: str, trouble: str, taken: list[float]) -> None:
    tell(who, trouble, taken)
    assert statistics.median(taken) < 0.05 + STANDSTILL / len(taken) and max(taken) < 0.05 + STANDSTILL


def test_its_program_ends_at_once(outbox: Outbox, trouble: str):
    local = outbox.folder / "picture"
    local.write_bytes(secrets.token_bytes(PICTURE_SIZE))
    taken = []
    for number in range(20):
        begin = time.monotonic()
        words = ("-u", "camera", "-p", "secret", host_for(trouble), f"/{number}.jpg", str(local))
        result = outbox.submit("ftpput", *words)
        taken.append(time.monotonic() - begin)
        assert result.returncode == 0, result
    check("ftpput", trouble, taken)


class Upload:
    """A daemon with a handler that uploads."""

    def __init__(self, launch: Callable, folder: Path, host: str, path: str) -> None:
        snapshot = folder / "snapshot.jpg"
        snapshot.write_bytes(secrets.token_bytes(PICTURE_SIZE))
        keys = {"Server": host, "Username": "camera", "Password": "secret", "DestName": "shot.jpg", "BasePath": "/"}
        upload = handler(1, "Events/Source#1", handler_type="Ftp") | {
            "Events/Handler#1/Ftp": keys | {"Attachment": "true"}
        }
        source = {"Events/Source#1": {"Type": "Door"}, "Video/Quickview": {"SnapshotPath": snapshot}}
        self.daemon = launch(SERVER | source | upload, environment={"PATH": path})

    def seconds(self, patience: float = 20) -> float:
        """From the event to the end of the handler."""
        before = len(self.daemon.log.items)
        begin = time.monotonic()
        post(block("Door"))
        self.daemon.log.wait_for(FINISHED, after=before, patience=patience)
        return time.monotonic() - begin


def test_its_handler_is_done_at_once(outbox: Outbox, ftp: FtpServer, launch: Callable, tmp_path: Path, trouble: str):
    path = f"{outbox.programs}:{os.environ['PATH']}"
    upload = Upload(launch, tmp_path, host_for(trouble), path)
    known = outbox.counts()
    taken = [upload.seconds() for _ in range(20)]
    check("the handler", trouble, taken)
    assert sum(outbox.counts().values()) == sum(known.values()) + len(taken)


@pytest.mark.not_under("suite", reason="a figure to compare with")
@pytest.mark.parametrize("fault", ["no network", "silent server", "10 B/s", "refused"])
def test_its_handler_without_the_outbox(
    ftp: FtpServer, launch: Callable, tmp_path: Path, fault: str, request: pytest.FixtureRequest
):
    if fault == "10 B/s":
        request.getfixturevalue("slow_server")
    else:
        ftp.set_fault("hang" if fault == "silent server" else "refuse")
    programs = tmp_path / "bin"
    programs.mkdir()
    (programs / "ftpput").symlink_to(shutil.which("busybox"))
    upload = Upload(launch, tmp_path, host_for(fault), f"{programs}:{os.environ['PATH']}")
    try:
        tell("the handler without the outbox", fault, [upload.seconds(30) for _ in range(5)])
    except NotSeen:
        print(f"the handler without the outbox, {fault}: not done after 30 s")
    ftp.set_fault("none" if fault == "silent server" else "refuse")
