"""From the command line to READY=1, and what keeps the daemon from its settings."""

import signal

import pytest
from testing.pipes import DEFAULT_INPUT, block, post
from testing.settings import SERVER, SettingsPipe, handler, ini_text, timer

REJECTED = "Error halvek: Error reloading, invalid configuration: "
WITHOUT_ROOTS_PRIVILEGE = ("setpriv", "--bounding-set=-dac_override,-dac_read_search", "--")


def test_ready_is_notified_once_and_only_when_configured_and_listening(launch):
    daemon = launch(SERVER | timer(1, 3600))
    post(block("Door"))  # fails unless the event pipe is open
    daemon.log.wait_for("Received event: Door")
    assert daemon.stop() == 0
    assert daemon.notifications.items == ["READY=1"]


def test_ready_waits_for_the_settings(launch, tmp_path):
    settings = SettingsPipe(tmp_path / "settings")
    daemon = launch(None, ready=False, store=settings.path)
    settings.hold()
    assert daemon.notifications.items == []
    settings.release(ini_text(SERVER))
    settings.serve(ini_text(SERVER), until=lambda: daemon.notifications.items)
    assert daemon.notifications.items == ["READY=1"]


def test_readiness_that_cannot_be_told_is_a_warning(launch, tmp_path):
    daemon = launch(SERVER, ready=False, environment={"NOTIFY_SOCKET": str(tmp_path / "none")})
    daemon.log.wait_for("Warning halvek: The service manager cannot be told READY=1: No such file or directory$")
    daemon.log.wait_for("Dropping to run state$")


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGTERM, signal.SIGINT, signal.SIGALRM])
def test_a_signal_during_the_start_takes_its_default_action(launch, tmp_path, number):
    settings = SettingsPipe(tmp_path / "settings")
    daemon = launch(None, ready=False, store=settings.path)
    settings.hold()
    daemon.send(number)
    assert daemon.wait_for_exit() == -number
    assert daemon.notifications.items == []


def test_the_steps_of_a_configuration_are_logged_in_order(launch):
    daemon = launch(SERVER | timer(1, 3600))
    separator = r"Information halvek: \*{63}$"
    position = 0
    for step in (
        r"Information halvek: Configuring\.\.\.$",
        "Information halvek: Current INI:$",
        separator,
        "Information halvek: Loading Servers$",
        "Information halvek: \tFound Server: Pipe$",
        "Information halvek: Done loading servers$",
        separator,
        "Information halvek: Loading Sources$",
        "Information halvek: \tSource: Events/Source#1\tType: Timer$",
        "Information halvek: Done loading sources$",
        separator,
        "Information halvek: Loading Handlers$",
        "Information halvek: Done loading handlers$",
        separator,
        "Information halvek: Loading External Handler$",
        "Debug halvek: Number of sources: 3$",
        "Information halvek: Done loading external handler$",
        separator,
        r"Debug halvek: Starting source: EventSource\{MsgBus\}$",
        r"Debug halvek: Starting source: EventSource\{server\}$",
        r"Debug halvek: Starting source: EventSource\{Timer\}$",
        "Debug halvek: Done starting sources$",
        "Information halvek: Dropping to run state$",
    ):
        position = daemon.log.wait_for(step, after=position)


@pytest.mark.parametrize("option", ["--help", "-h", "--unknown=1"])
def test_an_option_ends_the_daemon_before_it_has_begun(launch, option):
    daemon = launch(SERVER, ready=False, arguments=["word", option])
    assert daemon.wait_for_exit() == 1
    daemon.notifications.wait_for("ERRNO=5")
    assert daemon.notifications.items == ["ERRNO=5"]
    assert "Error halvek Main: unknown option" in daemon.log.items
    assert daemon.log.matching("Warning halvek: Error halvek Main: unknown option$")
    assert daemon.log.matching("cmdline"), "the usage is missing"
    assert not daemon.log.matching(r"Configuring\.\.\.")
    assert not DEFAULT_INPUT.exists()


def test_words_that_are_no_options_are_ignored(launch):
    daemon = launch(SERVER, arguments=["reload", "now", "-", "--", "--help"])
    assert daemon.stop() == 0


def test_a_missing_store_is_reported_and_a_reload_brings_the_daemon_into_service(launch, output_pipe):
    daemon, pipe = launch(None), output_pipe()
    rejected = daemon.log.matching(REJECTED)
    assert len(rejected) == 1 and str(daemon.settings_file) in rejected[0]
    assert not daemon.log.matching(r"Configuring\.\.\.")
    daemon.write_settings(SERVER)
    daemon.reload()
    post(block("Door"))
    pipe.wait_for_event("Door")


def test_a_store_that_may_not_be_read_is_reported_and_a_reload_brings_the_daemon_into_service(launch, tmp_path):
    store = tmp_path / "locked.ini"
    store.write_text(ini_text(timer(1, 3600)))
    store.chmod(0)
    daemon = launch(None, store=store, prefix=WITHOUT_ROOTS_PRIVILEGE)
    rejected = daemon.log.matching(REJECTED)
    assert len(rejected) == 1 and f"{store}" in rejected[0] and "Permission denied" in rejected[0]
    store.chmod(0o600)
    daemon.reload()
    daemon.log.wait_for("TICK: 3600 sec")


@pytest.mark.parametrize("broken", ["no equals sign", "[unterminated", "=value without a key"])
def test_a_malformed_line_is_reported_with_file_and_number(launch, output_pipe, broken):
    daemon, pipe = launch(ini_text(timer(1, 3600)) + f"\n{broken}\n"), output_pipe()
    line_number = len(ini_text(timer(1, 3600)).splitlines()) + 2
    rejected = daemon.log.matching(REJECTED)
    assert len(rejected) == 1
    place = rejected[0].split(REJECTED)[1]
    assert str(daemon.settings_file) in place and f"{line_number}" in place.replace(str(daemon.settings_file), "")
    daemon.write_settings(SERVER)
    daemon.reload()
    post(block("Door"))
    pipe.wait_for_event("Door")


def test_a_fetch_that_fails_on_reload_leaves_the_running_sources_as_they_are(launch, output_pipe):
    pipe = output_pipe()
    daemon = launch(SERVER | timer(1, 1))
    for spoil in (daemon.settings_file.unlink, lambda: daemon.write_settings("broken\n")):
        spoil()
        daemon.reload(until=REJECTED)
        ticks = len(pipe.items)
        pipe.wait_for_event("Timer", after=ticks, count=2)
        post(block("Door"))
        pipe.wait_for_event("Door", after=ticks)
    assert len(daemon.log.matching(r"Configuring\.\.\.")) == 1
    assert not daemon.log.matching("stopped$")


def test_the_files_of_a_settings_folder_are_read_in_the_order_of_their_names(launch, tmp_path):
    folder = tmp_path / "store"
    folder.mkdir()
    (folder / "10-camera.ini").write_text(ini_text(timer(1, 10)))
    (folder / "20-site.ini").write_text(ini_text({"Events/Source#1/Timer": {"Interval.sec": 30}}))
    (folder / "30-notes.txt").write_text("no settings at all")
    daemon = launch(None, store=folder)
    daemon.log.wait_for("\tTimer Interval: 30$")


def test_without_any_settings_it_runs_and_says_what_it_misses(launch):
    daemon = launch("")
    assert len(daemon.log.matching("Warning halvek: \tError LoadServers: .")) == 1
    assert len(daemon.log.matching(" (Warning|Error) ")) == 2  # and there is no bus
    assert len(daemon.log.matching("Information MsgBusEventSource: MsgBusEventSource started$")) == 1
    assert not DEFAULT_INPUT.exists()


def test_a_server_that_is_no_pipe_is_refused_and_the_rest_runs(launch):
    daemon = launch({"Applications/halvek/Server": {"Type": "Socket"}} | timer(1, 3600) | handler(1, "Events/Source#1"))
    refused = "Warning halvek: \tError LoadServers: We currently only support pipe servers$"
    assert len(daemon.log.matching(refused)) == 1
    daemon.log.wait_for("TICK: 3600 sec")
    assert not DEFAULT_INPUT.exists()
