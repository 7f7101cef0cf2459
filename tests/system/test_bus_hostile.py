"""Signals that are not what they should be, or not from whom they should be."""

import pytest
from daemon_on_bus import accounted_for, alarm, alert, connections, dropped, given_up, ids
from scripted_service import ALERT, ALERT_INTERFACE, ALERT_PATH, ALERT_SIGNATURE, ScriptedService
from testing.bus_client import DESTINATION, INTERFACE, MEMBER, PATH, SIGNAL
from testing.camera import LOCAL, service
from testing.settings import SERVER, handler, source
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures"]

POINT = (0.5, 0.5)
MEBIBYTE = 1 << 20
BOTH_SOURCES = source(1, "Analytics")  # the other one is always there


def nested(depth: int) -> object:
    return (nested(depth - 1),) if depth else 7


MALFORMED = {
    "": (),
    "s": ("",),
    "i": (7,),
    "sssssa(dd)a(dd)s": alert()[:-1],
    "sssssa(dd)a(dd)ssi": (*alert(), 7),
    "sssssa(di)a(dd)ss": (*alert()[:5], [(0.5, 5)], *alert()[6:]),
    "sssssa(ddd)a(dd)ss": (*alert()[:5], [(0.5, 0.5, 0.5)], *alert()[6:]),
    "sssssada(dd)ss": (*alert()[:5], [0.5], *alert()[6:]),
    "ssssia(dd)a(dd)ss": (*alert()[:4], 4, *alert()[5:]),
    "a" * 31 + "y": ([],),
    "(" * 31 + "y" + ")" * 31: (nested(31),),
}


@pytest.mark.parametrize("signature", MALFORMED)
def test_an_alert_with_other_arguments_costs_each_source_one_line(launch_on_bus, bus, output_pipe, signature):
    pipe, client = output_pipe("AnalyticsAlert.fifo"), bus.client()
    daemon = launch_on_bus(BOTH_SOURCES)
    started = len(daemon.log.items)
    client.emit(ALERT_PATH, ALERT_INTERFACE, ALERT, signature, *MALFORMED[signature])
    client.emit(ALERT_PATH, ALERT_INTERFACE, ALERT, ALERT_SIGNATURE, *alert("good"))
    pipe.wait_for_event(ALERT, count=2)
    assert [event.properties["source"] for event in pipe.items] == ["good", "good"]
    errors = daemon.log.matching(" (Warning|Error) ", after=started)
    text = f'Message {ALERT_INTERFACE}.{ALERT} has arguments "{signature}" instead of "{ALERT_SIGNATURE}"'
    assert [line.split(" ", 1)[1] for line in errors] == [f"Error kelto.msgbus: {text}"] * 2


@pytest.mark.parametrize(("signature", "value"), [("t", 1 << 63), ("at", [1, 2])])
def test_an_alert_of_a_type_that_no_message_has_costs_one_line(launch_on_bus, bus, output_pipe, signature, value):
    pipe, client = output_pipe("AnalyticsAlert.fifo"), bus.client()
    daemon = launch_on_bus(BOTH_SOURCES)
    started = len(daemon.log.items)
    client.emit(ALERT_PATH, ALERT_INTERFACE, ALERT, signature, value)
    client.emit(ALERT_PATH, ALERT_INTERFACE, ALERT, ALERT_SIGNATURE, *alert("good"))
    pipe.wait_for_event(ALERT, count=2)
    (error,) = daemon.log.matching(" (Warning|Error) ", after=started)
    assert error.endswith(" Error kelto.msgbus: Cannot read a message: there is no place for type 't'")


OTHERS = [
    ("AlarmV3.StateChanged", "sib", (LOCAL, 0, True), [("", ()), ("si", (LOCAL, 0)), ("sbb", (LOCAL, 0, True))]),
    ("MotionState.IdleChanged", "i", (0,), [("", ()), ("u", (0,)), ("s", ("0",)), ("ii", (0, 0))]),
]


@pytest.mark.parametrize(("name", "right", "arguments", "wrong"), OTHERS, ids=["alarm", "idle"])
def test_a_signal_of_a_service_with_other_arguments_costs_one_line(
    launch_on_bus, bus, output_pipe, name, right, arguments, wrong
):
    pipe = output_pipe("all.halvek.any")
    with ScriptedService(bus, "AlarmV3", "MotionState") as scripted:
        daemon = launch_on_bus(alarm(1, 0) | source(2, "Park", DwellTime_sec=0))
        started = len(daemon.log.items)
        for signature, values in wrong:
            scripted.emit_as(name, signature, *values)
        scripted.emit(name, *arguments)
        pipe.wait(lambda event: True, "the event of the good signal")
    assert len(pipe.items) == 1
    assert [line.split(" ", 1)[1] for line in daemon.log.matching(" (Warning|Error) ", after=started)] == [
        f'Error kelto.msgbus: Message com.kelto.{name} has arguments "{signature}" instead of "{right}"'
        for signature, _ in wrong
    ]


OVERSIZED = {
    "200,000 points": alert("big", rule_points=[POINT] * 200_000),
    "200,000 points twice": alert("big", [POINT] * 200_000, [POINT] * 200_000),
    "a text of 1 MiB": alert("x" * MEBIBYTE),
    "every text of 1 MiB": ("x" * MEBIBYTE,) * 5 + ([], []) + ("x" * MEBIBYTE,) * 2,
    "a rule name of nothing but escapes": (*alert()[:3], "%25" * (MEBIBYTE // 3), *alert()[4:]),
}


@pytest.mark.parametrize("arguments", OVERSIZED.values(), ids=OVERSIZED)
def test_an_oversized_alert_is_given_up_or_dropped_and_counted_and_what_follows_comes(
    launch_on_bus, bus, output_pipe, arguments
):
    alarms, alerts, sent = output_pipe("Alarm.fifo"), output_pipe("AnalyticsAlert.fifo"), 2
    with ScriptedService(bus, "AlarmV3") as scripted:
        daemon = launch_on_bus(BOTH_SOURCES | alarm(2, 0))
        client = bus.client()
        for _ in range(sent):
            client.emit(ALERT_PATH, ALERT_INTERFACE, ALERT, ALERT_SIGNATURE, *arguments)
        client.call_bus("GetId")  # the bus has passed them on
        scripted.emit("AlarmV3.StateChanged", LOCAL, 0, True)
        alarms.wait_for_event("Alarm")
        wait_until(lambda: accounted_for(daemon) == 2 * sent, "every alert, for both sources")
        client.emit(ALERT_PATH, ALERT_INTERFACE, ALERT, ALERT_SIGNATURE, *alert("good"))
        alerts.wait_for_event(ALERT, properties={"source": "good"}, count=2)
        assert len(alerts.items) == 2
        assert accounted_for(daemon) == 2 * (sent + 1)
        assert daemon.stop() == 0
    assert sum(given_up(daemon)) + dropped(daemon) == 2 * sent
    assert not daemon.log.matching(" Error ")


def a_name_of_its_own(client) -> None:
    """Nothing but the unique name."""


def another_name(client) -> None:
    client.own("com.kelto.Other")


def a_longer_name(client) -> None:
    client.own("com.kelto.AlarmV3.Backup")
    client.own("com.kelto.MotionState.Backup")


def the_next_in_the_queue(client) -> None:
    in_queue = 2
    for provider in ("AlarmV3", "MotionState"):
        assert client.call_bus("RequestName", "su", service(provider)[0], 0) == [in_queue]


def the_name_of_another_provider(client) -> None:
    for provider in ("PresetsV2", "Tour", "RecordingInformation"):
        client.own(service(provider)[0])


def fake(client, daemon, watcher) -> int:
    """Says everything that a liar could say, to everybody and to each of the daemon's connections."""
    listeners = [None, *connections(watcher, daemon)]
    for provider, name, signature, values in (
        ("AlarmV3", "StateChanged", "sib", (LOCAL, 0, True)),
        ("MotionState", "IdleChanged", "i", (0,)),
    ):
        _, path, interface = service(provider)
        for destination in listeners:
            for claimed_path in (path, "/"):
                fields = {PATH: claimed_path, INTERFACE: interface, MEMBER: name}
                client.send(SIGNAL, fields | ({DESTINATION: destination} if destination else {}), signature, *values)
    client.call_bus("GetId")  # the bus has passed them on
    return len(listeners) - 1


LIARS = [a_name_of_its_own, another_name, a_longer_name, the_next_in_the_queue, the_name_of_another_provider]


@pytest.mark.parametrize("claim", LIARS, ids=lambda claim: claim.__name__)
def test_nobody_but_the_owner_of_the_name_can_raise_an_alarm_or_park_the_head(launch_on_bus, bus, output_pipe, claim):
    pipe = output_pipe("all.halvek.any")
    with ScriptedService(bus, "AlarmV3", "MotionState") as owner:
        liar = bus.client()
        claim(liar)
        relay = handler(1, *ids(1), handler_type="Relay", BankName=LOCAL)
        daemon = launch_on_bus(SERVER | alarm(1, 0) | source(2, "Park", DwellTime_sec=0) | relay)
        assert fake(liar, daemon, bus.client()) >= 2  # the one that listens, and one that has called
        owner.emit("AlarmV3.StateChanged", LOCAL, 0, False)
        owner.emit("MotionState.IdleChanged", 1)
        pipe.wait_for_event("Alarm")
        daemon.log.wait_for("ParkEventSource::HandleIdleStateChange 1$", count=2)  # the one at the start, and this
    assert [event.properties["alarmState"] for event in pipe.items] == ["0"]
    assert len(daemon.log.matching("Received state change for alarm")) == 1
    assert not daemon.log.matching("HandleIdleStateChange 0")


def test_while_a_name_has_no_owner_nobody_can_speak_for_it(launch_on_bus, bus, output_pipe):
    pipe = output_pipe("all.halvek.any")
    daemon = launch_on_bus(SERVER | alarm(1, 0) | source(2, "Park", DwellTime_sec=0))
    fake(bus.client(), daemon, bus.client())
    with ScriptedService(bus, "AlarmV3", "MotionState") as owner:
        owner.emit("AlarmV3.StateChanged", LOCAL, 0, False)
        pipe.wait_for_event("Alarm")
        owner.emit("MotionState.IdleChanged", 5)
        daemon.log.wait_for("HandleIdleStateChange 5$")
    assert len(pipe.items) == 1
    assert not daemon.log.matching("HandleIdleStateChange 0|for alarm Local:0 -> 1")


def test_who_has_lost_the_name_can_no_longer_speak_for_it(launch_on_bus, bus, output_pipe):
    pipe = output_pipe("all.halvek.any")
    daemon, former = launch_on_bus(SERVER | alarm(1, 0)), bus.client()
    former.own(service("AlarmV3")[0])
    former.call_bus("ReleaseName", "s", service("AlarmV3")[0])
    fake(former, daemon, bus.client())
    with ScriptedService(bus, "AlarmV3") as owner:
        fake(former, daemon, bus.client())
        owner.emit("AlarmV3.StateChanged", LOCAL, 0, False)
        pipe.wait_for_event("Alarm")
    assert [event.properties["alarmState"] for event in pipe.items] == ["0"]


def test_what_the_owner_says_to_the_daemon_alone_or_from_elsewhere_does_not_count(launch_on_bus, bus, output_pipe):
    pipe, client = output_pipe("all.halvek.any"), bus.client()
    daemon = launch_on_bus(SERVER | alarm(1, 0))
    client.own(service("AlarmV3")[0])
    _, path, interface = service("AlarmV3")
    fields = {PATH: path, INTERFACE: interface, MEMBER: "StateChanged"}
    for other in ({PATH: "/elsewhere"}, {INTERFACE: "com.kelto.AlarmV4"}, {MEMBER: "StateChange"}):
        client.send(SIGNAL, fields | other, "sib", LOCAL, 0, True)
    for destination in connections(client, daemon):
        client.send(SIGNAL, fields | {DESTINATION: destination}, "sib", LOCAL, 0, True)
    client.send(SIGNAL, fields, "sib", LOCAL, 0, False)
    pipe.wait_for_event("Alarm")
    assert [event.properties["alarmState"] for event in pipe.items] == ["0"]
    assert len(daemon.log.matching("Received state change for alarm")) == 1
