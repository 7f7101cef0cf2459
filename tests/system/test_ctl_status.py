"""halvekctl status: how the running daemon is, and what whoever asks does not see."""

import fcntl
import os
import re
import shutil
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest
from ctl import PROGRAM, answer, ctl, environment, json_answer
from testing.pipes import DEFAULT_INPUT, PIPE_FOLDER, block, post
from testing.settings import SERVER, server, timer
from testing.users import FIRST_UID
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it looks for the daemon by its name")

SETTINGS = SERVER | timer(1, 3600)
DAEMONS_USER, MEMBER, NOBODY = FIRST_UID, FIRST_UID + 1, FIRST_UID + 2
PIPE_SIZE = 4096


def become(user: int, *groups: int) -> Callable[[], None]:
    def act() -> None:
        os.setgroups(groups)
        os.setresgid(user, user, user)
        os.setresuid(user, user, user)

    return act


@pytest.fixture
def full_pipe():
    path = PIPE_FOLDER / "a.halvek.any"
    os.mkfifo(path, 0o660)
    descriptor = os.open(path, os.O_RDWR | os.O_NONBLOCK)
    fcntl.fcntl(descriptor, fcntl.F_SETPIPE_SZ, PIPE_SIZE)
    os.write(descriptor, b"x" * PIPE_SIZE)
    yield path
    os.close(descriptor)


def test_without_a_daemon_it_is_3():
    done = ctl("status")
    assert (done.returncode, done.stdout) == (3, b"") and b"there is no daemon" in done.stderr


@pytest.mark.not_under("one user", reason="there is nobody else")
def test_one_that_has_ended_is_no_daemon(tmp_path):
    program = shutil.copy("/bin/true", tmp_path / "halvek")
    with subprocess.Popen([program]) as ended:
        wait_until(lambda: Path(f"/proc/{ended.pid}/cmdline").read_bytes() == b"", "the end of a process")
        done = ctl("status", preexec_fn=become(NOBODY), cwd="/")
    assert (done.returncode, done.stdout) == (3, b""), done


def test_a_word_is_2():
    assert ctl("status", "x").returncode == 2


def test_it_knows_the_daemon_and_its_surroundings(launch):
    daemon = launch(SETTINGS, environment={"TZ": "Asia/Tokyo"})
    told = json_answer("status")
    assert (told["format"], told["verb"], told["pid"], told["listening"]) == (1, "status", daemon.pid, True)
    assert (told["settings"], told["zone"]) == (str(daemon.settings_file), "Asia/Tokyo")
    assert told["path"] == os.environ["PATH"]
    assert told["outbox"] == {"installed": False, "in_front": False}
    assert told["threads"] == len(os.listdir(f"/proc/{daemon.pid}/task"))
    assert 1000 < told["memory_kib"] < 1_000_000 and 0 <= told["uptime_s"] < 600
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT[\d:]+\.000Z", told["since"])
    text = answer("status")
    assert re.search(rf"^pid +{daemon.pid}, as ", text) and "Asia/Tokyo" in text and os.environ["PATH"] in text


def test_it_tells_whether_the_outbox_is_in_front_of_the_daemons_programs(launch):
    launch(SETTINGS, environment={"PATH": f"/usr/lib/halvek-outbox/bin:{os.environ['PATH']}"})
    assert json_answer("status")["outbox"] == {"installed": False, "in_front": True}
    assert re.search("^outbox +is on the PATH, and not installed$", answer("status"), re.MULTILINE)


def test_each_reload_and_each_failed_write_is_one_less(launch, full_pipe):
    daemon = launch(SETTINGS)
    first = json_answer("status")
    assert first["descriptors"]["event_pipe"] == 1 and first["descriptors"]["output_pipes"] <= 1  # of the first tick
    assert first["budget"] == 1015 - first["descriptors"]["bus"]
    for _ in range(3):
        daemon.reload()
    lost = daemon.log.matching("FIFO Write failed")
    post(block("Door") * 4)
    daemon.log.wait_for("FIFO Write failed", after=0, count=len(lost) + 4)
    after = json_answer("status")
    assert after["descriptors"]["event_pipe"] == 4
    failed = len(daemon.log.matching("FIFO Write failed"))
    assert after["descriptors"]["output_pipes"] == failed
    assert after["descriptors"]["lost"] == {str(full_pipe.resolve()): failed}
    assert after["reloads_left"] == after["budget"] - 4 - failed
    counted = after["descriptors"]
    kinds = ("event_pipe", "output_pipes", "bus", "others")
    assert counted["open"] == sum(counted[kind] for kind in kinds)
    assert re.search(rf"reloads left {after['reloads_left']}\b", answer("status"))


def test_without_any_left_it_is_0_and_not_less(launch):
    daemon = launch(SETTINGS)
    subprocess.run(["prlimit", "--pid", str(daemon.pid), "--nofile=10:"], check=True)
    assert json_answer("status")["reloads_left"] == 0


def test_it_tells_of_the_event_pipe(launch, tmp_path):
    path = tmp_path / "own.pipe"
    os.mkfifo(path)
    path.chmod(0o620)
    launch(server(path))
    pipe = json_answer("status")["event_pipe"]
    assert (pipe["path"], pipe["mode"], pipe["bytes_waiting"]) == (str(path), "prw--w----", 0)
    assert f"{path} prw--w---- " in answer("status")


def test_an_event_pipe_that_nothing_reads_any_more_shows_in_what_waits(launch):
    daemon = launch(SETTINGS, level="Information")
    post(b"\n")
    wait_until(lambda: "EventServerSour" not in daemon.thread_names(), "the listener has ended")
    post(block("Door"))
    told = json_answer("status")
    assert told["listening"] is False and told["event_pipe"]["bytes_waiting"] == len(block("Door"))
    assert "nothing listens" in answer("status") and "9 bytes waiting" in answer("status")


@pytest.mark.not_under("one user", reason="whether others read a pipe is not shown to him")
def test_output_pipes_stand_in_byte_order_with_their_readers_and_what_waits(launch, full_pipe, output_pipe):
    launch(SETTINGS)
    for name in ("b.Timer", "B.Timer"):
        os.mkfifo(PIPE_FOLDER / name)
    (PIPE_FOLDER / "c.halvek.any").write_text("")
    output_pipe("zz.halvek.any")
    pipes = json_answer("status")["output_pipes"]
    assert [Path(pipe["path"]).name for pipe in pipes] == ["B.Timer", "a.halvek.any", "b.Timer", "zz.halvek.any"]
    own = {"pid": os.getpid(), "comm": Path("/proc/self/comm").read_text().strip()}
    assert [own in pipe["readers"] for pipe in pipes] == [False, True, False, True]
    assert [pipe["full"] for pipe in pipes] == [False, True, False, False]
    assert (pipes[1]["bytes_waiting"], pipes[1]["capacity"]) == (PIPE_SIZE, PIPE_SIZE)
    text = answer("status")
    assert re.search(r"a\.halvek\.any .*4096 bytes waiting of 4096, FULL, ", text) and "no reader" in text


def test_names_of_pipes_steer_no_terminal(launch):
    launch(SETTINGS)
    os.mkfifo(PIPE_FOLDER / "a\x1b[2J\n.halvek.any")
    for words in (["status"], ["--format", "json", "status"]):
        assert not re.search(r"[\x00-\x09\x0b-\x1f\x7f]", answer(*words))
    assert r"a\x1b[2J\x0a.halvek.any" in answer("status")


@pytest.fixture
def as_user(launch, tmp_path):
    """The daemon as a user of its own, with the rights of the package."""
    for folder in (tmp_path, tmp_path.parent):
        folder.chmod(0o755)
    os.mkfifo(DEFAULT_INPUT)
    DEFAULT_INPUT.chmod(0o620)
    os.chown(DEFAULT_INPUT, DAEMONS_USER, MEMBER)
    os.chown(PIPE_FOLDER, DAEMONS_USER, MEMBER)
    PIPE_FOLDER.chmod(0o3770)
    prefix = ["setpriv", f"--reuid={DAEMONS_USER}", f"--regid={DAEMONS_USER}", f"--groups={MEMBER}", "--"]
    daemon = launch(SETTINGS, prefix=prefix, level="Information", ready=False)  # it may not notify us
    daemon.log.wait_for("Dropping to run state")
    os.mkfifo(PIPE_FOLDER / "a.halvek.any")
    return daemon


@pytest.mark.not_under("one user", reason="there is nobody else")
def test_the_daemons_user_sees_what_root_sees_but_other_readers(as_user):
    told = json_answer("status", preexec_fn=become(DAEMONS_USER, MEMBER), cwd="/")
    assert told["pid"] == as_user.pid and told["descriptors"]["event_pipe"] == 1 and told["reloads_left"] > 900
    assert told["event_pipe"]["bytes_waiting"] == 0 and told["output_pipes"][0]["readers_hidden"] is True
    assert json_answer("status")["output_pipes"][0]["readers_hidden"] is False


@pytest.mark.not_under("one user", reason="there is nobody else")
def test_a_member_of_the_groups_sees_pipes_and_is_told_what_he_does_not_see(as_user):
    member = {"preexec_fn": become(MEMBER), "cwd": "/"}
    told = json_answer("status", **member)
    assert told["pid"] == as_user.pid and told["descriptors"] is told["reloads_left"] is told["path"] is None
    assert told["event_pipe"]["bytes_waiting"] == 0 and len(told["output_pipes"]) == 1
    assert {"descriptors", "reloads_left", "path"} <= set(told["not_shown"])
    text = answer("status", **member)
    assert f"reloads left: not shown to {MEMBER}, but to root and {DAEMONS_USER}" in text


@pytest.mark.not_under("one user", reason="there is nobody else")
def test_nobody_is_told_what_he_does_not_see_and_never_that_it_is_none(as_user):
    nobody = {"preexec_fn": become(NOBODY), "cwd": "/"}
    told = json_answer("status", **nobody)
    assert told["pid"] == as_user.pid and told["memory_kib"] > 1000 and told["listening"] is True
    assert told["output_pipes"] is told["descriptors"] is told["event_pipe"]["bytes_waiting"] is None
    text = answer("status", **nobody)
    assert "bytes waiting not shown to" in text and not re.search(r"\b0 (bytes|open|of)|left 0|none|no reader", text)


def test_it_writes_nothing_and_runs_nothing(launch, full_pipe, tmp_path):
    launch(SETTINGS)
    trace = tmp_path / "trace"
    calls = "write,execve,unlink,unlinkat,rename,renameat2,mknod,mknodat,mkdir,mkdirat,chmod,fchmod,kill,open,openat"
    command = ["strace", "-f", "-y", "-o", trace, "-e", f"trace={calls}", PROGRAM, "status"]
    subprocess.run(command, env=environment(), check=True, timeout=60, capture_output=True)
    lines = [line for line in trace.read_text().splitlines() if re.match(r"\d+ +\w+\(", line)]
    assert sum("execve(" in line for line in lines) == 1
    written = [line for line in lines if "write(" in line and not re.search(r"write\([12]<", line)]
    made = [line for line in lines if re.search(r" (unlink|rename|mk|f?chmod|kill)|O_CREAT|O_TRUNC", line)]
    assert written == made == []
