"""How the demo speaks, how it insists, and how it is interrupted."""

import contextlib
import signal
import subprocess
import sys
from collections.abc import Callable

from testing.bus_client import BusError
from testing.waiting import NotSeen

PATIENCE = 10.0  # seconds

caught: list[int] = []


def end_at(*signals: signal.Signals) -> None:
    """Has the demo end in good order at any of these signals."""

    def catch(number: int, _: object) -> None:
        caught.append(number)
        end_if_caught()

    for number in signals:
        signal.signal(number, catch)


def end_if_caught() -> None:
    if caught:
        sys.exit(128 + caught[0])


def say(text: str = "") -> None:
    # What a signal handler raises may be lost, in a call that Python makes for a weak reference say.
    end_if_caught()
    print(text, flush=True)


def heading(text: str) -> None:
    say(f"\n== {text}")


def perform(play: Callable[[contextlib.ExitStack], None]) -> int:
    """Plays to the end, or until it is interrupted, and cleans up; says what failed. Returns the exit status."""
    end_at(signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
    try:
        with contextlib.ExitStack() as cleanup:
            play(cleanup)
    except (NotSeen, BusError, subprocess.SubprocessError) as error:
        print(f"\ndemo: what should have happened did not: {error}", file=sys.stderr)
        return 1
    return 0


def require(condition: bool, what_is_wrong: str) -> None:
    if not condition:
        raise NotSeen(what_is_wrong)
