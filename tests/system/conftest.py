"""Fixtures of the system tests. Each file runs in a /run of its own, see scripts/private-run."""

import os
import shutil
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from testing.daemon import Daemon
from testing.pipes import DEFAULT_INPUT, PIPE_FOLDER, OutputPipe
from testing.users import HAS_USERS


# What a build may be, as tests/system/CMakeLists.txt names it in HALVEK_BUILD: "debug" is every type but Release, and
# "emulator" stands for another processor. Two are no builds: "one user", since an ordinary user has no others to try
# anything as, and "suite", which is everything that is not run with HALVEK_TEST_BY_HAND=1.
KINDS = {"debug", "coverage", "sanitizer", "thread sanitizer", "emulator", "one user", "suite"}


def pytest_configure() -> None:
    if {path.name for path in Path("/run").iterdir()} - {"halvek", "tests"}:
        pytest.exit("/run is not private: start the tests through scripts/private-run", returncode=1)


def is_left_out(item: pytest.Item, build: set[str]) -> bool:
    marks = list(item.iter_markers("not_under"))
    for mark in marks:
        assert mark.kwargs["reason"] and mark.args and set(mark.args) <= KINDS, f"{item.nodeid}: {mark}"
    return any(build.intersection(mark.args) for mark in marks)


def pytest_collection_modifyitems(config: pytest.Config, items: list[pytest.Item]) -> None:
    """What a build leaves out is no test of it, and so is not counted as skipped either."""
    build = set(filter(None, os.environ.get("HALVEK_BUILD", "").split(",")))
    assert build <= KINDS
    build |= set() if HAS_USERS else {"one user"}
    build |= set() if os.environ.get("HALVEK_TEST_BY_HAND") else {"suite"}
    left_out = [item for item in items if is_left_out(item, build)]
    config.hook.pytest_deselected(items=left_out)
    items[:] = [item for item in items if item not in left_out]


def pytest_sessionfinish(session: pytest.Session, exitstatus: int) -> None:
    """A file of which a build leaves out everything has not failed."""
    reporter = session.config.pluginmanager.get_plugin("terminalreporter")
    if exitstatus == pytest.ExitCode.NO_TESTS_COLLECTED and reporter.stats.get("deselected"):
        session.exitstatus = pytest.ExitCode.OK


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport():
    """A test that is skipped has shown nothing, so it counts as a failure."""
    outcome = yield
    report = outcome.get_result()
    if report.skipped:
        report.outcome = "failed"


@pytest.fixture(autouse=True)
def clean_run() -> Iterator[None]:
    """Every test starts with an empty folder of output pipes and without an event pipe."""
    PIPE_FOLDER.mkdir(exist_ok=True)
    yield
    shutil.rmtree(PIPE_FOLDER, ignore_errors=True)
    DEFAULT_INPUT.unlink(missing_ok=True)


@pytest.fixture
def output_pipe(clean_run: None) -> Iterator[Callable[[str], OutputPipe]]:
    """Makes named pipes for the daemon to write to."""
    pipes: list[OutputPipe] = []

    def make(name: str = "all.halvek.any") -> OutputPipe:
        pipes.append(OutputPipe(name))
        return pipes[-1]

    yield make
    for pipe in pipes:
        pipe.close()


@pytest.fixture
def launch(tmp_path: Path, clean_run: None) -> Iterator[Callable[..., Daemon]]:
    """Starts daemons; one that is still running at the end of the test must stop in good order."""
    daemons: list[Daemon] = []

    def start(settings=None, *, ready: bool = True, **options) -> Daemon:
        folder = tmp_path / str(len(daemons))
        folder.mkdir()
        daemons.append(Daemon(folder, settings, **options))
        if ready:
            daemons[-1].wait_until_ready()
        return daemons[-1]

    yield start
    try:
        for daemon in daemons:
            if daemon.process.poll() is None:
                assert daemon.stop() == 0
                daemon.assert_orderly_end()
    finally:
        for daemon in daemons:
            daemon.close()
