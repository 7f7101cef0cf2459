"""Fixtures of the boot test. One machine serves all tests; each leaves the service running."""

from collections.abc import Iterator

import pytest
from cookbook import Cookbook
from halvekctl import CLEAN, NAME, PACKAGE
from machine import CAMERA_UNIT, SERVER, UNIT, Consumer, camera_call, configure, is_active, run
from testing.ftp_server import FtpServer
from testing.mail_sink import MailSink


def pytest_report_teststatus(report: pytest.TestReport) -> tuple[str, str, str] | None:
    if report.failed:
        return "failed", "F", "FAIL"
    return ("passed", ".", "PASS") if report.when == "call" else None


@pytest.fixture
def service() -> Iterator[None]:
    """The service with nothing but its event pipe."""
    if not is_active():
        run("systemctl", "start", UNIT)
    configure(SERVER)
    yield


@pytest.fixture(scope="module")
def halvekctl() -> Iterator[None]:
    """Its package, for all tests of a file."""
    run("dpkg", "--install", PACKAGE)
    yield
    run("dpkg", "--purge", NAME)


@pytest.fixture
def running(service: None) -> None:
    """The service with settings that have no error, and a timer that can be heard."""
    configure(CLEAN)


@pytest.fixture
def camera(service: None) -> Iterator[None]:
    """The virtual camera, which has been told nothing yet."""
    run("systemctl", "start", CAMERA_UNIT)
    camera_call("ClearActions")
    yield


@pytest.fixture
def cookbook(camera: None, tmp_path) -> Iterator[Cookbook]:
    book = Cookbook(tmp_path)
    yield book
    book.close()


@pytest.fixture
def consumer(service: None) -> Iterator[Consumer]:
    pipe = Consumer()
    yield pipe
    pipe.close()


@pytest.fixture
def ftp(tmp_path) -> Iterator[FtpServer]:
    with FtpServer(tmp_path) as server:
        yield server


@pytest.fixture
def sink() -> Iterator[MailSink]:
    with MailSink(port=25) as mail_sink:
        yield mail_sink
