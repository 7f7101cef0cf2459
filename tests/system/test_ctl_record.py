"""halvekctl record: what happens to the daemon, in a file that never grows beyond its limit."""

import json
import os
import signal
import stat
import subprocess
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from ctl import PROGRAM, ctl, environment
from flooding import HURRIED, MANY, Descriptors, flood
from memory_disk import memory_disk
from testing.pipes import DEFAULT_INPUT, PIPE_FOLDER, block, bytes_ready_at, post
from testing.settings import SERVER, timer
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is about speed")


@pytest.fixture
def record() -> Iterator[Callable[..., subprocess.Popen]]:
    started: list[subprocess.Popen] = []

    def start(*words: object, **options) -> subprocess.Popen:
        command = [PROGRAM, "record", *map(str, words)]
        # A process group of its own, as a shell gives it one: no other stops at SIGTSTP where nobody has a terminal.
        started.append(subprocess.Popen(command, env=environment(), stderr=subprocess.PIPE, process_group=0, **options))
        assert b"reading" in started[-1].stderr.readline()
        return started[-1]

    yield start
    for process in started:
        process.kill()
        process.wait()
        process.stderr.close()


def lines(path: Path) -> list[dict]:
    return [json.loads(line) for line in path.read_text().splitlines()]


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM], ids=lambda number: number.name)
def test_at_a_signal_everything_is_written_before_it_dies_of_it(launch, record, tmp_path, number):
    launch(SERVER | timer(1, 3600))
    path = tmp_path / "inputs"
    process = record(path)
    post(block("Door", button="front", Password="topsecret") + block("Bell"))
    wait_until(lambda: bytes_ready_at(DEFAULT_INPUT) == 0, "all is read")
    post(block("Last"))
    process.send_signal(number)
    assert process.wait(20) == -number
    assert list(PIPE_FOLDER.iterdir()) == [] and stat.S_IMODE(path.stat().st_mode) & 0o007 == 0
    found = lines(path)
    assert [line["kind"] for line in found][:1] == ["begin"] and found[-1]["kind"] == "end"
    posted = [line for line in found if line["kind"] == "posted"]
    assert [line["type"] for line in posted][:2] == ["Door", "Bell"]
    assert posted[0]["props"]["button"] == "front" and posted[0]["props"]["Password"] == "***"
    assert [line["seq"] for line in found] == list(range(1, len(found) + 1))
    assert all(line["ms"] > 10**12 and line["mono"] > 0 and len(line["boot"]) == 32 for line in found)


def test_an_event_of_the_daemons_own_is_no_posted_one(launch, record, tmp_path):
    daemon = launch(SERVER | timer(1, 3600))
    process = record(tmp_path / "inputs")
    daemon.reload()
    daemon.log.wait_for("next tick: ", count=2)
    process.send_signal(signal.SIGINT)
    process.wait(20)
    assert [line["type"] for line in lines(tmp_path / "inputs") if line["kind"] == "fired"] == ["Timer"]


def test_it_never_grows_beyond_its_limit_and_keeps_the_newest(launch, record, tmp_path):
    descriptors = Descriptors(launch(SERVER, **HURRIED))
    path = tmp_path / "inputs"
    process = record(path, "--limit", "256K")
    flood()
    descriptors.assert_none_lost()
    process.send_signal(signal.SIGINT)
    process.wait(60)
    older = path.with_name("inputs.1")
    assert sorted(file.name for file in tmp_path.iterdir() if file.is_file()) == ["inputs", "inputs.1"]
    assert path.stat().st_size + older.stat().st_size <= 256 << 10
    found = lines(older) + lines(path)
    assert [line["seq"] for line in found] == list(range(found[0]["seq"], found[-1]["seq"] + 1))
    assert found[-1]["kind"] == "end"


@pytest.mark.parametrize("number", [signal.SIGSTOP, signal.SIGTSTP], ids=lambda number: number.name)
def test_one_that_is_stopped_costs_the_daemon_nothing_and_tells_of_the_gap(launch, record, tmp_path, number):
    descriptors = Descriptors(launch(SERVER, **HURRIED))
    process = record(tmp_path / "inputs", "--limit", "1000M")
    process.send_signal(number)
    flood()
    descriptors.assert_none_lost()
    process.send_signal(signal.SIGCONT)
    process.send_signal(signal.SIGINT)
    process.wait(60)
    found = lines(tmp_path / "inputs")
    missing = sum(line["amount"] for line in found if line["kind"] == "gap")
    assert missing > 0 and sum(line["kind"] == "posted" for line in found) + missing == MANY


def test_a_full_disk_is_3_and_costs_the_daemon_nothing(launch, record, tmp_path):
    descriptors = Descriptors(launch(SERVER, **HURRIED))
    disk = tmp_path / "disk"
    disk.mkdir()
    with memory_disk(disk, "size=64k"):
        process = record(disk / "inputs")
        flood()
        assert process.wait(20) == 3 and b"cannot write" in process.stderr.read()
        assert list(PIPE_FOLDER.iterdir()) == []
    descriptors.assert_none_lost()


def test_left_alone_it_misses_nothing(launch, record, tmp_path):
    descriptors = Descriptors(launch(SERVER, **HURRIED))
    process = record(tmp_path / "inputs", "--limit", "2000M")
    flood()
    descriptors.assert_none_lost()
    process.send_signal(signal.SIGINT)
    assert process.wait(60) == -signal.SIGINT
    text = (tmp_path / "inputs").read_text()
    assert text.count('"kind":"posted"') == MANY and '"kind":"gap"' not in text


def test_it_writes_in_large_pieces_and_waits_for_the_disk_once(launch, record, tmp_path):
    """A card wears with each write."""
    launch(SERVER, level="Warning")
    path, trace = tmp_path / "inputs", tmp_path / "trace"
    process = record(path)
    watch = ["strace", "-p", str(process.pid), "-y", "-o", trace, "-e", "trace=write,fdatasync,fsync"]
    with subprocess.Popen(watch, stderr=subprocess.PIPE) as tracer:
        assert b"attached" in tracer.stderr.readline()
        flood(2000)
        wait_until(lambda: path.stat().st_size > 0, "the first piece")
        process.send_signal(signal.SIGINT)
        process.wait(20)
    calls = [line for line in trace.read_text().splitlines() if f"<{path}>" in line]
    sizes = [int(line.rpartition(" = ")[2]) for line in calls if line.startswith("write(")]
    assert min(sizes[:-1]) >= 65536 and sum(sizes) == path.stat().st_size
    assert [line.partition("(")[0] for line in calls[-2:]] == ["write", "fdatasync"] and len(calls) == len(sizes) + 1


def test_what_is_a_minute_old_is_written(launch, tmp_path):
    launch(SERVER)
    path = tmp_path / "inputs"
    (library,) = Path("/usr/lib").glob("*/faketime/libfaketimeMT.so.1")
    hurried = environment(LD_PRELOAD=str(library), FAKETIME="+0 x60")
    with subprocess.Popen([PROGRAM, "record", path], env=hurried, stderr=subprocess.PIPE) as process:
        assert b"reading" in process.stderr.readline()
        post(block("Door"))
        wait_until(lambda: b'"Door"' in path.read_bytes(), "a minute has passed")
        process.kill()


def test_killed_it_leaves_no_pipe(record, tmp_path):
    process = record(tmp_path / "inputs")
    process.kill()
    wait_until(lambda: list(PIPE_FOLDER.iterdir()) == [], "the pipe is gone")


def test_what_a_killed_one_and_its_relay_left_the_next_removes(record, tmp_path):
    first = record(tmp_path / "first")
    (relay,) = map(int, Path(f"/proc/{first.pid}/task/{first.pid}/children").read_text().split())
    os.kill(relay, signal.SIGSTOP)
    first.kill()
    first.wait()
    os.kill(relay, signal.SIGKILL)
    assert [path.name for path in PIPE_FOLDER.iterdir()] == [f"zz-record.{first.pid}.halvek.any"]
    second = record(tmp_path / "second")
    assert [path.name for path in PIPE_FOLDER.iterdir()] == [f"zz-record.{second.pid}.halvek.any"]


def test_nothing_is_written_over_what_is_there(tmp_path):
    path = tmp_path / "inputs"
    path.write_text("mine\n")
    done = ctl("record", path)
    assert done.returncode == 3 and b"is there already" in done.stderr and path.read_text() == "mine\n"
    assert ctl("record", tmp_path).returncode == 3
    assert ctl("record", tmp_path / "no/where").returncode == 3


@pytest.mark.parametrize("words", [[], ["a", "b"], [""], ["x", "--limit", "1K"], ["x", "--limit", "many"]], ids=str)
def test_a_wrong_command_line_is_2(words, tmp_path):
    assert ctl("record", *words, cwd=tmp_path).returncode == 2 and list(tmp_path.iterdir()) == []
