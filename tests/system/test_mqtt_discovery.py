"""What home automation is told of the camera, and the topics of ONVIF."""

import json
import os

import jsonschema
import pytest
from testing.bridge import BASE, ID, configuration, feed, mqtt
from testing.broker import publish, retained
from testing.pipes import block
from testing.settings import SERVER, Settings, ini_text, source
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is built without, and tried by hand there")
pytest_plugins = ["mqtt_fixtures"]

TOPIC = f"homeassistant/device/{ID}/config"
ALARM = {"alarmBank": "Local", "alarmIndex": 2}
CAMERA: Settings = SERVER | source(1, "Timer") | source(2, "Alarm", BankName="Local", Index=2) | source(3, "Doorbell")

# The keys that Home Assistant documents for a device, its origin and the platforms that are used here.
TEXT = {"type": "string", "minLength": 1}
DEVICE = {
    "type": "object",
    "properties": {"ids": {"type": "array", "items": TEXT, "minItems": 1}, "name": TEXT, "mdl": TEXT, "sw": TEXT},
    "required": ["ids", "name"],
    "additionalProperties": False,
}
ORIGIN = {
    "type": "object",
    "properties": {"name": TEXT, "sw": TEXT, "url": TEXT},
    "required": ["name"],
    "additionalProperties": False,
}


def component(platform: str, required: tuple[str, ...] = (), **keys: dict) -> dict:
    shared = {"p": {"const": platform}, "uniq_id": TEXT, "name": TEXT, "stat_t": {"type": "string", "maxLength": 512}}
    optional = {"val_tpl": TEXT, "ent_cat": {"const": "diagnostic"}}
    return {
        "type": "object",
        "properties": shared | optional | keys,
        "required": ["p", "uniq_id", "name", "stat_t", *required],
        "additionalProperties": False,
    }


IMAGE = {
    "type": "object",
    "properties": {
        "p": {"const": "image"},
        "uniq_id": TEXT,
        "name": TEXT,
        "img_t": {"const": f"{BASE}/snapshot"},
        "cont_type": {"const": "image/jpeg"},
    },
    "required": ["p", "uniq_id", "name", "img_t"],
    "additionalProperties": False,
}

SCHEMA = {
    "type": "object",
    "properties": {
        "dev": DEVICE,
        "o": ORIGIN,
        "avty_t": TEXT,
        "qos": {"enum": [0, 1, 2]},
        "cmps": {
            "type": "object",
            "minProperties": 1,
            "additionalProperties": {
                "oneOf": [
                    component("event", ("evt_typ", "val_tpl"), evt_typ={"type": "array", "items": TEXT, "minItems": 1}),
                    component("binary_sensor", pl_on={"const": "ON"}, pl_off={"const": "OFF"}),
                    component(
                        "sensor",
                        ("val_tpl",),
                        stat_cla={"const": "total_increasing"},
                        dev_cla={"const": "timestamp"},
                    ),
                    IMAGE,
                ]
            },
        },
    },
    "required": ["dev", "o", "cmps", "avty_t"],
    "additionalProperties": False,
}


@pytest.fixture
def camera_settings(tmp_path):
    path = tmp_path / "camera.ini"
    path.write_text(ini_text(CAMERA))
    return path


@pytest.fixture
def start_described(broker, subscriber, start_bridge, camera_settings):
    """Bridges of a camera whose settings can be read."""

    def start(**keys):
        options = {"environment": {"KELTO_SETTINGS": str(camera_settings)}}
        return start_bridge(options=options, **{"Discovery": "homeassistant"} | keys)

    return start


def described(subscriber) -> dict:
    return json.loads(subscriber.of_topic(TOPIC)[-1].payload)


def test_the_description_has_home_assistants_keys_and_no_others(start_described, subscriber):
    start_described(Snapshot="on")
    message = subscriber.wait_for_message(TOPIC)
    assert message.qos == 1 and json.loads(retained(TOPIC)) == message.json()
    jsonschema.validate(message.json(), SCHEMA)
    assert {"event_Timer", "event_Alarm", "event_Doorbell", "alarm_Local_2", "snapshot"} < message.json()["cmps"].keys()
    assert message.json()["avty_t"] == f"{BASE}/status"


def test_what_is_printed_is_what_is_published(start_described, subscriber, tmp_path, camera_settings):
    start_described()
    published = subscriber.wait_for_message(TOPIC).payload
    path = tmp_path / "mqtt.conf"
    path.write_text(configuration(Discovery="homeassistant"))
    printed = mqtt("print-discovery", path, env=os.environ | {"KELTO_SETTINGS": str(camera_settings)})
    assert (printed.returncode, printed.stdout) == (0, f"{published}\n")


def test_hostile_names_break_neither_topic_nor_json(start_described, subscriber):
    start_described()
    subscriber.wait_for_message(TOPIC)
    names = ["a/b", "#", "+", "$SYS", 'x"y\\', "{{ 1 }}", "\x01\x7f", "\u00fc", "%41"]
    feed("".join(block(name) for name in names).encode() + b"[\xff]\n.\n")
    wait_until(lambda: len(described(subscriber)["cmps"]) >= len(names) + 9, "all of them are described")
    jsonschema.validate(described(subscriber), SCHEMA)
    types = [part["evt_typ"] for part in described(subscriber)["cmps"].values() if part["p"] == "event"]
    assert all([name] in types for name in names)


def test_a_type_that_is_new_is_described_when_it_comes(start_described, subscriber):
    start_described()
    subscriber.wait_for_message(TOPIC)
    feed(block("Window") + block("Alarm", alarmBank="Local", alarmIndex=7, alarmState=1))
    wait_until(lambda: "event_Window" in described(subscriber)["cmps"], "the type is described")
    assert "alarm_Local_7" in described(subscriber)["cmps"]


def test_what_is_gone_from_the_settings_is_removed_and_then_not_named(start_described, subscriber, camera_settings):
    bridge = start_described()
    subscriber.wait_for_message(TOPIC)
    assert bridge.stop() == 0
    camera_settings.write_text(ini_text(SERVER | source(1, "Timer")))
    seen = len(subscriber.of_topic(TOPIC))
    start_described()
    wait_until(lambda: len(subscriber.of_topic(TOPIC)) == seen + 2, "two more descriptions")
    removing, last = (message.json()["cmps"] for message in subscriber.of_topic(TOPIC)[seen:])
    assert removing["event_Doorbell"] == {"p": "event"} and removing["alarm_Local_2"] == {"p": "binary_sensor"}
    assert "event_Doorbell" not in last and "alarm_Local_2" not in last and "event_Timer" in last


def test_switched_off_the_description_goes(start_described, subscriber):
    bridge = start_described()
    subscriber.wait_for_message(TOPIC)
    bridge.config.write_text(configuration())
    bridge.process.send_signal(1)
    wait_until(lambda: retained(TOPIC) is None, "the broker has forgotten it")


def test_home_automation_that_starts_gets_everything_again(start_described, subscriber):
    start_described()
    feed(block("Alarm", **ALARM, alarmState=1))
    subscriber.wait_for_message(f"{BASE}/alarm/Local/2", "ON")
    subscriber.wait_for_message(TOPIC)
    seen = len(subscriber.items)
    publish("homeassistant/status", "online")
    for topic in (f"{BASE}/status", f"{BASE}/info", f"{BASE}/alarm/Local/2", TOPIC):
        subscriber.wait_for_message(topic, after=seen)


def test_without_it_nothing_is_described(broker, subscriber, start_bridge):
    start_bridge().wait_until_connected()
    subscriber.wait_for_message(f"{BASE}/stats")
    assert [message for message in subscriber.items if message.topic.startswith("homeassistant")] == []


def test_onvifs_topics_come_beside_the_others(broker, subscriber, start_bridge):
    start_bridge(Onvif="onvif/cam1").wait_until_connected()
    feed(block("Alarm", **ALARM, alarmState=1) + block("Doorbell", eventId="Doorbell", button="front"))
    topic = "onvif/cam1/onvif-ej/Device/Trigger/DigitalInput/&Local-2"
    alarm = subscriber.wait_for_message(topic).json()
    assert alarm.keys() == {"UtcTime", "Source", "Data"}
    assert (alarm["Source"], alarm["Data"]) == ({"InputToken": "Local-2"}, {"LogicalState": True})
    assert json.loads(retained(topic)) == alarm
    posted = subscriber.wait_for_message("onvif/cam1/onvif-ej/halvek:Posted/Doorbell").json()
    assert posted["Data"]["button"] == "front"
    assert len(subscriber.events()) == 2
