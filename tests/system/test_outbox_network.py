"""The outbox in a camera whose network comes and goes: another network is at the other end of a cable."""

import ctypes
import os
import socket
import subprocess
import threading
from collections.abc import Iterator
from pathlib import Path

import pytest
from outbox import LyingFtpServer, Outbox, picture
from testing.ftp_server import FtpServer
from testing.waiting import PATIENCE, wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is tried in release, with real servers")
pytest_plugins = ["outbox_fixtures"]

CLONE_NEWNET = 0x40000000
CAMERA, SERVER = "192.0.2.1", "192.0.2.7"


def ip(*words: str) -> None:
    subprocess.run(["ip", *words], check=True)


class FarServer:
    """Serves in a network of its own, which is that of its thread. The cable to it lies in the camera as "near"."""

    def __init__(self) -> None:
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._has_network = threading.Event()
        self._has_cable = threading.Event()
        self._is_serving = threading.Event()
        self._thread.start()
        assert self._has_network.wait(PATIENCE)
        ip("link", "add", "near", "type", "veth", "peer", "name", "far", "netns", str(self._thread.native_id))
        self._has_cable.set()
        assert self._is_serving.wait(PATIENCE)
        self.port = self._server.port

    def _serve(self) -> None:
        libc = ctypes.CDLL(None, use_errno=True)
        assert libc.unshare(CLONE_NEWNET) == 0, os.strerror(ctypes.get_errno())
        self._has_network.set()
        assert self._has_cable.wait(PATIENCE)
        ip("address", "add", f"{SERVER}/24", "dev", "far")
        ip("link", "set", "far", "up")
        self._server = LyingFtpServer({}, host=SERVER)
        self._is_serving.set()
        self._server.serve()

    def pull(self) -> None:
        self._set_link("down")

    def plug_in(self) -> None:
        self._set_link("up")

    def _set_link(self, state: str) -> None:
        network = f"/proc/{os.getpid()}/task/{self._thread.native_id}/ns/net"
        subprocess.run(["nsenter", f"--net={network}", "ip", "link", "set", "far", state], check=True)

    @property
    def received(self) -> list[bytes]:
        return self._server.received

    def close(self) -> None:
        """The cable goes with the network."""
        self._server.close()
        self._thread.join()
        wait_until(lambda: "near" not in dict(socket.if_nameindex()).values(), "the cable is gone")


@pytest.fixture
def far() -> Iterator[FarServer]:
    server = FarServer()
    yield server
    server.close()


def wait_in_vain(outbox: Outbox, number: str) -> None:
    """Its next try is more than half a minute away then."""

    def is_far_off() -> bool:
        if outbox.item(number)["state"] != "wait":
            return False
        if outbox.target()["next_ms"] > 30_000:
            return True
        outbox.run("flush")
        return False

    wait_until(is_far_off, "it is tried in vain", patience=60)


@pytest.mark.parametrize("what", ["address", "link", "cable"])
def test_what_waits_is_tried_at_once_when_the_network_is_back(outbox: Outbox, far: FarServer, what: str):
    if what != "address":
        ip("address", "add", f"{CAMERA}/24", "dev", "near")
    if what != "link":
        ip("link", "set", "near", "up")
    if what == "cable":
        far.pull()
    outbox.start()
    content = picture()
    wait_in_vain(outbox, outbox.put(content, host=SERVER, options=f"-P {far.port}"))
    if what == "address":
        ip("address", "add", f"{CAMERA}/24", "dev", "near")
    elif what == "link":
        ip("link", "set", "near", "up")
    else:
        far.plug_in()
    outbox.wait_for(delivered=1)
    assert far.received == [content]


def test_news_of_the_network_count_for_a_try_that_has_begun_before(outbox: Outbox, ftp: FtpServer):
    ftp.set_fault("refuse")
    outbox.start()
    wait_in_vain(outbox, outbox.put(b"picture"))
    ftp.set_fault("hang")
    outbox.run("flush")
    ftp.wait_for_hung_connection()
    ip("address", "add", "192.0.2.9/32", "dev", "lo")
    outbox.counts()  # it has heard of it before it answers
    ftp.set_fault("none")
    outbox.wait_for(delivered=1)
    ip("address", "delete", "192.0.2.9/32", "dev", "lo")


class NameServer:
    """The name server of this machine: it answers with a status, or with the address of this machine."""

    NO_SUCH_NAME, FAILURE = 3, 2
    _ADDRESS, _CLASS = b"\x00\x01", b"\x00\x01"

    def __init__(self, status: int) -> None:
        self.status = status
        self.asked = 0
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind(("127.0.0.1", 53))
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self) -> None:
        while True:
            query, peer = self._socket.recvfrom(4096)
            if not query:
                return
            self.asked += 1
            self._socket.sendto(self._answer(query), peer)

    def _answer(self, query: bytes) -> bytes:
        """To one question; all that stands behind it in the query is left out."""
        end = query.index(0, 12) + 5
        is_found = self.status == 0 and query[end - 4 : end - 2] == self._ADDRESS
        head = query[:2] + bytes([0x81, 0x80 | self.status, 0, 1, 0, is_found, 0, 0, 0, 0])
        record = b"\xc0\x0c" + self._ADDRESS + self._CLASS + bytes([0, 0, 0, 0, 0, 4, 127, 0, 0, 1])
        return head + query[12:end] + (record if is_found else b"")

    def close(self) -> None:
        self._socket.sendto(b"", ("127.0.0.1", 53))
        self._thread.join()
        self._socket.close()


@pytest.fixture
def name_server(request: pytest.FixtureRequest) -> Iterator[NameServer]:
    resolver = Path("/etc/resolv.conf")
    resolver.unlink(missing_ok=True)  # it may lead out of this /etc
    resolver.write_text("nameserver 127.0.0.1\n")
    server = NameServer(request.param)
    yield server
    server.close()


@pytest.mark.parametrize(
    "name_server", [NameServer.NO_SUCH_NAME, NameServer.FAILURE], indirect=True, ids=["no such name", "failure"]
)
def test_a_name_that_is_not_found_has_the_target_wait(outbox: Outbox, ftp: FtpServer, name_server: NameServer):
    outbox.start()
    content = picture()
    item = outbox.wait_for_state(outbox.put(content, host="archive.example"), "wait")
    assert item["error"].startswith("archive.example: ") and name_server.asked > 0
    assert (outbox.target()["state"], outbox.counts()["queued"]) == ("wait", 1)
    name_server.status = 0
    outbox.run("flush")
    outbox.wait_for(delivered=1)
    assert ftp.content("/shot.jpg") == content
