#!/usr/bin/python3
"""Tries what a command must not be able to do that the daemon runs for an action. Prints what came of each as JSON."""

import ctypes
import errno
import json
import mmap
import os
import socket
import subprocess
import sys
from collections.abc import Callable
from pathlib import Path

FOLDERS = ("/etc/open", "/usr/local/open", "/var/lib/open", "/var/open", "/opt/open", "/run/open", "/home/open")
CLONE_NEWUSER = 0x10000000

libc = ctypes.CDLL(None, use_errno=True)


def system_call(function: Callable, *arguments) -> None:
    if function(*arguments) != 0:
        raise OSError(ctypes.get_errno(), "")


def write_to(folder: str) -> None:
    Path(folder, "written").write_text("x")
    Path(folder, "written").unlink()


def become_root() -> None:
    user = subprocess.run(["/usr/local/bin/id-of-root", "-u"], capture_output=True, text=True).stdout.strip()
    if user != "0":
        raise PermissionError(errno.EPERM, "")


def make_set_user_id_program() -> None:
    program = Path(f"/tmp/program-{os.getpid()}")
    program.touch()
    try:
        program.chmod(0o4755)
        if not program.stat().st_mode & 0o4000:
            raise PermissionError(errno.EPERM, "")
    finally:
        program.unlink()


def write_code() -> None:
    mmap.mmap(-1, 4096, prot=mmap.PROT_READ | mmap.PROT_WRITE | mmap.PROT_EXEC).close()


ATTEMPTS: dict[str, Callable[[], object]] = {
    **{f"write to {folder}": lambda folder=folder: write_to(folder) for folder in FOLDERS},
    "become root": become_root,
    "make a set-user-id program": make_set_user_id_program,
    "make a user namespace": lambda: system_call(libc.unshare, CLONE_NEWUSER),
    "open a netlink socket": lambda: socket.socket(socket.AF_NETLINK, socket.SOCK_RAW).close(),
    "change its personality": lambda: system_call(lambda: min(libc.personality(0x0040000), 0)),
    "write code": write_code,
    "see the processes of others": lambda: os.stat("/proc/1"),
    "read the kernel's settings": lambda: Path("/proc/sys/kernel/hostname").read_text(),
}


def outcome(attempt: Callable[[], object]) -> str:
    try:
        attempt()
    except OSError as error:
        return errno.errorcode.get(error.errno, str(error))
    return "done"


def main() -> None:
    status = dict(line.split(":\t", 1) for line in Path("/proc/self/status").read_text().splitlines() if ":\t" in line)
    found = {name: outcome(attempt) for name, attempt in ATTEMPTS.items()}
    found |= {name: status[name].strip() for name in ("NoNewPrivs", "CapBnd", "CapEff", "Seccomp")}
    text = json.dumps(found)
    # Whole or not there.
    report = Path(sys.argv[1])
    report.with_suffix(".part").write_text(text)
    report.with_suffix(".part").rename(report)


if __name__ == "__main__":
    main()
