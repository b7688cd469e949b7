#!/usr/bin/env python3
"""A library with a fault fails in the group of checks that the fault is for, and in no other.

Usage: faults_test.py TVBOX UVA_QUALIFY ZANT_MAINSYS FAULTY_LIBRARY SHARE [--all]

FAULTY_LIBRARY has all faults; UVA_FAULT says which one is on. With a fault its own group is run; with
--all, all groups. Each in a box of its own, some at a time.
"""

import concurrent.futures
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

ALL = "--all" in sys.argv
TVBOX, QUALIFY, MAINSYS, LIBRARY, SHARE = [argument for argument in sys.argv[1:] if argument != "--all"]
AT_A_TIME = 3
# Each with the group that finds it, and checks that do; others of the group may.
FAULTS = {
    "playback": ("playback", {"duration by URL"}),
    "playback-sound": ("playback", {"tone", "tone by URL"}),
    "picture": ("picture", {"brightness", "colours", "edges"}),
    "answers": ("answers", {"duration", "rate", "pixel aspect", "ends"}),
    "seek": ("seek", {"paused", "playing"}),
    "switch": ("switch", {"rendition"}),
    "underflow": ("underflow", {"pictures"}),
    "pause": ("pause", {"stops"}),
    "elements": ("elements", {"8 at a time"}),
    "release": ("release", {"any moment"}),
    "resources": ("resources", {"descriptors"}),
    "resources-hidden": ("resources", {"threads", "mapped", "resident", "address space", "files"}),
    "capability": ("capability", {"says what it plays"}),
    "keys": ("keys", {"rotated"}),
    "mainsystem": ("mainsystem", {"refused"}),
}


def groups_for(fault):
    return sorted({group for group, _ in FAULTS.values()}) if ALL else [FAULTS[fault][0]]


def run(fault, folder):
    """What became of it, and what failed in each of the groups."""
    report = pathlib.Path(folder) / f"{fault}.json"
    groups = [word for group in groups_for(fault) for word in ("--group", group)]
    done = subprocess.run([TVBOX, "--require", "--share", SHARE, "--share", folder, "--", QUALIFY, "--short", "--backend", LIBRARY,
                           "--main-system", MAINSYS, "--json", str(report), *groups],
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace", timeout=1200, env=dict(os.environ, UVA_FAULT=fault))
    results = json.loads(report.read_text())["groups"] if report.exists() else []
    return done, {group["name"]: [found["check"] for found in group["findings"] if found["verdict"] == "failed"]
                  for group in results}


class Faults(unittest.TestCase):
    def test_each_fails_in_its_group_alone(self):
        with tempfile.TemporaryDirectory() as folder, concurrent.futures.ThreadPoolExecutor(AT_A_TIME) as pool:
            for fault, (done, failed) in zip(FAULTS, pool.map(lambda fault: run(fault, folder), FAULTS)):
                with self.subTest(fault=fault):
                    self.assertEqual(done.returncode, 1, done.stdout)
                    self.assertCountEqual(failed, groups_for(fault), done.stdout)
                    group, checks = FAULTS[fault]
                    self.assertEqual([name for name, found in failed.items() if found], [group], done.stdout)
                    self.assertLessEqual(checks, set(failed[group]), done.stdout)


unittest.main(argv=sys.argv[:1], verbosity=2, warnings="ignore")
