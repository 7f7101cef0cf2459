"""halvekctl check, as a program: what it finds in a corpus of mistakes, and how it tells it."""

import json
import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest
from testing.users import FIRST_UID, HAS_USERS

pytestmark = pytest.mark.not_under("emulator", reason="each of many hundred runs takes a second there")

ROOT = Path(__file__).resolve().parents[2]
CTL = os.environ["HALVEK_CTL"]
MISTAKES = sorted((ROOT / "tests/ctl/mistakes").glob("*.ini"))
LINE = re.compile(
    r"(?P<file>.+?):(?P<line>\d+):(?P<column>\d+): (?P<severity>error|warning|note): .+ \[(?P<id>HK\d{4})\]"
)


def run(*words: str | Path, **options) -> subprocess.CompletedProcess:
    options.setdefault("env", {"PATH": "/usr/bin:/bin"})
    options.setdefault("timeout", 60)
    return subprocess.run([CTL, *map(str, words)], capture_output=True, check=False, **options)


def check_json(*words: str | Path, **options) -> dict:
    return json.loads(run("--format", "json", "check", *words, **options).stdout)


def found_in(answer: dict) -> list[tuple]:
    return sorted((f["line"], f["column"], f["severity"], f["id"]) for f in answer["findings"])


def expected_of(path: Path) -> list[tuple]:
    """What the comments at the end of a file of the corpus say."""
    text = path.read_bytes().decode("latin-1")
    told = re.findall(r"^# finds (\d+):(\d+) (\w+) (HK\d+)$", text, re.M)
    assert told or "# finds nothing" in text, path.name
    return sorted((int(line), int(column), severity, finding) for line, column, severity, finding in told)


@pytest.mark.parametrize("path", MISTAKES, ids=lambda path: path.stem)
def test_a_mistake_is_found_where_it_stands(path: Path) -> None:
    assert found_in(check_json(path)) == expected_of(path)


@pytest.mark.parametrize("path", MISTAKES, ids=lambda path: path.stem)
def test_text_lists_what_json_lists(path: Path) -> None:
    lines = run("check", path).stdout.decode().splitlines()
    told = [LINE.fullmatch(line) for line in lines]
    assert all(told), lines
    assert sorted((int(m["line"]), int(m["column"]), m["severity"], m["id"]) for m in told) == expected_of(path)


# --- the catalogue

CATALOGUE = {entry["id"]: entry for entry in json.loads(run("--format", "json", "check", "--list").stdout)["entries"]}
# What no file of settings by itself can show, and which test does.
NOT_IN_A_FILE = {
    "HK1020": "a folder", "HK1021": "a folder", "HK1099": "nothing: all records are foretold",
    "HK4006": "a zone", "HK7001": "halvekctl status",
}  # fmt: skip


def test_every_id_is_found_in_a_file_of_the_corpus_or_has_a_test_of_its_own() -> None:
    shown = {finding for path in MISTAKES for *_, finding in expected_of(path)}
    elsewhere = NOT_IN_A_FILE.keys() | {finding for finding in CATALOGUE if finding.startswith("HK50")}
    assert CATALOGUE.keys() - shown - elsewhere == set()
    assert shown - CATALOGUE.keys() == set()
    assert NOT_IN_A_FILE.keys() & shown == set()


def test_every_id_can_be_explained() -> None:
    for finding, entry in CATALOGUE.items():
        answer = run("check", "--explain", finding)
        assert answer.returncode == 0
        assert entry["title"] in answer.stdout.decode()
        assert entry["explanation"] in answer.stdout.decode()
    assert run("check", "--explain", "hk4002").returncode == 0
    assert run("check", "--explain", "HK0000").returncode == 2


def test_the_list_names_every_id_in_order() -> None:
    listed = [line.split()[0] for line in run("check", "--list").stdout.decode().splitlines()]
    assert listed == sorted(CATALOGUE)


# --- statuses and answers

CLEAN = ROOT / "tests/ctl/mistakes/clean.ini"
ERROR = ROOT / "tests/ctl/mistakes/interval_zero.ini"
WARNING = ROOT / "tests/ctl/mistakes/interval_word.ini"
NOTE = ROOT / "tests/ctl/mistakes/posted_type.ini"


@pytest.mark.parametrize(
    ("path", "statuses"), [(CLEAN, (0, 0, 0, 0)), (NOTE, (0, 0, 1, 0)), (WARNING, (0, 1, 1, 0)), (ERROR, (1, 1, 1, 0))]
)
def test_the_status_goes_by_the_level(path: Path, statuses: tuple) -> None:
    levels = ("error", "warning", "note", "never")
    assert tuple(run("check", "--fail-on", level, path).returncode for level in levels) == statuses
    assert run("check", path).returncode == statuses[0]


def test_a_wrong_command_line_is_2() -> None:
    for words in (["--fail-on", "all", CLEAN], ["--nonsense"], ["--explain"]):
        answer = run("check", *words)
        assert (answer.returncode, answer.stdout) == (2, b""), words


def test_on_a_terminal_the_counts_stand_below_the_findings() -> None:
    both = subprocess.run(
        [CTL, "check", ERROR], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False, timeout=60
    )
    lines = both.stdout.decode().splitlines()
    assert "[HK2001]" in lines[-2] and lines[-1] == "halvekctl: 1 error, 0 warnings, 0 notes"


def test_each_file_is_checked_by_itself() -> None:
    answer = check_json(ERROR, WARNING)
    assert [(Path(f["file"]).name, f["id"]) for f in answer["findings"]] == [
        ("interval_zero.ini", "HK2001"), ("interval_word.ini", "HK2003")]  # fmt: skip
    assert answer["counts"] == {"error": 1, "warning": 1, "note": 0, "suppressed": 0}


def test_the_answer_has_the_fields_of_its_format() -> None:
    answer = check_json(ERROR)
    digest = subprocess.run(["sha256sum", ERROR], capture_output=True, check=True).stdout.decode().split()[0]
    assert (answer["format"], answer["verb"], answer["settings"], answer["sha256"]) == (1, "check", str(ERROR), digest)
    assert re.fullmatch(r"halvekctl \d+\.\d+\.\d+", answer["tool"])
    (finding,) = answer["findings"]
    assert finding | {"text": ""} == {
        "id": "HK2001", "severity": "error", "file": str(ERROR), "line": 8, "column": 14,
        "group": "Events/Source#1/Timer", "key": "Interval.sec", "text": "", "fix": "1", "foretells": None,
    }  # fmt: skip


@pytest.mark.parametrize(
    ("mistake", "fix"),
    [
        ("range_over_midnight", "2200-2400,0-600"), ("range_with_colons", "800-1700"), ("interval_with_unit", "60"),
        ("hours_without_minutes", "2200-2400"), ("days_by_name", "MTWRF"), ("days_in_lower_case", "MTWRF"),
        ("days_with_two_tuesdays", "MTWRF"), ("days_with_two_saturdays", "MTWRFSU"),
        ("message_is_a_word", "RG9vcmJlbGw="), ("message_without_padding", "SGVsbG8="),
        ("id_with_other_signs", "Events/Source#1"), ("range_with_semicolon", "800-1200,1300-1730"),
        ("comma_at_the_end", "800-1700"), ("range_with_blank_behind_comma", "800-1200,1300-1730"),
        ("limit_with_mb", "10M"), ("limit_with_blank", "10M"), ("limit_fraction", "1536M"), ("limit_of_4g", "4095M"),
        ("id_without_events", "Events/Source#1"), ("key_without_unit", "Interval.sec"), ("dwell_with_unit", "300"),
        ("type_of_source_in_lower_case", "Timer"), ("type_of_handler_misspelt", "Relay"),
        ("message_is_plain_text", "U29tZWJvZHkgaXMgYXQgdGhlIGRvb3I="), ("group_misspelt", "[Events/Handler#2]"),
        ("quoted_bank", "Local"),
        ("group_without_events", "[Events/Handler#2]"), ("folder_attachment_unreadable", "true"),
        ("log_level_of_no_logger", "LogLevel.halvek"),
    ],
)  # fmt: skip
def test_a_mistake_comes_with_its_mending(mistake: str, fix: str) -> None:
    findings = check_json(ROOT / f"tests/ctl/mistakes/{mistake}.ini")["findings"]
    assert fix in [finding["fix"] for finding in findings]


def test_the_examples_are_clean() -> None:
    for path in [*sorted((ROOT / "examples").glob("*.ini")), ROOT / "packaging/settings.ini"]:
        answer = run("check", "--fail-on", "note", path)
        assert (answer.returncode, answer.stdout) == (0, b""), path


def test_recipes_can_stand_side_by_side_in_one_folder(tmp_path: Path) -> None:
    """Whatever two of them say alike, and each of the passwords, is in order as it is in each of them alone."""
    for path in (ROOT / "examples").glob("*.ini"):
        if path.name != "demo.ini":
            shutil.copy(path, tmp_path)
    answer = run("check", "--fail-on", "note", tmp_path)
    assert (answer.returncode, answer.stdout) == (0, b"")


def test_of_a_folder_the_files_are_read_as_the_store_reads_them(tmp_path: Path) -> None:
    (tmp_path / "10.ini").write_text(CLEAN.read_text())
    (tmp_path / "20.ini").write_text("[Events/Source#1/Timer]\nInterval.sec=0\n")
    for ignored in ("30.INI", "40.conf", ".50.ini"):
        (tmp_path / ignored).write_text("nonsense\n")
    (tmp_path / "readme.txt").write_text("nonsense\n")
    findings = check_json(tmp_path)["findings"]
    assert [(Path(f["file"]).name, f["line"], f["id"]) for f in findings] == [
        ("10.ini", 8, "HK1020"), ("20.ini", 2, "HK2001"), (".50.ini", 1, "HK1021"), ("30.INI", 1, "HK1021"),
        ("40.conf", 1, "HK1021")]  # fmt: skip


def test_an_empty_folder_says_so(tmp_path: Path) -> None:
    assert [f["id"] for f in check_json(tmp_path)["findings"]] == ["HK1022", "HK2012"]


def test_an_opening_in_the_gap_of_the_clock_is_found_with_a_zone(tmp_path: Path) -> None:
    path = tmp_path / "gap.ini"
    path.write_text(CLEAN.read_text().replace("Type=Relay\n", "Type=Relay\nEnabledTimes=100-200,215-600\n"))
    for zone, column in (("Europe/Berlin", 22), ("Europe/Dublin", 14), ("Australia/Lord_Howe", 22)):
        (finding,) = check_json("--zone", zone, path)["findings"]
        assert (finding["id"], finding["column"]) == ("HK4006", column), zone
    for zone in ("UTC", "Asia/Tokyo"):
        assert check_json("--zone", zone, path)["findings"] == []
    assert check_json(path)["findings"] == []


def test_the_answer_is_the_same_for_everybody(tmp_path: Path) -> None:
    """Whatever zone, PATH and home the caller has, and whoever he is."""
    path = tmp_path / "gap.ini"
    path.write_text(CLEAN.read_text().replace("Type=Relay\n", "Type=Relay\nEnabledTimes=100-200,215-600\n"))
    path.chmod(0o644)
    for folder in (tmp_path, *tmp_path.parents):
        if folder.stat().st_uid == os.getuid() and folder.name:
            folder.chmod(folder.stat().st_mode | 0o055)
    answers = set()
    for variables in ({}, {"TZ": "Europe/Berlin"}, {"TZ": "Nowhere/None"}, {"PATH": "/nowhere"}, {"TZDIR": "/nowhere"}):
        environment = {"LANG": "C"} | variables
        others = [lambda: os.setresuid(FIRST_UID, FIRST_UID, FIRST_UID)] if HAS_USERS else []
        for become in (None, *others):
            done = run("--format", "json", "check", path, env=environment, preexec_fn=become)
            assert done.returncode == 0, done
            answers.add(done.stdout)
    assert len(answers) == 1


@pytest.mark.parametrize(
    ("mistake", "fix"),
    [
        ("source_ids_as_key", "[Events/Handler#1/SourceIds]\n0=Events/Source#1"),
        ("source_ids_as_key_without_events", "[Events/Handler#1/SourceIds]\n0=Events/Source#1"),
        ("key_misspelt_in_the_sources_own_group", "[Events/Source#1/Timer]\nInterval.sec"),
    ],
)
def test_the_fix_of_a_key_in_the_wrong_group_is_what_the_daemon_reads(mistake: str, fix: str) -> None:
    findings = check_json(ROOT / f"tests/ctl/mistakes/{mistake}.ini")["findings"]
    assert [finding["fix"] for finding in findings if finding["id"] == "HK1010"] == [fix]


def test_a_suppression_takes_one_finding_away(tmp_path: Path) -> None:
    path = tmp_path / "allowed.ini"
    for mark in (";", "#", "  ;"):
        allowed = f"{mark} halvekctl: allow HK2001 -- it is a test\n"
        path.write_text(ERROR.read_text().replace("Interval.sec", allowed + "Interval.sec"))
        assert check_json(path)["findings"] == []
        path.write_text(ERROR.read_text().replace("[Events/Source#1/Timer]", allowed + "[Events/Source#1/Timer]"))
        assert check_json(path)["findings"] == []
        assert check_json(path)["counts"]["suppressed"] == 1
        path.write_text(ERROR.read_text().replace("[Events/Handler#1]", allowed + "[Events/Handler#1]"))
        assert sorted(f["id"] for f in check_json(path)["findings"]) == ["HK1090", "HK2001"]


@pytest.mark.parametrize("comment", ["#halvekctl:allow HK2001 -- test", "; halvekctl: allow HK2001,HK2001 -- test"])
def test_a_suppression_is_read_as_people_write_it(comment: str, tmp_path: Path) -> None:
    path = tmp_path / "allowed.ini"
    path.write_text(ERROR.read_text().replace("Interval.sec", f"{comment}\nInterval.sec"))
    assert check_json(path)["findings"] == []


def test_an_id_that_is_not_there_tells_how_many_are_lost_behind_it() -> None:
    texts = [
        next(f["text"] for f in check_json(ROOT / f"tests/ctl/mistakes/{name}.ini")["findings"] if f["id"] == "HK3003")
        for name in ("dangling_id", "ids_behind_a_missing_one_lost")
    ]
    assert texts == [
        f"there is no group [Events/Source#7]{behind}" for behind in ("", "; the 1 named behind it are lost too")
    ]


def test_each_id_of_a_suppression_must_be_found() -> None:
    (finding,) = check_json(ROOT / "tests/ctl/mistakes/suppression_of_two_ids_one_stale.ini")["findings"]
    assert finding["id"] == "HK1090" and "HK4003" in finding["text"]


def test_above_all_groups_a_suppression_allows_what_stands_nowhere(tmp_path: Path) -> None:
    path = tmp_path / "allowed.ini"
    text = (ROOT / "tests/ctl/mistakes/no_server.ini").read_text()
    allowed = "; halvekctl: allow HK2012 -- nobody posts\n"
    path.write_text(allowed + text)
    assert (check_json(path)["findings"], check_json(path)["counts"]["suppressed"]) == ([], 1)
    path.write_text(text.replace("[Events/Handler#1]", allowed + "[Events/Handler#1]"))
    assert [f["id"] for f in check_json(path)["findings"]] == ["HK2012", "HK1090"]


def test_control_characters_and_passwords_stay_inside(tmp_path: Path) -> None:
    path = tmp_path / "e\x1b[31m\nvil.ini"
    text = (ROOT / "tests/ctl/mistakes/password_in_the_log.ini").read_text()
    path.write_bytes(
        text.encode() + b"[Events/\x1b]0;x\x07Handler#9]\n\x9bKey\x00=\xc2\x9b31m\n[a\x1b[2J\nPassword: s3cret\n"
    )
    for words in (["check", path], ["--format", "json", "check", path]):
        answer = run(*words)
        for output in (answer.stdout, answer.stderr):
            assert not re.search(rb"[\x00-\x09\x0b-\x1f\x7f]|\xc2[\x80-\x9f]", output)
            assert b"s3cret" not in output
        assert answer.returncode == 1
    lines = run("check", path).stdout.splitlines()
    assert all(LINE.fullmatch(line.decode()) for line in lines)


# --- bad inputs


def test_what_cannot_be_read_is_3_with_one_message(tmp_path: Path) -> None:
    os.mkfifo(tmp_path / "fifo")
    (tmp_path / "loop").symlink_to(tmp_path / "loop")
    (tmp_path / "folder").mkdir()
    (tmp_path / "folder/dangling.ini").symlink_to(tmp_path / "nothing")
    with (tmp_path / "large").open("wb") as large:
        large.truncate(100 * 1024 * 1024)
    for name in ("fifo", "loop", "missing", "large", "folder"):
        for words in (["check", tmp_path / name], ["--settings", tmp_path / name, "--format", "json", "check"]):
            answer = run(*words)
            assert (answer.returncode, answer.stdout) == (3, b""), name
            complaints = [line for line in answer.stderr.decode().splitlines() if "command line" not in line]
            assert len(complaints) == 1 and complaints[0].startswith("halvekctl: "), name
    assert run("check", "/dev/zero").returncode == 3


def test_random_bytes_are_malformed(tmp_path: Path) -> None:
    path = tmp_path / "binary.ini"
    path.write_bytes(bytes(range(256)) * 400)
    answer = run("check", path)
    assert answer.returncode == 1
    assert b"HK1001" in answer.stdout or b"HK1003" in answer.stdout


def test_a_closed_or_full_output_is_a_failure() -> None:
    with open("/dev/full", "wb") as full:
        answer = subprocess.run([CTL, "check", ERROR], stdout=full, stderr=subprocess.PIPE, check=False)
        assert answer.returncode == 3
    closed = subprocess.run(f"{CTL} check {ERROR} >&-", shell=True, stderr=subprocess.PIPE, check=False)
    assert closed.returncode == 3


def test_a_check_reads_and_does_nothing_else(tmp_path: Path) -> None:
    trace = tmp_path / "trace"
    calls = "trace=open,openat,creat,execve,connect,socket,mkdir,mknod,mknodat,unlink,rename,chmod,link,symlink"
    words = [
        "strace",
        "-f",
        "-qq",
        "-o",
        trace,
        "-e",
        calls,
        CTL,
        "check",
        ROOT / "tests/ctl/mistakes/alarm_without_bank.ini",
    ]
    subprocess.run([str(word) for word in words], capture_output=True, check=True, timeout=60)
    lines = trace.read_text().splitlines()
    seen = [line for line in lines if not re.search(r"\bopenat?\(", line) and "execve(" not in line]
    assert [line for line in seen if "resumed" not in line and "exited" not in line and "SIG" not in line] == []
    assert len([line for line in lines if "execve(" in line]) == 1
    opened = [line for line in lines if re.search(r"\bopenat?\(", line)]
    assert opened
    assert [line for line in opened if re.search(r"O_WRONLY|O_RDWR|O_CREAT|O_TRUNC|O_TMPFILE", line)] == []


def test_a_settings_check_is_the_same_for_every_path_and_place(tmp_path: Path) -> None:
    path = ROOT / "tests/ctl/mistakes/upload_command_too_long.ini"
    answers = {
        run("--format", "json", "check", path, env=environment, cwd=folder).stdout
        for environment in ({"PATH": "/usr/bin:/bin"}, {"PATH": "/nonexistent", "HOME": "/x", "KELTO_LOG": "Trace"})
        for folder in ("/", tmp_path)
    }
    assert len(answers) == 1


# --- size and speed


def many(count: int) -> str:
    text = "[Applications/halvek/Server]\nType=Pipe\n"
    for number in range(count):
        text += (
            f"[Events/Source#{number}]\nType=Timer\n[Events/Source#{number}/Timer]\nInterval.sec=60\n"
            f"[Events/Handler#{number}]\nType=Relay\nEnabledTimes=800-1700\nEnabledDays=MTWRF\n"
            f"[Events/Handler#{number}/SourceIds]\n0=Events/Source#{number}\n"
            f"[Events/Handler#{number}/Relay]\nBankName=Local\nIndex={number}\nPulseCount=2\n"
        )
    return text


SLOW_MACHINE = 3  # times what a check may take, for a machine that is slow and has other work too


@pytest.mark.parametrize(("handlers", "seconds"), [(7, 0.03), (1000, 0.2)])
def test_a_check_is_quick(tmp_path: Path, handlers: int, seconds: float) -> None:
    path = tmp_path / "many.ini"
    path.write_text(many(handlers))
    assert min(_processor_seconds(path) for _ in range(5)) < seconds * SLOW_MACHINE


def _processor_seconds(path: Path) -> float:
    """What it costs the processor, whatever else the machine does."""
    before = os.times()
    assert run("check", path).returncode == 0
    after = os.times()
    return after.children_user + after.children_system - before.children_user - before.children_system


def test_a_check_of_a_thousand_handlers_takes_little_memory(tmp_path: Path) -> None:
    path = tmp_path / "many.ini"
    path.write_text(many(1000))
    script = "import resource,subprocess,sys;subprocess.run(sys.argv[1:],check=True,capture_output=True);"
    script += "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)"
    measured = subprocess.run(
        ["/usr/bin/python3", "-c", script, CTL, "check", path], capture_output=True, check=True, timeout=60
    )
    assert int(measured.stdout) < 30 * 1024


# --- the manual's limits

LIMITS = ROOT / "docs/limits.md"
COVERED = ROOT / "tests/ctl/limits.txt"


def items_of_limits() -> list[str]:
    """The list items and paragraphs of the page, each by its first words."""
    text = re.sub(r"```.*?```", "", LIMITS.read_text(), flags=re.S)
    pieces = re.split(r"\n(?=- )|\n\s*\n", text)
    plain = [" ".join(piece.split()).removeprefix("- ") for piece in pieces if piece.strip()]
    return [piece for piece in plain if not piece.startswith("#")]


def test_what_the_limits_say_has_an_id_or_a_reason_why_not() -> None:
    covered = {}
    for line in COVERED.read_text().splitlines():
        if line and not line.startswith("#"):
            begin, _, what = line.partition(" => ")
            covered[begin] = what
    items = items_of_limits()
    assert len(items) > 60
    for item in items:
        matching = [begin for begin in covered if item.startswith(begin)]
        assert len(matching) == 1, item[:80]
        what = covered.pop(matching[0])
        ids = re.findall(r"HK\d{4}", what)
        assert set(ids) <= CATALOGUE.keys(), what
        assert ids or what.startswith("no: "), item[:80]
    assert covered == {}


# --- the manual


def test_the_manuals_page_of_ids_is_made_from_the_catalogue() -> None:
    made = subprocess.run([ROOT / "scripts/make-checks-page", CTL], capture_output=True, check=True, timeout=60)
    assert made.stdout.decode() == (ROOT / "docs/halvekctl-checks.7").read_text()


@pytest.mark.parametrize("verb", ["", "check", "explain", "schedule", "show"])
def test_help_fits_a_screen_and_the_manual_has_every_option(verb: str) -> None:
    answer = run(*[word for word in (verb, "--help") if word])
    assert answer.returncode == 0
    lines = answer.stdout.decode().splitlines()
    assert len(lines) <= 50 and all(len(line) <= 120 for line in lines)
    page = (ROOT / "docs/halvekctl.1").read_text().replace("\\", "")
    completion = (ROOT / "packaging/halvekctl.bash-completion").read_text()
    for option in re.findall(r"--([a-z-]+)", "\n".join(lines)):
        assert f"Fl Fl {option}" in page, option
        assert f"--{option}" in completion, option
