#!/usr/bin/env python3
"""A library with a fault fails in the group of checks that the fault is for, and in no other.

Usage: faults_test.py TVBOX UVA_QUALIFY ZANT_MAINSYS FAULTY_LIBRARY SHARE FAULT...

FAULTY_LIBRARY has all faults; UVA_FAULT says which one is on. Each runs in a box of its own, some at a time.
"""

import concurrent.futures
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

TVBOX, QUALIFY, MAINSYS, LIBRARY, SHARE, *FAULTS = sys.argv[1:]
AT_A_TIME = 3


def run(fault, folder):
    report = pathlib.Path(folder) / f"{fault}.json"
    done = subprocess.run([TVBOX, "--share", SHARE, "--share", folder, "--", QUALIFY, "--short", "--backend", LIBRARY,
                           "--main-system", MAINSYS, "--json", str(report)],
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace", timeout=1200, env=dict(os.environ, UVA_FAULT=fault))
    groups = json.loads(report.read_text())["groups"] if report.exists() else []
    return done, {group["name"]: [found for found in group["findings"] if found["verdict"] == "failed"] for group in groups}


class Faults(unittest.TestCase):
    def test_each_fails_in_its_group_alone(self):
        with tempfile.TemporaryDirectory() as folder, concurrent.futures.ThreadPoolExecutor(AT_A_TIME) as pool:
            for fault, (done, failed) in zip(FAULTS, pool.map(lambda fault: run(fault, folder), FAULTS)):
                with self.subTest(fault=fault):
                    self.assertEqual(done.returncode, 1, done.stdout)
                    self.assertEqual([name for name, findings in failed.items() if findings], [fault], done.stdout)


unittest.main(argv=sys.argv[:1], verbosity=2, warnings="ignore")
