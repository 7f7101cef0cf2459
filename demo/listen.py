"""Listens at a port of the loopback as descriptor 3, and becomes a command: python3 -m demo.listen PORT COMMAND...

So that what the command starts can be reached from here, whatever network it goes into.
"""

import os
import socket
import sys

SOCKET = 3


def main(port: str, *command: str) -> int:
    listening = socket.socket()
    listening.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    try:
        listening.bind(("127.0.0.1", int(port)))
        listening.listen(64)
    except (OSError, OverflowError) as error:
        print(f"demo: port {port} cannot be had: {error}; --page takes another, and 0 is any", file=sys.stderr)
        return 1
    os.dup2(listening.fileno(), SOCKET)
    os.set_inheritable(SOCKET, True)
    os.execvp(command[0], command)


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
