"""What every demo of one camera stands on: a folder, a bus, and a virtual camera on it."""

import contextlib
from pathlib import Path

from demo.show import PATIENCE
from testing.bus import PrivateBus
from testing.camera import VirtualCamera


class Stage:
    """In a /run of its own. The camera is ready: the daemon asks it at its start which banks it has."""

    def __init__(self, camera_program: str, cleanup: contextlib.ExitStack) -> None:
        self.folder = Path("/run/halvek-demo")
        self.folder.mkdir()
        self.snapshot = self.folder / "snapshot.jpg"
        self.bus = cleanup.enter_context(contextlib.closing(PrivateBus(self.folder)))
        camera = VirtualCamera(
            self.bus,
            self.folder / "camera",
            *("--snapshot", str(self.snapshot)),
            program=camera_program,
            snapshot=self.snapshot,
            ready=False,
        )
        self.camera = cleanup.enter_context(camera)
        self.camera.wait_until_ready(PATIENCE)
