"""A client of the message bus in plain Python, down to the bytes.

It shares no code with what is tested, and it can say what a well-behaved library refuses to: signals that are not what
they claim to be, in any number. Only what the tests need: no variants, no dictionaries, no passing of descriptors.
"""

import os
import socket
import struct
from collections.abc import Callable
from typing import Any, NamedTuple

from daemon_process import PATIENCE, Collector

METHOD_CALL, METHOD_RETURN, ERROR, SIGNAL = 1, 2, 3, 4
PATH, INTERFACE, MEMBER, ERROR_NAME, REPLY_SERIAL, DESTINATION, SENDER, SIGNATURE = range(1, 9)
FIELD_TYPES = {PATH: "o", REPLY_SERIAL: "u", SIGNATURE: "g"}  # all others are strings
FIXED = {"y": "B", "b": "I", "n": "h", "q": "H", "i": "i", "u": "I", "x": "q", "t": "Q", "d": "d"}
NO_REPLY_EXPECTED = 1
HEADER_SIZE = 16  # up to and including the size of the header fields

BUS = "org.freedesktop.DBus"
BUS_PATH = "/org/freedesktop/DBus"


class BusError(Exception):
    def __init__(self, name: str, text: str) -> None:
        super().__init__(f"{name}: {text}")
        self.name, self.text = name, text


class Message(NamedTuple):
    kind: int
    serial: int
    fields: dict[int, Any]
    arguments: list

    @property
    def path(self) -> str:
        return self.fields.get(PATH, "")

    @property
    def interface(self) -> str:
        return self.fields.get(INTERFACE, "")

    @property
    def member(self) -> str:
        return self.fields.get(MEMBER, "")

    @property
    def sender(self) -> str:
        return self.fields.get(SENDER, "")

    @property
    def signature(self) -> str:
        return self.fields.get(SIGNATURE, "")


def alignment(signature: str) -> int:
    return {"(": 8, "{": 8, "a": 4, "s": 4, "o": 4, "g": 1}.get(signature[0]) or struct.calcsize(FIXED[signature[0]])


def first_type(signature: str) -> str:
    """The first complete type of a signature."""
    if signature[0] == "a":
        return "a" + first_type(signature[1:])
    if signature[0] not in "({":
        return signature[0]
    depth = end = 0
    while True:
        depth += (signature[end] in "({") - (signature[end] in ")}")
        end += 1
        if depth == 0:
            return signature[:end]


def split(signature: str) -> list[str]:
    types = []
    while signature:
        types.append(first_type(signature))
        signature = signature[len(types[-1]) :]
    return types


class Writer:
    def __init__(self) -> None:
        self.data = bytearray()

    def align(self, size: int) -> None:
        self.data += bytes(-len(self.data) % size)

    def write(self, kind: str, value: Any) -> None:
        self.align(alignment(kind))
        if kind in FIXED:
            self.data += struct.pack("<" + FIXED[kind], value)
        elif kind in "so":
            text = value.encode()
            self.data += struct.pack("<I", len(text)) + text + b"\0"
        elif kind == "g":
            self.data += bytes([len(value)]) + value.encode() + b"\0"
        elif kind[0] == "(":
            self.write_all(kind[1:-1], value)
        else:
            self.write_array(kind[1:], value)

    def write_array(self, kind: str, values: Any) -> None:
        size_at = len(self.data)
        self.data += bytes(4)
        self.align(alignment(kind))
        start = len(self.data)
        for value in values:
            self.write(kind, value)
        self.data[size_at : size_at + 4] = struct.pack("<I", len(self.data) - start)

    def write_all(self, signature: str, values: Any) -> None:
        for kind, value in zip(split(signature), values, strict=True):
            self.write(kind, value)


class Reader:
    def __init__(self, data: bytes, position: int = 0) -> None:
        self.data, self.position = data, position

    def align(self, size: int) -> None:
        self.position += -self.position % size

    def read_bytes(self, size: int) -> bytes:
        self.position += size
        return self.data[self.position - size : self.position]

    def read(self, kind: str) -> Any:
        self.align(alignment(kind))
        if kind in FIXED:
            value = struct.unpack("<" + FIXED[kind], self.read_bytes(struct.calcsize(FIXED[kind])))[0]
            return bool(value) if kind == "b" else value
        if kind in "so":
            return self.read_bytes(self.read("u") + 1)[:-1].decode()
        if kind == "g":
            return self.read_bytes(self.read("y") + 1)[:-1].decode()
        if kind[0] in "({":
            return tuple(self.read_all(kind[1:-1]))
        size = self.read("u")
        self.align(alignment(kind[1:]))
        end, values = self.position + size, []
        while self.position < end:
            values.append(self.read(kind[1:]))
        return values

    def read_all(self, signature: str) -> list:
        return [self.read(kind) for kind in split(signature)]


def encode(kind: int, serial: int, fields: dict[int, str | int], body: bytes = b"", flags: int = 0) -> bytes:
    header = Writer()
    for value in (ord("l"), kind, flags, 1):
        header.write("y", value)
    header.write_all("uu", (len(body), serial))
    entries = Writer()
    for code, value in fields.items():
        entries.align(8)
        entries.write_all("yg", (code, FIELD_TYPES.get(code, "s")))
        entries.write(FIELD_TYPES.get(code, "s"), value)
    header.write("u", len(entries.data))
    header.data += entries.data
    header.align(8)
    return bytes(header.data) + body


def decode(data: bytes) -> Message:
    _, kind, _, _, _, serial, fields_size = struct.unpack_from("<BBBBIII", data)
    reader, fields = Reader(data, HEADER_SIZE), {}
    while reader.position < HEADER_SIZE + fields_size:
        reader.align(8)
        code, signature = reader.read_all("yg")
        fields[code] = reader.read(signature)
    reader.align(8)
    return Message(kind, serial, fields, reader.read_all(fields.get(SIGNATURE, "")))


def message_size(data: bytes) -> int:
    """The size of the message that the data begins with, as far as that can be told yet."""
    if len(data) < HEADER_SIZE:
        return HEADER_SIZE
    body_size, _, fields_size = struct.unpack_from("<III", data, 4)
    return HEADER_SIZE + fields_size + -fields_size % 8 + body_size


class BusClient(Collector):
    """A connection to a bus; the items are the messages that came. For one thread."""

    def __init__(self, path: str | os.PathLike) -> None:
        self._rest = b""
        self._serial = 0
        self._begun: dict[int, int] = {}  # by serial number, how many messages had come when a call was made
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_CLOEXEC)
        try:
            connection.connect(os.fspath(path))
            connection.sendall(b"\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\r\n")
            answer = connection.recv(4096)
            if not answer.startswith(b"OK "):
                raise ConnectionError(f"the bus does not let us in: {answer!r}")
            connection.sendall(b"BEGIN\r\n")
        except OSError:
            connection.close()
            raise
        super().__init__(connection.detach(), "bus client")
        self.unique_name = self.call_bus("Hello")[0]

    def take(self, descriptor: int) -> list[Message]:
        self._rest += os.read(descriptor, 1 << 20)
        messages = []
        while len(self._rest) >= (size := message_size(self._rest)) and len(self._rest) > HEADER_SIZE:
            messages.append(decode(self._rest[:size]))
            self._rest = self._rest[size:]
        return messages

    def send(self, kind: int, fields: dict[int, str | int], signature: str = "", arguments: Any = ()) -> int:
        """Returns the message's serial number."""
        body = Writer()
        body.write_all(signature, arguments)
        return self.send_body(kind, fields | ({SIGNATURE: signature} if signature else {}), bytes(body.data))

    def send_body(self, kind: int, fields: dict[int, str | int], body: bytes) -> int:
        """A body that need not be what the signature among the fields says."""
        self._serial += 1
        self._begun[self._serial] = len(self.items)
        self.send_bytes(encode(kind, self._serial, fields, body))
        return self._serial

    def send_bytes(self, data: bytes) -> None:
        rest = memoryview(data)
        while rest:
            rest = rest[os.write(self._descriptor, rest) :]

    def begin_call(
        self, destination: str, path: str, interface: str, method: str, signature: str = "", *arguments: Any
    ) -> int:
        """Sends a call; finish_call takes what this returns."""
        fields = {PATH: path, INTERFACE: interface, MEMBER: method, DESTINATION: destination}
        return self.send(METHOD_CALL, fields, signature, arguments)

    def finish_call(self, serial: int, *, patience: float = PATIENCE) -> list:
        """The results of a call; raises BusError."""
        position = self.wait(
            lambda message: message.fields.get(REPLY_SERIAL) == serial,
            f"reply to call {serial}",
            after=self._begun[serial],
            patience=patience,
        )
        reply = self.items[position - 1]
        if reply.kind == ERROR:
            raise BusError(reply.fields[ERROR_NAME], reply.arguments[0] if reply.arguments else "")
        return reply.arguments

    def is_answered(self, serial: int) -> bool:
        return any(message.fields.get(REPLY_SERIAL) == serial for message in self.items[self._begun[serial] :])

    def call(self, *arguments: Any, patience: float = PATIENCE) -> list:
        """As begin_call; returns the results."""
        return self.finish_call(self.begin_call(*arguments), patience=patience)

    def call_bus(self, method: str, signature: str = "", *arguments: Any) -> list:
        return self.call(BUS, BUS_PATH, BUS, method, signature, *arguments)

    def emit(self, path: str, interface: str, signal: str, signature: str = "", *arguments: Any) -> None:
        self.send(SIGNAL, {PATH: path, INTERFACE: interface, MEMBER: signal}, signature, arguments)

    def answer(self, call: Message, signature: str = "", *arguments: Any) -> None:
        self.send(METHOD_RETURN, {DESTINATION: call.sender, REPLY_SERIAL: call.serial}, signature, arguments)

    def refuse(self, call: Message, name: str, text: str) -> None:
        fields = {DESTINATION: call.sender, REPLY_SERIAL: call.serial, ERROR_NAME: name}
        self.send(ERROR, fields, "s", [text])

    def own(self, name: str) -> None:
        taken_at_once = 1
        assert self.call_bus("RequestName", "su", name, 4) == [taken_at_once], f"{name} is taken"

    def owner(self, name: str) -> str | None:
        try:
            return self.call_bus("GetNameOwner", "s", name)[0]
        except BusError:
            return None

    def listen(self, rule: str) -> None:
        self.call_bus("AddMatch", "s", rule)

    def signals(self, interface: str, signal: str, after: int = 0) -> list[Message]:
        return [item for item in self.items[after:] if is_signal(interface, signal)(item)]

    def wait_for_signal(self, interface: str, signal: str, *arguments: Any, **options) -> Message:
        """Waits for a signal with these arguments, or with any if none are given; see Collector.wait."""

        def wanted(message: Message) -> bool:
            return is_signal(interface, signal)(message) and (not arguments or message.arguments == list(arguments))

        return self.items[self.wait(wanted, f"{interface}.{signal}{arguments or ''}", **options) - 1]


def is_signal(interface: str, signal: str) -> Callable[[Message], bool]:
    def check(message: Message) -> bool:
        return message.kind == SIGNAL and message.interface == interface and message.member == signal

    return check
