"""Posting over the broker: what gets to the daemon, what does not, and what the poster is told."""

import json
import subprocess

import pytest
from testing.bridge import BASE, PIPE, configuration, status
from testing.broker import publish
from testing.settings import SERVER
from testing.waiting import PATIENCE, wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is built without, and tried by hand there")
pytest_plugins = ["mqtt_fixtures"]


@pytest.fixture
def daemon(launch):
    return launch(SERVER)


@pytest.fixture
def bridge(daemon, broker, subscriber, start_bridge):
    started = start_bridge(Post="Doorbell,Gate,MotionDetection", PostRegions="2")
    started.wait_until_connected()
    wait_until(lambda: status()["counters"]["received"] == 0, "it has begun")
    broker.log.wait_for(f"{BASE}/post/\\+")
    return started


def post(event_type: str, payload: str = "{}", *options: str) -> None:
    publish(f"{BASE}/post/{event_type}", payload, *options)


def results(subscriber, count: int) -> list[str]:
    subscriber.wait_for_message(f"{BASE}/post-result", count=count)
    told = [message.json() for message in subscriber.of_topic(f"{BASE}/post-result")]
    assert [answer["n"] for answer in told] == list(range(1, len(told) + 1))
    return [answer["result"] for answer in told]


def test_what_is_allowed_is_posted_and_comes_out_again(bridge, subscriber):
    post("Doorbell", '{"button":"front"}')
    event = subscriber.wait_for_message(f"{BASE}/event/Doorbell").json()
    assert event["props"].items() >= {"button": "front", "via": "mqtt", "eventId": "Doorbell"}.items()
    assert results(subscriber, 1) == ["posted"]
    answer = subscriber.of_topic(f"{BASE}/post-result")[0]
    assert (answer.is_retained, answer.qos) == (False, 0)


def test_everything_else_is_refused_told_and_counted(bridge, subscriber):
    post("Window")
    post("Doorbell", "no json")
    post("Doorbell", json.dumps({"a": "x" * 3100}))
    post("MotionDetection", '{"region":"3"}')
    post("MotionDetection", '{"region":"2"}')
    assert results(subscriber, 5) == ["type", "grammar", "size", "type", "posted"]
    subscriber.wait_for_message(f"{BASE}/event/MotionDetection")
    assert len(subscriber.events()) == 1
    wait_until(lambda: status()["counters"]["refused_posts"] == 4, "they are counted")


def test_what_the_broker_has_kept_is_refused_now_and_at_the_next_connection(bridge, subscriber):
    post("Doorbell", "{}", "-r")
    assert results(subscriber, 1) == ["retained"]
    bridge.config.write_text(configuration(Post="Doorbell"))
    bridge.process.send_signal(1)
    bridge.wait_until_connected(count=2)
    assert results(subscriber, 2) == ["retained"] * 2
    assert subscriber.events() == []


def test_what_comes_twice_is_posted_once_and_answered_twice(bridge, subscriber):
    for _ in range(2):
        post("Doorbell", '{"id":"a7"}')
    assert results(subscriber, 2) == ["posted"] * 2
    subscriber.wait_for_message(f"{BASE}/event/Doorbell")
    post("Gate")
    subscriber.wait_for_message(f"{BASE}/event/Gate")
    assert len(subscriber.events()) == 2


def test_two_cameras_that_pass_on_what_they_hear_do_not_go_on_for_ever(bridge, subscriber):
    """A relay at the broker feeds the camera's own events to it again."""
    relay = (
        f"mosquitto_sub -p 11883 -t {BASE}/event/Doorbell -C 1 | "
        "/usr/bin/python3 -c 'import json, sys; print(json.dumps(json.load(sys.stdin)[\"props\"]))' | "
        f"mosquitto_pub -p 11883 -q 1 -t {BASE}/post/Doorbell -l"
    )
    relaying = subprocess.Popen(["sh", "-c", relay])
    try:
        wait_until(lambda: post("Doorbell") or relaying.poll() is not None, "the relay has passed one on", PATIENCE)
    finally:
        relaying.kill()
        relaying.wait()
    wait_until(lambda: "type" in results(subscriber, 2), "the relayed one is refused")


def test_a_flood_is_held_to_the_rate(bridge, subscriber):
    lines = "".join(json.dumps({"number": str(number)}) + "\n" for number in range(30))
    command = ["mosquitto_pub", "-p", "11883", "-q", "1", "-t", f"{BASE}/post/Gate", "-l"]
    subprocess.run(command, input=lines.encode(), check=True, timeout=PATIENCE)
    told = results(subscriber, 30)
    assert told[:10] == ["posted"] * 10 and told.count("rate") >= 10
    wait_until(lambda: len(subscriber.events()) == told.count("posted"), "all that was posted comes out")


def test_without_a_daemon_it_says_so(broker, subscriber, start_bridge):
    start_bridge(Post="Doorbell").wait_until_connected()
    broker.log.wait_for(f"{BASE}/post/\\+")
    post("Doorbell")
    assert results(subscriber, 1) == ["no-pipe"]


def test_nothing_is_taken_unless_it_is_said(daemon, broker, subscriber, start_bridge):
    start_bridge().wait_until_connected()
    subscriber.wait_for_message(f"{BASE}/stats")
    assert broker.log.matching(f"{BASE}/post") == []
    post("Doorbell")
    assert PIPE.exists() and subscriber.of_topic(f"{BASE}/post-result") == []
