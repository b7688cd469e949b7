#!/usr/bin/env python3
"""Names that processes leave in the system: queues, shared memory, sockets.

Usage: leftovers.py COMMAND...    runs the command; exit code 1 when it left any
"""

import contextlib
import os
import socket
import stat
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from wait_until import wait_until  # noqa: E402

QUEUES = "/dev/mqueue"
# Of the two processes of the link; each opens what it finds.
WELL_KNOWN = {"BplayerAppIfLlDestFunc", "BplayerAppIfUlDestFunc"}


def _list(folder):
    with contextlib.suppress(FileNotFoundError):
        return os.listdir(folder)
    return []


def _is_locked(path):
    """Whether a living process is attached to shared memory; looking on disturbs nobody."""
    node = str(os.stat(path).st_ino)
    with open("/proc/locks", encoding="ascii") as locks:
        return any(line.split()[5].split(":")[2] == node for line in locks if "->" not in line)


def _is_served(path):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as probe, contextlib.suppress(OSError):
        probe.connect(path)
        return True
    return False


def names():
    """What is there that no living process is known to hold. Queues are seen in a box only."""
    found = {os.path.join(QUEUES, name) for name in _list(QUEUES) if name not in WELL_KNOWN}
    for folder in ("/dev/shm", "/tmp"):
        for path in (os.path.join(folder, name) for name in _list(folder)):
            with contextlib.suppress(FileNotFoundError):
                is_socket = stat.S_ISSOCK(os.lstat(path).st_mode)
                if is_socket and not _is_served(path) or folder == "/dev/shm" and not _is_locked(path):
                    found.add(path)
    return found


def since(before):
    """What is there now and was not before; processes that are ending may end."""
    wait_until(lambda: not names() - before, 10)
    return sorted(names() - before)


def main():
    before = names()
    code = subprocess.run(sys.argv[1:]).returncode
    left = since(before)
    if left:
        print("left behind:", *left, flush=True)
    sys.exit(1 if left else code if code >= 0 else 128 - code)


if __name__ == "__main__":
    main()
