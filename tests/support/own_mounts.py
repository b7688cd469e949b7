"""Mounts of a test's own, which go with it. Import before anything is read from /tmp."""

import os
import pathlib
import subprocess
import sys

if "TEST_HAS_OWN_MOUNTS" not in os.environ:
    os.environ["TEST_HAS_OWN_MOUNTS"] = "1"
    own_ids = ["-m"] if os.geteuid() == 0 else ["-Urm"]
    os.execvp("unshare", ["unshare", *own_ids, sys.executable, *sys.argv])


def mount_memory(path, *options):
    """Says whether that worked."""
    return subprocess.run(["mount", "-t", "tmpfs", *options, "tmpfs", path]).returncode == 0


def hide_tmp(*kept):
    """Puts an empty file system over /tmp, in which the folders of /tmp that hold these paths stay. Says whether
    that worked."""
    new = "/mnt"  # where the new one is made, until it is complete
    if not mount_memory(new, "-o", "mode=1777"):
        return False
    tops = {path.parts[2] for path in (pathlib.Path(path).resolve() for path in kept)
            if path.parts[:2] == ("/", "tmp") and len(path.parts) > 2}
    for top in tops:
        inside = pathlib.Path(new) / top
        inside.mkdir()
        subprocess.run(["mount", "--rbind", f"/tmp/{top}", inside], check=True)
    subprocess.run(["mount", "--rbind", new, "/tmp"], check=True)
    return True
