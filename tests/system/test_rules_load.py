"""What halvek-rules costs the daemon when it is killed under load: no descriptor.

HALVEK_TEST_KILLS says how often it is killed; see flooding.py for a rate that must be reached.
"""

import os
import re
import signal

import pytest
from flooding import QUIET, Descriptors, Load
from testing.rules import PIPE, RulesService, rule
from testing.settings import SERVER
from testing.waiting import wait_until

pytestmark = [
    pytest.mark.not_under("sanitizer", "emulator", reason="its time is that of the release build"),
    pytest.mark.alone("it has to read as fast as is posted"),
]

KILLS = int(os.environ.get("HALVEK_TEST_KILLS", "5"))


def test_killed_at_twenty_thousand_events_a_second_it_costs_the_daemon_no_descriptor(launch, output_pipe, tmp_path):
    before = Descriptors(launch(SERVER, **QUIET))
    with Load(output_pipe("Beat")) as load:
        for number in range(KILLS):
            service = RulesService(tmp_path / f"rules{number}", rule("never", "When=Door", "Where.number=0", "Post=P"))
            wait_until_heard(service, load)
            service.process.kill()
            service.process.wait()
            # As the unit does behind a crash.
            PIPE.unlink()
            service.close()
    load.delays()
    load.assert_kept_up()
    before.assert_none_lost()


def wait_until_heard(service: RulesService, load: Load) -> None:
    begin = load.posted
    wait_until(lambda: load.posted > begin + 5000, "it is under load")
    # A reload has it say how many events it has heard.
    service.process.send_signal(signal.SIGHUP)
    wait_until(lambda: re.search(r": [1-9]\d* events", service.status()), "it hears them")
