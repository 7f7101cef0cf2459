"""The pipes of the daemon: the one that events are posted to, and those that it passes them on to."""

import os
from pathlib import Path
from typing import NamedTuple

from testing.collector import Lines, bytes_ready

DEFAULT_INPUT = Path("/var/run/halvek.pipe")
PIPE_FOLDER = Path("/var/run/halvek")
STAMPS = {"Timestamp", "FormattedTime"}


class Event(NamedTuple):
    type: str
    properties: dict[str, str]


class OutputPipe(Lines):
    """A named pipe in the daemon's folder, with us at its reading end; the items are events."""

    def __init__(self, name: str) -> None:
        self.path = PIPE_FOLDER / name
        self._block: list[str] = []
        os.mkfifo(self.path)
        # Open for writing too, so that the daemon's closing is no end of file.
        super().__init__(os.open(self.path, os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC), name)

    def take(self, descriptor: int) -> list[Event]:
        events = []
        for line in super().take(descriptor):
            if line != ".":
                self._block.append(line)
                continue
            header, *properties = self._block or [""]
            self._block = []
            events.append(Event(header[1:-1], dict(line.partition("=")[::2] for line in properties)))
        return events

    def wait_for_event(self, event_type: str, **options) -> Event:
        """Waits for an event of the type with at least the given properties; see Collector.wait."""
        properties = options.pop("properties", {})

        def wanted(event: Event) -> bool:
            return event.type == event_type and properties.items() <= event.properties.items()

        return self.items[self.wait(wanted, f"[{event_type}] {properties or ''}", **options) - 1]

    def of_type(self, event_type: str) -> list[Event]:
        return [event for event in self.items if event.type == event_type]


def post(text: str | bytes, path: Path = DEFAULT_INPUT) -> None:
    """Writes to the event pipe in one write, as another process would. The daemon must have it open."""
    data = text.encode() if isinstance(text, str) else text
    descriptor = os.open(path, os.O_WRONLY | os.O_NONBLOCK)
    try:
        os.set_blocking(descriptor, True)
        assert os.write(descriptor, data) == len(data)
    finally:
        os.close(descriptor)


def block(event_type: str, **properties: object) -> str:
    return f"[{event_type}]\n" + "".join(f"{key}={value}\n" for key, value in properties.items()) + ".\n"


def unstamped(events: list[Event]) -> list[tuple[str, dict[str, str]]]:
    """Events as tuples of type and properties, less the stamps and the eventType that repeats the header."""
    for event in events:
        assert event.properties["eventType"] == event.type and STAMPS <= event.properties.keys()
    left_out = STAMPS | {"eventType"}
    return [
        (event.type, {key: value for key, value in event.properties.items() if key not in left_out}) for event in events
    ]


def bytes_ready_at(path: Path) -> int:
    descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
    try:
        return bytes_ready(descriptor)
    finally:
        os.close(descriptor)
