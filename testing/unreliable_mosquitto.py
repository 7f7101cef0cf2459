"""A real mosquitto that fails at random, and a way to it that does."""

import collections
import contextlib
import json
import random
import signal
import socket
import struct
import threading
import time
from collections.abc import Callable
from pathlib import Path

from testing.broker import PORT, retained
from testing.fake_broker import PUBACK, PUBLISH, Client, FakeBroker, Packet, packet, until_the_end
from testing.fleet_simulation import QuietBroker

QUIET_BETWEEN = (20.0, 60.0)  # seconds in which nothing happens to mosquitto itself
FIRST_REFUSAL = 0x80  # reason codes of MQTT 5 from here on


class UnreliableMosquitto:
    """Remembers every event that mosquitto has acknowledged, whether or not the answer then reaches the bridge."""

    def __init__(self, seed: int, faults: float, folder: Path) -> None:
        """@param faults how likely one is with each packet"""
        self.ids: list[int] = []
        self.numbers: collections.Counter = collections.Counter()
        self.faults: collections.Counter = collections.Counter()
        self.is_reliable = False
        self._random = random.Random(seed)
        self._likely = faults
        self._lock = threading.Lock()
        self._mosquitto = QuietBroker(folder)
        self._mosquitto.start()
        self._mend: Callable[[], None] | None = None
        self._due = self._soon()
        self.broker = FakeBroker(self._serve)

    @property
    def states(self) -> dict[str, str]:
        """What mosquitto retains of each alarm input that the campaign has."""
        found = {index: retained(f"halvek/cam1/alarm/Local/{index}") for index in map(str, range(4))}
        return {index: state for index, state in found.items() if state is not None}

    def step(self) -> None:
        """Fails if it is time to, and mends it later; called again and again by the thread that feeds."""
        if time.monotonic() < self._due:
            return
        if self._mend:
            self._mend()
            self._mend, self._due = None, self._soon()
            return
        fault = self._random.choice(["is killed", "is stopped", "stands still"])
        self.faults[fault] += 1
        process = self._mosquitto.process
        if fault == "stands still":
            process.send_signal(signal.SIGSTOP)
            self._mend = lambda: process.send_signal(signal.SIGCONT)
        else:
            process.send_signal(signal.SIGKILL if fault == "is killed" else signal.SIGTERM)
            process.wait()
            self._mend = self._mosquitto.start
        self._due = time.monotonic() + self._random.choice([0, 3, 15, 45])

    def be_reliable(self) -> None:
        self.is_reliable = True
        if self._mend:
            self._mend()
            self._mend = None

    def close(self) -> None:
        self.broker.close()
        self._mosquitto.kill()

    def _soon(self) -> float:
        return time.monotonic() + self._random.uniform(*QUIET_BETWEEN)

    def _serve(self, client: Client) -> None:
        with socket.create_connection(("127.0.0.1", PORT)) as upstream:
            on_their_way: dict[bytes, Packet] = {}
            back = threading.Thread(target=self._pass_back, args=(Client(upstream), client, on_their_way), daemon=True)
            back.start()
            try:
                for received in until_the_end(client):
                    if received.kind == PUBLISH and received.flags & 6:
                        (length,) = struct.unpack(">H", received.body[:2])
                        on_their_way[received.body[2 + length : 4 + length]] = received
                    self._pass_on(received, upstream)
            finally:
                with contextlib.suppress(OSError):
                    upstream.shutdown(socket.SHUT_RDWR)
                back.join()

    def _pass_back(self, upstream: Client, client: Client, on_their_way: dict[bytes, Packet]) -> None:
        with contextlib.suppress(OSError, EOFError):
            for answer in until_the_end(upstream):
                is_accepted = len(answer.body) < 3 or answer.body[2] < FIRST_REFUSAL
                if answer.kind == PUBACK and is_accepted:
                    self._remember(*client.published(on_their_way.pop(answer.body[:2])))
                self._pass_on(answer, client.connection)
        with contextlib.suppress(OSError):
            client.connection.shutdown(socket.SHUT_RDWR)

    def _pass_on(self, passed: Packet, peer: socket.socket) -> None:
        """EOFError if the way ends here."""
        text = packet(passed.kind, passed.body, passed.flags)
        fault = self._draw()
        if fault == "closes before":
            raise EOFError
        if fault == "closes half-way":
            peer.sendall(text[: len(text) // 2])
            raise EOFError
        if fault == "is slow":
            time.sleep(3)
        elif fault == "is silent":
            time.sleep(8)
            raise EOFError
        peer.sendall(text)
        if fault == "closes behind":
            raise EOFError

    def _draw(self) -> str:
        with self._lock:
            if self.is_reliable or self._random.random() > self._likely:
                return ""
            names = ["closes before", "closes half-way", "closes behind", "is slow", "is silent"]
            fault = self._random.choice(names)
            self.faults[fault] += 1
            return fault

    def _remember(self, topic: str, payload: bytes) -> None:
        if "/event/" not in topic:
            return
        event = json.loads(payload)
        with self._lock:
            self.ids.append(int(event["id"].partition("-")[2]))
            self.numbers[int(event["props"]["number"])] += 1
