"""What a service tells its manager."""

import os
import socket
from pathlib import Path

from testing.collector import Collector


class NotifySocket(Collector):
    """The socket of a service manager; the items are the notifications, one datagram each."""

    def __init__(self, path: Path) -> None:
        self.path = path
        receiver = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_CLOEXEC)
        receiver.bind(str(path))
        super().__init__(receiver.detach(), "notification socket")

    def take(self, descriptor: int) -> list[str]:
        return [os.read(descriptor, 4096).decode()]

    def wait_for(self, text: str, **options) -> int:
        return self.wait(lambda notification: notification == text, text, **options)
