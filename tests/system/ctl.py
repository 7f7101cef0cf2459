"""halvekctl as the system tests call it."""

import json
import os
import subprocess
from pathlib import Path

from testing.settings import Settings, ini_text
from testing.waiting import PATIENCE

PROGRAM = os.environ.get("HALVEK_CTL", "")
# What would change an answer.
LEFT_OUT = ("KELTO_SETTINGS", "KELTO_LOG", "TZ", "TZDIR", "NO_COLOR", "JOURNAL_STREAM")


def environment(**variables: str) -> dict[str, str]:
    return {name: value for name, value in os.environ.items() if name not in LEFT_OUT} | variables


def ctl(*words: object, **options) -> subprocess.CompletedProcess:
    """Runs the program; a keyword of `variables` sets environment variables, others go to subprocess.run."""
    variables = options.pop("variables", {})
    settings = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "timeout": PATIENCE} | options
    return subprocess.run([PROGRAM, *map(str, words)], env=environment(**variables), **settings)


def answer(*words: object, status: int = 0, **options) -> str:
    done = ctl(*words, **options)
    assert done.returncode == status, (done.returncode, done.stdout, done.stderr)
    return done.stdout.decode()


def json_answer(*words: object, status: int = 0, **options) -> dict:
    return json.loads(answer("--format", "json", *words, status=status, **options))


def write_store(folder: Path, settings: Settings | str) -> Path:
    path = folder / "settings.ini"
    path.write_text(settings if isinstance(settings, str) else ini_text(settings))
    return path
