"""What the outbox does after each answer of an FTP server."""

import pytest
from outbox import FLASH, LyingFtpServer, Outbox, picture

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is tried in release, with real servers")
pytest_plugins = ["outbox_fixtures"]

WAIT, HOLD, OK = "wait", "hold", "ok"


@pytest.mark.parametrize(
    ("lying", "state"),
    [
        ({"": "421 too many"}, WAIT),
        ({"USER": "421 too many"}, WAIT),
        ({"STOR": "425 no connection"}, WAIT),
        ({"STOR": "426 broken"}, WAIT),
        ({"STOR": "450 busy"}, WAIT),
        ({"STOR": "451 local error"}, WAIT),
        ({"STOR": "452 no room"}, WAIT),
        ({"STOR": None}, WAIT),
        ({"PASS": None}, WAIT),
        ({"SIZE": "213 1"}, WAIT),
        ({"PASS": "530 no"}, HOLD),
        ({"USER": "530 no"}, HOLD),
        ({"STOR": "530 log in"}, HOLD),
        ({"STOR": "534 not without TLS"}, HOLD),
        ({"STOR": "552 over quota"}, HOLD),
    ],
    indirect=["lying"],
    ids=lambda value: None if isinstance(value, str) else "-".join(f"{k} {v}" for k, v in value.items()).strip(),
)
def test_an_item_is_kept_after(outbox: Outbox, lying: LyingFtpServer, state: str):
    outbox.start()
    number = outbox.put(picture(), options=f"-P {lying.port}")
    item = outbox.wait_for_state(number, state)
    assert item["attempts"] == 1 and item["error"]
    assert (outbox.target()["state"], outbox.counts()["queued"]) == (state, 1)
    # One that waits is tried again in 5 s, a quarter more or less; one on hold in an hour.
    assert outbox.target()["next_ms"] <= (6250 if state == WAIT else 3_600_000)
    assert state == WAIT or outbox.target()["next_ms"] > 3_500_000


@pytest.mark.parametrize(
    "lying",
    [{"STOR": "550 no such folder"}, {"STOR": "553 no such name"}],
    indirect=True,
    ids=["550", "553"],
)
def test_an_item_fails_and_its_header_is_kept_without_a_password_after(outbox: Outbox, lying: LyingFtpServer):
    outbox.start()
    number = outbox.put(picture(), "/shot.jpg", options=f"-P {lying.port}")
    outbox.wait_for(failed=1, queued=0)
    (kept,) = FLASH.with_name("failed").iterdir()
    text = kept.read_text()
    assert kept.name == number and "remote=/shot.jpg\n" in text and "secret" not in text


@pytest.mark.parametrize(
    "lying",
    [{"RNFR": "500 never heard"}, {"RNTO": "553 not again"}],
    indirect=True,
    ids=["RNFR", "RNTO"],
)
def test_a_server_that_does_not_rename_gets_the_file_under_its_name(outbox: Outbox, lying: LyingFtpServer):
    outbox.start()
    content = picture()
    outbox.put(content, options=f"-P {lying.port}")
    outbox.wait_for(delivered=1)
    assert lying.received == [content, content]
    assert lying.commands[-3:] != ["RNFR", "RNTO"] and "DELE" in lying.commands


@pytest.mark.parametrize("lying", [{"PASS": "530 secret is no password of camera"}], indirect=True, ids=["530"])
def test_a_server_that_repeats_the_password_does_not_have_it_logged(outbox: Outbox, lying: LyingFtpServer):
    outbox.start()
    number = outbox.put(picture(), options=f"-P {lying.port}")
    assert outbox.wait_for_state(number, "hold")["error"].endswith("530 *** is no password of camera")
    assert "secret" not in outbox.log.read_text() + outbox.run("status").stdout
