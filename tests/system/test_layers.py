"""The table of which room of the daemon and its platform includes which."""

import shutil
import subprocess
from pathlib import Path

import pytest

pytestmark = pytest.mark.not_under("sanitizer", reason="it runs no program of ours, and so is the same in every build")

ROOT = Path(__file__).resolve().parents[2]
ROOMS = ("app", "env", "event", "handler", "monitor", "platform", "source")


def check(root: Path) -> tuple[int, list[str]]:
    checked = subprocess.run([ROOT / "scripts/check-layers", root], capture_output=True, text=True, timeout=60)
    return checked.returncode, checked.stderr.splitlines()


@pytest.fixture
def tree(tmp_path):
    for room in ROOMS:
        shutil.copytree(ROOT / room, tmp_path / room)
    return tmp_path


def test_the_tree_is_as_the_table_says():
    assert check(ROOT) == (0, [])


@pytest.mark.parametrize(
    ("file", "included", "complaint"),
    [
        ("event/Event.h", '"monitor/EventMonitor.h"', "event must not include monitor"),
        ("env/HalvekEnv.cpp", '"source/EventSource.h"', "env must not include source"),
        ("handler/EventHandler.h", '"source/EventSource.h"', "handler must not include source"),
        ("source/EventSource.cpp", "<systemd/sd-bus.h>", "source must not include systemd"),
        ("platform/kelto/osa/Thread.cpp", '"kelto/msgbus/MsgBus.h"', "kelto/osa must not include kelto/msgbus"),
        ("platform/kelto/osa/Exception.cpp", '"kelto/core/Logger.h"', "kelto/exception must not include kelto/core"),
        ("app/Application.cpp", '"tests/fakes/FakeClock.h"', "app must not include tests"),
    ],
)
def test_an_include_that_the_table_does_not_allow_is_found(tree, file, included, complaint):
    wrong = tree / file
    wrong.write_text(f"#include {included}\n{wrong.read_text()}")
    assert check(tree) == (1, [f"{file}:1: {complaint}"])


def test_an_entry_of_the_table_that_nothing_uses_is_found(tree):
    (tree / "handler/SnapshotSaving.cpp").unlink()
    (tree / "handler/VassaApiException.h").unlink()
    assert check(tree) == (1, ["the table: handler includes nothing of vassa"])


def test_a_folder_that_links_anything_else_than_it_includes_is_found(tree):
    rules = tree / "event/CMakeLists.txt"
    rules.write_text(rules.read_text().replace("kelto::osa", "kelto::osa\n  kelto::msgbus"))
    assert check(tree) == (1, ["event/CMakeLists.txt: halvek_event should link kelto::core kelto::osa"])


def test_a_tree_without_includes_bears_the_table_out_in_nothing(tmp_path):
    assert "the table: app includes nothing of monitor" in check(tmp_path)[1]
