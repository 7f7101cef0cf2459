"""The verbs of halvekctl, beside a running daemon and each in the same trouble: one status and never half an answer.

tests/ctl/answers.json has the fields of each verb's JSON, for all who read it in programs.
"""

import json
import os
import re
import signal
import subprocess
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from ctl import PROGRAM, answer, ctl, environment, json_answer
from test_ctl_input import device, fifo, folder_with_fifo, large, loop, missing
from testing.daemon import Daemon
from testing.pipes import PIPE_FOLDER, block, post
from testing.settings import SERVER, Settings, handler, ini_text, source
from testing.users import FIRST_UID

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it looks for the daemon by its name")

SETTINGS: Settings = SERVER | source(1, "Door") | handler(1, "Events/Source#1", handler_type="Relay", BankName="x")
FIELDS = json.loads((Path(__file__).resolve().parents[1] / "ctl/answers.json").read_text())
KINDS = {"text": str, "number": int, "flag": bool, "list": list, "object": dict, "nothing": type(None)}
VERBS = ["post", "status", "try", "replay", "guard", "reload", "check", "show", "schedule", "explain"]
UNREADABLE = [missing, fifo, folder_with_fifo, device, loop, large]


class Scene:
    """A daemon, a recording, and a systemctl that reloads the daemon."""

    def __init__(self, folder: Path, daemon: Daemon) -> None:
        self.folder = folder
        self.daemon = daemon
        self.recording = folder / "inputs"
        event = {"kind": "posted", "t": "", "ms": 1_795_435_200_000, "mono": 0, "boot": "b", "seq": 1}
        event |= {"type": "Door", "props": {"eventId": "Door"}}
        self.recording.write_text(json.dumps(event, separators=(",", ":")) + "\n")
        systemctl = folder / "bin/systemctl"
        systemctl.parent.mkdir()
        systemctl.write_text(f"#!/bin/sh\nkill -HUP {daemon.pid}\n")
        systemctl.chmod(0o755)
        self.variables = {"PATH": f"{systemctl.parent}:{os.environ['PATH']}"}

    def words(self, verb: str, store: Path | None = None) -> list[object]:
        store = store or self.daemon.settings_file
        more: dict[str, list[object]] = {
            "post": ["Door"],
            "try": ["Handler#1"],
            "replay": [self.recording, "--new", store],
            "check": [store],
            "explain": ["Door"],
        }
        return [verb, *more.get(verb, [])]

    def ask(self, *words: object, **options) -> subprocess.CompletedProcess:
        return ctl(*words, variables=self.variables, **options)


@pytest.fixture
def scene(launch: Callable[..., Daemon], tmp_path: Path) -> Scene:
    return Scene(tmp_path, launch(SETTINGS, level="Information"))


def assert_is_of(value: object, form: object) -> None:
    """An object has exactly the fields of its form, and a list holds nothing else than its one element says."""
    if isinstance(form, str):
        assert any(type(value) is KINDS[kind] for kind in form.split(" or ")), (value, form)
    elif isinstance(form, list):
        assert isinstance(value, list)
        for item in value:
            assert_is_of(item, form[0])
    else:
        assert value.keys() == form.keys()
        for name, inner in form.items():
            assert_is_of(value[name], inner)


@pytest.mark.parametrize("verb", VERBS)
def test_the_answer_in_json_has_the_fields_of_its_format(scene: Scene, verb: str) -> None:
    done = scene.ask("--format", "json", *scene.words(verb))
    assert done.returncode == 0, done
    told = json.loads(done.stdout)
    assert (told["format"], told["verb"]) == (1, verb)
    assert_is_of(told, FIELDS[verb])


@pytest.mark.parametrize("verb", VERBS)
def test_an_answer_that_cannot_be_written_is_3(scene: Scene, verb: str) -> None:
    words = ["--format", "json", *scene.words(verb)]
    with open("/dev/full", "wb") as full:
        assert scene.ask(*words, stdout=full).returncode == 3
    assert scene.ask(*words, stdout=None, preexec_fn=lambda: os.close(1)).returncode == 3
    reader, writer = os.pipe()
    os.close(reader)
    died = scene.ask(*words, stdout=writer, restore_signals=True)
    os.close(writer)
    assert died.returncode == -signal.SIGPIPE


@pytest.mark.parametrize("make", UNREADABLE, ids=lambda f: f.__name__)
@pytest.mark.parametrize("option", ["--old", "--new"])
def test_a_replay_of_settings_that_cannot_be_read_is_3_at_once(
    scene: Scene, make: Callable[[Path], None], option: str, tmp_path: Path
) -> None:
    path = tmp_path / "store"
    make(path)
    other = "--new" if option == "--old" else "--old"
    done = scene.ask("replay", scene.recording, option, path, other, scene.daemon.settings_file)
    assert (done.returncode, done.stdout) == (3, b"") and str(path).encode() in done.stderr.splitlines()[-1], done


@pytest.mark.parametrize("make", UNREADABLE, ids=lambda f: f.__name__)
def test_nobody_is_asked_to_reload_settings_that_cannot_be_read(
    scene: Scene, make: Callable[[Path], None], tmp_path: Path
) -> None:
    path = tmp_path / "store"
    make(path)
    done = scene.ask("--settings", path, "reload")
    assert (done.returncode, done.stdout) == (3, b"") and str(path).encode() in done.stderr.splitlines()[-1], done
    assert scene.daemon.log.matching("got: 'R'") == []


@pytest.mark.not_under("one user", reason="who owns a file may read it")
def test_what_may_not_be_read_or_made_is_3(scene: Scene) -> None:
    for folder in (scene.folder, scene.folder.parent):
        folder.chmod(0o755)
    scene.recording.chmod(0o600)
    nobody = {"preexec_fn": lambda: os.setresuid(FIRST_UID, FIRST_UID, FIRST_UID), "cwd": "/"}
    store = scene.daemon.settings_file
    told = [
        scene.ask(*words, **nobody)
        for words in (scene.words("replay"), ["record", scene.folder / "own"], ["record", "--bus", "/tmp/own"])
    ]
    store.chmod(0)
    told += [scene.ask("--settings", store, *scene.words(verb), **nobody) for verb in ("post", "try", "reload")]
    assert [(done.returncode, done.stdout) for done in told] == [(3, b"")] * 6, told


def test_ten_megabytes_of_settings_are_read_like_any(scene: Scene) -> None:
    store = scene.daemon.settings_file
    store.write_text(ini_text(SETTINGS) + f"[Video/Quickview]\nNotes={'x' * 1000}\n" * 10_000)
    assert store.stat().st_size > 10_000_000
    for verb in VERBS:
        done = scene.ask(*scene.words(verb))
        assert done.returncode == 0, (verb, done)


def test_replay_names_what_it_cannot_know(scene: Scene) -> None:
    words = scene.words("replay")
    limits = json.loads(scene.ask("--format", "json", *words).stdout)["limits"]
    assert any("How long actions took is not known" in limit for limit in limits)
    text = scene.ask(*words).stdout.decode()
    assert all(f"\n  {limit}\n" in text for limit in limits)


@pytest.mark.parametrize("verb", ["replay", "guard", "check"])
def test_it_writes_nothing_makes_nothing_and_runs_nothing(scene: Scene, verb: str) -> None:
    trace = scene.folder / "trace"
    calls = "write,execve,unlink,unlinkat,rename,renameat2,mknod,mknodat,mkdir,mkdirat,chmod,kill,connect,open,openat"
    command = ["strace", "-f", "-y", "-o", trace, "-e", f"trace={calls}", PROGRAM, *map(str, scene.words(verb))]
    subprocess.run(command, env=environment(**scene.variables), check=True, timeout=60, capture_output=True)
    lines = [line for line in trace.read_text().splitlines() if re.match(r"\d+ +\w+\(", line)]
    assert sum("execve(" in line for line in lines) == 1
    written = [
        line for line in lines if "write(" in line and not re.search(r"write\(([12]<|\d+<(pipe|anon_inode))", line)
    ]
    # The C library asks for the names of users.
    lines = [line for line in lines if "/nscd/socket" not in line]
    made = [line for line in lines if re.search(r" (unlink|rename|mk|chmod|kill|connect)|O_CREAT|O_TRUNC", line)]
    assert written == made == []


def relay_of(watcher: subprocess.Popen) -> int:
    (relay,) = map(int, Path(f"/proc/{watcher.pid}/task/{watcher.pid}/children").read_text().split())
    return relay


@pytest.fixture
def watcher() -> Iterator[subprocess.Popen]:
    with subprocess.Popen(
        [PROGRAM, "watch"], env=environment(), stdout=subprocess.DEVNULL, stderr=subprocess.PIPE
    ) as process:
        assert b"reading" in process.stderr.readline()
        relay = relay_of(process)
        yield process
        os.kill(relay, signal.SIGCONT)  # a stopped one does not hear that it shall end
        process.kill()


def test_a_reader_that_somebody_has_stopped_shows_in_the_status(scene: Scene, watcher: subprocess.Popen) -> None:
    """The one thing that watch cannot keep from the daemon: its own reader held still, and more than a pipe holds."""
    relay = relay_of(watcher)
    os.kill(relay, signal.SIGSTOP)
    text = block("Flood", text="x" * 2500)
    while not scene.daemon.log.matching("FIFO Write failed"):
        post(text)
    (pipe,) = json_answer("status")["output_pipes"]
    assert (pipe["path"], pipe["full"]) == (f"{PIPE_FOLDER.resolve()}/zz-watch.{watcher.pid}.halvek.any", True)
    assert {"pid": relay, "comm": "halvekctl-pipe"} in pipe["readers"] and pipe["capacity"] == 1 << 20
    assert re.search(r"zz-watch.*FULL.*halvekctl-pipe", answer("status"))
