"""A message bus of one's own: whoever gets its environment takes it for the system bus."""

import subprocess
from pathlib import Path

from daemon_process import NotSeen

CONFIGURATION = """\
<busconfig>
  <listen>{address}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
"""


class PrivateBus:
    """Anybody may take any name on it. It dies with its starter."""

    def __init__(self, folder: Path) -> None:
        """Returns when the bus takes connections."""
        self.address = f"unix:path={folder / 'bus'}"
        self.environment = {"DBUS_SYSTEM_BUS_ADDRESS": self.address}
        configuration = folder / "bus.conf"
        configuration.write_text(CONFIGURATION.format(address=self.address))
        bus = ["dbus-daemon", f"--config-file={configuration}", "--nofork", "--nopidfile", "--print-address"]
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "--", *bus],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,  # root is told that it may not raise its own limits
        )
        if not self.process.stdout.readline():
            self.close()
            raise NotSeen("dbus-daemon does not start")

    def close(self) -> None:
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()
