"""halvekctl and what it cannot read or write to: one message and the right status, never a wrong answer."""

import os
import resource
import shutil
import signal
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest
from ctl import PROGRAM, answer, ctl, environment, write_store
from testing.daemon import Daemon
from testing.settings import Settings, handler, timer
from testing.users import FIRST_UID

pytestmark = pytest.mark.not_under("emulator", reason="each of many runs takes a second there")

VERBS = [["explain", "Timer"], ["schedule"], ["show"]]
# What is malformed is a finding to it.
READERS = [*VERBS, ["check"]]
ACTORS = [["post", "Door"], ["try", "Handler#1"], ["try", "Handler#1", "--act"]]
SETTINGS: Settings = timer(1, 5) | handler(1, "Events/Source#1")
MANY = 1000
# The tests have a /run of their own.
UNIT = Path("/run/systemd/system/halvek.service")
ENVIRONMENT_FILE = Path("/run/halvek.default")
CLEAN = Path(__file__).resolve().parents[1] / "ctl/mistakes/clean.ini"


def missing(path: Path) -> None:
    pass


def fifo(path: Path) -> None:
    os.mkfifo(path)


def folder_with_fifo(path: Path) -> None:
    path.mkdir()
    os.mkfifo(path / "10.ini")


def device(path: Path) -> None:
    path.symlink_to("/dev/zero")


def loop(path: Path) -> None:
    path.symlink_to(path)


def large(path: Path) -> None:
    with path.open("wb") as file:
        file.truncate(100 << 20)


def large_folder(path: Path) -> None:
    path.mkdir()
    for number in range(4):
        large(path / f"{number}.ini")


def binary(path: Path) -> None:
    path.write_bytes(bytes(range(256)) * 16)


def malformed(path: Path) -> None:
    path.write_text("[Events/Source#1]\nnonsense\n")


@pytest.mark.parametrize("words", [*VERBS, *ACTORS], ids=" ".join)
@pytest.mark.parametrize(
    "make",
    [missing, fifo, folder_with_fifo, device, loop, large, large_folder, binary, malformed],
    ids=lambda f: f.__name__,
)
def test_settings_that_cannot_be_read_are_3_with_one_message(
    make: Callable[[Path], None], words: list[str], tmp_path: Path
) -> None:
    path = tmp_path / "store"
    make(path)
    done = ctl("--settings", path, *words)
    assert (done.returncode, done.stdout) == (3, b""), done
    first, message = done.stderr.splitlines()
    assert first.startswith(b"halvekctl: settings ") and str(path).encode() in message


@pytest.mark.parametrize(
    "make", [missing, fifo, folder_with_fifo, device, loop, large, large_folder], ids=lambda f: f.__name__
)
def test_check_has_no_findings_in_what_it_cannot_read(make: Callable[[Path], None], tmp_path: Path) -> None:
    path = tmp_path / "store"
    make(path)
    done = ctl("check", path)
    assert (done.returncode, done.stdout) == (3, b"") and str(path).encode() in done.stderr.splitlines()[1], done


@pytest.mark.not_under("one user", reason="who owns the settings may read them")
@pytest.mark.parametrize("words", READERS, ids=lambda words: words[0])
def test_settings_that_may_not_be_read_are_3(words: list[str], tmp_path: Path) -> None:
    path = write_store(tmp_path, SETTINGS)
    path.chmod(0)
    tmp_path.chmod(0o755)
    done = ctl("--settings", path, *words, preexec_fn=lambda: os.setresuid(FIRST_UID, FIRST_UID, FIRST_UID))
    assert (done.returncode, done.stdout) == (3, b"") and b"Permission denied" in done.stderr


@pytest.mark.parametrize("words", [*READERS, ["--help"], ["--version"]], ids=lambda words: words[0])
def test_an_answer_that_cannot_be_written_is_3(words: list[str], tmp_path: Path) -> None:
    path = write_store(tmp_path, SETTINGS)
    with open("/dev/full", "wb") as full:
        assert ctl("--settings", path, *words, stdout=full).returncode == 3
    assert ctl("--settings", path, *words, stdout=None, preexec_fn=lambda: os.close(1)).returncode == 3
    reader, writer = os.pipe()
    os.close(reader)
    died = ctl("--settings", path, *words, stdout=writer, restore_signals=True)
    assert died.returncode == -signal.SIGPIPE
    ignored = ctl(
        "--settings",
        path,
        *words,
        stdout=writer,
        preexec_fn=lambda: signal.signal(signal.SIGPIPE, signal.SIG_IGN),
        restore_signals=False,
    )
    os.close(writer)
    assert ignored.returncode == 3


@pytest.mark.parametrize("words", [[], ["--fail-on", "note"]], ids=["plain", "fail-on"])
def test_an_answer_without_findings_that_cannot_be_written_is_3(words: list[str]) -> None:
    words = ["check", *words, CLEAN]
    assert answer(*words) == ""
    with open("/dev/full", "wb") as full:
        told = [ctl(*words, stdout=full), ctl(*words, stdout=None, preexec_fn=lambda: os.close(1))]
    assert [done.returncode for done in told] == [3, 3]
    assert all(b"the answer cannot be written: " in done.stderr.splitlines()[-1] for done in told), told


def test_closed_descriptors_are_nobodys_files(tmp_path: Path) -> None:
    path = write_store(tmp_path, SETTINGS)

    def close_all() -> None:
        for descriptor in (0, 1, 2):
            os.close(descriptor)

    done = ctl("--settings", path, "show", stdout=None, stderr=None, preexec_fn=close_all)
    assert done.returncode == 3 and path.read_text().startswith("[Events/Source#1]")


@pytest.mark.parametrize("words", VERBS, ids=lambda words: words[0])
def test_without_zone_data_no_zone_is_taken_for_utc(words: list[str], tmp_path: Path) -> None:
    path = write_store(tmp_path, SETTINGS)
    nowhere = {"TZDIR": str(tmp_path)}
    done = ctl("--settings", path, "--zone", "Europe/Berlin", *words, variables=nowhere)
    assert (done.returncode, done.stdout) == (2, b"") and b"Europe/Berlin" in done.stderr
    done = ctl("--settings", path, *words, variables=nowhere | {"TZ": "Europe/Berlin"})
    assert (done.returncode, done.stdout) == (3, b"") and b"Europe/Berlin" in done.stderr
    assert ctl("--settings", path, "--zone", "UTC", *words, variables=nowhere).returncode == 0


def processor_seconds() -> float:
    """Of the programs that have ended: what else the machine has to do makes no difference."""
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    return used.ru_utime + used.ru_stime


@pytest.mark.not_under("sanitizer", reason="its own time would be measured")
def test_a_thousand_handlers_are_no_matter(tmp_path: Path) -> None:
    settings = timer(1, 5)
    for number in range(MANY):
        settings |= handler(number, "Events/Source#1", handler_type="Relay", EnabledTimes=f"{number}-2400")
    path = write_store(tmp_path, settings)
    for words in (["explain", "Timer"], ["show"], ["show", "--as", "svg"]):
        begin = processor_seconds()
        assert answer("--settings", path, *words).count("Handler#") >= MANY
        assert processor_seconds() - begin < 3


def test_settings_that_a_writer_never_leaves_alone_are_told(tmp_path: Path) -> None:
    path = write_store(tmp_path, SETTINGS)
    script = f"import os\nwhile True:\n  os.utime({str(path)!r})\n"
    writer = subprocess.Popen(["/usr/bin/python3", "-c", script])
    try:
        told = [ctl("--settings", path, verb) for verb in ("show", "check")]
    finally:
        writer.kill()
        writer.wait()
    assert {done.returncode for done in told} <= {0, 3}
    for done in told:
        assert (b"they change while they are read" in done.stderr) == (done.returncode == 3), done
        assert done.returncode == 0 or done.stdout == b"", done


def test_settings_that_are_replaced_while_they_are_read_are_the_old_or_the_new(tmp_path: Path) -> None:
    """Never the findings of one in the lines of the other."""
    path = write_store(tmp_path, SETTINGS)
    texts = [path.read_text(), path.read_text().replace("Type=Timer", "\n\nType=Timor")]
    new = str(tmp_path / "new")
    script = (
        f"import os\nwhile True:\n  for text in {texts!r}:\n"
        f"    open({new!r}, 'w').write(text)\n    os.rename({new!r}, {str(path)!r})\n"
    )
    writer = subprocess.Popen(["/usr/bin/python3", "-c", script])
    try:
        told = [ctl("check", path) for _ in range(5)]
    finally:
        writer.kill()
        writer.wait()
    for done in told:
        lines = [line for line in done.stdout.splitlines() if b"is not built in" in line]
        assert done.returncode in (0, 1, 3), done
        assert all(f"{path}:4:".encode() in line for line in lines), done
        assert done.returncode != 3 or b"they change while they are read" in done.stderr, done


class TestWhichSettings:
    """The first line on standard error tells."""

    def first_line(self, *words: object, **variables: str) -> str:
        return ctl(*words, variables=variables).stderr.decode().splitlines()[0]

    def test_the_command_line_comes_first(self, tmp_path: Path) -> None:
        line = self.first_line("--settings", tmp_path, "--zone", "Asia/Tokyo", "show", KELTO_SETTINGS="/nowhere")
        assert line == f"halvekctl: settings {tmp_path} (command line), zone Asia/Tokyo (command line)"

    def test_then_the_running_daemon(self, launch: Callable[..., Daemon]) -> None:
        settings = SETTINGS | {"Applications/halvek/Server": {"Type": "Pipe"}}
        daemon = launch(settings, environment={"TZ": "Asia/Tokyo"})
        line = self.first_line("show", KELTO_SETTINGS="/nowhere", TZ="UTC")
        where = f"daemon {daemon.pid}"
        assert line == f"halvekctl: settings {daemon.settings_file} ({where}), zone Asia/Tokyo ({where})"

    def test_what_a_running_daemon_was_not_given_it_does_not_have(self, launch: Callable[..., Daemon]) -> None:
        """The caller's own zone makes no difference to it."""
        settings = SETTINGS | {"Applications/halvek/Server": {"Type": "Pipe"}}
        daemon = launch(settings, environment={"TZ": ""})
        line = self.first_line("show", TZ="Asia/Tokyo")
        assert line == f"halvekctl: settings {daemon.settings_file} (daemon {daemon.pid}), zone of this machine"

    @pytest.mark.parametrize(
        ("unit", "drop_ins", "file", "expected"),
        [
            ("Environment=KELTO_SETTINGS=/a TZ=Asia/Tokyo", [], "", ("/a", "Asia/Tokyo")),
            ("Environment = 'KELTO_SETTINGS=/a b' \"TZ=Asia/Tokyo\"", [], "", ("/a b", "Asia/Tokyo")),
            ("Environment=TZ=Asia/Tokyo", ["Environment=KELTO_SETTINGS=/a TZ=UTC"], "", ("/a", "UTC")),
            ("Environment=KELTO_SETTINGS=/a", ["Environment=\nEnvironment=TZ=UTC"], "", (None, "UTC")),
            (f"EnvironmentFile=-{ENVIRONMENT_FILE}", ["Environment=TZ=UTC"], "TZ='Asia/Tokyo'", (None, "Asia/Tokyo")),
            (f"EnvironmentFile={ENVIRONMENT_FILE}", ["EnvironmentFile="], "TZ=Asia/Tokyo", (None, None)),
            (
                "Environment=TZ=UTC",
                ["Environment=TZ=Asia/Tokyo", "Environment=TZ=Asia/Kolkata"],
                "",
                (None, "Asia/Kolkata"),
            ),
        ],
    )
    def test_then_the_unit_and_its_drop_ins(self, unit, drop_ins, file, expected) -> None:
        UNIT.parent.mkdir(parents=True)
        UNIT.write_text(f"[Service]\n{unit}\n")
        UNIT.with_name(f"{UNIT.name}.d").mkdir()
        for number, text in enumerate(drop_ins):
            (UNIT.with_name(f"{UNIT.name}.d") / f"{number}.conf").write_text(f"[Service]\n{text}\n")
        ENVIRONMENT_FILE.write_text(f"# the daemon's\n{file}\n")
        try:
            line = self.first_line("show", KELTO_SETTINGS="/nowhere", TZ="Europe/Berlin")
        finally:
            shutil.rmtree(UNIT.parent)
        path, zone = (f"{value} (unit)" if value else None for value in expected)
        path, zone = path or "/nowhere (environment)", zone or "Europe/Berlin (environment)"
        assert line == f"halvekctl: settings {path}, zone {zone}"

    def test_then_the_callers_environment(self, tmp_path: Path) -> None:
        line = self.first_line("show", KELTO_SETTINGS=str(tmp_path), TZ="Asia/Tokyo")
        assert line == f"halvekctl: settings {tmp_path} (environment), zone Asia/Tokyo (environment)"

    def test_then_the_default(self) -> None:
        assert self.first_line("show").startswith("halvekctl: settings /etc/kelto/settings (default), zone ")


def test_an_interrupt_ends_it_as_ever(tmp_path: Path) -> None:
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    try:
        while True:
            os.write(writer, b"x" * 65536)
    except BlockingIOError:
        os.set_blocking(writer, True)
    path = write_store(tmp_path, SETTINGS)
    process = subprocess.Popen(
        [PROGRAM, "--settings", path, "show"], env=environment(), stdout=writer, stderr=subprocess.PIPE
    )
    assert process.stderr.readline().startswith(b"halvekctl: settings")
    process.send_signal(signal.SIGINT)
    assert process.wait(20) == -signal.SIGINT
    process.stderr.close()
    os.close(reader)
    os.close(writer)


@pytest.mark.parametrize(
    "words",
    [
        [],
        ["check"],
        ["post"],
        ["watch"],
        ["status"],
        ["reload"],
        ["try"],
        ["guard"],
        ["record"],
        ["replay"],
        *([verb[0]] for verb in VERBS),
    ],
    ids=str,
)
def test_help_fits_a_screen(words: list[str]) -> None:
    text = answer(*words, "--help")
    assert len(text.splitlines()) <= 50 and max(map(len, text.splitlines())) <= 120
    assert text.startswith("usage: halvekctl ")


@pytest.mark.parametrize(
    "words", [[], ["nonsense"], ["--settings"], ["--settings", "", "show"], ["--version=1"]], ids=str
)
def test_a_wrong_command_line_is_2(words: list[str]) -> None:
    done = ctl(*words)
    assert (done.returncode, done.stdout) == (2, b"") and done.stderr.startswith(b"halvekctl: ")


@pytest.mark.parametrize(
    ("word", "told"),
    [("cehck", "did you mean check?"), ("--setings=x", "unknown option --setings."), ("nonsense", "no verb nonsense.")],
)
def test_a_wrong_word_comes_with_what_may_have_been_meant(word: str, told: str) -> None:
    done = ctl(word, "show")
    assert done.returncode == 2 and told in done.stderr.decode(), done


def test_version_is_one_line() -> None:
    assert answer("--version").startswith("halvekctl ") and answer("--version").count("\n") == 1
