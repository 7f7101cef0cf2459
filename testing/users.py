"""The users that tests make up beside the one who runs them."""

from pathlib import Path

FIRST_UID = 61000
COUNT = 8
# An ordinary user is root of a user namespace in which there is nobody else.
HAS_USERS = any(
    int(first) <= FIRST_UID and FIRST_UID + COUNT <= int(first) + int(count)
    for first, _, count in map(str.split, Path("/proc/self/uid_map").read_text().splitlines())
)
