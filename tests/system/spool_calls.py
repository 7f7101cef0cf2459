"""The other end of the library that stands between the outbox and its files; SpoolCalls.c has the same layout."""

import mmap
import os
import struct
from pathlib import Path

from testing.waiting import wait_until

LIBRARY = os.environ.get("HALVEK_SPOOL_CALLS", "")

HEAD = struct.Struct("<IIIiIIIIqqqII")
COUNT_AT, SYNCED_AT, SYNC_MS_AT, ROUND_AT = 16, 20, 24, 28
BOOT_AT, REAL_AT, STEADY_AT, LOOKERS_AT, HURRIED_AT = 32, 40, 48, 56, 60

KILL_BEFORE, KILL_AFTER, FAIL = 1, 2, 3


class SpoolCalls:
    """The control of all services that are started with its environment, one after the other."""

    def __init__(self, path: Path) -> None:
        path.write_bytes(bytes(HEAD.size))
        with path.open("r+b") as file:
            self._memory = mmap.mmap(file.fileno(), 0)
        self._round = 0
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
        return self._get(COUNT_AT)

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

    def let_attempts_take(self, seconds: float) -> None:
        """Time passes for the attempts that are under way, and for nothing else."""
        struct.pack_into("<I", self._memory, HURRIED_AT, 1)
        self._add(STEADY_AT, seconds)

    def wait_for_looks(self, attempts: int) -> None:
        """Returns when each of so many attempts has seen what time it is, and has gone on."""
        for _ in range(2):
            struct.pack_into("<I", self._memory, LOOKERS_AT, 0)
            self._round += 1
            struct.pack_into("<I", self._memory, ROUND_AT, self._round)
            wait_until(lambda: self._get(LOOKERS_AT) >= attempts, f"{attempts} attempts look at the clock")

    def _get(self, at: int) -> int:
        return struct.unpack_from("<I", self._memory, at)[0]

    def _add(self, at: int, seconds: float) -> None:
        struct.pack_into("<q", self._memory, at, struct.unpack_from("<q", self._memory, at)[0] + int(seconds * 1000))
