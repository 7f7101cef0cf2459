"""The daemon's settings as a test writes them: groups of keys, and a store that holds up whoever reads it."""

import base64
import errno
import os
from collections.abc import Callable
from pathlib import Path

from testing.waiting import wait_until

Settings = dict[str, dict[str, object]]

SERVER: Settings = {"Applications/halvek/Server": {"Type": "Pipe"}, "Applications/halvek/Server/Pipe": {}}


def server(path: Path) -> Settings:
    return SERVER | {"Applications/halvek/Server/Pipe": {"Path": path}}


def source(number: int, source_type: str, **keys: object) -> Settings:
    """A source's groups; a keyword of Interval_sec stands for the key Interval.sec."""
    group = f"Events/Source#{number}"
    own = {key.replace("_", "."): value for key, value in keys.items()}
    return {group: {"Type": source_type}, f"{group}/{source_type}": own}


def timer(number: int, seconds: object) -> Settings:
    return source(number, "Timer", Interval_sec=seconds)


def handler(number: int, *source_ids: str, handler_type: str = "Extern", **keys: object) -> Settings:
    group = f"Events/Handler#{number}"
    ids = {str(position): source_id for position, source_id in enumerate(source_ids)}
    return {group: {"Type": handler_type} | keys, f"{group}/SourceIds": ids}


def ini_text(settings: Settings) -> str:
    lines = []
    for group, keys in settings.items():
        lines += [f"[{group}]", *(f"{key}={value}" for key, value in keys.items())]
    return "\n".join(lines) + "\n"


def encoded(text: str | bytes) -> str:
    """As the key Message has it."""
    return base64.b64encode(text.encode() if isinstance(text, str) else text).decode()


class SettingsPipe:
    """A settings store that the daemon cannot finish reading until the test lets it."""

    def __init__(self, path: Path) -> None:
        self.path = path
        self._writer: int | None = None
        os.mkfifo(path)

    def hold(self) -> None:
        """Waits until the daemon has begun a fetch; it then waits for release()."""
        wait_until(self._try_open, "the daemon opens its settings")

    def release(self, text: str) -> None:
        try:
            os.write(self._writer, text.encode())
        except (BrokenPipeError, BlockingIOError):
            pass  # it was the end of a fetch, or one that has been given more than it has come to read
        finally:
            os.close(self._writer)
            self._writer = None

    def serve(self, text: str, until: Callable[[], object]) -> None:
        """Answers fetches until the condition holds."""
        while not until():
            wait_until(lambda: until() or self._try_open(), "the daemon fetches its settings")
            if self._writer is not None:
                self.release(text)

    def _try_open(self) -> bool:
        try:
            self._writer = os.open(self.path, os.O_WRONLY | os.O_NONBLOCK)
        except OSError as error:
            assert error.errno == errno.ENXIO  # nobody reads
        return self._writer is not None
