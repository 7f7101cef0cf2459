"""The camera's picture on a broker: behind an event, never kept, one a second, and never at the cost of events."""

import time

import pytest
from testing import fake_broker
from testing.bridge import BASE, feed, status
from testing.broker import OPEN, Subscriber, retained
from testing.fake_broker import PUBLISH, Client, FakeBroker
from testing.pipes import block
from testing.settings import ini_text
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is built without, and tried by hand there")
pytest_plugins = ["mqtt_fixtures"]

TOPIC = f"{BASE}/snapshot"
LARGEST = 200_000
PICTURE = b"\xff\xd8 a picture \x00\n\xff\xd9"


@pytest.fixture
def picture(tmp_path):
    path = tmp_path / "now.jpg"
    path.write_bytes(PICTURE)
    return path


@pytest.fixture
def start_taking(start_bridge, picture, tmp_path):
    """Bridges of a camera with a picture, which publish it."""

    def start(**keys):
        settings = tmp_path / "camera.ini"
        settings.write_text(ini_text({"Video/Quickview": {"SnapshotPath": str(picture)}}))
        return start_bridge(options={"environment": {"KELTO_SETTINGS": str(settings)}}, **{"Snapshot": "on"} | keys)

    return start


@pytest.fixture
def pictures(broker):
    heard = Subscriber(f"{BASE}/#")
    broker.log.wait_for("Sending SUBACK")
    yield heard
    heard.close()


def test_the_picture_comes_behind_its_event_and_is_not_kept(start_taking, pictures):
    start_taking().wait_until_connected()
    feed(block("Door"))
    message = pictures.wait_for_message(TOPIC)
    assert message.payload.encode(errors="surrogateescape") == PICTURE
    assert (message.qos, message.is_retained, retained(TOPIC)) == (0, False, None)
    topics = [message.topic for message in pictures.items]
    assert topics.index(f"{BASE}/event/Door") < topics.index(TOPIC)


def test_of_many_events_one_a_second_has_a_picture(start_taking, pictures):
    start_taking().wait_until_connected()
    begin = time.monotonic()
    while time.monotonic() < begin + 2.5:
        feed(block("Door"))
        time.sleep(0.02)
    wait_until(lambda: len(pictures.of_topic(TOPIC)) >= 3, "the picture of the last events")
    passed = time.monotonic() - begin
    assert len(pictures.of_topic(TOPIC)) <= passed + 1


def test_without_the_word_there_are_none(start_taking, pictures):
    start_taking(Snapshot=None).wait_until_connected()
    feed(block("Door"))
    wait_until(lambda: status()["counters"]["sent"] == 1, "the event is sent")
    feed(block("Gate"))
    pictures.wait_for_message(f"{BASE}/event/Gate")
    assert pictures.of_topic(TOPIC) == []


def test_a_picture_that_is_too_large_is_not_sent_and_its_event_is(start_taking, pictures, picture):
    picture.write_bytes(b"x" * (LARGEST + 1))
    bridge = start_taking()
    bridge.wait_until_connected()
    feed(block("Door"))
    bridge.log.wait_for(f"No picture is published: {picture} has more than {LARGEST} bytes")
    pictures.wait_for_message(f"{BASE}/event/Door")
    picture.write_bytes(b"x" * LARGEST)
    feed(block("Door"))
    message = pictures.wait_for_message(TOPIC)
    assert len(message.payload) == LARGEST


def test_what_came_while_the_broker_was_away_has_no_picture(start_broker, start_taking):
    bridge = start_taking(Broker="mqtt://127.0.0.1:11883")
    bridge.log.wait_for("Cannot connect to")
    feed(block("Door"))
    broker = start_broker(OPEN)
    heard = Subscriber(f"{BASE}/#")
    try:
        broker.log.wait_for("Sending SUBACK")
        heard.wait_for_message(f"{BASE}/event/Door", patience=100)
        feed(block("Gate"))
        heard.wait_for_message(TOPIC)
        topics = [message.topic for message in heard.items]
        assert topics.index(TOPIC) > topics.index(f"{BASE}/event/Gate")
    finally:
        heard.close()


def test_a_broker_that_ends_the_connection_over_pictures_gets_no_more_of_them(start_taking):
    taken: list[str] = []

    def end_at_picture(client: Client) -> None:
        for received in fake_broker.until_the_end(client):
            if received.kind == PUBLISH:
                taken.append(client.published(received)[0])
                if taken[-1] == TOPIC:
                    return
            client.answer(received)

    broker = FakeBroker(end_at_picture)
    bridge = start_taking(Broker=f"mqtt://127.0.0.1:{broker.port}")
    for count in (1, 2, 3):
        bridge.wait_until_connected(count=count, patience=100)
        feed(block("Door"))
        wait_until(lambda: taken.count(TOPIC) == count, "the picture")
    bridge.log.wait_for("no more are published")
    bridge.wait_until_connected(count=4, patience=100)
    feed(block("Gate"))
    wait_until(lambda: status()["counters"]["sent"] == 4, "the events go on")
    feed(block("Gate"))
    wait_until(lambda: status()["counters"]["sent"] == 5, "and on")
    assert taken.count(TOPIC) == 3 and len(bridge.log.matching("another client")) == 0
    broker.close()
