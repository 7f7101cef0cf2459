"""The service of the rules beside a real daemon: what it hears, posts and drops, and that it never harms the daemon."""

import contextlib
import os
import re
import signal
import socket
import stat
import subprocess
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from testing.pipes import DEFAULT_INPUT, PIPE_FOLDER, block, post
from testing.rules import PIPE, RulesService, rule, rules
from testing.settings import SERVER
from testing.waiting import PATIENCE, wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="its time is that of the release build")

ECHO = rule("echo", "When=A", "Post=P", "Set.x=${x}")


@pytest.fixture
def serve(tmp_path: Path) -> Iterator[Callable[..., RulesService]]:
    """Starts services; one that still runs at the end must stop in good order and leave no pipe."""
    services: list[RulesService] = []

    def start(text: str, *arguments: str, **options) -> RulesService:
        services.append(RulesService(tmp_path / f"rules{len(services)}", text, *arguments, **options))
        return services[-1]

    yield start
    try:
        for service in services:
            if service.process.poll() is None:
                assert service.stop() == 0
                assert not PIPE.exists()
    finally:
        for service in services:
            service.close()


@pytest.fixture
def daemon(launch):
    return launch(SERVER, level="Warning")


@pytest.fixture
def hears(output_pipe):
    """A listener that heard of everything in the end; it comes behind the rules' pipe in no order that matters."""
    return output_pipe("test.halvek.any")


def test_an_event_leads_to_another(daemon, hears, serve):
    serve(ECHO)
    post(block("A", x="1 = 2"))
    event = hears.wait_for_event("P")
    assert event.properties.items() >= {"x": "1 = 2", "rule": "echo", "ruleChain": "echo", "eventId": "P"}.items()


ROWS = {
    "hold-off": (["HoldOff.sec=2"], ["A", "A", 2.3, "A"], [None, "1"]),
    "count": (["Count=2", "Within.sec=2"], ["A", 2.3, "A", "A"], [None]),
    "then": (["Then=B", "Within.sec=2"], ["A", 2.3, "B", "A", "B"], [None]),
    "unless": (["Unless=B", "After.sec=2"], ["A", "B", 2.3, "A", 2.3], [None]),
}


@pytest.mark.parametrize("lines, steps, suppressed", ROWS.values(), ids=ROWS)
def test_a_row_of_the_language_in_real_time(daemon, hears, serve, lines, steps, suppressed):
    service = serve(rule("r", "When=A", *lines, "Post=P") + rule("end", "When=End", "Post=Ended"))
    for step in steps:
        if isinstance(step, float):
            service.wait_until_read()
            time.sleep(step)  # the time that the rule is about
        else:
            post(block(step))
    post(block("End"))
    hears.wait_for_event("Ended")
    assert [event.properties.get("suppressed") for event in hears.of_type("P")] == suppressed


def test_two_rules_that_feed_each_other_come_to_an_end(daemon, hears, serve):
    service = serve(rule("a", "When=Ping", "Post=Pong") + rule("b", "When=Pong", "Post=Ping"))
    post(block("Ping"))
    hears.wait_for_event("Ping", properties={"ruleChain": "a,b"})
    post(block("End"))
    hears.wait_for_event("End")
    service.wait_until_read()
    assert [event.type for event in hears.items] == ["Ping", "Pong", "Ping", "End"]


def test_its_pipe_is_for_its_group_and_gone_with_it(serve):
    service = serve(ECHO)
    assert stat.S_ISFIFO(PIPE.stat().st_mode) and stat.S_IMODE(PIPE.stat().st_mode) == 0o660
    assert service.stop() == 0
    assert list(PIPE_FOLDER.iterdir()) == []


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_it_stops_when_it_is_told_to(serve, number):
    service = serve(ECHO)
    assert service.stop(number) == 0
    assert not PIPE.exists()


def test_an_event_whose_writer_had_the_pipe_open_at_the_end_still_leads_to_another(daemon, hears, serve):
    service = serve(ECHO)
    writer = os.open(PIPE, os.O_RDWR | os.O_NONBLOCK)
    service.process.terminate()
    wait_until(lambda: not PIPE.exists(), "the pipe is gone")
    os.write(writer, block("A", x="last").encode())
    os.close(writer)
    assert service.process.wait(PATIENCE) == 0
    hears.wait_for_event("P", properties={"x": "last"})


def test_wrong_rules_at_the_start_are_status_78_with_their_places(serve):
    service = serve("[Rule r]\nWhen=A\n", ready=False)
    assert service.process.wait(PATIENCE) == 78
    service.log.wait_for(re.escape(f"{service.file}:1:1: error: ") + r".* \[HK8008\]")
    assert not PIPE.exists() and "READY=1" not in service.notifications.items


def test_no_rules_at_the_start_are_status_78(tmp_path):
    done = rules("--rules", tmp_path / "missing")
    assert done.returncode == 78 and b"missing" in done.stderr


def test_a_hang_up_has_it_read_its_rules_anew(daemon, hears, serve):
    service = serve(ECHO)
    service.reload(rule("other", "When=B", "Post=Q"), "the rules are read anew")
    post(block("A"))
    post(block("B"))
    hears.wait_for_event("Q")
    assert hears.of_type("P") == []


def test_wrong_rules_at_a_hang_up_leave_the_old_ones_and_are_told(daemon, hears, serve):
    service = serve(ECHO)
    service.reload("[Rule r]\n", "the rules stay as they were")
    assert service.log.matching(r"rules\.conf:1:1: error: .*\[HK8007\]")
    wait_until(lambda: "rules.conf:1:1" in service.status(), "the status says so")
    post(block("A"))
    hears.wait_for_event("P")
    service.reload(ECHO, "the rules are read anew")
    wait_until(lambda: "wrong" not in service.status(), "the status says so no more")


def test_rules_that_stay_as_they_were_go_on_holding_off(daemon, hears, serve):
    held = rule("held", "When=A", "HoldOff.sec=1000", "Post=P")
    service = serve(held)
    post(block("A"))
    hears.wait_for_event("P")
    service.reload(held + rule("more", "When=A", "Post=Q"), "the rules are read anew: 2")
    post(block("A"))
    hears.wait_for_event("Q")
    assert len(hears.of_type("P")) == 1


def test_the_status_says_what_has_become_of_the_events(serve):
    service = serve(ECHO)
    assert service.status().startswith("1 rules: 0 events, 0 posted")


def test_without_a_daemon_posts_are_dropped_with_one_record_an_episode(daemon, hears, serve):
    service = serve(ECHO)
    daemon.stop()
    for _ in range(3):
        for number in range(100):
            with open(PIPE, "w") as pipe:
                pipe.write(block("A", x=number))
    service.log.wait_for("events are dropped: nobody reads ")
    service.wait_until_read()
    # It hears a signal when it has done with what it has read.
    service.reload(ECHO, "the rules are read anew")
    with open(DEFAULT_INPUT, "r+b", buffering=0) as reader:
        os.set_blocking(reader.fileno(), False)
        with open(PIPE, "w") as pipe:
            pipe.write(block("A", x="after"))
        service.log.wait_for("events are posted again, 300 were dropped")
        assert b"x=after" in reader.read(4096)
    assert len(service.log.matching("events are dropped")) == 1


def test_a_full_event_pipe_holds_nothing_up(serve):
    os.mkfifo(DEFAULT_INPUT)
    with open(DEFAULT_INPUT, "r+b", buffering=0) as reader:
        os.set_blocking(reader.fileno(), False)
        service = serve(rule("echo", "When=A", "Post=P", "Set.x=${x}"))
        for _ in range(40):
            with open(PIPE, "w") as pipe:
                pipe.write(block("A", x="v" * 3000))
        service.log.wait_for("events are dropped: .* is full")
        service.wait_until_read()
        reader.read(1 << 20)
        with open(PIPE, "w") as pipe:
            pipe.write(block("A"))
        service.log.wait_for("events are posted again")


def test_a_post_that_is_too_large_is_refused_with_one_record(daemon, hears, serve):
    service = serve(ECHO + rule("end", "When=End", "Post=Ended"))
    for _ in range(5):
        post(block("A", x="v" * 5000))
    post(block("End"))
    hears.wait_for_event("Ended")
    assert len(service.log.matching("the rule echo could not post: .* bytes")) == 1
    assert hears.of_type("P") == []


def test_a_value_with_a_line_break_forges_no_event(serve):
    os.mkfifo(DEFAULT_INPUT)
    with open(DEFAULT_INPUT, "r+b", buffering=0) as reader:
        os.set_blocking(reader.fileno(), False)
        service = serve(ECHO)
        with open(PIPE, "w") as pipe:
            pipe.write("[A]\nx=1\n[P]\nrule=forged\n.\n[A]\nx=\xff\n.\n")
        wait_until(lambda: service.status() and PIPE.exists(), "it lives")
        service.wait_until_read()
        wait_until(lambda: reader.read(0) == b"", "it is readable")
        taken = b""

        def both() -> bool:
            nonlocal taken
            taken += reader.read(4096) or b""
            return taken.count(b"\n.\n") == 2

        wait_until(both, "both events have led to a post")
        assert b"forged" not in taken


def test_records_that_nobody_reads_hold_nothing_up(daemon, hears):
    """Of a pipe and of a socket, as the journal's is."""
    for number, (ours, theirs) in enumerate((os.pipe(), map(socket.socket.detach, socket.socketpair()))):
        service = RulesService(Path("/run/tests"), ECHO, stderr=theirs)
        os.close(theirs)
        # Once: rewritten each time it would be empty for a moment, and no rules are good rules.
        service.file.write_text("[Rule " + "r" * 3000 + "]\n")
        for _ in range(400):
            service.process.send_signal(signal.SIGHUP)
            if PIPE.exists():
                wait_until(lambda: not pending(service.pid), "the signal is taken")
        post(block("A", x=number))
        hears.wait_for_event("P", properties={"x": str(number)})
        assert service.stop() == 0
        service.close()
        os.close(ours)


def pending(pid: int) -> bool:
    text = Path(f"/proc/{pid}/status").read_text()
    return int(re.search(r"^ShdPnd:\s+(\w+)", text, re.M)[1], 16) != 0


def test_a_pipe_that_a_killed_one_left_is_replaced_and_its_events_are_left_out(serve):
    first = serve(ECHO)
    first.process.send_signal(signal.SIGSTOP)
    kept = os.open(PIPE, os.O_RDWR | os.O_NONBLOCK)  # as the daemon keeps one that it could not write to
    os.write(kept, block("A").encode())
    first.process.kill()
    first.process.wait()
    before = PIPE.stat().st_ino
    second = serve(ECHO)
    assert PIPE.stat().st_ino != before
    second.log.wait_for("1 events that were left from before are left out")
    os.close(kept)


def switches(pid: int) -> int:
    return int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", Path(f"/proc/{pid}/status").read_text(), re.M)[1])


def test_at_rest_it_does_not_wake_up(serve):
    service = serve(ECHO)
    wait_until(lambda: "State:\tS" in Path(f"/proc/{service.pid}/status").read_text(), "it waits")
    before = switches(service.pid)
    time.sleep(2)  # during which nothing shall happen
    assert switches(service.pid) == before


def own_kib(pid: int) -> int:
    """What no other process shares with it."""
    return int(re.search(r"^RssAnon:\s+(\d+) kB", Path(f"/proc/{pid}/status").read_text(), re.M)[1])


def test_it_takes_less_than_two_mebibytes_more_than_a_bare_process(daemon, hears, serve):
    many = "".join(
        rule(f"r{number}", "When=A", f"Unless=B{number}", "After.sec=1000", "Same=x", f"Post=P{number}")
        for number in range(50)
    )
    service = serve(many + rule("end", "When=End", "Post=Ended"))
    for number in range(100):
        post(block("A", x=f"value number {number}"))
    post(block("End"))
    hears.wait_for_event("Ended")
    bare = subprocess.Popen([os.environ["HALVEK_BARE_PROCESS"]], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    try:
        wait_until(lambda: own_kib(bare.pid) > 0, "the bare process is there")
        assert own_kib(service.pid) - own_kib(bare.pid) < 2048
    finally:
        bare.kill()
        bare.communicate()


KINDS = (
    [],
    ["HoldOff.sec=1"],
    ["Count=3", "Within.sec=60"],
    ["Then=B", "Within.sec=10"],
    ["Unless=B", "After.sec=60"],
)


def fifty_rules() -> str:
    lines = ("When=Alarm", "Same=alarmBank", "Set.x=${alarmIndex}")
    return "".join(
        rule(f"r{number}", *lines, *KINDS[number % len(KINDS)], f"Where.alarmIndex={number}|>100", f"Post=P{number}")
        for number in range(50)
    )


def processor_seconds(pid: int) -> float:
    fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def test_twenty_thousand_events_a_second_with_fifty_rules_leave_half_a_core_and_cost_no_memory(serve):
    """HALVEK_RULES_EVENTS says how many there are; the memory of ten million is looked at by hand."""
    os.mkfifo(DEFAULT_INPUT)
    sink = os.open(DEFAULT_INPUT, os.O_RDWR | os.O_NONBLOCK)
    service = serve(fifty_rules())
    text = "".join(
        block("Alarm", Timestamp="14:05:09", alarmBank="Local", alarmIndex=number % 60, alarmState=number % 2)
        for number in range(2000)
    ).encode()
    pipe = os.open(PIPE, os.O_WRONLY)
    sent, used_before, before = 0, 0, processor_seconds(service.pid)
    wanted = int(os.environ.get("HALVEK_RULES_EVENTS", "40000"))
    while sent < wanted:
        rest = memoryview(text)
        while rest:
            rest = rest[os.write(pipe, rest) :]
        sent += 2000
        with contextlib.suppress(BlockingIOError):
            os.read(sink, 1 << 20)
        if sent == 20000:
            used_before = own_kib(service.pid)
    service.wait_until_read()
    os.close(pipe)
    assert processor_seconds(service.pid) - before < sent / 20000 / 2
    assert own_kib(service.pid) - used_before < 128
    service.reload(fifty_rules(), "the rules are read anew")
    wait_until(lambda: f" {sent} events" in service.status(), "it has taken them all")
    os.close(sink)
