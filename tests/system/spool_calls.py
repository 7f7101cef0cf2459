"""The other end of the library that stands between the outbox and its files; SpoolCalls.c has the same layout."""

import mmap
import os
import struct
from pathlib import Path

LIBRARY = os.environ.get("HALVEK_SPOOL_CALLS", "")

HEAD = struct.Struct("<IIIiIIIIqq")
COUNT_AT, SYNCED_AT, SYNC_MS_AT, BOOT_AT, REAL_AT = 16, 20, 24, 32, 40

KILL_BEFORE, KILL_AFTER, FAIL = 1, 2, 3


class SpoolCalls:
    """The control of all services that are started with its environment, one after the other."""

    def __init__(self, path: Path) -> None:
        path.write_bytes(bytes(HEAD.size))
        with path.open("r+b") as file:
            self._memory = mmap.mmap(file.fileno(), 0)
        self.environment = {"LD_PRELOAD": LIBRARY, "HALVEK_SPOOL_CALLS_CONTROL": str(path)}

    def arm(self, mode: int, number: int, error: int = 0) -> None:
        """The call of that number, from now on, kills the service or fails."""
        struct.pack_into("<IIIiI", self._memory, 0, 0, mode, number, error, 0)
        self._memory[0:4] = struct.pack("<I", 1)

    def watch(self) -> None:
        """Only counts, from 0 on."""
        self.arm(0, 0)

    def disarm(self) -> None:
        self._memory[0:4] = bytes(4)

    @property
    def count(self) -> int:
        return struct.unpack_from("<I", self._memory, COUNT_AT)[0]

    def set_synced(self, is_synced: bool) -> None:
        struct.pack_into("<I", self._memory, SYNCED_AT, is_synced)

    def slow_down(self, milliseconds: int) -> None:
        """What every fsync takes."""
        struct.pack_into("<I", self._memory, SYNC_MS_AT, milliseconds)

    def let_pass(self, seconds: float) -> None:
        """Time passes: both clocks."""
        self._add(BOOT_AT, seconds)
        self._add(REAL_AT, seconds)

    def step_clock(self, seconds: float) -> None:
        """Somebody sets the clock."""
        self._add(REAL_AT, seconds)

    def _add(self, at: int, seconds: float) -> None:
        struct.pack_into("<q", self._memory, at, struct.unpack_from("<q", self._memory, at)[0] + int(seconds * 1000))
