"""A message bus of one's own: whoever gets its environment takes it for the system bus."""

import os
import signal
import subprocess
from collections.abc import Sequence
from pathlib import Path

from testing.bus_client import BusClient
from testing.collector import Lines
from testing.processes import dies_with_us
from testing.waiting import PATIENCE

ANYTHING_GOES = """\
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
  </policy>
</busconfig>
"""


class PrivateBus:
    """A bus that can be killed and started again at the same address. It dies with its starter."""

    def __init__(self, folder: Path, configuration: str = ANYTHING_GOES, prefix: Sequence[str] = ()) -> None:
        """Returns when the bus takes connections; "{socket}" in the configuration stands for its socket."""
        self.socket = folder / "bus"
        self.address = f"unix:path={self.socket}"
        self.environment = {"DBUS_SYSTEM_BUS_ADDRESS": self.address}
        file = folder / "bus.conf"
        file.write_text(configuration.format(socket=self.socket))
        program = ("dbus-daemon", f"--config-file={file}", "--nofork", "--nopidfile", "--print-address")
        self._command = dies_with_us(*prefix, *program)
        self.complaints: Lines | None = None
        self._process: subprocess.Popen | None = None
        self._clients: list[BusClient] = []
        self.start()

    def start(self) -> None:
        """Returns when the bus takes connections."""
        assert self._process is None
        self._process = subprocess.Popen(
            self._command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE
        )
        output, self.complaints = (
            Lines(os.dup(stream.fileno()), "dbus-daemon") for stream in (self._process.stdout, self._process.stderr)
        )
        self._process.stdout.close()
        self._process.stderr.close()
        try:
            output.wait_for("^unix:")
        finally:
            output.close()

    def send(self, number: signal.Signals) -> None:
        self._process.send_signal(number)

    def stop(self, number: signal.Signals = signal.SIGTERM) -> None:
        self.send(number)
        self._process.wait(PATIENCE)
        self._process = None
        self.complaints.close()

    def kill(self) -> None:
        self.stop(signal.SIGKILL)

    def restart(self) -> None:
        self.kill()
        self.start()

    def client(self) -> BusClient:
        """A new connection, closed with the bus helper."""
        self._clients.append(BusClient(self.socket))
        return self._clients[-1]

    def close(self) -> None:
        for client in self._clients:
            client.close()
        if self._process is not None:
            self.stop()

    def __enter__(self) -> "PrivateBus":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()
