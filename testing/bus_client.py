"""A client of the message bus, in plain Python: it shares no code with what is tested.

It says what a well-behaved library refuses to as well: signals that are not what they claim to be, in any number.
"""

import os
import socket
from collections.abc import Callable
from typing import Any, NamedTuple

from jeepney.low_level import Endianness, Header, HeaderFields, MessageFlag, MessageType, Parser
from jeepney.low_level import Message as WireMessage

from testing.collector import Collector
from testing.waiting import PATIENCE

METHOD_CALL, METHOD_RETURN, ERROR, SIGNAL = MessageType
PATH, INTERFACE, MEMBER, ERROR_NAME, REPLY_SERIAL, DESTINATION, SENDER, SIGNATURE, _ = HeaderFields
NO_REPLY_EXPECTED = MessageFlag.no_reply_expected

BUS = "org.freedesktop.DBus"
BUS_PATH = "/org/freedesktop/DBus"

Fields = dict[HeaderFields, str | int]


class BusError(Exception):
    def __init__(self, name: str, text: str) -> None:
        super().__init__(f"{name}: {text}")
        self.name, self.text = name, text


class Message(NamedTuple):
    kind: MessageType
    serial: int
    fields: Fields
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


def encode(
    kind: MessageType, serial: int, fields: Fields, signature: str = "", *arguments: Any, flags: int = 0
) -> bytes:
    """A message as it goes over the wire."""
    header = Header(
        Endianness.little, kind, flags, 1, 0, serial, fields | ({SIGNATURE: signature} if signature else {})
    )
    return WireMessage(header, arguments).serialise()


def decode(message: WireMessage) -> Message:
    header = message.header
    return Message(header.message_type, header.serial, header.fields, list(message.body))


class BusClient(Collector):
    """A connection to a bus; the items are the messages that came. For one thread."""

    def __init__(self, path: str | os.PathLike) -> None:
        self._parser = Parser()
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
        return [decode(message) for message in self._parser.feed(os.read(descriptor, 1 << 20))]

    def send(self, kind: MessageType, fields: Fields, signature: str = "", *arguments: Any) -> int:
        """Returns the message's serial number."""
        self._serial += 1
        self._begun[self._serial] = len(self.items)
        self.send_bytes(encode(kind, self._serial, fields, signature, *arguments))
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
        return self.send(METHOD_CALL, fields, signature, *arguments)

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
        self.send(SIGNAL, {PATH: path, INTERFACE: interface, MEMBER: signal}, signature, *arguments)

    def answer(self, call: Message, signature: str = "", *arguments: Any) -> None:
        self.send(METHOD_RETURN, {DESTINATION: call.sender, REPLY_SERIAL: call.serial}, signature, *arguments)

    def refuse(self, call: Message, name: str, text: str) -> None:
        fields = {DESTINATION: call.sender, REPLY_SERIAL: call.serial, ERROR_NAME: name}
        self.send(ERROR, fields, "s", text)

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
