"""Mounts of a test's own, which go with it. Import before anything is read from /tmp."""

import os
import subprocess
import sys

if "TEST_HAS_OWN_MOUNTS" not in os.environ:
    os.environ["TEST_HAS_OWN_MOUNTS"] = "1"
    own_ids = ["-m"] if os.geteuid() == 0 else ["-Urm"]
    os.execvp("unshare", ["unshare", *own_ids, sys.executable, *sys.argv])


def mount_memory(path, *options):
    """Says whether that worked."""
    return subprocess.run(["mount", "-t", "tmpfs", *options, "tmpfs", path]).returncode == 0
