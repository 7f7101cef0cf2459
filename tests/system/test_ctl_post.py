"""halvekctl post: an event whole in the daemon's pipe, or the reason why not."""

import fcntl
import os
import re
import signal
import subprocess
import threading
from pathlib import Path

import pytest
from ctl import PROGRAM, answer, ctl, environment, json_answer, write_store
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from testing.pipes import DEFAULT_INPUT, block, unstamped
from testing.settings import SERVER, server
from testing.users import FIRST_UID

pytestmark = pytest.mark.not_under("sanitizer", reason="the unit tests have the event and its pipe there")

LONGEST = 4096


@pytest.fixture
def reader():
    """The event pipe with a reader that is no daemon."""
    os.mkfifo(DEFAULT_INPUT)
    descriptor = os.open(DEFAULT_INPUT, os.O_RDWR | os.O_NONBLOCK)
    yield descriptor
    os.close(descriptor)


def taken(descriptor: int) -> bytes:
    try:
        return os.read(descriptor, 1 << 20)
    except BlockingIOError:
        return b""


def post(*words: object, status: int = 0, **options) -> subprocess.CompletedProcess:
    done = ctl("post", *words, **options)
    assert done.returncode == status, done
    assert b"\n" not in done.stdout[:-1] and not re.search(rb"[\x00-\x09\x0b-\x1f\x7f]", done.stdout + done.stderr)
    return done


def test_an_event_comes_out_of_the_daemon_as_it_was_posted(launch, output_pipe):
    pipe = output_pipe()
    launch(SERVER)
    assert post("Doorbell", "button=front", "sum=1+1=2", "note=").stdout == b""
    event = pipe.wait_for_event("Doorbell")
    assert unstamped([event]) == [("Doorbell", {"eventId": "Doorbell", "button": "front", "sum": "1+1=2", "note": ""})]


def test_the_settings_say_where_the_pipe_is_and_the_option_overrules_them(launch, output_pipe, tmp_path):
    pipe = output_pipe()
    path = tmp_path / "own.pipe"
    launch(server(path))
    post("Found")
    pipe.wait_for_event("Found")
    post("Told", "--pipe", path, "--settings", write_store(tmp_path, server(tmp_path / "nothing")))
    pipe.wait_for_event("Told")
    told = post("Lost", "--settings", tmp_path / "settings.ini", status=3)
    assert f"{tmp_path}/nothing".encode() in told.stderr.splitlines()[-1]


def test_json_says_how_many_were_posted_and_where(reader):
    told = json_answer("post", "-", input=b"[A]\n.\n[B]\nx=1\n.\n")
    assert (told["format"], told["verb"], told["posted"], told["pipe"]) == (1, "post", 2, str(DEFAULT_INPUT))
    assert taken(reader) == b"[A]\n.\n[B]\nx=1\n.\n"


WRONG_WORDS = [
    [],
    [""],
    ["A]B"],
    ["A\nB"],
    ["Door", "abc"],
    ["Door", ""],
    ["Door", "=1"],
    ["Door", "_a=1"],
    ["Door", " a=1"],
    ["Door", "ä=1"],
    ["Door", "a=1\n.\n[Fire]"],
    ["Door", "a\nb=1"],
    ["Door", "a=\n"],
    ["Door", "a=" + "x" * LONGEST],
    ["Door", "--wait=soon"],
    ["Door", "--wait=-1"],
    ["Door", "--nonsense"],
    ["-", "Door"],
    ["Door", "a=\x1b[2J\n"],
    ["Door", "\x1b[2J"],
]


@pytest.mark.parametrize("words", WRONG_WORDS, ids=repr)
def test_a_wrong_event_is_2_and_nothing_is_posted(reader, words):
    assert post(*words, status=2).stdout == b""
    assert taken(reader) == b""


@pytest.mark.parametrize(
    "text",
    [
        b"",
        b"\n",
        b"[A]\n.\n\n",
        b"[A]\n.\n[B]\n",
        b"[A]\n.\nx=1\n.\n",
        b"[A]\n_x=1\n.\n",
        b"[A]\r\n.\r\n",
        b"[A]\n.\n[B]\nx=" + b"y" * LONGEST + b"\n.\n",
        b"[A]\n.\n" * 200_000,
    ],
    ids=lambda text: repr(text[:20]),
)
def test_of_a_text_with_anything_wrong_nothing_is_posted(reader, text):
    assert post("-", input=text, status=3 if len(text) > 1 << 20 else 2).stdout == b""
    assert taken(reader) == b""


def test_a_block_of_4096_bytes_is_posted_with_one_write(reader, tmp_path):
    value = "x" * (LONGEST - len("[Door]\na=\n.\n"))
    trace = tmp_path / "trace"
    watch = ["strace", "-f", "-e", "trace=write", "-P", DEFAULT_INPUT, "-o", trace]
    command = [*watch, PROGRAM, "post", "Door", f"a={value}"]
    subprocess.run(command, env=environment(), check=True, timeout=60, stderr=subprocess.DEVNULL)
    assert len(taken(reader)) == LONGEST and len(re.findall(r"\bwrite\(", trace.read_text())) == 1


def test_without_a_pipe_without_a_reader_and_with_a_file_in_its_place_it_is_3():
    assert b"no event pipe" in post("Door", status=3).stderr
    os.mkfifo(DEFAULT_INPUT)
    assert b"nobody reads" in post("Door", status=3).stderr
    DEFAULT_INPUT.unlink()
    DEFAULT_INPUT.write_text("")
    assert b"no named pipe" in post("Door", status=3).stderr
    assert DEFAULT_INPUT.read_text() == ""


def test_a_full_pipe_is_3_and_what_is_in_it_stays(reader):
    fcntl.fcntl(reader, fcntl.F_SETPIPE_SZ, 4096)
    os.write(reader, b"x" * 4096)
    assert b"is full" in post("Door", status=3).stderr
    assert taken(reader) == b"x" * 4096


def test_a_text_that_fits_in_part_is_3_and_says_how_many_were_posted(reader):
    fcntl.fcntl(reader, fcntl.F_SETPIPE_SZ, 4096)
    large = block("Door", a="x" * 3000).encode()
    assert b"is full" in (done := post("-", input=large * 2, status=3)).stderr and b"1 of 2 were posted" in done.stderr
    assert taken(reader) == large


@pytest.mark.not_under("one user", reason="there is nobody else")
def test_without_the_right_to_write_it_is_3(reader, tmp_path):
    DEFAULT_INPUT.chmod(0o620)

    def become_nobody() -> None:
        os.setgroups([])
        os.setresgid(FIRST_UID, FIRST_UID, FIRST_UID)
        os.setresuid(FIRST_UID, FIRST_UID, FIRST_UID)

    assert b"no permission" in post("Door", status=3, preexec_fn=become_nobody, cwd="/").stderr
    assert taken(reader) == b""


@pytest.mark.not_under("one user", reason="there is nobody else")
def test_whoever_may_post_need_not_be_allowed_to_read_settings_or_the_pipe(launch, output_pipe, tmp_path):
    pipe = output_pipe()
    os.mkfifo(DEFAULT_INPUT)
    os.chown(DEFAULT_INPUT, 0, FIRST_UID)
    DEFAULT_INPUT.chmod(0o620)
    launch(SERVER)

    def become_member() -> None:
        os.setgroups([FIRST_UID])
        os.setresuid(FIRST_UID + 1, FIRST_UID + 1, FIRST_UID + 1)

    post("Door", preexec_fn=become_member, cwd="/")
    pipe.wait_for_event("Door")


def test_settings_of_the_command_line_must_be_readable(reader, tmp_path):
    assert post("Door", "--settings", tmp_path / "nothing", status=3).stdout == b""
    assert taken(reader) == b""


@pytest.mark.parametrize("words", [["--wait"], ["--wait", "20"], ["--wait=20"]], ids=str)
def test_with_wait_it_waits_for_a_reader(words):
    timer = threading.Timer(0.3, lambda: os.mkfifo(DEFAULT_INPUT) or opened.append(os.open(DEFAULT_INPUT, os.O_RDWR)))
    opened: list[int] = []
    timer.start()
    post(*words, "Door")
    timer.join()
    assert taken(opened[0]) == b"[Door]\n.\n"
    os.close(opened[0])


def test_with_wait_it_waits_for_room_and_not_for_ever(reader):
    fcntl.fcntl(reader, fcntl.F_SETPIPE_SZ, 4096)
    os.write(reader, b"x" * 4096)
    assert b"is full" in post("Door", "--wait", "1", status=3).stderr
    timer = threading.Timer(0.3, lambda: taken(reader))
    timer.start()
    post("Door", "--wait")
    timer.join()
    assert taken(reader) == b"[Door]\n.\n"


def test_nothing_is_posted_where_the_answer_cannot_be_given(reader):
    assert ctl("post", "Door", stdout=None, preexec_fn=lambda: os.close(1)).returncode == 3
    assert taken(reader) == b""


def test_an_interrupt_ends_the_waiting():
    process = subprocess.Popen([PROGRAM, "post", "Door", "--wait"], env=environment(), stderr=subprocess.PIPE)
    assert process.stderr.readline().startswith(b"halvekctl: settings")
    process.send_signal(signal.SIGINT)
    assert process.wait(20) == -signal.SIGINT
    process.stderr.close()


KEYS = st.text(st.characters(blacklist_characters="=\n\0", blacklist_categories=["Cs"]), max_size=5)
VALUES = st.text(st.characters(blacklist_characters="\n\0", blacklist_categories=["Cs"]), max_size=20)
TYPES = st.text(st.characters(blacklist_characters="]\n\0-", blacklist_categories=["Cs"]), min_size=1, max_size=10)


@settings(max_examples=50, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])
@given(TYPES, st.lists(st.tuples(st.sampled_from("aZ09"), KEYS, VALUES), max_size=4))
def test_whatever_is_taken_is_in_the_pipe_byte_for_byte(reader, event_type, properties):
    words = {first + rest: value for first, rest, value in properties}
    post("--", event_type, *(f"{key}={value}" for key, value in words.items()))
    assert taken(reader).decode() == block(event_type, **words)


def test_the_folder_of_the_settings_and_of_the_pipe_are_left_as_they_are(reader, tmp_path):
    store = write_store(tmp_path, SERVER)
    before = sorted(Path("/run").iterdir())
    answer("--settings", store, "post", "Door")
    assert sorted(Path("/run").iterdir()) == before and list(tmp_path.iterdir()) == [store]
