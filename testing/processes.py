"""What all processes have in common that are started and looked at."""

import re
from pathlib import Path


def dies_with_us(*command: str) -> list[str]:
    return ["setpriv", "--pdeathsig", "KILL", "--", *command]


def resident_kib(pid: int) -> int:
    text = Path(f"/proc/{pid}/smaps_rollup").read_text()
    return int(re.search(r"^Rss:\s+(\d+) kB", text, re.MULTILINE).group(1))
