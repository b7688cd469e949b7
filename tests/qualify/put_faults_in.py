#!/usr/bin/env python3
"""Puts all faults into copies of the sources that they touch.

Usage: put_faults_in.py TOP_OF_THE_TREE OUT_FOLDER PATCH...

OUT_FOLDER gets each touched file under its name alone. A patch that does not apply any more is an error.
"""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile


def main():
    top, out, *patches = map(pathlib.Path, sys.argv[1:])
    with tempfile.TemporaryDirectory() as folder:
        copy = pathlib.Path(folder)
        touched = sorted({name for patch in patches for name in re.findall(r"^\+\+\+ b/(\S+)$", patch.read_text(), re.M)})
        for name in touched:
            (copy / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(top / name, copy / name)
        for patch in patches:
            subprocess.run(["patch", "--silent", "--strip=1", "--no-backup-if-mismatch", f"--directory={copy}",
                            f"--input={patch.resolve()}"], check=True)
        for name in touched:
            shutil.copyfile(copy / name, out / pathlib.Path(name).name)


main()
