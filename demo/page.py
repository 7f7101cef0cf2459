"""Has the virtual camera's page played with until Ctrl-C: python3 -m demo.page DAEMON CAMERA PAGE HALVEKCTL SETTINGS

Everything but the page's socket is in a /run and a network of its own: descriptor 3 is that socket, which was made
outside, where the browser is.
"""

import contextlib
import sys
import time
from pathlib import Path

from demo.listen import SOCKET
from demo.pictures import Destinations
from demo.show import heading, perform, say
from demo.stage import Stage
from testing.daemon import DaemonProcess
from testing.page import VcamPage
from testing.waiting import NotSeen

MOMENT = 0.2  # seconds
# The page takes the socket as from a service manager.
TAKES_SOCKET = ("sh", "-c", 'LISTEN_FDS=1 LISTEN_PID=$$ exec "$@"', "sh")

TELLS = """
   It stands on a bus of its own, with the daemon, the settings of examples/demo.ini, and an FTP and a mail server.
   Alarm input 2 pulses a relay and turns the head, input 1 sends the picture to a folder, to the server and by mail,
   an event Doorbell turns the head, and an alert sends it on a tour. Ctrl-C ends it, and leaves nothing behind."""


def start(programs: list[str], cleanup: contextlib.ExitStack) -> tuple[DaemonProcess, VcamPage]:
    daemon_program, camera_program, page_program, halvekctl, settings = programs
    stage = Stage(camera_program, cleanup)
    destinations = cleanup.enter_context(contextlib.closing(Destinations(stage.folder)))
    environment = stage.bus.environment | destinations.environment
    page = cleanup.enter_context(
        VcamPage(
            stage.bus.environment,
            stage.snapshot,
            *("--halvekctl", halvekctl, "--settings", settings),
            prefix=TAKES_SOCKET,
            program=page_program,
            given=[SOCKET],
        )
    )
    daemon = DaemonProcess(daemon_program, Path(settings), stage.folder, environment=environment)
    cleanup.enter_context(contextlib.closing(daemon)).wait_until_ready()
    return daemon, page


def wait_for_end(daemon: DaemonProcess, page: VcamPage) -> None:
    """Until a signal comes. That daemon or page ends by itself is none of it."""
    while daemon.process.poll() is None and page.process.poll() is None:
        time.sleep(MOMENT)
    name, process = ("daemon", daemon.process) if page.process.poll() is None else ("page", page.process)
    raise NotSeen(f"the {name} has ended with status {process.returncode}")


def main(*programs: str) -> int:
    is_up = False

    def play(cleanup: contextlib.ExitStack) -> None:
        nonlocal is_up
        daemon, page = start(list(programs), cleanup)
        is_up = True
        heading(f"The page of the virtual camera is at {page.url}")
        say(TELLS)
        wait_for_end(daemon, page)

    try:
        return perform(play)
    except SystemExit:
        if not is_up:
            raise
    print("\nThat was all, and nothing of it is left behind.", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
