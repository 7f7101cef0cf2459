"""Fixtures of the tests that mail; a test file names this as its plugin."""

import functools
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from testing.daemon import Daemon
from testing.mail_sink import MailSink


@pytest.fixture
def sink() -> Iterator[MailSink]:
    with MailSink() as mail_sink:
        yield mail_sink


@pytest.fixture
def mail_environment(sink: MailSink, tmp_path: Path) -> dict[str, str]:
    """Has the mail program send everything to the sink."""
    configuration = tmp_path / ".esmtprc"
    configuration.write_text(f"hostname=127.0.0.1:{sink.port}\n")
    configuration.chmod(0o600)
    return {"HOME": str(tmp_path)}


@pytest.fixture
def launch_mailing(launch: Callable[..., Daemon], mail_environment: dict[str, str]) -> Callable[..., Daemon]:
    """As launch; mails go to the sink."""
    return functools.partial(launch, environment=mail_environment)
