#!/usr/bin/env python3
"""uva-soak that is stopped: soak_test.py UVA_SOAK CLIP."""

import os
import pathlib
import signal
import subprocess
import sys
import unittest
import uuid

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
from wait_until import wait_until  # noqa: E402

SOAK, CLIP = sys.argv[1:3]
# A moment after Ctrl-C it kills what it started, as meson devenv does.
IMPATIENT = "import subprocess, sys; subprocess.call(sys.argv[1:])"


class Stopped(unittest.TestCase):
    def setUp(self):
        """Two lanes, each with a host that plays. All that comes of it has a mark in its environment."""
        self.mark = f"SOAK_TEST={uuid.uuid4()}"
        name, value = self.mark.split("=")
        self.soak = subprocess.Popen([sys.executable, "-c", IMPATIENT, SOAK, "--minutes", "10", "--seed", "1",
                                      "--lanes", "url,samples", CLIP], env=dict(os.environ, **{name: value}),
                                     stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                     text=True, start_new_session=True)
        self.addCleanup(self.clear)
        self.assertTrue(wait_until(lambda: self.living().count("uva-host") == 2), self.living())

    def clear(self):
        for process in self.marked():
            os.kill(process, signal.SIGKILL)
        self.soak.stdout.close()
        self.soak.wait()

    def marked(self):
        found = []
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                if self.mark.encode() in (process / "environ").read_bytes().split(b"\0"):
                    found.append(int(process.name))
            except OSError:
                pass  # it has ended
        return found

    def living(self):
        names = []
        for process in self.marked():
            try:
                names.append(pathlib.Path(f"/proc/{process}/comm").read_text().strip())
            except OSError:
                pass
        return names

    def expect_end(self):
        self.assertTrue(wait_until(lambda: not self.living()), self.living())

    def test_ctrl_c_ends_all_in_order(self):
        os.killpg(self.soak.pid, signal.SIGINT)
        self.expect_end()
        said = self.soak.stdout.read()
        self.assertRegex(said, r"all elements together\), interrupted\n(?s:.*)\nurl: passes \d+(?s:.*)\n0 failures\n")

    def test_killed_it_leaves_nothing(self):
        os.killpg(self.soak.pid, signal.SIGKILL)
        self.expect_end()


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
