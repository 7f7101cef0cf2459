"""Mails of the year 2040. Left out of sanitizer builds, into which no other clock can be put."""

import re
import subprocess
from datetime import datetime, timezone
from email.utils import parsedate_to_datetime

from harness import block, post
from mailing import DOOR, encoded, mail_handler

pytest_plugins = ["mail_fixtures"]


def other_clock(start: str) -> dict[str, str]:
    """What faketime sets for its child. It stays between, and would keep the daemon's signals to itself."""
    command = ["faketime", "-f", start, "env"]
    lines = subprocess.run(command, check=True, capture_output=True, text=True).stdout.splitlines()
    return dict(line.split("=", 1) for line in lines if line.startswith(("LD_PRELOAD=", "FAKETIME=")))


def test_date_and_text_are_right_in_2040(launch, sink, mail_environment):
    environment = mail_environment | other_clock("@2040-01-01 00:00:00") | {"TZ": "UTC"}
    launch(DOOR | mail_handler(Message=encoded("%Y-%m-%d %H")), environment=environment)
    post(block("Door"))
    (mail,) = sink.wait_for(1)
    passed = parsedate_to_datetime(mail.message["Date"]) - datetime(2040, 1, 1, tzinfo=timezone.utc)
    assert 0 <= passed.total_seconds() < 600
    assert re.match("2040-01-01 00", mail.message.get_content())
