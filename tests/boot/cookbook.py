"""The cookbook on an installed system: what the page has an administrator type."""

import re
import shutil
import subprocess
from pathlib import Path

from machine import SETTINGS, UNIT, Journal, run

PAGE = Path(__file__).resolve().parents[2] / "docs/cookbook.md"
EXAMPLES = Path("/usr/share/doc/halvek/examples")
STORE = SETTINGS.parent


class Cookbook:
    def __init__(self, folder: Path) -> None:
        self._programs = folder
        self._taken: list[Path] = []
        # Root needs none.
        (folder / "sudo").write_text('#!/bin/sh\nexec "$@"\n')
        (folder / "sudo").chmod(0o755)

    def take(self, recipe: str) -> None:
        """Puts a recipe into the store, and has the daemon take it up."""
        self._taken.append(STORE / f"{recipe}.ini")
        shutil.copy(EXAMPLES / f"{recipe}.ini", STORE)
        journal = Journal()
        run("systemctl", "reload", UNIT)
        journal.wait_for("Done starting sources")

    def type_in(self, heading: str, *, containing: str = "", but: str = "no such command") -> str:
        """Types the commands that stand under a heading, less the shell's prompts. Returns what they print."""
        section = PAGE.read_text().partition(f"\n## {heading}\n")[2].partition("\n## ")[0]
        (block,) = re.findall(r"^```console\n(.*?)^```$", section, re.M | re.S)
        lines = [line for line in block.splitlines() if containing in line and but not in line]
        commands = [re.sub(r"^\w*\$ ", "", line) for line in lines]
        assert commands
        text = "\n".join([f'PATH="{self._programs}:$PATH"', *commands])
        done = subprocess.run(["bash", "-exc", text], cwd=EXAMPLES, capture_output=True, text=True, timeout=60)
        assert done.returncode == 0, done.stdout + done.stderr
        return done.stdout

    def close(self) -> None:
        for path in self._taken:
            path.unlink(missing_ok=True)
        shutil.rmtree(STORE.with_name(f"{STORE.name}.before"), ignore_errors=True)
