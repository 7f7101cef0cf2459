"""What the tests of halvekctl's package share."""

from pathlib import Path

from machine import SERVER
from testing.settings import Settings, handler, timer

(PACKAGE,) = Path("/srv/companions").glob("halvekctl_*.deb")
NAME = "halvekctl"
CLEAN: Settings = SERVER | timer(1, 1)
# The handler names a source that is not there. The timer's interval tells which settings are in force.
MISTAKEN: Settings = SERVER | timer(1, 3600) | handler(1, "Events/Source#7", handler_type="Relay")
