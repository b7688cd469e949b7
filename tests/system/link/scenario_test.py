#!/usr/bin/env python3
"""The link between two processes: a main system that plays a scenario, and the plug-in's end of it.

Usage: scenario_test.py FOLDER       all scenarios of the folder, each in a box of its own
       scenario_test.py --play FILE  one, where we are

The beginning of a scenario says what the plug-in's end does ("# client:"), and what options the main
system gets ("# options:"). Environment: TVBOX, ZANT_MAINSYS, LINK_CLIENT.
"""

import concurrent.futures
import os
import pathlib
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "..", "support"))
import gtest_result  # noqa: E402
import leftovers  # noqa: E402

TIMEOUT = 120  # seconds, with room for sanitizers on a busy machine


def words_of(scenario, key):
    mark = f"# {key}:"
    return [word for line in scenario.read_text().splitlines() if line.startswith(mark)
            for word in line[len(mark):].split()]


def play(scenario):
    """Runs both programs; the client once the main system is there, or said to be away."""
    before = leftovers.names()
    options = words_of(scenario, "options")
    main = subprocess.Popen([os.environ["ZANT_MAINSYS"], "--scenario", str(scenario), *options],
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True, errors="replace")
    while "--down" not in options:
        line = main.stdout.readline()
        print("main:", line, end="", flush=True)
        if not line or "main system is up" in line:
            break
    client = subprocess.Popen([os.environ["LINK_CLIENT"], *words_of(scenario, "client")],
                              stdin=subprocess.DEVNULL)
    for line in main.stdout:
        print("main:", line, end="", flush=True)
    codes = main.wait(), client.wait()
    left = leftovers.since(before)
    print(f"exit codes: main system {codes[0]}, client {codes[1]}; left behind: {left}")
    return 0 if codes == (0, 0) and not left else 1


class Scenario(unittest.TestCase):
    """Main system and client both end as they should."""


def case(run):
    def test(self):
        done = run.result()
        self.assertEqual(done.returncode, 0, done.stdout)
        self.assertNotIn("never freed", done.stdout)
    return test


def box(scenario):
    command = [os.environ["TVBOX"], "--", sys.executable, os.path.abspath(__file__), "--play", str(scenario)]
    return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, errors="replace", timeout=TIMEOUT)


if sys.argv[1] == "--play":
    sys.exit(play(pathlib.Path(sys.argv[2])))
scenarios = sorted(pathlib.Path(sys.argv[1]).resolve().glob("*.scenario"))
assert scenarios, "no scenarios there"
with concurrent.futures.ThreadPoolExecutor(max_workers=int(os.environ.get("LINK_JOBS", "4"))) as executor:
    for item in scenarios:
        setattr(Scenario, "test_" + item.stem, case(executor.submit(box, item)))
    sys.argv = sys.argv[:1]
    gtest_result.main()
