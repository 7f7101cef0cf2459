"""halvek-mqtt with a real broker: what it publishes, and how it begins and ends."""

import json
import os
import re
import signal
import subprocess
from pathlib import Path

import pytest
from testing.bridge import BASE, ID, PIPE, configuration, feed, mqtt, status
from testing.broker import PORT, Subscriber, publish, retained
from testing.pipes import block, post
from testing.settings import SERVER
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is built without, and tried by hand there")
pytest_plugins = ["mqtt_fixtures"]

ALARM = {"alarmBank": "Local", "alarmIndex": 2}


@pytest.fixture
def bridge(broker, subscriber, start_bridge):
    started = start_bridge()
    started.wait_until_connected()
    return started


def counters() -> dict:
    return status()["counters"]


def test_an_event_of_the_daemon_is_published_with_its_properties(bridge, subscriber, launch):
    launch(SERVER)
    post(block("Doorbell", button="front"))
    message = subscriber.wait_for_message(f"{BASE}/event/Doorbell")
    event = message.json()
    assert (message.is_retained, message.qos) == (False, 1)
    assert event["v"] == 1 and event["type"] == "Doorbell"
    assert re.fullmatch(r"[0-9a-f]{8}-\d+", event["id"])
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", event["time"])
    assert event["clock"] in ("synced", "unsynced")
    assert (event["replayed"], event["lossy"]) == (False, False) and event["queued_ms"] < 5000
    properties = event["props"]
    assert properties.pop("Timestamp") and properties.pop("FormattedTime")
    assert properties == {"button": "front", "eventType": "Doorbell", "eventId": "Doorbell"}


def test_ids_rise_and_begin_with_the_boot(bridge, subscriber):
    for number in range(20):
        feed(block("Door", number=number))
    subscriber.wait_for_message(f"{BASE}/event/Door", count=20)
    boot = Path("/proc/sys/kernel/random/boot_id").read_text().replace("-", "")[:8]
    events = subscriber.events()
    assert [event["props"]["number"] for event in events] == [str(number) for number in range(20)]
    numbers = [int(event["id"].removeprefix(f"{boot}-")) for event in events]
    assert numbers == list(range(numbers[0], numbers[0] + 20))


def test_a_topic_has_the_type_with_escapes_and_the_payload_has_it_as_it_is(bridge, subscriber):
    feed('[Front door/+#]\nkey=a\x01"\\b\n.\n'.encode())
    event = subscriber.wait_for_message(f"{BASE}/event/Front%20door%2F%2B%23").json()
    assert event["type"] == "Front door/+#" and event["props"] == {"key": 'a\x01"\\b'}


def test_bytes_that_are_no_text_are_replaced_and_said_to_be(bridge, subscriber):
    feed(b"[Door]\nkey=a\xff\xc0\x80b\nkey2=\xe2\x82\xac\n.\n")
    event = subscriber.wait_for_message(f"{BASE}/event/Door").json()
    assert event["lossy"] is True
    assert re.fullmatch("a\ufffd+b", event["props"]["key"]) and event["props"]["key2"] == "\u20ac"


def test_a_type_that_is_too_long_is_counted_and_nothing_else_is_lost(bridge, subscriber):
    feed(f"[{'x' * 600}]\n.\n" + block("Door"))
    subscriber.wait_for_message(f"{BASE}/event/Door")
    wait_until(lambda: counters()["dropped_topic"] == 1, "the event is counted")
    assert counters()["received"] == 2 and counters()["sent"] == 1
    assert bridge.log.matching("lost") == []


def test_it_says_who_it_is_and_that_it_is_there(bridge, subscriber):
    assert subscriber.wait_for_message(f"{BASE}/status").payload == "online"
    info = subscriber.wait_for_message(f"{BASE}/info").json()
    assert info.keys() == {"v", "bridge", "boot", "since", "host"} and info["v"] == 1
    assert info["boot"] == Path("/proc/sys/kernel/random/boot_id").read_text().strip().replace("-", "")
    assert (retained(f"{BASE}/status"), json.loads(retained(f"{BASE}/info"))) == ("online", info)


def test_the_state_of_an_alarm_is_kept_by_the_broker(bridge, subscriber):
    feed(block("Alarm", **ALARM, alarmState=1))
    subscriber.wait_for_message(f"{BASE}/alarm/Local/2", "ON")
    assert retained(f"{BASE}/alarm/Local/2") == "ON"
    feed(block("Alarm", **ALARM, alarmState=0))
    subscriber.wait_for_message(f"{BASE}/alarm/Local/2", "OFF")
    assert retained(f"{BASE}/alarm/Local/2") == "OFF"
    assert len(subscriber.events()) == 2


def test_what_an_earlier_run_left_of_the_alarms_is_cleared(broker, start_bridge):
    publish(f"{BASE}/alarm/Local/2", "ON", "-r")
    publish(f"{BASE}/alarm/Other/7", "OFF", "-r")
    publish("halvek/cam2/alarm/Local/2", "ON", "-r")
    start_bridge()
    wait_until(lambda: retained(f"{BASE}/alarm/Local/2") is None, "the state is cleared")
    wait_until(lambda: retained(f"{BASE}/alarm/Other/7") is None, "the other state is cleared")
    assert retained("halvek/cam2/alarm/Local/2") == "ON"


def test_alarms_of_the_settings_are_cleared_too(broker, subscriber, start_bridge, tmp_path):
    settings = tmp_path / "camera.ini"
    settings.write_text("[Events/Source#1]\nType=Alarm\n[Events/Source#1/Alarm]\nBankName=Local\nIndex=5\n")
    start_bridge(options={"environment": {"KELTO_SETTINGS": str(settings)}})
    assert subscriber.wait_for_message(f"{BASE}/alarm/Local/5").payload == ""


def test_only_the_types_that_are_wanted_are_published(broker, subscriber, start_bridge):
    start_bridge(Types="Door,Gate").wait_until_connected()
    feed(block("Window") + block("Gate"))
    subscriber.wait_for_message(f"{BASE}/event/Gate")
    assert [event["type"] for event in subscriber.events()] == ["Gate"]


def test_the_counters_are_kept_by_the_broker(bridge, subscriber):
    kept = subscriber.wait_for_message(f"{BASE}/stats")
    assert kept.qos == 0 and kept.json().keys() >= {
        *("received", "sent", "dropped_full", "dropped_old", "stale", "refused_posts"),
    }
    assert json.loads(retained(f"{BASE}/stats")) == kept.json()
    feed(block("Door"))
    subscriber.wait_for_message(f"{BASE}/event/Door")
    assert len(subscriber.of_topic(f"{BASE}/stats")) == 1, "twice within a minute"


def test_an_orderly_end_says_so_and_takes_the_pipe_along(bridge, subscriber):
    feed(block("Last"))
    assert bridge.stop() == 0
    subscriber.wait_for_message(f"{BASE}/event/Last")
    assert subscriber.wait_for_message(f"{BASE}/status", "offline").payload == "offline"
    assert retained(f"{BASE}/status") == "offline"
    assert not PIPE.exists()


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT], ids=lambda number: number.name)
def test_it_ends_at_once_without_a_broker(start_bridge, number):
    bridge = start_bridge()
    assert bridge.stop(number) == 0
    assert not PIPE.exists()


def test_an_event_whose_writer_had_the_pipe_open_at_the_end_is_published(bridge, subscriber):
    writer = os.open(PIPE, os.O_RDWR | os.O_NONBLOCK)
    bridge.process.terminate()
    wait_until(lambda: not PIPE.exists(), "the pipe is gone")
    os.write(writer, block("Last").encode())
    os.close(writer)
    assert bridge.wait_for_exit() == 0
    subscriber.wait_for_message(f"{BASE}/event/Last")


def test_an_end_says_how_many_events_it_could_not_publish(start_bridge):
    bridge = start_bridge()
    feed(block("Door") * 3)
    assert bridge.stop() == 0
    assert len(bridge.log.matching("could publish all events: 3 are lost")) == 1


def test_the_broker_says_that_it_is_gone_when_it_is_killed(bridge, subscriber):
    bridge.process.kill()
    bridge.wait_for_exit()
    subscriber.wait_for_message(f"{BASE}/status", "offline")


def test_what_a_killed_one_left_in_the_pipe_is_stale_but_for_a_torn_end(broker, subscriber, start_bridge):
    first = start_bridge()
    first.wait_until_connected()
    first.process.send_signal(signal.SIGSTOP)
    feed(block("Alarm", **ALARM, alarmState=1) + block("Door", number=1) + "[Door]\nnumber=2\n")
    # Whoever has the pipe open keeps what is in it.
    keeper = PIPE.open("r+b", buffering=0)
    first.process.kill()
    first.wait_for_exit()
    second = start_bridge()
    keeper.close()
    second.wait_until_connected()
    feed(block("Door", number=3))
    subscriber.wait_for_message(f"{BASE}/event/Door", count=2)
    assert [event.get("stale", False) for event in subscriber.events()] == [True, True, False]
    assert [event["props"].get("number") for event in subscriber.events()] == [None, "1", "3"]
    assert subscriber.of_topic(f"{BASE}/alarm/Local/2") == [], "nobody knows how it is by now"
    wait_until(lambda: counters()["stale"] == 2, "they are counted")


def test_ids_go_on_rising_after_a_crash(broker, subscriber, start_bridge):
    for _ in range(2):
        bridge = start_bridge()
        bridge.wait_until_connected()
        after = len(subscriber.events())
        feed(block("Door"))
        wait_until(lambda: len(subscriber.events()) > after, "the event")
        bridge.process.kill()
        bridge.wait_for_exit()
    first, second = (int(event["id"].partition("-")[2]) for event in subscriber.events())
    assert first < second


def test_a_reload_takes_up_what_is_new(bridge, subscriber):
    bridge.config.write_text(configuration(Id="cam9", Types="Gate"))
    bridge.process.send_signal(signal.SIGHUP)
    subscriber.wait_for_message(f"{BASE}/status", "offline")
    subscriber.wait_for_message("halvek/cam9/status", "online")
    feed(block("Door") + block("Gate"))
    subscriber.wait_for_message("halvek/cam9/event/Gate")
    assert [event["type"] for event in subscriber.events()] == ["Gate"]


def test_a_reload_of_a_mistake_keeps_what_was_and_says_where_it_is(bridge, subscriber):
    bridge.config.write_text(configuration(Id="cam9", Queue="many"))
    bridge.process.send_signal(signal.SIGHUP)
    bridge.log.wait_for(r"mqtt\.conf:4:7: error: Queue is a whole number")
    bridge.log.wait_for("going on with the old one")
    feed(block("Door"))
    subscriber.wait_for_message(f"{BASE}/event/Door")
    bridge.config.unlink()
    bridge.process.send_signal(signal.SIGHUP)
    bridge.log.wait_for("Going on with the old configuration: .*No such file")
    feed(block("Door"))
    subscriber.wait_for_message(f"{BASE}/event/Door", count=2)


def test_what_came_while_the_broker_was_away_comes_later_and_says_so(broker, subscriber, start_bridge):
    bridge = start_bridge()
    bridge.wait_until_connected()
    feed(block("Alarm", **ALARM, alarmState=1))
    subscriber.wait_for_message(f"{BASE}/alarm/Local/2", "ON")
    wait_until(lambda: counters()["sent"] == 1, "the first event is acknowledged")
    broker.stop()
    bridge.log.wait_for("is lost")
    feed(block("Alarm", **ALARM, alarmState=0) + block("Door") + block("Alarm", **ALARM, alarmState=1))
    feed(block("Alarm", **ALARM, alarmState=0))
    wait_until(lambda: counters()["received"] == 5, "all have been read")
    bridge.process.send_signal(signal.SIGSTOP)
    broker.start()
    heard = Subscriber()
    broker.log.wait_for("Sending SUBACK")
    bridge.process.send_signal(signal.SIGCONT)
    try:
        bridge.wait_until_connected(count=2, patience=100)
        heard.wait_for_message(f"{BASE}/event/Alarm", count=3)
        assert [event["type"] for event in heard.events()] == ["Alarm", "Door", "Alarm", "Alarm"]
        assert all(event["replayed"] and event["queued_ms"] > 0 for event in heard.events())
        assert retained(f"{BASE}/status") == "online" and retained(f"{BASE}/info")
        # The last state, once, and not the story of how it came about.
        assert [message.payload for message in heard.of_topic(f"{BASE}/alarm/Local/2")] == ["OFF"]
        feed(block("Door"))
        assert heard.wait_for_message(f"{BASE}/event/Door", count=2).json()["replayed"] is False
    finally:
        heard.close()


def test_what_does_not_fit_gives_way_and_is_counted(start_bridge):
    start_bridge(Queue=10)
    feed("".join(block("Door", number=number) for number in range(15)))
    wait_until(lambda: counters()["dropped_full"] == 5, "five are dropped")
    assert status()["queued"] == 10 and counters()["received"] == 15


def test_a_bridge_that_is_ready_can_be_asked_at_once(start_bridge):
    for _ in range(20):
        started = start_bridge()
        assert Path("/run/halvek-mqtt/status.json").is_file()
        assert status()["queued"] == 0
        started.process.terminate()
        assert started.wait_for_exit() == 0
        Path("/run/halvek-mqtt/status.json").unlink()


def test_what_is_too_old_gives_way_and_is_counted(start_bridge):
    start_bridge(MaxAge=1)
    feed("".join(block("Door", number=number) for number in range(10)))
    # What comes pushes out what is too old.
    wait_until(lambda: feed(block("Door")) or counters()["dropped_old"] >= 10, "ten are too old")
    told = status()
    assert told["counters"]["received"] == told["counters"]["dropped_old"] + told["queued"]


def test_the_service_manager_is_told_how_it_stands(broker, start_bridge):
    bridge = start_bridge(options={"environment": {"WATCHDOG_USEC": "200000"}})
    bridge.notifications.wait(lambda told: told.startswith("STATUS=Connected to mqtt://127.0.0.1"), "a status")
    bridge.notifications.wait_for("WATCHDOG=1", count=3)
    broker.stop()
    bridge.notifications.wait(lambda told: told.startswith("STATUS=The connection to"), "a status")
    assert bridge.stop() == 0
    bridge.notifications.wait_for("STOPPING=1")


def test_status_says_how_it_gets_on(broker, subscriber, start_bridge):
    assert mqtt("status").returncode == 3
    bridge = start_bridge()
    bridge.wait_until_connected()
    wait_until(lambda: mqtt("status").returncode == 0, "it is connected")
    feed(block("Door"))
    wait_until(lambda: counters()["sent"] == 1, "the event is counted")
    told = status()
    assert told.items() >= {
        *{"format": 1, "verb": "status", "id": ID, "state": "connected", "protocol": "5", "queued": 0}.items(),
        *{"broker": f"mqtt://127.0.0.1:{PORT}", "pid": bridge.pid, "problem": ""}.items(),
    }
    assert mqtt("status").stdout.startswith(f"connected: mqtt://127.0.0.1:{PORT} as {ID}, MQTT 5\n")
    broker.stop()
    wait_until(lambda: mqtt("status").returncode == 1, "it is not connected any more")
    assert "problem: " in mqtt("status").stdout and "next attempt: " in mqtt("status").stdout
    bridge.process.kill()
    bridge.wait_for_exit()
    assert mqtt("status").returncode == 3


def test_check_names_what_is_wrong_by_its_place(tmp_path):
    path = tmp_path / "mqtt.conf"
    path.write_text("[Mqtt]\nBroker=http://x\nId=a b\n")
    done = mqtt("check", path)
    assert done.returncode == 1
    assert re.match(rf"{path}:2:8: error: Broker is .*\n{path}:3:4: error: Id is .*\n$", done.stdout)
    found = json.loads(mqtt("check", path, "--format=json").stdout)
    places = [(finding["line"], finding["column"], finding["severity"]) for finding in found["findings"]]
    assert (found["format"], places) == (1, [(2, 8, "error"), (3, 4, "error")])


def test_check_has_nothing_to_say_of_what_is_right(tmp_path):
    path = tmp_path / "mqtt.conf"
    path.write_text(configuration())
    done = mqtt("check", path)
    assert (done.returncode, done.stdout) == (0, f"Nothing is wrong with {path}\n")
    assert mqtt("check", tmp_path / "absent").returncode == 3


@pytest.mark.parametrize("text", ["[Mqtt]\nBroker=x\n", "", None])
def test_the_service_ends_with_78_if_its_configuration_is_wrong(start_bridge, tmp_path, text):
    if text is None:
        assert mqtt("--config", tmp_path / "absent").returncode == 78
        return
    bridge = start_bridge(ready=False, text=text)
    assert bridge.wait_for_exit() == 78
    assert bridge.log.matching(r"mqtt\.conf:\d+:\d+: error: ")
    assert not PIPE.exists()


@pytest.mark.parametrize("words", [["nonsense"], ["--nonsense"], ["check", "a", "b"], ["--config"], ["--format=xml"]])
def test_a_wrong_command_line_is_status_2(words):
    done = mqtt(*words)
    assert (done.returncode, done.stdout) == (2, "") and done.stderr.startswith("halvek-mqtt: ")


def test_it_says_how_to_use_it_and_its_version():
    assert mqtt("--help").stdout.startswith("usage: halvek-mqtt")
    assert re.fullmatch(r"halvek-mqtt \d+\.\d+\.\d+\n", mqtt("--version").stdout)
    with open("/dev/full", "w") as full:
        assert mqtt("--help", stdout=full, stderr=subprocess.PIPE, capture_output=False).returncode == 3
