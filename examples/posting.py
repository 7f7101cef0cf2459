#!/usr/bin/python3
"""Posts an event to halvek: posting.py TYPE [KEY=VALUE]...

The status is 0 if the event is in the event pipe, 1 if it is not, and 2 if it is no event. HALVEK_PIPE names another
event pipe.
"""

import os
import re
import select
import stat
import sys

PIPE = os.environ.get("HALVEK_PIPE", "/var/run/halvek.pipe")


def block(event_type: str, properties: list[str]) -> bytes:
    """The event as text; what would end it early, or begin another one, is refused."""
    if not re.fullmatch(r"[^\]\n]+", event_type):
        raise ValueError('a type is not empty, and has neither "]" nor line breaks')
    for text in properties:
        if not re.fullmatch(r"[A-Za-z0-9][^=\n]*=[^\n]*", text):
            raise ValueError("a property is written KEY=VALUE, begins with a letter or digit, and has no line breaks")
    whole = os.fsencode("\n".join([f"[{event_type}]", *properties, ".", ""]))
    if len(whole) > select.PIPE_BUF:
        raise ValueError(f"an event has at most {select.PIPE_BUF} bytes")
    return whole


def post(event: bytes) -> None:
    """With one write: all of it or nothing. Does not wait for a daemon that is not there; raises OSError."""
    pipe = os.open(PIPE, os.O_WRONLY | os.O_NONBLOCK | os.O_CLOEXEC)
    try:
        if not stat.S_ISFIFO(os.fstat(pipe).st_mode):
            raise OSError(f"{PIPE} is no pipe")
        os.write(pipe, event)
    finally:
        os.close(pipe)


def main(words: list[str]) -> int:
    if not words:
        print(__doc__, file=sys.stderr)
        return 2
    try:
        post(block(words[0], words[1:]))
    except ValueError as error:
        print(f"posting.py: {error}", file=sys.stderr)
        return 2
    except OSError as error:
        print(f"posting.py: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
