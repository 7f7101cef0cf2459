"""The other end of the library that makes the daemon's calls fail; FaultControl.cpp has the same names and layout."""

import errno
import mmap
import struct
import subprocess
from bisect import bisect_right
from collections.abc import Mapping
from functools import cache
from pathlib import Path
from typing import NamedTuple

# In the library's order. What each stands for, see FaultyCalls.c; the first is what fails without a call.
CALLS = (
    "limit",
    "open",
    "read",
    "write",
    "log",
    "close",
    "spawn",
    "pipe",
    "mmap",
    "socket",
    "connect",
    "sendmsg",
    "recvmsg",
    "ppoll",
    "rename",
    "mkdir",
    "unlink",
    "fsync",
    "pthread_create",
    "allocation",
    "stat",
)
# What the system may say; the first one is the likeliest on a camera.
ERRORS: Mapping[str, tuple[int, ...]] = {
    "open": (errno.EMFILE, errno.EACCES, errno.ENOMEM),
    "read": (errno.EIO, errno.EINTR),
    "write": (errno.ENOSPC, errno.EAGAIN, errno.EIO),
    "log": (errno.EAGAIN, errno.ENOSPC),
    "close": (errno.EIO,),
    "spawn": (errno.EAGAIN, errno.ENOMEM),
    "pipe": (errno.EMFILE, errno.ENFILE),
    "mmap": (errno.ENOMEM,),
    "socket": (errno.EMFILE, errno.ENOBUFS),
    "connect": (errno.ECONNREFUSED, errno.EAGAIN),
    "sendmsg": (errno.EPIPE, errno.ENOBUFS),
    "recvmsg": (errno.ECONNRESET, errno.ENOMEM),
    "ppoll": (errno.ENOMEM, errno.EINTR),
    "rename": (errno.EIO, errno.ENOSPC),
    "mkdir": (errno.ENOSPC, errno.EACCES),
    "unlink": (errno.EIO, errno.EACCES),
    "fsync": (errno.EIO, errno.ENOSPC),
    "pthread_create": (errno.EAGAIN,),
    "allocation": (errno.ENOMEM,),
    "stat": (errno.ENOMEM, errno.EACCES),
}

HEAD = struct.Struct("<IIIiI4xqq16s")
INJECTED_AT = 16
PLACE_SIZE = 4096
SITE = struct.Struct("<II")
SITES_SIZE = 8192 * SITE.size
STEADY_SKEW_AT, REAL_SKEW_AT = 24, 32
CALL_BITS = 31  # of a site's key


class Fault(NamedTuple):
    """The nth call of a site, counted from when it is armed.

    A site is one way through the program to a call. Those of one thread come in the same order each time, but how
    often a call waits or is interrupted in between is chance. So no call is found again by its number among all of its
    kind, but by who made it.
    """

    site: int
    number: int
    error: int

    @property
    def call(self) -> str:
        return call_of(self.site)

    def __str__(self) -> str:
        return f"{self.call} {self.site:08x} #{self.number} {errno.errorcode.get(self.error, '')}"


def call_of(site: int) -> str:
    return CALLS[site & CALL_BITS]


def place_of(site: int) -> int:
    return site // (CALL_BITS + 1)


class Faults:
    """The control of one daemon at a time. The daemon must have been started with the prefix."""

    def __init__(self, path: Path, library: str, program: str) -> None:
        self._program = program
        path.write_bytes(bytes(HEAD.size + PLACE_SIZE + SITES_SIZE))
        with path.open("r+b") as file:
            self._memory = mmap.mmap(file.fileno(), 0)
        # Whatever starts the daemon is none of it.
        self.prefix = ["env", f"LD_PRELOAD={library}", f"HALVEK_FAULTS={path}"]

    def arm(self, fault: Fault, thread: str = "") -> None:
        """That call fails once; of all threads or of those of a name."""
        self._set(fault.site, fault.number, fault.error, thread)

    def watch(self, thread: str = "") -> None:
        """Only counts."""
        self._set(0, 0, 0, thread)

    def disarm(self) -> None:
        self._memory[0:4] = bytes(4)

    @property
    def injected(self) -> int:
        return struct.unpack_from("<I", self._memory, INJECTED_AT)[0]

    @property
    def counts(self) -> dict[int, int]:
        """How often each site was come by, in the order of their keys."""
        sites = SITE.iter_unpack(self._memory[HEAD.size + PLACE_SIZE :])
        return dict(sorted((key, count) for key, count in sites if count))

    @property
    def callers(self) -> list[str]:
        """Who made the call that failed last, the nearest first: names of functions where they are known."""
        text = self._memory[HEAD.size : HEAD.size + PLACE_SIZE].split(b"\0")[0].decode()
        places = [line.rsplit("+", 1) for line in text.splitlines()]
        return [function_at(module or self._program, offset) for module, offset in places]

    def let_pass(self, seconds: float) -> None:
        """Sets the steady clock forward."""
        self._skew(STEADY_SKEW_AT, seconds)

    def step_clock(self, seconds: float) -> None:
        """Sets the clock of the day."""
        self._skew(REAL_SKEW_AT, seconds)

    def _skew(self, at: int, seconds: float) -> None:
        struct.pack_into("<q", self._memory, at, struct.unpack_from("<q", self._memory, at)[0] + int(seconds * 1e9))

    def _set(self, failing: int, number: int, error: int, thread: str) -> None:
        self.disarm()
        skews = struct.unpack_from("<qq", self._memory, STEADY_SKEW_AT)
        HEAD.pack_into(self._memory, 0, 0, failing, number, error, 0, *skews, thread.encode()[:15])
        self._memory[HEAD.size] = 0
        self._memory[HEAD.size + PLACE_SIZE :] = bytes(SITES_SIZE)
        self._memory[0:4] = struct.pack("<I", 1)


@cache
def symbols(module: str) -> tuple[list[int], list[str]]:
    command = ["nm", "-C", "--defined-only", module]
    lines = subprocess.run(command, capture_output=True, text=True).stdout.splitlines()
    if not lines:
        lines = subprocess.run([*command, "-D"], capture_output=True, text=True).stdout.splitlines()
    found = sorted((int(line[:16], 16), line[19:]) for line in lines if line[17] in "tTwWiI")
    return [address for address, _ in found], [name for _, name in found]


@cache
def function_at(module: str, offset: str) -> str:
    addresses, names = symbols(module)
    position = bisect_right(addresses, int(offset, 16)) - 1
    return f"{Path(module).name}:{names[position] if position >= 0 else offset}"
