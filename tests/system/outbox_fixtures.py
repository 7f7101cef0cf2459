"""Fixtures of the tests of halvek-outbox; a test file names this as its plugin."""

import threading
from collections.abc import Iterator
from pathlib import Path

import pytest
from outbox import LyingFtpServer, Outbox, make_private
from testing.ftp_server import FtpServer


@pytest.fixture(scope="module", autouse=True)
def own_machine(tmp_path_factory: pytest.TempPathFactory) -> None:
    make_private(tmp_path_factory.mktemp("machine"))


@pytest.fixture
def outbox(tmp_path: Path) -> Iterator[Outbox]:
    made = Outbox(tmp_path)
    yield made
    made.close()


@pytest.fixture
def ftp(tmp_path: Path) -> Iterator[FtpServer]:
    folder = tmp_path / "server"
    (folder / "up").mkdir(parents=True)
    with FtpServer(folder) as server:
        yield server


@pytest.fixture
def lying(request: pytest.FixtureRequest) -> Iterator[LyingFtpServer]:
    server = LyingFtpServer(request.param)
    thread = threading.Thread(target=server.serve, daemon=True)
    thread.start()
    yield server
    server.close()
    thread.join()
