"""A real FTP server of one's own, which can be told to misbehave."""

import logging
import secrets
import socket
import threading
import warnings
from pathlib import Path

from testing.waiting import PATIENCE, NotSeen

with warnings.catch_warnings():
    warnings.simplefilter("ignore", DeprecationWarning)  # it is built on modules that a later Python leaves out
    from pyftpdlib.authorizers import DummyAuthorizer
    from pyftpdlib.handlers import FTPHandler
    from pyftpdlib.ioloop import IOLoop
    from pyftpdlib.servers import FTPServer

HOST = "127.0.0.1"
MAY_READ_AND_WRITE = "elradfmwMT"
NOTICES_ITS_END = 0.05  # seconds, at the latest

logging.getLogger("pyftpdlib").addHandler(logging.NullHandler())


class FtpServer:
    """Serves one user the files of a folder, on a thread of its own. Port 21 is free in scripts/private-run --net.

    Faults: "refuse": nobody listens; "hang": connections are accepted and hear nothing, until another fault or none is
    set; "password": none is right.
    """

    def __init__(self, folder: Path, user: str = "camera", password: str = "secret", port: int = 21) -> None:
        """Returns when the server takes connections."""
        self.folder = folder
        self.user, self.password = user, password
        self.port = port
        self._received: list[str] = []
        self._changed = threading.Condition()
        self._fault = "none"
        self._listener: socket.socket | None = None
        self._hung: list[socket.socket] = []
        self._ending = threading.Event()
        self._thread: threading.Thread | None = None
        self._open()

    @property
    def received(self) -> list[str]:
        """The files that have arrived whole, in their order: paths that begin at the server's root with "/"."""
        with self._changed:
            return list(self._received)

    def content(self, path: str) -> bytes:
        return (self.folder / path.removeprefix("/")).read_bytes()

    def wait_for_file(self, path: str, count: int = 1, patience: float = PATIENCE) -> bytes:
        """Waits until the file has arrived whole so often; returns what it holds."""
        with self._changed:
            if not self._changed.wait_for(lambda: self._received.count(path) >= count, patience):
                raise NotSeen(f"not in {patience} s: {path} arrives {count} times; so far came {self._received}")
        return self.content(path)

    def wait_for_hung_connection(self, patience: float = PATIENCE) -> None:
        """Waits for one more connection to be kept waiting."""
        assert self._fault == "hang"
        self._listener.settimeout(patience)
        try:
            self._hung.append(self._listener.accept()[0])
        except TimeoutError:
            raise NotSeen(f"not in {patience} s: a connection") from None

    def set_fault(self, fault: str) -> None:
        """Ends all connections."""
        assert fault in ("none", "refuse", "hang", "password")
        hung, self._hung = self._hung, []
        self._close()
        self._fault = fault
        self._open()
        # Not before: where one ends, the next upload may begin at once.
        for connection in hung:
            connection.close()

    def close(self) -> None:
        self._close()

    def _open(self) -> None:
        if self._fault == "refuse":
            return
        self._listener = socket.create_server((HOST, self.port))
        if self._fault != "hang":
            self._ending.clear()
            self._thread = threading.Thread(target=self._serve, name="FTP server", daemon=True)
            self._thread.start()

    def _close(self) -> None:
        if self._thread is not None:
            self._ending.set()
            self._thread.join()
            self._thread = None
        for connection in (*self._hung, self._listener):
            if connection is not None:
                connection.close()
        self._hung, self._listener = [], None

    def _serve(self) -> None:
        authorizer = DummyAuthorizer()
        password = secrets.token_hex() if self._fault == "password" else self.password
        authorizer.add_user(self.user, password, str(self.folder), perm=MAY_READ_AND_WRITE)
        loop = IOLoop()
        server = FTPServer(self._listener, self._make_handler(authorizer), ioloop=loop)
        while not self._ending.is_set():
            loop.loop(NOTICES_ITS_END, blocking=False)
        server.close_all()

    def _make_handler(self, authorizer: DummyAuthorizer) -> type[FTPHandler]:
        settings = {"authorizer": authorizer, "auth_failed_timeout": 0}
        return type("Handler", (FTPHandler,), settings | {"on_file_received": lambda _, path: self._note(path)})

    def _note(self, path: str) -> None:
        with self._changed:
            self._received.append("/" + str(Path(path).relative_to(self.folder.resolve())))
            self._changed.notify_all()

    def __enter__(self) -> "FtpServer":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()
