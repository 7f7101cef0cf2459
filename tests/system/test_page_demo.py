"""scripts/demo --page: the page is reached from here, all else is in a network of its own, and nothing is left."""

import contextlib
import json
import os
import re
import signal
import socket
import subprocess
import urllib.request
from collections.abc import Iterator
from typing import NamedTuple

import pytest
from test_demo import ORDINARY_USER, TIME_LIMIT, no_process_is_left, nothing_left_behind
from testing.collector import Lines
from testing.daemon import PROGRAM
from testing.tree import ROOT
from testing.waiting import wait_until

pytestmark = [
    pytest.mark.not_under("sanitizer", reason="no camera runs it, and a build of it takes long"),
    pytest.mark.not_under("emulator", reason="what is tried here is never on a camera"),
]

__all__ = ["nothing_left_behind"]
DEMO = str(ROOT / "scripts/demo")


class Demo(NamedTuple):
    process: subprocess.Popen
    output: Lines

    def wait_for_address(self) -> str:
        found = self.output.items[self.output.wait_for(r"is at http://127\.0\.0\.1:\d+/", patience=TIME_LIMIT) - 1]
        return re.search("http.*", found)[0]

    def stop(self, number: signal.Signals) -> int:
        self.process.send_signal(number)
        return self.process.wait(TIME_LIMIT)


@contextlib.contextmanager
def demo(*words: str, user: list[str] = ()) -> Iterator[Demo]:
    with subprocess.Popen(
        [*user, DEMO, "--page", *words],
        env=os.environ | {"HALVEK_DAEMON": PROGRAM},
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
    ) as process:
        output = Lines(os.dup(process.stdout.fileno()), "demo")
        try:
            yield Demo(process, output)
        finally:
            process.kill()
            output.close()


def get(url: str) -> bytes:
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    with opener.open(url, timeout=TIME_LIMIT) as answer:
        return answer.read()


def press(url: str, index: int) -> None:
    token = re.search(r'name="halvek-token" content="([^"]+)"', get(url).decode())[1]
    body = json.dumps({"bank": "Local", "index": index, "active": True}).encode()
    headers = {"Content-Type": "application/json", "X-Halvek-Token": token}
    with urllib.request.urlopen(urllib.request.Request(f"{url}alarm", body, headers), timeout=TIME_LIMIT) as answer:
        assert answer.status == 204


@pytest.mark.parametrize("user", [[], ORDINARY_USER], ids=["root", "ordinary user"])
def test_the_page_of_the_demo_can_be_played_with_until_it_is_interrupted(user):
    with demo("0", user=user) as running:
        url = running.wait_for_address()
        assert b"preset 3" in get(f"{url}wiring")
        press(url, 2)

        def has_acted() -> bool:
            said = [line["text"] for line in json.loads(get(f"{url}state"))["said"]]
            return {"relay Local:0 off (contact open), pulse 3 of 3", "head comes to rest at preset 3"} <= set(said)

        wait_until(has_acted, "the relay has pulsed and the head has turned", patience=TIME_LIMIT)
        assert running.stop(signal.SIGINT) == 0
        assert "nothing of it is left behind" in running.output.items[-1]


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL])
def test_however_it_ends_nothing_is_left(number):
    with demo("0") as running:
        running.wait_for_address()
        assert running.stop(number) == (0 if number == signal.SIGTERM else -signal.SIGKILL)
        wait_until(no_process_is_left, "all processes of the demo have ended")


def test_the_port_is_the_given_one_and_one_that_is_in_use_is_told():
    with socket.create_server(("127.0.0.1", 0)) as taken:
        port = str(taken.getsockname()[1])
        words = [DEMO, "--page", port]
        environment = os.environ | {"HALVEK_DAEMON": PROGRAM}
        done = subprocess.run(words, env=environment, capture_output=True, text=True, timeout=TIME_LIMIT)
        assert done.returncode == 1 and f"port {port} cannot be had: " in done.stderr
    with demo(port) as running:
        assert running.wait_for_address().endswith(f":{port}/")
        assert running.stop(signal.SIGINT) == 0


@pytest.mark.parametrize("word", ["x", "-1", "8077x", "70000"])
def test_what_is_no_port_is_refused(word):
    environment = os.environ | {"HALVEK_DAEMON": PROGRAM}
    done = subprocess.run([DEMO, "--page", word], env=environment, capture_output=True, text=True, timeout=TIME_LIMIT)
    assert done.returncode == 1 and done.stderr.startswith("demo: ")
