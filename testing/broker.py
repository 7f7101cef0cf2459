"""An MQTT broker, Debian's mosquitto, and clients of it."""

import contextlib
import json
import os
import socket
import subprocess
from pathlib import Path
from typing import NamedTuple

from testing.collector import Lines
from testing.processes import dies_with_us
from testing.waiting import PATIENCE, NotSeen, wait_until

PORT = 11883
MOSQUITTO = "/usr/sbin/mosquitto"
OPEN = f"listener {PORT} 127.0.0.1\nallow_anonymous true\n"


def answers(port: int) -> bool:
    with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port), timeout=5):
        return True
    return False


class Broker:
    """A broker that can be stopped, killed and started again. Dies with its starter."""

    def __init__(self, folder: Path, configuration: str = OPEN, port: int = PORT) -> None:
        self.port = port
        self._file = folder / "mosquitto.conf"
        self._file.write_text(f"user root\n{configuration}")
        self.process: subprocess.Popen | None = None
        self.log: Lines | None = None
        self.start()

    def start(self) -> None:
        self.close()
        command = dies_with_us(MOSQUITTO, "-v", "-c", str(self._file))
        self.process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        self.log = Lines(os.dup(self.process.stderr.fileno()), "broker")
        self.process.stderr.close()
        wait_until(lambda: self.process.poll() is not None or answers(self.port), "the broker answers")
        assert self.process.poll() is None, "\n".join(self.log.items)

    def stop(self) -> None:
        self.process.terminate()
        self.process.wait(PATIENCE)

    def kill(self) -> None:
        self.process.kill()
        self.process.wait(PATIENCE)

    def close(self) -> None:
        if self.process is None:
            return
        if self.process.poll() is None:
            self.kill()
        self.log.close()
        self.process = None


class Published(NamedTuple):
    topic: str
    payload: str
    is_retained: bool
    qos: int

    def json(self) -> dict:
        return json.loads(self.payload)


class Subscriber(Lines):
    """A client that has subscribed; the items are what it gets, bytes that are no UTF-8 as surrogate escapes."""

    FORMAT = "%r %q %t %x"  # in hexadecimal digits: a payload may hold line feeds

    def __init__(self, topic: str = "#", port: int = PORT, options: tuple[str, ...] = ()) -> None:
        command = ["mosquitto_sub", "-p", str(port), "-V", "5", "-q", "1", "-t", topic, "-F", self.FORMAT, *options]
        self._process = subprocess.Popen(dies_with_us(*command), stdout=subprocess.PIPE)
        super().__init__(os.dup(self._process.stdout.fileno()), "subscriber")
        self._process.stdout.close()

    def take(self, descriptor: int) -> list[Published]:
        found = []
        for line in super().take(descriptor):
            flags, digits = line.rsplit(" ", 1)
            retained, qos, topic = flags.split(" ", 2)
            payload = bytes.fromhex(digits).decode(errors="surrogateescape")
            found.append(Published(topic, payload, retained == "1", int(qos)))
        return found

    def wait_for_message(self, topic: str, payload: str | None = None, **options) -> Published:
        """Waits for a message to the topic; see Collector.wait."""

        def wanted(message: Published) -> bool:
            return message.topic == topic and payload in (None, message.payload)

        return self.items[self.wait(wanted, f"{topic} {payload or ''}", **options) - 1]

    def of_topic(self, topic: str, after: int = 0) -> list[Published]:
        return [message for message in self.items[after:] if message.topic == topic]

    def events(self, after: int = 0) -> list[dict]:
        return [message.json() for message in self.items[after:] if "/event/" in message.topic]

    def close(self) -> None:
        self._process.kill()
        self._process.wait()
        super().close()


def publish(topic: str, payload: str | bytes, *options: str, port: int = PORT) -> None:
    command = ["mosquitto_pub", "-p", str(port), "-V", "5", "-q", "1", "-t", topic, "-s", *options]
    text = payload.encode() if isinstance(payload, str) else payload
    subprocess.run(command, input=text, check=True, timeout=PATIENCE)


def retained(topic: str, port: int = PORT) -> str | None:
    """What the broker keeps for a topic; nothing if it keeps none."""
    command = ["mosquitto_sub", "-p", str(port), "-t", topic, "-C", "1", "-W", "1"]
    found = subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE)
    if found.returncode not in (0, 27):  # 27: it has waited in vain
        raise NotSeen(f"mosquitto_sub ended with {found.returncode}: {found.stderr}")
    return found.stdout.rstrip("\n") if found.returncode == 0 else None
