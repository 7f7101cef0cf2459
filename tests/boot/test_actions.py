"""Every source and action inside the sandbox, with the installed programs and the installed bus policy."""

import base64
import json
import subprocess
from pathlib import Path

import pytest
from testing.ftp_server import FtpServer
from testing.mail_sink import MailSink
from testing.settings import handler, source
from testing.waiting import wait_until
from machine import (
    CAMERA_UNIT,
    EVENT_PIPE,
    SERVER,
    SNAPSHOT,
    STATE,
    UNIT,
    USER,
    Consumer,
    Journal,
    camera_call,
    configure,
    main_pid,
    on_door,
    open_door,
    processes_of,
    run,
    run_as,
    seconds_of,
    show,
)

CARD = Path("/media/sd")
ESMTP_CONFIGURATION = Path("/etc/esmtprc")
SAVED = "Copy succeeded"


@pytest.fixture(scope="module", autouse=True)
def people() -> None:
    for name in ("poster", "listener", "stranger"):
        run("useradd", name)


def camera_orders() -> list[str]:
    (actions,) = json.loads(camera_call("GetActions"))["data"]
    return [f"{method} {arguments}" for _, method, arguments in actions]


def wait_for_order(text: str) -> None:
    wait_until(lambda: [order for order in camera_orders() if text in order], f"the camera is told {text}")


def assert_picture(content: bytes) -> None:
    assert content[:2] == b"\xff\xd8" and content[-2:] == b"\xff\xd9"


def test_a_member_of_the_posting_group_posts_from_the_shell(consumer: Consumer):
    command = f"printf '[Bell]\\nbutton=2\\n.\\n' > {EVENT_PIPE}"
    assert run_as("poster", "halvek-post", command=command).returncode == 0
    assert consumer.wait_for_event("Bell").properties["button"] == "2"


ALERT = "busctl --system emit /x com.zentu.analytics AnalyticsAlert 'sssssa(dd)a(dd)ss' {} b c d e 0 0 f g"


def test_a_member_of_the_analytics_group_raises_alerts_and_a_stranger_does_not(consumer: Consumer):
    run_as("stranger", command=ALERT.format("stranger"))
    assert run_as("poster", "halvek-analytics", command=ALERT.format("member")).returncode == 0
    run("sh", "-c", ALERT.format("root"))
    consumer.wait_for_event("AnalyticsAlert", properties={"source": "root"})
    assert [event.properties["source"] for event in consumer.of_type("AnalyticsAlert")] == ["member", "root"]


def test_a_member_of_the_posting_group_cannot_read_what_others_post(service: None):
    for redirection in ("<", "<>"):
        reading = run_as("poster", "halvek-post", command=f"timeout 5 cat {redirection} {EVENT_PIPE}")
        assert "Permission denied" in reading.stderr


def test_an_ordinary_file_among_the_pipes_is_written_to_and_holds_up_none_behind_it(consumer: Consumer):
    file = Path("/run/halvek/ordinary.halvek.any")
    run("sh", "-c", f"umask 022; : > {file}")
    journal = Journal()
    open_door()
    consumer.wait_for_event("Door")
    assert file.read_text().startswith("[Door]\n") and file.read_text().endswith("\n.\n")
    assert not journal.matching("FIFO open() failed")
    file.unlink()


@pytest.mark.parametrize("go", ["mv /run/halvek /run/halvek.old", "rm -r /run/halvek"])
def test_a_folder_of_pipes_that_is_made_anew_is_seen(service: None, go: str):
    run("sh", "-c", go)
    run("systemd-tmpfiles", "--create", "halvek.conf")
    consumer = Consumer()
    open_door()
    consumer.wait_for_event("Door")
    consumer.close()
    run("rm", "-rf", "/run/halvek.old")


def test_a_stranger_may_neither_post_nor_listen(service: None):
    assert "Permission denied" in run_as("stranger", command=f"echo . > {EVENT_PIPE}").stderr
    assert "Permission denied" in run_as("stranger", command=f"cat {EVENT_PIPE}").stderr
    assert "Permission denied" in run_as("stranger", command="mkfifo /run/halvek/x.halvek.any").stderr


def test_a_member_of_the_listening_group_makes_a_pipe_and_reads_events(service: None):
    pipe = "/run/halvek/shell.halvek.any"
    command = f"mkfifo {pipe} && timeout 20 head -n 1 {pipe}; rm {pipe}"
    with subprocess.Popen(
        ["setpriv", "--reuid=listener", "--regid=listener", "--groups", "halvek-listen", "sh", "-c", command],
        stdout=subprocess.PIPE,
        text=True,
    ) as listener:
        wait_until(lambda: Path(pipe).is_fifo(), "the listener's pipe is there")
        while listener.poll() is None:
            open_door()
            try:
                listener.wait(0.1)
            except subprocess.TimeoutExpired:
                continue
        assert listener.stdout.read() == "[Door]\n"


def test_a_relay_is_driven_over_the_bus(camera: None):
    configure(on_door(("Relay", {"Index": 1, "Mode": 1})))
    open_door()
    wait_for_order("RelayV3.Activate")


def test_the_head_goes_to_a_preset_and_on_a_tour(camera: None):
    configure(on_door(("Preset", {"Id": "3"}), ("Tour", {"Id": "2"})))
    open_door()
    wait_for_order("PresetsV2.GoTo")
    wait_for_order("Tour.Start")


def test_an_alarm_and_a_rest_of_the_head_become_events(camera: None, consumer: Consumer):
    configure(SERVER | source(1, "Alarm", Index=1) | source(2, "Park", DwellTime_sec=1))
    camera_call("SetAlarm", "sib", "Local", "1", "true")
    consumer.wait_for_event("Alarm")
    camera_call("SetIdleState", "i", "1")
    camera_call("SetIdleState", "i", "0")
    consumer.wait_for_event("Park")


def test_a_service_is_found_again_after_it_has_restarted(camera: None):
    configure(on_door(("Relay", {"Index": 1})))
    run("systemctl", "restart", CAMERA_UNIT)
    open_door()
    wait_for_order("RelayV3.Activate")


def test_only_the_daemon_and_root_may_call_the_cameras_services(camera: None):
    call = "busctl --system call com.kelto.RelayV3 /com/kelto/RelayV3 com.kelto.RelayV3 GetBankNames"
    assert "denied" in run_as("stranger", command=call).stderr
    assert "Local" in run_as(USER, command=call).stdout


def test_the_snapshot_is_saved_into_folders(camera: None):
    folder, temporary = STATE / "snapshots", Path("/tmp/saved")
    for path in (folder, temporary):
        path.mkdir(exist_ok=True)
        run("chown", USER, path)
    keys = {"DestName": "door.jpg", "Attachment": "true"}
    configure(on_door(*(("Folder", keys | {"DestinationPath": path}) for path in (folder, temporary))))
    open_door()
    for path in (folder, temporary):
        wait_until((path / "door.jpg").exists, f"the snapshot in {path}")
        assert_picture((path / "door.jpg").read_bytes())


def test_a_limited_folder_loses_its_oldest_file(camera: None):
    folder = STATE / "limited"
    folder.mkdir()
    for name, age in (("oldest", 3), ("older", 2), ("old", 1)):
        (folder / name).write_bytes(bytes(100_000))
        run("touch", "-d", f"{age} hours ago", folder / name)
    run("chown", "-R", USER, folder)
    journal = Journal()
    keys = {"DestinationPath": folder, "DestName": "door.jpg", "Attachment": "true", "LimitSize": "250000"}
    configure(on_door(("Folder", keys)))
    open_door()
    wait_until((folder / "door.jpg").exists, "the snapshot")
    assert not (folder / "oldest").exists() and (folder / "old").exists()
    assert not journal.matching("terminated by signal")


def test_a_card_mounted_after_the_start_is_written_to_and_can_be_unmounted(camera: None):
    keys = {"DestinationPath": CARD, "DestName": "door.jpg", "Attachment": "true"}
    configure(on_door(("Folder", keys)))
    pid = main_pid()
    for _ in range(2):
        run("mount", "-t", "tmpfs", "-o", "mode=0777", "card", CARD)
        assert f" {CARD} " in Path(f"/proc/{pid}/mountinfo").read_text()
        open_door()
        wait_until((CARD / "door.jpg").exists, "the snapshot on the card")
        assert_picture((CARD / "door.jpg").read_bytes())
        run("umount", CARD)
        assert f" {CARD} " not in Path(f"/proc/{pid}/mountinfo").read_text()
        assert not list(CARD.iterdir())
    assert main_pid() == pid


def test_a_card_that_was_there_at_the_start_can_be_unmounted(camera: None):
    configure(on_door(("Folder", {"DestinationPath": CARD, "DestName": "door.jpg", "Attachment": "true"})))
    run("mount", "-t", "tmpfs", "-o", "mode=0777", "card", CARD)
    run("systemctl", "restart", UNIT)
    open_door()
    wait_until((CARD / "door.jpg").exists, "the snapshot on the card")
    run("umount", CARD)
    assert f" {CARD} " not in Path(f"/proc/{main_pid()}/mountinfo").read_text()


def test_nothing_is_saved_to_the_card_while_the_camera_records_to_it(camera: None):
    configure(on_door(("Folder", {"DestinationPath": CARD, "DestName": "door.jpg", "Attachment": "true"})))
    camera_call("SetRecording", "bb", "true", "false")
    journal = Journal()
    try:
        open_door()
        journal.wait_for("Local recording disables saving snapshots to the SD card.")
    finally:
        camera_call("SetRecording", "bb", "false", "false")
    assert not list(CARD.iterdir())


def uploading(**keys: object) -> tuple[str, dict[str, object]]:
    own = {"Server": "127.0.0.1", "Username": "camera", "Password": "secret", "DestName": "door.jpg"}
    return "Ftp", own | {"BasePath": "/", "Attachment": "true"} | keys


def test_the_snapshot_is_uploaded(camera: None, ftp: FtpServer):
    configure(on_door(uploading()))
    open_door()
    assert_picture(ftp.wait_for_file("/door.jpg"))


def test_a_folder_of_the_server_below_home_is_found_on_the_camera(camera: None, ftp: FtpServer):
    """Its owner may keep what is in it to himself."""
    folder = Path("/home/camera7")
    folder.mkdir(mode=0o700)
    (ftp.folder / "home/camera7").mkdir(parents=True)
    journal = Journal()
    configure(on_door(uploading(BasePath=folder)))
    assert not journal.matching("No destination path found")
    open_door()
    assert_picture(ftp.wait_for_file("/home/camera7/door.jpg"))


def test_a_stop_ends_a_hung_upload(camera: None, ftp: FtpServer):
    configure(on_door(uploading()))
    ftp.set_fault("hang")
    open_door()
    ftp.wait_for_hung_connection()
    assert [line for line in processes_of(USER) if "ftpput" in line]
    assert seconds_of(("systemctl", "stop", UNIT)) < 5
    assert (show("Result"), show("ExecMainStatus")) == ("success", "0")
    assert processes_of(USER) == []


@pytest.fixture
def mail_configuration(sink: MailSink):
    ESMTP_CONFIGURATION.write_text(f"hostname=127.0.0.1:{sink.port}\n")
    yield
    ESMTP_CONFIGURATION.unlink()


def test_the_snapshot_is_mailed(camera: None, sink: MailSink, mail_configuration: None):
    message = base64.b64encode(b"Somebody is at the door.").decode()
    own = {"To": "guard@x.example", "From": "camera@x.example", "Subject": "Door"}
    configure(on_door(("Email", own | {"Message": message, "Attachment": "true"})))
    open_door()
    (mail,) = sink.wait_for(1)
    assert mail.recipients == ["guard@x.example"]
    (picture,) = mail.message.iter_attachments()
    assert picture.get_filename() == SNAPSHOT.name
    assert_picture(picture.get_content())
    assert "Somebody is at the door." in mail.message.get_body().get_content()


def test_several_actions_follow_one_event(camera: None, consumer: Consumer, ftp: FtpServer):
    """And whatever the tests before had the daemon do has left it running."""
    handlers = on_door(("Relay", {"Index": 1}), ("Tour", {"Id": "1"}), uploading())
    configure(handlers | handler(9, "Events/Source#1", handler_type="Preset", Id="5"))
    open_door()
    consumer.wait_for_event("Door")
    assert_picture(ftp.wait_for_file("/door.jpg"))
    wait_for_order("PresetsV2.GoTo")
