"""What the man pages have a reader type, typed."""

import contextlib
import os
import re
import subprocess
from pathlib import Path

import pytest
from manual_pages import displays, typed
from testing.collector import Lines
from testing.pipes import DEFAULT_INPUT, post
from testing.settings import SERVER
from testing.waiting import wait_until


@pytest.fixture
def shell(tmp_path):
    """Runs commands; sudo is nobody else here, and the settings are this test's own."""
    (tmp_path / "sudo").write_text('#!/bin/sh\nexec "$@"\n')
    (tmp_path / "sudo").chmod(0o755)
    running: list[subprocess.Popen] = []

    def start(command: str, program: str = "bash") -> subprocess.Popen:
        text = f'PATH="{tmp_path}:$PATH"\n' + command.replace("/etc/kelto/settings", str(tmp_path / "settings"))
        running.append(subprocess.Popen([program, "-ec", text], stdout=subprocess.PIPE, text=True))
        return running[-1]

    yield start
    for process in running:
        process.kill()
        process.wait()
        process.stdout.close()


@pytest.fixture
def follow(shell):
    """Collects what commands that go on have to say."""
    outputs: list[Lines] = []

    def start(process: subprocess.Popen) -> Lines:
        outputs.append(Lines(os.dup(process.stdout.fileno()), "shell"))
        return outputs[-1]

    yield start
    for output in outputs:
        output.close()


def finish(process: subprocess.Popen) -> str:
    output, _ = process.communicate(timeout=20)
    assert process.returncode == 0, process.args
    return output


def wait_until_open(process: subprocess.Popen, pipe: Path) -> None:
    """What is written to a pipe before anybody has it open is lost."""

    def is_open() -> bool:
        links = Path(f"/proc/{process.pid}/fd").iterdir()
        with contextlib.suppress(FileNotFoundError):  # it has closed one meanwhile
            return str(pipe.resolve()) in [os.readlink(link) for link in links]
        return False

    wait_until(is_open, f"{pipe} is open in the shell")


def test_the_first_steps_lead_where_the_page_says(shell, follow, launch, tmp_path):
    write, _, read, posting, shown, group, post_again, clean_up = displays("halvek.8", "FIRST STEPS")
    for command in typed(write):
        finish(shell(command))
    daemon = launch(None, store=tmp_path / "settings")
    assert daemon.log.matching("Unknown EventSource: Doorbell")
    *prepare, cat = typed(read)
    for command in prepare:
        finish(shell(command))
    reader = shell(f"exec {cat}")
    lines = follow(reader)
    wait_until_open(reader, Path("/var/run/halvek/first.halvek.any"))
    daemon.log.wait_for("EventServerSource started")
    for command in typed(posting):
        finish(shell(command))
    end = lines.wait_for(r"^\.$")
    stamps = r"(?<=Time=)[-\dT:+]+|(?<=stamp=)[\d:]+"
    assert [re.sub(stamps, "", line) for line in lines.items[:end]] == re.sub(stamps, "", shown).splitlines()
    assert finish(shell(typed(group)[0])).startswith("p")
    for command in typed(post_again):
        finish(shell(command))
    lines.wait_for("^button=back$", after=end)
    finish(shell(typed(clean_up)[0]))
    assert list((tmp_path / "settings").iterdir()) == []


@pytest.mark.parametrize("program", ["bash", "sh"])
def test_what_the_pages_say_posts_an_event_with_one_write(tmp_path, launch, program):
    launch(SERVER)
    posts = [displays("halvek-events.5", "POSTING")[1], typed(displays("halvek.8", "FIRST STEPS")[6])[0]]
    for post_it in posts:
        watch = ["strace", "-f", "-e", "trace=write", "-P", str(DEFAULT_INPUT), "-o", str(tmp_path / "writes")]
        subprocess.run([*watch, program, "-ec", post_it], check=True, timeout=20)
        assert len(re.findall(r"\bwrite\(", (tmp_path / "writes").read_text())) == 1


def test_scripts_post_and_read_as_the_page_says(shell, follow, launch):
    daemon = launch(SERVER)
    *_, posting, cleaning, reading = displays("halvek-events.5", "POSTING") + displays("halvek-events.5", "READING")
    reader = shell(reading, "sh")
    lines = follow(reader)
    wait_until_open(reader, Path("/var/run/halvek/door.Doorbell"))
    for program in ("bash", "sh"):
        finish(shell(posting, program))
    assert lines.wait_for("^somebody rang at the front door$", count=2) == 2
    assert daemon.log.matching(r"Received event: ") == daemon.log.matching(r"Received event: Doorbell$")
    cleaned = finish(shell(f"name=$(printf 'a\\n.\\n[Fire]')\n{cleaning}\nprintf %s \"$name\""))
    assert cleaned == "a.[Fire]"
    post("[Done]\n.\n", DEFAULT_INPUT)
    daemon.log.wait_for("Received event: Done")
