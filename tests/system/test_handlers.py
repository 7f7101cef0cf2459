"""Which handlers the settings attach to which source, seen by how often an event is passed on.

The always-on handler passes every event on once; each handler of the settings adds one copy.
"""

import pytest
from testing.pipes import block, post
from testing.settings import SERVER, handler, source, timer

DOOR: dict = {"Events/Source#1": {"Type": "Door"}}
LAST = block("Last")


@pytest.fixture
def copies(launch, output_pipe):
    """Starts a daemon with the settings, posts the block and counts how often it comes out."""

    def count(settings, text: str, event_type: str = "Door") -> int:
        pipe = output_pipe()
        count.daemon = launch(SERVER | settings)
        post(text + LAST)
        pipe.wait_for_event("Last")
        return len(pipe.of_type(event_type))

    return count


def test_a_handler_of_a_type_without_a_source_gets_the_servers_events_of_that_type(copies):
    settings = DOOR | handler(1, "Events/Source#1")
    assert copies(settings, block("Door") + block("Window")) == 2
    log = copies.daemon.log
    assert log.matching("Warning halvek: \tUnknown EventSource: Door$")
    assert log.matching("Debug halvek: The source type being added to the EventServer: Door$")
    assert log.matching(r"Debug halvek: Source created: EventSource\{server\}$")


def test_other_types_do_not_reach_it(copies):
    assert copies(DOOR | handler(1, "Events/Source#1"), block("Window"), "Window") == 1


def test_the_region_of_a_motion_chooses_the_handler(copies):
    settings = {"Events/Source#1": {"Type": "2"}} | {"Events/Source#2": {"Type": "MotionDetection"}}
    settings |= handler(1, "Events/Source#1") | handler(2, "Events/Source#1") | handler(3, "Events/Source#2")
    assert copies(settings, block("MotionDetection", region=2), "MotionDetection") == 3


def test_a_motion_without_a_region_reaches_the_handler_of_all_motion(copies):
    settings = {"Events/Source#1": {"Type": "2"}} | {"Events/Source#2": {"Type": "MotionDetection"}}
    settings |= handler(1, "Events/Source#1") | handler(2, "Events/Source#1") | handler(3, "Events/Source#2")
    assert copies(settings, block("MotionDetection"), "MotionDetection") == 2


ALARM: dict = {"Events/Source#1": {"Type": "Alarm"}}


def test_a_posted_alarm_triggers_no_handler_of_an_alarm_source_that_is_there(copies):
    settings = ALARM | {"Events/Source#1/Alarm": {"BankName": "Local"}} | handler(1, "Events/Source#1")
    assert copies(settings, block("Alarm", alarmBank="Local"), "Alarm") == 1


def test_a_posted_alarm_triggers_a_handler_whose_alarm_source_failed_to_load(copies):
    """It has to ask for a bank here, and there is no bus."""
    assert copies(ALARM | handler(1, "Events/Source#1"), block("Alarm", alarmBank="Local"), "Alarm") == 2
    assert copies.daemon.log.matching("Error LoadSources: ")


def test_what_was_posted_has_an_id_whatever_it_claims_to_be_and_an_own_event_has_none(launch, output_pipe):
    pipe = output_pipe()
    launch(SERVER | timer(1, 3600))
    own = pipe.wait_for_event("Timer")
    post(block("Timer", eventId=""))
    posted = pipe.wait_for_event("Timer", count=2)
    assert "eventId" not in own.properties
    assert posted.properties["eventId"] == "Timer"


def test_a_source_that_is_named_twice_counts_twice(copies):
    assert copies(DOOR | handler(1, "Events/Source#1", "Events/Source#1"), block("Door")) == 3


def test_two_handlers_of_one_type_both_get_the_event(copies):
    assert copies(DOOR | handler(1, "Events/Source#1") | handler(2, "Events/Source#1"), block("Door")) == 3


def test_the_retired_system_source_is_served_by_the_server_without_a_warning(copies):
    settings = {"Events/Source#1": {"Type": "System"}} | handler(1, "Events/Source#1")
    assert copies(settings, block("System"), "System") == 2
    assert not copies.daemon.log.matching("Unknown EventSource: System")


def test_the_server_can_be_named_itself(copies):
    assert copies(handler(1, "Applications/halvek/Server"), block("Door")) == 2


def test_a_handler_of_the_timer_passes_its_ticks_on_once_more(launch, output_pipe):
    pipe = output_pipe()
    daemon = launch(timer(1, 3600) | handler(1, "Events/Source#1"))
    daemon.log.wait_for("next tick: ")
    pipe.wait_for_event("Timer", count=2)
    assert len(pipe.items) == 2


FILTERS = {
    "nothing": ({}, True),
    "every day": ({"EnabledDays": "UMTWRFS"}, True),
    "days in lower case": ({"EnabledDays": "umtwrfs"}, False),
    "all day long": ({"EnabledTimes": "0-2400"}, True),
    "over midnight": ({"EnabledTimes": "2200-600"}, False),
    "two ranges": ({"EnabledTimes": "0-0,0-2400"}, True),
    "an illegal range": ({"EnabledTimes": "abc"}, True),
    "a range without its end": ({"EnabledTimes": "0"}, True),
    "a comma at the end": ({"EnabledTimes": "0-0,"}, True),
    "no day at any time": ({"EnabledDays": "-", "EnabledTimes": "0-2400"}, False),
}


@pytest.mark.parametrize("keys, passes", FILTERS.values(), ids=FILTERS.keys())
def test_a_handler_is_filtered_by(copies, keys, passes):
    assert copies(DOOR | handler(1, "Events/Source#1", **keys), block("Door")) == 1 + passes
    illegal = copies.daemon.log.matching("Warning halvek: FilterChain: Illegal time range setting, not filtering$")
    assert len(illegal) == (keys.get("EnabledTimes") in ("abc", "0", "0-0,"))


@pytest.mark.parametrize("general, own, passes", [("-", "UMTWRFS", True), ("UMTWRFS", "-", False)])
def test_the_group_of_the_type_wins_over_the_general_one(copies, general, own, passes):
    settings = handler(1, "Events/Source#1", EnabledDays=general) | {"Events/Handler#1/Extern": {"EnabledDays": own}}
    assert copies(DOOR | settings, block("Door")) == 1 + passes


WITHOUT_EFFECT = {
    "no sources": ({"Events/Handler#1": {"Type": "Extern"}}, "Debug halvek: Handler Extern has no sources$"),
    "no type": ({"Events/Handler#1/SourceIds": {"1": "Events/Source#1"}}, "Warning halvek: Error LoadHandlers: ."),
    "an unknown type": (
        handler(1, "Events/Source#1", handler_type="Fax"),
        "Error halvek: CreateHandlerByName failed for Fax$",
    ),
    "an unknown source": (handler(1, "Events/Source#7", "Events/Source#1"), "Error LoadHandlers: .*Events/Source#7"),
    "a source without a type": ({"Events/Source#2/Timer": {}}, "Warning halvek: \tError LoadSources: ."),
}


@pytest.mark.parametrize("settings, message", WITHOUT_EFFECT.values(), ids=WITHOUT_EFFECT.keys())
def test_a_fault_costs_only_its_own_group(copies, settings, message):
    assert copies(DOOR | settings | handler(2, "Events/Source#1"), block("Door")) == 2
    assert len(copies.daemon.log.matching(message)) == 1


def test_an_unknown_source_leaves_the_attachments_before_it(copies):
    assert copies(DOOR | handler(1, "Events/Source#1", "Events/Source#7"), block("Door")) == 2


def test_without_a_server_a_handler_keeps_its_other_sources(launch, output_pipe):
    pipe = output_pipe()
    daemon = launch(DOOR | timer(2, 3600) | handler(1, "Events/Source#1", "Events/Source#2"))
    pipe.wait_for_event("Timer", count=2)
    (warning,) = daemon.log.matching("Warning halvek: Error LoadHandlers: ")
    assert "Events/Source#1" in warning and "Applications/halvek/Server" in warning


def test_groups_are_taken_in_the_order_of_their_text(launch):
    daemon = launch(timer(2, 3600) | timer(10, 3601) | source(1, "Door"))
    found = [line.rsplit(" ", 1)[1] for line in daemon.log.matching("Information halvek: \tFound source ")]
    assert found == ["Events/Source#1", "Events/Source#10", "Events/Source#2"]


def test_each_configuration_makes_the_message_bus_source_once(launch):
    daemon = launch(SERVER)
    daemon.reload()
    assert len(daemon.log.matching("Debug halvek: \tCreating EventSource: MsgBus$")) == 2
    assert len(daemon.log.matching("Information MsgBusEventSource: MsgBusEventSource started$")) == 2
