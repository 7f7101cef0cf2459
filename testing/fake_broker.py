"""A broker that does what no real one does: it says nothing, or too little, or nonsense. Speaks MQTT 3.1.1 and 5."""

import contextlib
import socket
import ssl
import struct
import threading
import time
from collections.abc import Callable, Iterator
from typing import NamedTuple

CONNECT, CONNACK, PUBLISH, PUBACK, SUBSCRIBE, SUBACK, UNSUBSCRIBE, UNSUBACK = 1, 2, 3, 4, 8, 9, 10, 11
PINGREQ, PINGRESP, DISCONNECT = 12, 13, 14
UNSUPPORTED_VERSION = 1


class Packet(NamedTuple):
    kind: int
    flags: int
    body: bytes


def encoded_length(length: int) -> bytes:
    text = b""
    while True:
        length, byte = divmod(length, 128)
        text += bytes([byte | (0x80 if length else 0)])
        if not length:
            return text


def packet(kind: int, body: bytes = b"", flags: int = 0) -> bytes:
    return bytes([kind << 4 | flags]) + encoded_length(len(body)) + body


class Client:
    """One connection, at the broker's end."""

    def __init__(self, connection: socket.socket) -> None:
        self.connection = connection
        self.version = 4

    def receive(self) -> Packet:
        """The next packet; EOFError at the end."""
        first = self._take(1)[0]
        length = shift = 0
        while True:
            byte = self._take(1)[0]
            length |= (byte & 0x7F) << shift
            shift += 7
            if byte < 0x80:
                break
        body = self._take(length)
        if first >> 4 == CONNECT:
            self.version = body[6]
        return Packet(first >> 4, first & 15, body)

    def send(self, data: bytes) -> None:
        self.connection.sendall(data)

    def connack(self, code: int = 0) -> bytes:
        return packet(CONNACK, bytes([0, code]) + (b"\0" if self.version == 5 else b""))

    def answer(self, received: Packet) -> None:
        """As a broker would that keeps nothing."""
        properties = b"\0" if self.version == 5 else b""
        if received.kind == CONNECT:
            self.send(self.connack())
        elif received.kind == PUBLISH and received.flags & 6:
            (length,) = struct.unpack(">H", received.body[:2])
            self.send(packet(PUBACK, received.body[2 + length : 4 + length]))
        elif received.kind in (SUBSCRIBE, UNSUBSCRIBE):
            kind = SUBACK if received.kind == SUBSCRIBE else UNSUBACK
            code = b"\0" if received.kind == SUBSCRIBE or self.version == 5 else b""
            self.send(packet(kind, received.body[:2] + properties + code))
        elif received.kind == PINGREQ:
            self.send(packet(PINGRESP))

    def published(self, received: Packet) -> tuple[str, bytes]:
        """Topic and payload of a PUBLISH."""
        (length,) = struct.unpack(">H", received.body[:2])
        rest = received.body[2 + length + (2 if received.flags & 6 else 0) :]
        if self.version == 5:  # lengths of properties are short here
            rest = rest[1 + rest[0] :]
        return received.body[2 : 2 + length].decode(), rest

    def _take(self, count: int) -> bytes:
        data = b""
        while len(data) < count:
            piece = self.connection.recv(count - len(data))
            if not piece:
                raise EOFError
            data += piece
        return data


Behaviour = Callable[[Client], None]


class FakeBroker:
    """Listens on a port of its own, and does with each client what the behaviour says; it closes when that returns."""

    def __init__(self, behaviour: Behaviour, context: ssl.SSLContext | None = None) -> None:
        self.connects: list[float] = []
        self._behaviour = behaviour
        self._context = context
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self._clients: list[socket.socket] = []
        self._threads = [threading.Thread(target=self._accept, daemon=True)]
        self._threads[0].start()

    def _accept(self) -> None:
        with contextlib.suppress(OSError):
            while True:
                connection, _ = self._listener.accept()
                self.connects.append(time.monotonic())
                self._clients.append(connection)
                thread = threading.Thread(target=self._serve, args=(connection,), daemon=True)
                self._threads.append(thread)
                thread.start()

    def _serve(self, connection: socket.socket) -> None:
        with contextlib.suppress(OSError, EOFError, IndexError):  # the last one: what came is no MQTT
            wrapped = self._context.wrap_socket(connection, server_side=True) if self._context else connection
            self._behaviour(Client(wrapped))
            wrapped.close()
        connection.close()

    def close(self) -> None:
        for one in (self._listener, *self._clients):
            with contextlib.suppress(OSError):
                one.shutdown(socket.SHUT_RDWR)
            one.close()


def until_the_end(client: Client) -> Iterator[Packet]:
    while True:
        yield client.receive()


# --- behaviours


def say_nothing(client: Client) -> None:
    for _ in until_the_end(client):
        pass


def never_acknowledge(client: Client) -> None:
    for received in until_the_end(client):
        if received.kind != PUBLISH:
            client.answer(received)


def one_byte_a_second(client: Client) -> None:
    client.receive()
    for byte in client.connack() + b"".join([packet(PINGRESP)] * 100):
        client.send(bytes([byte]))
        time.sleep(1)


def refuse(client: Client) -> None:
    client.receive()
    client.send(client.connack(135 if client.version == 5 else 5))


def close_at_once(client: Client) -> None:
    client.receive()


def close_after_welcome(client: Client) -> None:
    client.answer(client.receive())


def old_version_only(client: Client) -> None:
    first = client.receive()
    if client.version != 4:
        client.send(packet(CONNACK, bytes([0, UNSUPPORTED_VERSION])))
        return
    client.answer(first)
    for received in until_the_end(client):
        client.answer(received)


def old_version_without_a_word(client: Client) -> None:
    first = client.receive()
    if client.version == 4:
        client.answer(first)
        for received in until_the_end(client):
            client.answer(received)


def saying(text: bytes, welcomes: bool = False) -> Behaviour:
    """Sends something that it should not, after CONNACK if it welcomes."""

    def behave(client: Client) -> None:
        first = client.receive()
        if welcomes:
            client.answer(first)
        client.send(text)
        say_nothing(client)

    return behave
