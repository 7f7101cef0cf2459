"""Small disks in memory, seen by the test and the daemons that it starts only; see scripts/private-run."""

import subprocess
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

BLOCK = 4096  # what the disk uses is a multiple of it; folders use nothing


def used(folder: Path) -> int:
    """What a folder on such a disk uses, in bytes, as du sees it."""
    output = subprocess.run(["du", "-ks", folder], stdout=subprocess.PIPE, check=True, text=True).stdout
    return int(output.split()[0]) * 1024


class MemoryDisk:
    """A disk that covers a folder until it is taken away."""

    def __init__(self, folder: Path, options: str) -> None:
        self.folder = folder
        self._mount("-t", "tmpfs", "-o", options, "tmpfs")

    def make_read_only(self) -> None:
        self._mount("-o", "remount,bind,ro")

    def make_writable(self) -> None:
        self._mount("-o", "remount,bind,rw")

    def take_away(self) -> None:
        subprocess.run(["umount", "-n", "-l", self.folder], check=True)

    def _mount(self, *arguments: str) -> None:
        subprocess.run(["mount", "-n", *arguments, self.folder], check=True)


@contextmanager
def memory_disk(folder: Path, options: str = "mode=755") -> Iterator[MemoryDisk]:
    disk = MemoryDisk(folder, options)
    try:
        yield disk
    finally:
        disk.take_away()
