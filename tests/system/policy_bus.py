"""A bus with the policies that are installed with the daemon and with the virtual camera.

It has accounts of its own, mounted over /etc/passwd and /etc/group. Root gives each of them a user to itself; an
ordinary user has only one to give away, which then stands for all the roles of a test at once, and for no other.
"""

import os
import shutil
import tempfile
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from testing.bus import PrivateBus
from testing.bus_client import BusClient
from testing.camera import CAMERA, PROVIDERS, service
from testing.tree import ROOT
from testing.users import FIRST_UID, HAS_USERS

POLICIES = {name: ROOT / f"packaging/{name}.conf" for name in ("halvek", "kelto-vcam")}
OWNER, DAEMON, OPERATOR, SOMEBODY, ANALYTICS = "kelto-vcam", "halvek", "root", "somebody", "analytics"
ROLES = (OPERATOR, OWNER, DAEMON, SOMEBODY, ANALYTICS)
ALERT_GROUP = "halvek-analytics"  # of which the role ANALYTICS is a member
NAMES = (*PROVIDERS, CAMERA)
ALERT_GID = 61900

# What a system bus begins with, and one that is as careless as can be.
USUAL = """
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
"""
CARELESS = '<allow user="*"/><allow own="*"/><allow send_destination="*"/><allow receive_sender="*"/>'
DEAF = USUAL.replace('<allow receive_type="signal"/>', '<deny receive_type="signal"/>')

CONFIGURATION = """\
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">{defaults}</policy>
  {policies}
</busconfig>
"""


def uids(roles: tuple[str, ...]) -> dict[str, int]:
    """The user of every account. Where there is only one, the roles share it and the other accounts are nobody's."""
    if HAS_USERS:
        return {name: 0 if name == OPERATOR else FIRST_UID + number for number, name in enumerate(ROLES)}
    return {name: 0 if name in roles else FIRST_UID + number for number, name in enumerate(ROLES)}


@contextmanager
def acting_as(uid: int, groups: list[int]) -> Iterator[None]:
    if uid == os.getuid():
        yield
        return
    own_groups = os.getgroups()
    os.setgroups(groups)
    os.setresuid(uid, uid, 0)
    try:
        yield
    finally:
        os.setresuid(0, 0, 0)
        os.setgroups(own_groups)


class PolicyBus:
    """A bus with the installed policies, for the roles that a test plays."""

    def __init__(self, roles: tuple[str, ...], defaults: str, policies: tuple[str, ...]) -> None:
        self.folder = Path(tempfile.mkdtemp(dir="/run"))
        self.folder.chmod(0o755)  # the other users cannot look into pytest's folders
        self.uids = uids(roles)
        self.roles = roles
        accounts, groups = self.folder / "passwd", self.folder / "group"
        accounts.write_text("".join(f"{name}:x:{uid}:{uid}::/:/bin/sh\n" for name, uid in self.uids.items()))
        groups.write_text(f"{ALERT_GROUP}:x:{ALERT_GID}:{ANALYTICS}\n")
        included = "".join(f"<include>{POLICIES[name]}</include>" for name in policies)
        configuration = CONFIGURATION.format(socket="{socket}", defaults=defaults, policies=included)
        script = 'mount -n --bind "$0" /etc/passwd && mount -n --bind "$1" /etc/group && shift && exec "$@"'
        self._bus = PrivateBus(
            self.folder, configuration, prefix=("unshare", "-m", "sh", "-c", script, str(accounts), str(groups))
        )
        self.complaints = self._bus.complaints

    def client(self, role: str) -> BusClient:
        assert role in self.roles
        with acting_as(self.uids[role], [ALERT_GID] if role == ANALYTICS else []):
            return self._bus.client()

    def camera(self, *names: str) -> BusClient:
        client = self.client(OWNER)
        for name in names or NAMES:
            client.own(service(name)[0])
        return client

    def close(self) -> None:
        self._bus.close()
        shutil.rmtree(self.folder)
