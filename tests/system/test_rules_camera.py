"""What rules are for, with the real daemon and the virtual camera: a door, a relay that follows, a hold-off."""

from pathlib import Path

import pytest
from daemon_on_bus import alarm, alert, ids
from testing.camera import LOCAL
from testing.pipes import block, post
from testing.rules import RulesService, rule
from testing.settings import SERVER, handler, source
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures"]
pytestmark = pytest.mark.not_under(
    "sanitizer", "emulator", reason="the daemon and the camera are tried there by others"
)

RECIPES = Path(__file__).resolve().parents[2] / "examples/rules"


@pytest.fixture
def serve(tmp_path: Path):
    services: list[RulesService] = []

    def start(text: str) -> RulesService:
        services.append(RulesService(tmp_path / "rules", text))
        return services[-1]

    yield start
    for service in services:
        assert service.stop() == 0
        service.close()


def posted(number: int, event_type: str) -> dict:
    return {f"Events/Source#{number}": {"Type": event_type}}


def relay(number: int, *source_ids: str, **keys: object) -> dict:
    return handler(number, *source_ids, handler_type="Relay", BankName=LOCAL, **keys)


def activations(camera) -> list[str]:
    return [action.arguments for action in camera.actions("RelayV3.Activate")]


def test_something_happens_when_the_door_opens_and_nothing_when_it_closes(launch_on_bus, camera, output_pipe, serve):
    pipe = output_pipe("test.halvek.any")
    serve((RECIPES / "door-mail.conf").read_text())
    launch_on_bus(SERVER | alarm(1, 2) | posted(2, "DoorOpened") | relay(1, *ids(2), Index=1, Mode=3))
    camera.set_alarm(LOCAL, 2, True)
    wait_until(lambda: activations(camera) == [f"{LOCAL}, 1, 3"], "the relay is told")
    camera.set_alarm(LOCAL, 2, False)
    camera.set_alarm(LOCAL, 2, True)
    pipe.wait_for_event("Alarm", properties={"alarmState": "1"}, count=2)
    post(block("End"))
    pipe.wait_for_event("End")
    (event,) = pipe.of_type("DoorOpened")
    assert event.properties["door"] == "front" and event.properties["rule"] == "door-opened"
    assert len(activations(camera)) == 1


def test_a_relay_follows_an_alarm(launch_on_bus, camera, serve):
    serve((RECIPES / "follow.conf").read_text())
    launch_on_bus(
        SERVER
        | alarm(1, 2)
        | posted(2, "LampOn")
        | posted(3, "LampOff")
        | relay(1, *ids(2), Index=1, Mode=1)
        | relay(2, *ids(3), Index=1, Mode=0)
    )
    for count in range(1, 4):
        camera.set_alarm(LOCAL, 2, True)
        camera.lines.wait_for("relay Local:1 on ", count=count)
        camera.set_alarm(LOCAL, 2, False)
        camera.lines.wait_for("relay Local:1 off ", count=count)
    assert activations(camera) == [f"{LOCAL}, 1, 1", f"{LOCAL}, 1, 0"] * 3


def test_a_detector_that_never_stops_leads_to_one_event_for_each_of_its_rules(
    launch_on_bus, camera, output_pipe, serve
):
    pipe = output_pipe("test.halvek.any")
    serve((RECIPES / "hold-off.conf").read_text())
    launch_on_bus(SERVER)
    for _ in range(20):
        camera.raise_alert(*alert("camera"))
    pipe.wait_for_event("AnalyticsAlert", count=20)
    pipe.wait_for_event("PersonSeen", properties={"where": "Gate"})
    post(block("End"))
    pipe.wait_for_event("End")
    assert len(pipe.of_type("PersonSeen")) == 1


def test_a_door_that_stays_open_is_noticed(launch_on_bus, camera, output_pipe, serve):
    pipe = output_pipe("test.halvek.any")
    serve((RECIPES / "open-for-a-minute.conf").read_text().replace("After.sec=60", "After.sec=2"))
    launch_on_bus(SERVER | alarm(1, 1) | alarm(2, 2))
    camera.set_alarm(LOCAL, 1, True)
    camera.set_alarm(LOCAL, 2, True)
    camera.set_alarm(LOCAL, 2, False)
    pipe.wait_for_event("OpenForAMinute", properties={"input": "Local:1"})
    post(block("End"))
    pipe.wait_for_event("End")
    assert len(pipe.of_type("OpenForAMinute")) == 1


def test_what_a_rule_makes_can_be_made_more_of(launch_on_bus, camera, output_pipe, serve):
    """Rules behind rules, with the daemon between them."""
    pipe = output_pipe("test.halvek.any")
    serve(
        rule("opened", "When=Alarm", "Where.alarmState=1", "Post=Opened", "Set.input=${alarmIndex}")
        + rule("twice", "When=Opened", "Count=2", "Within.sec=60", "Same=input", "Post=Twice", "Set.input=${input}")
    )
    launch_on_bus(SERVER | alarm(1, 1) | source(2, "Alarm", Index=2, BankName=LOCAL))
    for index in (1, 2, 1):
        camera.set_alarm(LOCAL, index, True)
        camera.set_alarm(LOCAL, index, False)
    event = pipe.wait_for_event("Twice")
    assert event.properties["input"] == "1" and event.properties["ruleChain"] == "opened,twice"
