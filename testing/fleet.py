"""Many bridges on one broker, each a process of its own with a /run of its own."""

import json
import os
import subprocess
from pathlib import Path

from testing.processes import dies_with_us
from testing.tree import ROOT
from testing.waiting import wait_until


class FleetBridge:
    """halvek-mqtt in a mount namespace of its own, where nobody but us writes into its pipe."""

    def __init__(self, program: str, folder: Path, name: str, text: str) -> None:
        self.name = name
        self.fed = 0
        config = folder / f"{name}.conf"
        config.write_text(text)
        self._log = (folder / f"{name}.log").open("wb")
        command = dies_with_us(str(ROOT / "scripts/private-run"), program, "--config", str(config))
        environment = os.environ | {"KELTO_SETTINGS": "/nowhere"}
        self.process = subprocess.Popen(command, stderr=self._log, stdout=subprocess.DEVNULL, env=environment)
        self._run = Path(f"/proc/{self.process.pid}/root/run")
        self._pipe: int | None = None

    def wait_until_ready(self) -> None:
        # Before it has a /run of its own it has ours, where no bridge runs.
        wait_until((self._run / "halvek/zz-mqtt.halvek.any").exists, f"the pipe of {self.name}", patience=120)
        self._pipe = os.open(self._run / "halvek/zz-mqtt.halvek.any", os.O_RDWR | os.O_NONBLOCK)

    def feed(self) -> None:
        """One event more, numbered from 1."""
        self._write(f"[Door]\ncamera={self.name}\n")

    def feed_alarm(self, index: str, state: str) -> None:
        """Likewise, of an alarm input."""
        self._write(f"[Alarm]\nalarmBank=Local\nalarmIndex={index}\nalarmState={state}\n")

    def _write(self, front: str) -> None:
        self.fed += 1
        text = f"{front}number={self.fed}\n.\n".encode()
        assert os.write(self._pipe, text) == len(text)

    def settled(self) -> bool:
        """Whether everything that it was fed has been sent or is counted."""
        told = self.status()
        counted = told["counters"]
        gone = sum(counted[name] for name in ("sent", "dropped_full", "dropped_old", "dropped_topic", "refused"))
        return told["queued"] == 0 and counted["received"] == self.fed == gone

    def tasks(self) -> list[Path]:
        return list(Path(f"/proc/{self.process.pid}/task").iterdir())

    def status(self) -> dict:
        return json.loads((self._run / "halvek-mqtt/status.json").read_text())

    def close(self) -> None:
        if self._pipe is not None:
            os.close(self._pipe)
        self.process.terminate()
        self.process.wait()
        self._log.close()
