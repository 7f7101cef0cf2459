"""halvekctl changes nothing: what it asks of the kernel, call by call."""

import re
import subprocess
from pathlib import Path

import pytest
from ctl import PROGRAM, environment, write_store
from testing.settings import SERVER, Settings, handler, source, timer

pytestmark = pytest.mark.not_under("emulator", reason="its own calls would be traced")

# With all that the daemon would ask the camera, make, run or connect to.
SETTINGS: Settings = (
    SERVER
    | {"Video/Quickview": {"SnapshotPath": "/snapshot.jpg"}, "Events/Source#9": {"Type": "Doorbell"}}
    | timer(1, 1)
    | source(2, "Alarm")
    | source(3, "Park")
    | source(4, "Analytics")
    | handler(1, "Events/Source#1", "Events/Source#9", "Events/Source#2", handler_type="Relay")
    | handler(2, "Events/Source#1", "Events/Source#3", handler_type="Preset", Id="1")
    | handler(3, "Events/Source#1", handler_type="Tour", Id="1")
    | handler(4, "Events/Source#1", "Events/Source#4", handler_type="Folder", Attachment="true", DestinationPath="/tmp")
    | handler(5, "Events/Source#1", handler_type="Ftp", Attachment="true", Server="127.0.0.1")
    | handler(6, "Events/Source#1", handler_type="Email", Attachment="true", To="x@example.com")
    | handler(7, "Events/Source#1")
)
# What writes, makes, runs or connects; calls that a kernel does not have are not asked for.
TRACED = (
    "write,writev,pwrite64,sendto,sendmsg,open,openat,openat2,creat,mknod,mknodat,mkdir,mkdirat,unlink,unlinkat,rename,"
    "renameat,renameat2,link,linkat,symlink,symlinkat,chmod,fchmod,fchmodat,chown,fchown,fchownat,truncate,ftruncate,"
    "utimensat,execve,execveat,connect,bind,socket,mount,umount2,setxattr"
)
OWN = re.compile(r"<(pipe:\[\d+\]|anon_inode:\[eventfd\]|/memfd:records( \(deleted\))?|/memfd:records.*)>")
VERBS = [
    ["explain", "Timer"],
    ["explain", "Alarm", "alarmIndex=0"],
    ["explain", "Park", "--format", "json"],
    ["explain", "AnalyticsAlert"],
    ["explain", "Doorbell", "button=front"],
    ["schedule", "--dst"],
    ["schedule", "--svg"],
    ["show"],
    ["show", "--as", "svg"],
    ["show", "--as", "dot"],
    ["show", "--as", "json"],
]


def forbidden(line: str) -> bool:
    """A line of strace's, "4711 write(1</dev/pts/0>, ..."."""
    call = re.match(r"(?:\d+ +)?(?:<\.\.\. )?(\w+)", line)[1]
    if call in ("open", "openat", "openat2"):
        return "O_RDONLY" not in line or "O_CREAT" in line
    if call in ("write", "writev", "pwrite64"):
        descriptor = re.search(r"\((\d+)(<.*?>)?", line)
        return descriptor[1] not in ("1", "2") and not OWN.search(line.split(",")[0])
    return True


@pytest.mark.parametrize("words", VERBS, ids=lambda words: "-".join(words))
def test_it_writes_nowhere_makes_nothing_runs_nothing_and_connects_to_nobody(words: list[str], tmp_path: Path) -> None:
    store = write_store(tmp_path, SETTINGS)
    trace = tmp_path / "trace"
    command = ["strace", "-f", "-y", "-o", trace, "-e", f"trace={TRACED}", PROGRAM, "--settings", store, *words]
    done = subprocess.run(command, env=environment(), stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60)
    assert done.returncode == 0, done.stderr
    lines = [line for line in trace.read_text().splitlines() if re.match(r"\d+ +\w+\(", line)]
    assert sum("execve(" in line for line in lines) == 1 and len(lines) > 10
    assert [line for line in lines if forbidden(line) and "execve(" not in line] == []
    assert sorted(path.name for path in tmp_path.iterdir()) == ["settings.ini", "trace"]
