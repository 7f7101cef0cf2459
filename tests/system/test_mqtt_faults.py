"""halvek-mqtt with brokers that fail in every way: it comes back, loses nothing uncounted, and never spins."""

import contextlib
import json
import signal
import ssl
import subprocess
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from testing import fake_broker
from testing.bridge import BASE, ID, Bridge, configuration, feed, status
from testing.broker import OPEN, PORT, Subscriber, publish, retained
from testing.certificates import Authority
from testing.fake_broker import CONNECT, PUBLISH, Client, FakeBroker
from testing.pipes import block
from testing.processes import dies_with_us
from testing.waiting import PATIENCE, wait_until

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is built without, and tried by hand there")
pytest_plugins = ["mqtt_fixtures"]

ALARM = {"alarmBank": "Local", "alarmIndex": 2}
MOST_LOAD = 0.01  # of a processor
LOOKED_AT = 4  # seconds


@pytest.fixture
def fake() -> Iterator[Callable[..., FakeBroker]]:
    brokers: list[FakeBroker] = []

    def start(behaviour: fake_broker.Behaviour, context: ssl.SSLContext | None = None) -> FakeBroker:
        brokers.append(FakeBroker(behaviour, context))
        return brokers[-1]

    yield start
    for broker in brokers:
        broker.close()


@pytest.fixture(scope="module")
def authority(tmp_path_factory) -> Authority:
    return Authority(tmp_path_factory.mktemp("certificates"))


@pytest.fixture
def secure(start_broker, authority):
    """Starts a broker with TLS; returns the port. Its certificate is made with these options."""

    def start(*more: str, **options) -> int:
        certificate, key = authority.issue("broker", **options)
        lines = [f"listener {PORT} 127.0.0.1", f"certfile {certificate}", f"keyfile {key}", f"cafile {authority.path}"]
        start_broker("\n".join([*lines, "allow_anonymous true", *more]) + "\n")
        return PORT

    return start


def address(broker: FakeBroker, scheme: str = "mqtt") -> str:
    return f"{scheme}://127.0.0.1:{broker.port}"


def loads(bridges: dict[str, Bridge], seconds: float, meanwhile: Callable[[], None] | None = None) -> dict[str, float]:
    """What part of a processor each one takes for so long."""
    begin = {name: bridge.processor_seconds() for name, bridge in bridges.items()}
    began = time.monotonic()
    if meanwhile:
        meanwhile()
    wait_until(lambda: time.monotonic() > began + seconds, "a while is over", patience=seconds + PATIENCE)
    passed = time.monotonic() - began
    load = {name: (bridge.processor_seconds() - begin[name]) / passed for name, bridge in bridges.items()}
    print("\n".join(f"{name}: {part:.3%}" for name, part in load.items()))
    return load


def silent_after_tls(authority: Authority) -> ssl.SSLContext:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(*authority.issue("silent"))
    return context


def test_no_fault_costs_a_hundredth_of_a_processor(fake, start_bridge, authority):
    """All at once, each with a bridge of its own: only their load is looked at."""
    huge = b"\x30\xff\xff\xff\x7f" + b"x" * 100
    nonsense = {
        "no MQTT": fake_broker.saying(b"HTTP/1.1 400 Bad Request\r\n\r\n"),
        "half a welcome": fake_broker.saying(b"\x20"),
        "nonsense after the welcome": fake_broker.saying(b"\xff" * 1000, welcomes=True),
        "a huge message": fake_broker.saying(huge, welcomes=True),
    }
    behaviours = nonsense | {
        "silent after TCP": fake_broker.say_nothing,
        "never acknowledges": fake_broker.never_acknowledge,
        "one byte a second": fake_broker.one_byte_a_second,
        "refuses": fake_broker.refuse,
        "closes at once": fake_broker.close_at_once,
        "closes after the welcome": fake_broker.close_after_welcome,
    }
    places = {name: address(fake(behaviour)) for name, behaviour in behaviours.items()}
    places["nobody listens"] = "mqtt://127.0.0.1:1"
    places["nobody listens, TLS"] = "mqtts://127.0.0.1:1"
    places["no such name"] = "mqtt://nowhere.invalid:1883"
    places["silent after TCP, TLS"] = address(fake(fake_broker.say_nothing), "mqtts")
    places["silent after TLS"] = address(fake(fake_broker.say_nothing, silent_after_tls(authority)), "mqtts")
    bridges = {}
    for name, place in places.items():
        bridges[name] = start_bridge(Broker=place, CaFile=authority.path if "mqtts" in place else None)
        feed(block("Door"))
    assert {name: part for name, part in loads(bridges, LOOKED_AT).items() if part > MOST_LOAD} == {}
    assert all(bridge.process.poll() is None for bridge in bridges.values())


def fails_at_tls(start_broker, authority: Authority, folder: Path) -> dict[str, dict[str, object]]:
    """Brokers whose certificates are bad, each with what a bridge needs to come to it."""
    certificates = {
        "expired": {"begins": -9, "ends": -1},
        "not yet valid": {"begins": 1, "ends": 9},
        "of another name": {"host": "other.example"},
        "of an unknown authority": {},
        "wants a certificate": {},
    }
    keys: dict[str, dict[str, object]] = {}
    for port, (name, options) in enumerate(certificates.items(), PORT + 20):
        certificate, key = authority.issue(f"broker{port}", **options)
        lines = [f"listener {port} 127.0.0.1", f"certfile {certificate}", f"keyfile {key}", f"cafile {authority.path}"]
        wanted = "true" if name == "wants a certificate" else "false"
        start_broker("\n".join([*lines, "allow_anonymous true", f"require_certificate {wanted}\n"]), port=port)
        trusted = Authority(folder) if name == "of an unknown authority" else authority
        keys[name] = {"Broker": f"mqtts://localhost:{port}", "CaFile": trusted.path}
    return keys


def test_no_fault_of_a_real_broker_costs_a_hundredth_of_a_processor(start_broker, start_bridge, authority, tmp_path):
    """All at once, each with a bridge of its own: only their load is looked at."""
    rules, passwords = tmp_path / "acl", tmp_path / "passwords"
    rules.write_text(f"topic readwrite #\ntopic deny {BASE}/event/Secret\n")
    subprocess.run(["mosquitto_passwd", "-c", "-b", passwords, ID, "right"], check=True, timeout=PATIENCE)
    texts = dict.fromkeys(["is restarted", "is killed", "is away", "stands still", "another client"], "")
    texts["refuses a topic"] = f"acl_file {rules}\n"
    texts["takes small messages"] = "max_packet_size 2000\n"
    texts["wrong password"] = f"password_file {passwords}\n"
    brokers, keys = {}, {}
    for port, (name, text) in enumerate(texts.items(), PORT + 1):
        anonymous = str(name != "wrong password").lower()
        listener = f"listener {port} 127.0.0.1\nallow_anonymous {anonymous}\n"
        brokers[name] = start_broker(listener + text, port=port)
        keys[name] = {"Broker": f"mqtt://127.0.0.1:{port}"}
    keys["wrong password"] |= {"User": ID, "Secret": "broker", "AllowPlain": "yes"}
    bridges = {}
    keys |= fails_at_tls(start_broker, authority, tmp_path)
    for name, own in keys.items():
        bridges[name] = start_bridge(options={"secrets": {"secrets": "broker=wrong\n"}}, **own)
        if name in texts and name != "wrong password":
            bridges[name].wait_until_connected()
        feed(block("Secret") + block("Large", text="x" * 3000) + block("Door"))
    brokers["is away"].stop()
    brokers["stands still"].process.send_signal(signal.SIGSTOP)
    rival = f"while :; do mosquitto_sub -p {brokers['another client'].port} -i {ID} -t nothing -W 2; done"

    def fail() -> None:
        brokers["is restarted"].stop()
        brokers["is killed"].kill()
        for name in ("is restarted", "is killed"):
            brokers[name].start()

    process = subprocess.Popen(dies_with_us("sh", "-c", rival), stderr=subprocess.DEVNULL)
    try:
        assert {name: part for name, part in loads(bridges, 10, fail).items() if part > MOST_LOAD} == {}
    finally:
        process.kill()
        process.wait()
        brokers["stands still"].process.send_signal(signal.SIGCONT)
    assert all(bridge.process.poll() is None for bridge in bridges.values())
    met = dict.fromkeys(["is restarted", "is killed", "is away", "another client"], "is lost")
    met |= {"refuses a topic": "refuses a message", "wrong password": "refuses the connection"}
    for name in keys.keys() - {"stands still", "takes small messages"}:
        bridges[name].log.wait_for(met.get(name, "Cannot connect to"))


def test_a_broker_that_is_silent_after_connect_is_given_up_and_tried_again(fake, start_bridge):
    told: list[int] = []

    def be_silent_once(client: Client) -> None:
        for received in fake_broker.until_the_end(client):
            told.append(received.kind)
            if told.count(CONNECT) > 1:
                client.answer(received)

    bridge = start_bridge(Broker=address(fake(be_silent_once)))
    feed(block("Door"))
    wait_until(lambda: told == [CONNECT], "it greets")
    assert loads({"silent after CONNECT": bridge}, LOOKED_AT)["silent after CONNECT"] < MOST_LOAD
    assert (told, bridge.log.matching("Connected to")) == ([CONNECT], [])
    bridge.wait_until_connected(patience=90)
    wait_until(lambda: status()["counters"]["sent"] == 1, "the event goes through at last")


@pytest.mark.parametrize("behaviour", [fake_broker.old_version_only, fake_broker.old_version_without_a_word])
def test_a_broker_of_the_old_version_is_spoken_to_in_its_own(fake, start_bridge, behaviour):
    bridge = start_bridge(Broker=address(fake(behaviour)))
    bridge.log.wait_for(r"Connected to .*, MQTT 3\.1\.1$")
    feed(block("Door"))
    wait_until(lambda: status()["counters"]["sent"] == 1, "the event is acknowledged")
    assert status()["protocol"] == "3.1.1"


def test_an_event_is_on_its_way_until_it_is_acknowledged(fake, start_bridge):
    """One message at a time: the second one only comes when the first has been acknowledged."""
    told: list[tuple[str, bytes]] = []
    release: list[bool] = []

    def hold_back(client: Client) -> None:
        for received in fake_broker.until_the_end(client):
            if received.kind == PUBLISH:
                told.append(client.published(received))
                if "/event/" in told[-1][0]:
                    wait_until(lambda: release, "the test lets it go on")
            client.answer(received)

    start_bridge(Broker=address(fake(hold_back))).wait_until_connected()
    feed(block("Door", number=1) + block("Door", number=2))
    wait_until(lambda: any("/event/" in topic for topic, _ in told), "the first event")
    feed(block("Door", number=3))
    wait_until(lambda: status()["queued"] == 2, "two wait")
    assert status()["counters"]["sent"] == 0
    release.append(True)
    wait_until(lambda: status()["counters"]["sent"] == 3, "all are acknowledged")
    events = [json.loads(payload) for topic, payload in told if "/event/" in topic]
    assert [event["props"]["number"] for event in events] == ["1", "2", "3"]


def test_an_event_that_ends_every_connection_is_dropped_and_counted(fake, start_bridge):
    def end_at_poison(client: Client) -> None:
        for received in fake_broker.until_the_end(client):
            if received.kind == PUBLISH and b"Poison" in received.body:
                return
            client.answer(received)

    bridge = start_bridge(Broker=address(fake(end_at_poison)))
    bridge.wait_until_connected()
    feed(block("Poison") + block("Door"))
    bridge.log.wait_for("type Poison was on its way each time .* it is dropped", patience=60)
    wait_until(lambda: status()["counters"]["sent"] == 1, "the other one goes through", patience=60)
    assert status()["counters"]["refused"] == 1
    assert bridge.log.matching("another client") == []


def test_three_short_connections_in_a_row_mean_that_somebody_else_has_the_id(fake, start_bridge):
    broker = fake(fake_broker.close_after_welcome)
    bridge = start_bridge(Broker=address(broker))
    bridge.log.wait_for(f"another client uses id {ID}", patience=60)
    assert len(broker.connects) == 3
    wait_until(lambda: status()["state"] == "conflict", "the status says so")
    bridge.notifications.wait(lambda told: "another client uses id" in told, "the manager is told")
    assert len(bridge.log.matching("another client uses id")) == 1


def test_somebody_elses_info_in_its_own_topic_means_the_same(broker, subscriber, start_bridge):
    bridge = start_bridge()
    subscriber.wait_for_message(f"{BASE}/stats")
    publish(f"{BASE}/info", '{"v":1,"boot":"f00","since":"2026-01-01T00:00:00.000Z","host":"other"}', "-r")
    bridge.log.wait_for(f"another client uses id {ID}")
    # It leaves without a word: the topics are the other one's.
    assert subscriber.of_topic(f"{BASE}/status")[-1].payload == "online"


def test_a_second_client_with_the_same_id_is_found_out(broker, subscriber, start_bridge):
    bridge = start_bridge()
    subscriber.wait_for_message(f"{BASE}/stats")
    rival = "while :; do mosquitto_sub -p 11883 -i cam1 -t nothing -W 2; done"
    process = subprocess.Popen(dies_with_us("sh", "-c", rival), stderr=subprocess.DEVNULL)
    try:
        bridge.log.wait_for("another client uses id cam1", patience=120)
    finally:
        process.kill()
        process.wait()


def test_what_was_there_before_us_is_nobody_else(broker, start_bridge):
    publish(f"{BASE}/info", '{"v":1,"boot":"f00","since":"2026-01-01T00:00:00.000Z","host":"other"}', "-r")
    bridge = start_bridge()
    bridge.wait_until_connected()
    wait_until(lambda: "f00" not in retained(f"{BASE}/info"), "our own info")
    feed(block("Door"))
    wait_until(lambda: status()["counters"]["sent"] == 1, "the event is sent")
    assert bridge.log.matching("another client") == []


def test_a_killed_broker_that_has_lost_all_is_told_everything_again(broker, subscriber, start_bridge):
    bridge = start_bridge()
    bridge.wait_until_connected()
    feed(block("Alarm", **ALARM, alarmState=1))
    subscriber.wait_for_message(f"{BASE}/alarm/Local/2", "ON")
    broker.kill()
    bridge.log.wait_for("is lost")
    broker.start()
    bridge.wait_until_connected(count=2, patience=100)
    wait_until(lambda: retained(f"{BASE}/alarm/Local/2") == "ON", "the state is there again")
    assert (retained(f"{BASE}/status"), json.loads(retained(f"{BASE}/info"))["v"]) == ("online", 1)


def test_one_topic_that_is_refused_costs_its_own_events_only(start_broker, start_bridge, tmp_path):
    rules = tmp_path / "acl"
    rules.write_text(f"topic readwrite #\ntopic deny {BASE}/event/Secret\n")
    start_broker(f"{OPEN}acl_file {rules}\n")
    heard = Subscriber()
    try:
        bridge = start_bridge()
        bridge.wait_until_connected()
        feed(block("Secret") + block("Door"))
        heard.wait_for_message(f"{BASE}/event/Door")
        wait_until(lambda: status()["counters"]["refused"] == 1, "the refused one is counted")
        bridge.log.wait_for(f"The broker refuses a message to {BASE}/event/Secret")
    finally:
        heard.close()


def test_the_shipped_rules_are_enough_for_everything(start_broker, start_bridge, request):
    rules = request.config.rootpath.parents[1] / "examples/mosquitto-acl.conf"
    broker = start_broker(f"{OPEN}acl_file {rules}\n")
    bridge = start_bridge(Discovery="homeassistant", Post="Door")
    bridge.wait_until_connected()
    feed(block("Alarm", **ALARM, alarmState=1))
    wait_until(lambda: status()["counters"]["sent"] == 1, "the event is sent")
    broker.log.wait_for(f"Received PUBLISH from {ID} .*homeassistant/device/{ID}/config")
    assert broker.log.matching("Denied PUBLISH") == [] and bridge.log.matching("refuses") == []


def test_a_message_that_is_too_large_for_the_broker_is_counted(start_broker, start_bridge):
    start_broker(f"{OPEN}max_packet_size 2000\n")
    bridge = start_bridge()
    bridge.wait_until_connected()
    feed(block("Large", text="x" * 3000) + block("Door"))
    wait_until(lambda: status()["counters"]["sent"] == 1, "the small one goes through")
    assert status()["counters"]["refused"] == 1
    assert len(bridge.log.matching("Connected to")) == 1


def test_a_wrong_password_is_told_once_and_tried_again(start_broker, start_bridge, tmp_path):
    passwords = tmp_path / "passwords"
    subprocess.run(["mosquitto_passwd", "-c", "-b", passwords, "cam1", "right"], check=True, timeout=PATIENCE)
    broker = start_broker(f"listener {PORT} 127.0.0.1\npassword_file {passwords}\n")
    keys = {"User": "cam1", "Secret": "broker", "AllowPlain": "yes"}
    bridge = start_bridge(options={"secrets": {"secrets": "broker=hunter2-wrong\n"}}, **keys)
    broker.log.wait_for("not authorised", count=2)
    assert len(bridge.log.matching("The broker refuses the connection")) == 1
    assert bridge.log.matching("hunter2") == []
    assert bridge.stop() == 0
    right = start_bridge(options={"secrets": {"secrets": "broker=right\n"}}, **keys)
    right.wait_until_connected()


def test_a_broker_with_a_good_certificate_is_spoken_to(secure, start_bridge, authority):
    port = secure()
    bridge = start_bridge(Broker=f"mqtts://localhost:{port}", CaFile=authority.path)
    bridge.wait_until_connected()
    feed(block("Door"))
    wait_until(lambda: status()["counters"]["sent"] == 1, "the event is sent")


@pytest.mark.parametrize(
    "options",
    [{"begins": -9, "ends": -1}, {"begins": 1, "ends": 9}, {"host": "other.example"}],
    ids=["expired", "not yet valid", "of another name"],
)
def test_a_broker_with_a_bad_certificate_is_not(secure, start_bridge, authority, options):
    port = secure(**options)
    bridge = start_bridge(Broker=f"mqtts://localhost:{port}", CaFile=authority.path)
    bridge.log.wait_for("Cannot connect to")
    wait_until(lambda: status()["state"] == "waiting", "it waits")
    assert bridge.log.matching("Connected to") == []


def test_a_broker_of_an_unknown_authority_is_not(secure, start_bridge, tmp_path):
    port = secure()
    bridge = start_bridge(Broker=f"mqtts://localhost:{port}", CaFile=Authority(tmp_path).path)
    bridge.log.wait_for("Cannot connect to")
    assert bridge.log.matching("Connected to") == []


def test_a_client_can_show_a_certificate_of_its_own(secure, start_bridge, authority):
    port = secure("require_certificate true")
    certificate, key = authority.issue("cam1")
    keys = {"Broker": f"mqtts://localhost:{port}", "CaFile": authority.path}
    without = start_bridge(**keys)
    without.log.wait_for("Cannot connect to")
    assert without.stop() == 0
    bridge = start_bridge(options={"secrets": {"client.key": key.read_bytes()}}, Cert=certificate, **keys)
    bridge.wait_until_connected()


def test_a_certificate_without_its_key_is_a_mistake_of_the_configuration(start_bridge, authority):
    certificate, _ = authority.issue("cam1")
    bridge = start_bridge(ready=False, Broker="mqtts://localhost:1", Cert=certificate)
    assert bridge.wait_for_exit() == 78
    assert bridge.log.matching("client.key, the certificate's key, is missing")


def test_a_stop_does_not_wait_for_a_broker_that_says_nothing(fake, start_bridge):
    broker = fake(fake_broker.say_nothing)
    bridge = start_bridge(Broker=address(broker))
    wait_until(lambda: broker.connects, "it connects")
    began = time.monotonic()
    assert bridge.stop() == 0
    assert time.monotonic() - began < 5


def test_the_old_configuration_is_kept_while_nobody_answers(fake, start_bridge, broker):
    bridge = start_bridge(Broker=address(fake(fake_broker.say_nothing)))
    bridge.config.write_text(configuration())
    bridge.process.send_signal(1)
    bridge.wait_until_connected()
    with contextlib.suppress(FileNotFoundError):
        feed(block("Door"))
    wait_until(lambda: status()["counters"]["sent"] == 1, "the event goes to the new broker")
