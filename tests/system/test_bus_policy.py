"""The bus policies of the daemon and of the virtual camera: who owns the camera's names and calls them."""

import xml.etree.ElementTree as ElementTree
from collections.abc import Callable

import pytest
from policy_bus import ANALYTICS, CARELESS, DAEMON, DEAF, NAMES, OPERATOR, OWNER, POLICIES, SOMEBODY, USUAL
from scripted_service import ALERT_INTERFACE, ALERT_PATH, ALERT_SIGNATURE
from testing.bus_client import (
    BUS,
    BUS_PATH,
    DESTINATION,
    INTERFACE,
    MEMBER,
    METHOD_CALL,
    PATH,
    SIGNAL,
    BusClient,
    BusError,
)
from testing.camera import ALERT, CAMERA, PROVIDERS, service
from testing.waiting import wait_until

pytest_plugins = ["policy_fixtures"]
pytestmark = pytest.mark.not_under("sanitizer", reason="it runs no program of ours, and so is the same in every build")

DENIED = "org.freedesktop.DBus.Error.AccessDenied"

needs_users = pytest.mark.not_under("one user", reason="the roles are one user's there")
either_bus = pytest.mark.parametrize("defaults", [USUAL, CARELESS], ids=["usual bus", "careless bus"])


def is_call(message) -> bool:
    return message.kind == METHOD_CALL


def call(caller: BusClient, camera: BusClient, name: str, interface: str = "") -> list:
    """Calls a service, whose owner answers with its name; raises BusError if the bus refuses."""
    destination, path, own_interface = service(name)
    before = len(camera.items)
    serial = caller.begin_call(destination, path, interface or own_interface, "Anything")
    wait_until(lambda: caller.is_answered(serial) or any(map(is_call, camera.items[before:])), "a call or its refusal")
    if not caller.is_answered(serial):
        camera.answer(next(filter(is_call, camera.items[before:])), "s", name)
    return caller.finish_call(serial)


def refusal(action: Callable[..., object], *arguments: object) -> str:
    """The error's name; an empty text if there is none."""
    try:
        action(*arguments)
    except BusError as error:
        return error.name
    return ""


def test_the_policies_name_every_service_of_the_camera_and_no_other_but_the_bus():
    for policy, names, others in (("halvek", PROVIDERS, {BUS}), ("kelto-vcam", NAMES, set())):
        rules = [rule for rule in ElementTree.parse(POLICIES[policy]).iter() if rule.tag in ("allow", "deny")]
        mentioned = {rule.get("own") or rule.get("send_destination") or rule.get("receive_sender") for rule in rules}
        assert mentioned - {None} == {service(name)[0] for name in names} | others


@either_bus
def test_the_bus_takes_the_policies_without_a_word(start_bus, defaults):
    bus = start_bus(OWNER, defaults=defaults)
    bus.client(OWNER)
    complaints = [line for line in bus.complaints.items if "fd limit" not in line]
    assert complaints == []


@either_bus
def test_the_user_of_the_virtual_camera_owns_its_names(start_bus, defaults):
    bus = start_bus(OWNER, defaults=defaults)
    camera = bus.camera()
    assert {camera.owner(service(name)[0]) for name in NAMES} == {camera.unique_name}


@either_bus
@pytest.mark.parametrize("role", [DAEMON, OPERATOR, SOMEBODY])
def test_nobody_else_owns_them(start_bus, defaults, role):
    client = start_bus(role, defaults=defaults).client(role)
    refused = {name: refusal(client.own, service(name)[0]) for name in NAMES}
    assert refused == dict.fromkeys(NAMES, DENIED)


@either_bus
def test_without_the_virtual_camera_its_user_owns_none_of_the_services(start_bus, defaults):
    client = start_bus(OWNER, defaults=defaults, policies=("halvek",)).client(OWNER)
    refused = {name: refusal(client.own, service(name)[0]) for name in PROVIDERS}
    assert refused == dict.fromkeys(PROVIDERS, DENIED)


# Who is the daemon is called by nobody.
@needs_users
@either_bus
def test_the_daemon_calls_the_services(start_bus, defaults):
    bus = start_bus(DAEMON, OWNER, defaults=defaults)
    camera, daemon = bus.camera(), bus.client(DAEMON)
    assert [call(daemon, camera, name) for name in PROVIDERS] == [[name] for name in PROVIDERS]


@needs_users
def test_the_daemon_calls_services_that_each_have_a_connection(start_bus):
    bus = start_bus(DAEMON, OWNER)
    daemon, cameras = bus.client(DAEMON), {name: bus.camera(name) for name in PROVIDERS}
    assert [call(daemon, camera, name) for name, camera in cameras.items()] == [[name] for name in PROVIDERS]


@either_bus
def test_the_daemon_does_not_drive_the_virtual_camera(start_bus, defaults):
    bus = start_bus(DAEMON, OWNER, defaults=defaults)
    camera, daemon = bus.camera(), bus.client(DAEMON)
    assert refusal(call, daemon, camera, CAMERA) == DENIED
    assert refusal(call, daemon, camera, "AlarmV3", service(CAMERA)[2]) == DENIED
    assert not any(map(is_call, camera.items))


@either_bus
def test_root_calls_all_of_them(start_bus, defaults):
    bus = start_bus(OPERATOR, OWNER, defaults=defaults)
    camera, operator = bus.camera(), bus.client(OPERATOR)
    assert [call(operator, camera, name) for name in NAMES] == [[name] for name in NAMES]


@either_bus
def test_nobody_else_calls_any_of_them(start_bus, defaults):
    bus = start_bus(SOMEBODY, OWNER, defaults=defaults)
    camera, somebody = bus.camera(), bus.client(SOMEBODY)
    assert {name: refusal(call, somebody, camera, name) for name in NAMES} == dict.fromkeys(NAMES, DENIED)
    assert not any(map(is_call, camera.items))


any_bus = pytest.mark.parametrize("defaults", [USUAL, CARELESS, DEAF], ids=["usual bus", "careless bus", "deaf bus"])


@any_bus
def test_the_daemon_hears_the_signals_of_every_service(start_bus, defaults):
    bus = start_bus(DAEMON, OWNER, defaults=defaults)
    daemon, cameras = bus.client(DAEMON), {name: bus.camera(name) for name in PROVIDERS}
    daemon.listen("type='signal'")
    for name, camera in cameras.items():
        camera.emit(*service(name)[1:], "Changed", "s", name)
    for name, camera in cameras.items():
        assert daemon.wait_for_signal(service(name)[2], "Changed", name).sender == camera.unique_name


def raise_alert(sender: BusClient, **fields: str) -> None:
    """Returns when the bus has passed it on or refused it. A field "destination" sends it to one connection only."""
    names = {PATH: ALERT_PATH, INTERFACE: ALERT_INTERFACE, MEMBER: "AnalyticsAlert"}
    if "destination" in fields:
        names[DESTINATION] = fields["destination"]
    sender.send(SIGNAL, names, ALERT_SIGNATURE, *ALERT)
    sender.call_bus("GetId")


def alerts_heard(start_bus, defaults: str, role: str, addressed: bool) -> list:
    """What the daemon hears of an alert by a role, before it hears something that it always does."""
    bus = start_bus(DAEMON, OWNER, role, defaults=defaults)
    daemon, sender, camera = bus.client(DAEMON), bus.client(role), bus.camera()
    daemon.listen("type='signal'")
    raise_alert(sender, **({"destination": daemon.unique_name} if addressed else {}))
    camera.emit(*service("AlarmV3")[1:], "Changed", "s", "the end")
    daemon.wait_for_signal(service("AlarmV3")[2], "Changed", "the end")
    return [message.sender == sender.unique_name for message in daemon.signals(ALERT_INTERFACE, "AnalyticsAlert")]


either_way = pytest.mark.parametrize("addressed", [False, True], ids=["broadcast", "addressed"])


@either_way
@any_bus
@pytest.mark.parametrize("role", [OPERATOR, OWNER, ANALYTICS])
def test_the_daemon_hears_alerts_from_root_the_group_and_the_virtual_camera(start_bus, defaults, role, addressed):
    assert alerts_heard(start_bus, defaults, role, addressed) == [True]


@needs_users
@either_way
@any_bus
def test_the_daemon_hears_no_alerts_from_anybody_else(start_bus, defaults, addressed):
    assert alerts_heard(start_bus, defaults, SOMEBODY, addressed) == []


@needs_users
@either_bus
def test_nobody_elses_alerts_reach_any_other_program_either(start_bus, defaults):
    bus = start_bus(OPERATOR, ANALYTICS, SOMEBODY, defaults=defaults)
    listener = bus.client(OPERATOR)
    listener.listen("type='signal'")
    for role in (SOMEBODY, ANALYTICS):
        raise_alert(bus.client(role))
    sender = bus.client(ANALYTICS)
    raise_alert(sender)
    listener.wait(lambda message: message.sender == sender.unique_name, "the alert of the group")
    assert len(listener.signals(ALERT_INTERFACE, "AnalyticsAlert")) == 2


def test_a_call_that_names_no_interface_is_not_taken_for_an_alert(start_bus):
    caller = start_bus(SOMEBODY, defaults=CARELESS).client(SOMEBODY)
    serial = caller.send(METHOD_CALL, {PATH: BUS_PATH, MEMBER: "GetId", DESTINATION: BUS})
    assert len(caller.finish_call(serial)) == 1


@needs_users
@any_bus
def test_nothing_that_the_daemon_has_not_asked_for_is_sent_to_it(start_bus, defaults):
    bus = start_bus(DAEMON, OWNER, SOMEBODY, defaults=defaults)
    daemon, somebody, camera = bus.client(DAEMON), bus.client(SOMEBODY), bus.camera()
    before = len(daemon.items)
    for kind in (SIGNAL, METHOD_CALL):
        fields = {PATH: "/x", INTERFACE: "com.example.Flood", MEMBER: "Flood", DESTINATION: daemon.unique_name}
        somebody.send(kind, fields)
    somebody.call_bus("GetId")
    daemon.listen("type='signal'")
    camera.emit(*service("AlarmV3")[1:], "Changed", "s", "the end")
    daemon.wait_for_signal(service("AlarmV3")[2], "Changed", "the end")
    assert [message.member for message in daemon.items[before:] if message.interface == "com.example.Flood"] == []
