#!/usr/bin/env python3
"""That bench/run measures every row and judges by its limits; no figure of the machine's is judged here.

Usage: bench_test.py RUN BUILD without-web|with-web
"""

import importlib.machinery
import importlib.util
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree

RUN, BUILD, WEB = sys.argv[1:]

loader = importlib.machinery.SourceFileLoader("run", RUN)
sys.dont_write_bytecode = True
run = importlib.util.module_from_spec(importlib.util.spec_from_loader("run", loader))
loader.exec_module(run)


def bench(*options):
    return subprocess.run([RUN, *options], capture_output=True, text=True)


def row(limit, ours, peer=()):
    made = run.Row("row", "what", "peer" if peer else "", limit, "µs", "budget", "command")
    made.ours, made.peer = list(ours), list(peer)
    return made


class Report(unittest.TestCase):
    def test_every_row_has_a_figure(self):
        names = [fields[0] for fields in run.ROWS if WEB == "with-web" or fields[0] != "page_start"]
        with tempfile.TemporaryDirectory() as folder:
            report = pathlib.Path(folder, "report.md")
            done = bench("--quick", "--build", BUILD, "--report", report, *(f"--row={name}" for name in names))
            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
            cells = [re.split(r" *\| *", line)[1:-1] for line in report.read_text().splitlines() if line.startswith("| ")]
            drawings = sorted(xml.etree.ElementTree.parse(path).getroot().tag for path in pathlib.Path(folder).glob("*.svg"))
        self.assertEqual([row[0] for row in cells[1:]], names)
        for name, _, ours, against, peer, ratio, limit, verdict in cells[1:]:
            self.assertRegex(ours, r"^-?\d", name)
            self.assertEqual(bool(against), bool(re.match(r"-?\d", peer)), name)
            self.assertEqual(bool(limit), bool(verdict), name)
        self.assertEqual(drawings, ["{http://www.w3.org/2000/svg}svg"] * 2)
        self.assertRegex(done.stdout, rf"{len(names)} rows, \d+ limits kept, \d+ missed")

    def test_what_fails_is_named_and_is_no_figure(self):
        fields = [("query", "", "", "", "", "", "media_source no_such"), ("start", "", "", "", "", "", "no_such start")]
        run.ROWS, kept = fields, run.ROWS
        try:
            rows, faults = run.measure(["query", "start"], pathlib.Path(BUILD), 1)
        finally:
            run.ROWS = kept
        self.assertEqual(rows, [])
        self.assertRegex("\n".join(faults), r"media_source no_such: .*say .*what to measure")
        self.assertIn("start: no figure", faults)

    def test_a_wrong_command_line_is_told_at_once(self):
        for options, text in [(["--row=nonsense"], "--list"), (["--report=/nowhere/at/all.md"], "no folder"),
                              (["--compare=HEAD", "--build=."], "leave out --build"), (["--compare=nothing"], "no revision")]:
            done = bench(*options)
            self.assertEqual(done.returncode, 2, options)
            self.assertIn(text, done.stderr)


class Judgement(unittest.TestCase):
    def test_limits(self):
        peer = [10.0] * 9
        for limit, ours, verdict in [("1.10 x", 10.9, "kept"), ("1.10 x", 11.1, "**MISSED**"), ("+50", 59.0, "kept"),
                                     ("+50", 61.0, "**MISSED**"), ("5", 4.9, "kept"), ("5", 5.1, "**MISSED**"),
                                     ("1.5 x or 20", 19.0, "kept"), ("1.5 x or 20", 21.0, "**MISSED**"), ("", 99.0, "")]:
            self.assertEqual(row(limit, [ours] * 9, peer).verdict(), verdict, (limit, ours))

    def test_turns_are_compared_with_their_own_peers(self):
        drifting = [1.0, 2.0, 4.0, 8.0, 16.0, 32.0, 64.0]
        self.assertEqual(row("1.10 x", [1.05 * value for value in drifting], drifting).verdict(), "kept")

    def test_a_limit_inside_the_interval_is_not_sure(self):
        ours = [0.8, 0.9, 1.0, 1.05, 1.2, 1.3, 1.4, 1.5, 1.6]
        self.assertEqual(row("1.10 x", ours, [1.0] * 9).verdict(), "**MISSED**, within the noise")

    def test_only_passes_that_do_not_overlap_differ(self):
        self.assertTrue(run.differ([1.0, 1.1, 1.2], [1.3, 1.4, 1.5]))
        self.assertTrue(run.differ([1.3, 1.4, 1.5], [1.0, 1.1, 1.2]))
        self.assertFalse(run.differ([1.0, 1.1, 1.3], [1.2, 1.4, 1.5]))


unittest.main(argv=sys.argv[:1], verbosity=2)
