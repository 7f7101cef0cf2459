"""Runs the page of the virtual camera and asks it as a browser would, in plain Python."""

import contextlib
import http.client
import json
import os
import re
import signal
import socket
import subprocess
import threading
from collections.abc import Sequence
from pathlib import Path
from typing import Any, NamedTuple

from testing.bus import PrivateBus
from testing.camera import LOCAL, VirtualCamera
from testing.collector import Collector, Lines
from testing.processes import dies_with_us
from testing.waiting import PATIENCE, wait_until

PAGE_PROGRAM = os.environ.get("HALVEK_PAGE", "")
ADDRESS = "127.0.0.1"
# One of each kind that the page takes.
ORDERS = {
    "/alarm": {"bank": LOCAL, "index": 2, "active": True},
    "/head": {"preset": "3"},
    "/recording": {"a": True, "b": False},
    "/alert": {"class": "Human"},
    "/fault": {"provider": "Tour", "kind": "slow"},
    "/post": {"type": "Doorbell", "props": {"button": "front"}},
}


class Answer(NamedTuple):
    status: int
    headers: http.client.HTTPMessage
    body: bytes

    @property
    def text(self) -> str:
        return self.body.decode()


class Sent(NamedTuple):
    """An event of a stream; a comment has no name and no id."""

    name: str
    id: int | None
    data: Any


class EventStream(Collector):
    """A stream of the page; the items are what was sent."""

    def __init__(self, port: int, headers: dict[str, str], path: str = "/stream") -> None:
        self._socket = socket.create_connection((ADDRESS, port), PATIENCE)
        fields = {"Host": f"{ADDRESS}:{port}"} | headers
        head = "".join(f"{name}: {value}\r\n" for name, value in fields.items())
        # Of HTTP/1.0, so that no lengths stand between the events.
        self._socket.sendall(f"GET {path} HTTP/1.0\r\n{head}\r\n".encode())
        self._head: bytes | None = b""
        self._rest = b""
        self.status = 0
        self.head = ""
        # Through a pipe: of a socket nobody can see that it has ended without reading it.
        reading, writing = os.pipe()
        self._pump = threading.Thread(target=pump, args=(self._socket, writing), name="pump", daemon=True)
        self._pump.start()
        self._is_open = True
        super().__init__(reading, "stream of the page")

    def take(self, descriptor: int) -> list[Sent]:
        data = os.read(descriptor, 1 << 20)
        if self._head is not None:
            self._head += data
            head, end, data = self._head.partition(b"\r\n\r\n")
            if not end:
                return []
            self.head, self._head = head.decode(), None
            self.status = int(self.head.split()[1])
        self._rest += data
        *blocks, self._rest = self._rest.split(b"\n\n")
        return [sent for sent in map(parse, blocks) if sent]

    def wait_for_head(self) -> int:
        def has_head() -> bool:
            self.items  # takes what lies ready
            return self.status != 0

        wait_until(has_head, "the head of the stream's answer")
        return self.status

    def wait_for_sent(self, name: str, *, after: int = 0, **fields: object) -> Sent:
        """Waits for an event of the name whose data has at least these fields."""

        def wanted(sent: Sent) -> bool:
            return sent.name == name and (not fields or fields.items() <= sent.data.items())

        return self.items[self.wait(wanted, f"{name} {fields or ''}", after=after) - 1]

    def named(self, name: str) -> list[Sent]:
        return [sent for sent in self.items if sent.name == name]

    def ids(self) -> list[int]:
        return [sent.id for sent in self.items if sent.id is not None]

    def close(self) -> None:
        if self._is_open:
            self._is_open = False
            with contextlib.suppress(OSError):  # the page has closed it
                self._socket.shutdown(socket.SHUT_RDWR)
            self._socket.close()
            super().close()
            self._pump.join()


def pump(source: socket.socket, target: int) -> None:
    """Hands on what comes, until either side has ended."""
    with contextlib.suppress(OSError):
        while data := source.recv(1 << 16):
            while data:
                data = data[os.write(target, data) :]
    os.close(target)


def parse(block: bytes) -> Sent | None:
    fields = dict(line.partition(": ")[::2] for line in block.decode().split("\n") if not line.startswith(":"))
    if block.startswith(b":"):
        return Sent("", None, block[1:].decode())
    if "event" not in fields:
        return None
    assert fields.keys() == {"id", "event", "data"}, block
    return Sent(fields["event"], int(fields["id"]), json.loads(fields["data"]))


class VcamPage:
    """A running kelto-vcam-page; `given` are descriptors that it inherits."""

    def __init__(
        self,
        environment: dict[str, str],
        snapshot: Path,
        *options: str,
        prefix: Sequence[str] = (),
        program: str = PAGE_PROGRAM,
        given: Sequence[int] = (),
    ) -> None:
        words = ("--port", "0", "--snapshot", str(snapshot), *options)
        self.process = subprocess.Popen(
            dies_with_us(*prefix, program, *words),
            env=os.environ | environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            pass_fds=given,
        )
        self.lines = Lines(os.dup(self.process.stdout.fileno()), "kelto-vcam-page")
        self.complaints = Lines(os.dup(self.process.stderr.fileno()), "kelto-vcam-page's standard error")
        self.process.stdout.close()
        self.process.stderr.close()
        self._streams: list[EventStream] = []
        self._token = ""
        try:
            self.lines.wait_for("^http://")
        except AssertionError:
            self.close()
            raise
        self.url = self.lines.items[0]
        self.port = int(re.search(r":(\d+)/$", self.url)[1])

    @property
    def origin(self) -> str:
        return f"http://{ADDRESS}:{self.port}"

    @property
    def token(self) -> str:
        if not self._token:
            page = self.get("/").text
            self._token = re.search(r'<meta name="halvek-token" content="([^"]+)">', page)[1]
        return self._token

    def ask(self, method: str, path: str, body: bytes = b"", headers: dict[str, str] | None = None) -> Answer:
        """One request on a connection of its own; a header that is None is left out."""
        connection = http.client.HTTPConnection(ADDRESS, self.port, timeout=PATIENCE)
        try:
            connection.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
            fields = {"Host": f"{ADDRESS}:{self.port}"} | (headers or {})
            if body or method == "POST":
                fields = {"Content-Length": str(len(body))} | fields
            for name, value in fields.items():
                if value is not None:
                    connection.putheader(name, value)
            connection.endheaders(body)
            response = connection.getresponse()
            return Answer(response.status, response.headers, response.read())
        finally:
            connection.close()

    def get(self, path: str, **headers: str) -> Answer:
        return self.ask("GET", path, headers={name.replace("_", "-"): value for name, value in headers.items()})

    def state(self) -> dict:
        answer = self.get("/state")
        assert answer.status == 200, answer
        return json.loads(answer.body)

    def post(self, path: str, content: object, **headers: str | None) -> Answer:
        own = {"Content-Type": "application/json", "X-Halvek-Token": self.token, "Origin": self.origin}
        body = content if isinstance(content, bytes) else json.dumps(content).encode()
        changed = {name.replace("_", "-"): value for name, value in headers.items()}
        return self.ask("POST", path, body, own | changed)

    def stream(self, path: str = "/stream", *, opened: bool = True, **headers: str) -> EventStream:
        fields = {name.replace("_", "-"): value for name, value in headers.items()}
        self._streams.append(EventStream(self.port, fields, path))
        if opened:
            assert self._streams[-1].wait_for_head() == 200, self._streams[-1].head
        return self._streams[-1]

    def descriptors(self) -> int:
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def processor_seconds(self) -> float:
        fields = Path(f"/proc/{self.process.pid}/stat").read_text().rpartition(")")[2].split()
        return sum(map(int, fields[11:13])) / os.sysconf("SC_CLK_TCK")

    def stop(self, number: signal.Signals = signal.SIGTERM) -> int:
        self.process.send_signal(number)
        status = self.process.wait(PATIENCE)
        self.lines.wait_for_end()
        self.complaints.wait_for_end()
        return status

    def close(self) -> None:
        for stream in self._streams:
            stream.close()
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.lines.close()
        self.complaints.close()

    def __enter__(self) -> "VcamPage":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


def page_on(bus: PrivateBus, snapshot: Path, *options: str, **settings: Any) -> VcamPage:
    return VcamPage(bus.environment, snapshot, *options, **settings)


def nothing_reached(camera: VirtualCamera, listener: Collector) -> bool:
    """Whether the camera was told nothing at all, and told nobody anything."""
    camera.call("MotionState", "GetIdleState")
    methods = {action.method for action in camera.actions()}
    signals = [m for m in listener.items if m.interface.startswith(("com.kelto", "com.zentu"))]
    return methods <= {"MotionState.GetIdleState"} and signals == []
