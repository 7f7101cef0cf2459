"""Has the virtual camera's page played with until Ctrl-C: python3 -m demo.page DAEMON CAMERA PAGE HALVEKCTL SETTINGS

Everything but the page's socket is in a /run and a network of its own: descriptor 3 is that socket, which was made
outside, where the browser is.
"""

import contextlib
import signal
import sys
import time
from pathlib import Path

from demo.listen import SOCKET
from demo.pictures import Destinations
from demo.show import PATIENCE, end_at, heading, say
from testing.bus import PrivateBus
from testing.camera import VirtualCamera
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
    folder = Path("/run/halvek-demo")
    folder.mkdir()
    bus = cleanup.enter_context(contextlib.closing(PrivateBus(folder)))
    snapshot = folder / "snapshot.jpg"
    words = ("--snapshot", str(snapshot))
    camera = VirtualCamera(bus, folder / "camera", *words, program=camera_program, snapshot=snapshot, ready=False)
    cleanup.enter_context(camera).wait_until_ready(PATIENCE)
    destinations = cleanup.enter_context(contextlib.closing(Destinations(folder)))
    environment = bus.environment | destinations.environment
    own = ("--halvekctl", halvekctl, "--settings", settings)
    page = cleanup.enter_context(
        VcamPage(bus.environment, snapshot, *own, prefix=TAKES_SOCKET, program=page_program, given=[SOCKET])
    )
    daemon = DaemonProcess(daemon_program, Path(settings), folder, environment=environment)
    cleanup.enter_context(contextlib.closing(daemon)).wait_until_ready()
    return daemon, page


def wait_for_end(daemon: DaemonProcess, page: VcamPage) -> None:
    """Until a signal comes. That daemon or page ends by itself is none of it."""
    while daemon.process.poll() is None and page.process.poll() is None:
        time.sleep(MOMENT)
    name, process = ("daemon", daemon.process) if page.process.poll() is None else ("page", page.process)
    raise NotSeen(f"the {name} has ended with status {process.returncode}")


def main(*programs: str) -> int:
    end_at(signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
    is_up = False
    try:
        with contextlib.ExitStack() as cleanup:
            daemon, page = start(list(programs), cleanup)
            is_up = True
            heading(f"The page of the virtual camera is at {page.url}")
            say(TELLS)
            wait_for_end(daemon, page)
    except NotSeen as error:
        print(f"\ndemo: what should have happened did not: {error}", file=sys.stderr)
        return 1
    except SystemExit:
        if not is_up:
            raise
    print("\nThat was all, and nothing of it is left behind.", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
