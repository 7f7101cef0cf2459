"""What all processes have in common that are started and looked at."""

import re
from pathlib import Path


def dies_with_us(*command: str) -> list[str]:
    return ["setpriv", "--pdeathsig", "KILL", "--", *command]


def resident_kib(pid: int) -> int:
    return _rollup_kib(pid, "Rss")


def own_kib(pid: int) -> int:
    """What of it is no file's: the system takes pages of programs and libraries out of memory as it needs it."""
    return _rollup_kib(pid, "Anonymous")


def _rollup_kib(pid: int, field: str) -> int:
    text = Path(f"/proc/{pid}/smaps_rollup").read_text()
    return int(re.search(rf"^{field}:\s+(\d+) kB", text, re.MULTILINE).group(1))
