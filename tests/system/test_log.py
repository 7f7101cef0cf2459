"""The log: its form, and where its level comes from."""

from harness import SERVER, Settings, block, post, timer

RECORD = r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3} (Trace|Debug|Information|Warning|Error) [A-Za-z.]+: "
ANY_LEVEL = {"KELTO_LOG": ""}


def with_level(level: str) -> Settings:
    return SERVER | {"Applications/halvek": {"LogLevel": level}}


def test_every_record_has_the_time_the_level_and_the_name(launch):
    daemon = launch("", level="Trace")
    daemon.log.wait_for("Dropping to run state$")
    behind = daemon.log.wait_for(r"\*{63}$")  # behind the settings, which are printed as they are
    assert daemon.log.items[behind:] == daemon.log.matching(RECORD, after=behind)


def test_nothing_but_records_and_the_settings_stands_on_standard_error(launch):
    daemon = launch("")
    assert daemon.stop() == 0
    assert daemon.log.items == daemon.log.matching(RECORD)


def test_the_level_comes_from_the_settings_and_follows_a_reload(launch):
    daemon = launch(with_level("Warning"), environment=ANY_LEVEL)
    assert not daemon.log.matching(" (Trace|Debug|Information) ")
    assert daemon.log.matching(" Warning ")
    daemon.write_settings(with_level("Trace"))
    daemon.send(1)
    daemon.log.wait_for("Debug halvek: Done starting sources")
    post(block("Door"))
    daemon.log.wait_for(r"Trace halvek: Got line: \[Door\]$")


def test_without_a_setting_the_level_is_information(launch):
    daemon = launch(SERVER, environment=ANY_LEVEL)
    daemon.log.wait_for("Information halvek: Dropping to run state$")
    assert not daemon.log.matching(" (Trace|Debug) ")


def test_the_environment_wins_over_the_settings(launch):
    daemon = launch(with_level("Trace"), level="Error")
    post(block("Door"))
    assert daemon.stop() == 0
    assert not daemon.log.items


def test_the_level_of_one_logger_can_be_set_alone(launch):
    settings = with_level("Error")
    settings["Applications/halvek"]["LogLevel.halvek"] = "Debug"
    daemon = launch(settings | timer(1, 3600), environment=ANY_LEVEL)
    daemon.log.wait_for("Debug halvek: TICK: 3600 sec$")
