"""A way to a server that can be cut and mended, as a bad network does."""

import contextlib
import socket
import threading

ADDRESS = "127.0.0.1"


class Proxy:
    """Hands on connections to a port of this machine. Its own port stays the same."""

    def __init__(self, target: int) -> None:
        self._target = target
        self._open: list[socket.socket] = []
        self.port = 0
        self.mend()

    def mend(self) -> None:
        self._listening = socket.create_server((ADDRESS, self.port))
        self.port = self._listening.getsockname()[1]
        threading.Thread(target=self._serve, args=[self._listening], name="proxy", daemon=True).start()

    def cut(self) -> None:
        """Ends every connection, and refuses others until it is mended."""
        for one in (self._listening, *self._open):
            end(one)
        self._open.clear()

    close = cut

    def _serve(self, listening: socket.socket) -> None:
        with contextlib.suppress(OSError):
            while True:
                near, _ = listening.accept()
                far = socket.create_connection((ADDRESS, self._target))
                self._open += [near, far]
                for source, target in ((near, far), (far, near)):
                    threading.Thread(target=hand_on, args=[source, target], name="proxy", daemon=True).start()


def hand_on(source: socket.socket, target: socket.socket) -> None:
    with contextlib.suppress(OSError):
        while data := source.recv(1 << 16):
            target.sendall(data)
    end(source)
    end(target)


def end(one: socket.socket) -> None:
    with contextlib.suppress(OSError):
        one.shutdown(socket.SHUT_RDWR)
    one.close()
