"""A plugin of pytest: notes which mutants each test reaches. scripts/mutants loads it."""

import json
import os
import time
from pathlib import Path

import pytest

REACHED = Path(os.environ["HALVEK_MUTANTS_REACHED"])
RESULT = Path(os.environ["HALVEK_MUTANTS_RESULT"])

tests: dict[str, dict] = {}


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_protocol(item: pytest.Item):
    with REACHED.open("r+b") as file:  # in place: a daemon of several tests has it mapped
        file.write(bytes(REACHED.stat().st_size))
    begin = time.monotonic()
    tests[item.nodeid] = {"passed": True}
    yield
    reached = [number for number, byte in enumerate(REACHED.read_bytes()) if byte]
    tests[item.nodeid] |= {"seconds": time.monotonic() - begin, "reached": reached}


def pytest_runtest_logreport(report: pytest.TestReport) -> None:
    tests[report.nodeid]["passed"] &= report.passed


def pytest_sessionfinish() -> None:
    RESULT.write_text(json.dumps(tests))
