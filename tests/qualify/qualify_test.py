#!/usr/bin/env python3
"""uva-qualify as an integrator runs it: on the simulated set everything holds, and the reports say so.

Usage: qualify_test.py UVA_QUALIFY ZANT_MAINSYS FAKE_BACKEND
"""

import json
import os
import pathlib
import pty
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree

QUALIFY, MAINSYS, FAKE_BACKEND = sys.argv[1:]
GROUPS = ["playback", "seek", "switch", "underflow", "pause", "elements", "release", "resources", "capability", "keys",
          "mainsystem"]


def run(*arguments, timeout=600):
    done = subprocess.run([QUALIFY, *map(str, arguments)], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          errors="replace", timeout=timeout)
    return done.returncode, done.stdout, done.stderr


def findings(report):
    return {(found["group"], found["check"]): found for group in report["groups"] for found in group["findings"]}


class Qualify(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def report(self, *arguments):
        """Exit code, output and JSON report."""
        path = self.folder / "report.json"
        code, output, errors = run("--json", path, *arguments)
        return code, output + errors, json.loads(path.read_text())

    def test_the_simulated_set_holds(self):
        page, junit = self.folder / "report.html", self.folder / "report.xml"
        code, output, report = self.report("--short", "--main-system", MAINSYS, "--html", page, "--junit", junit)
        self.assertEqual(code, 0, output)
        self.assertEqual([group["name"] for group in report["groups"]], GROUPS)
        found = findings(report)
        self.assertEqual(report["passed"] + report["notJudged"], len(found))
        # A machine that does much else is told from a set that plays badly; nothing else is left open.
        for check, finding in found.items():
            if finding["verdict"] == "not judged":
                self.assertIn("machine was busy", finding["note"], check)
        self.assertEqual(output.splitlines()[-1:],
                         [f"{report['passed']} passed, 0 failed, {report['notJudged']} not judged"])
        # Every check that is listed has been made.
        listed = run("--list")[1]
        for group, check in found:
            self.assertIn(f"  {check.removesuffix(' by URL')}: ", listed, group)
        self.assertEqual(len([line for line in listed.splitlines() if line.startswith("  ")]),
                         len({(group, check.removesuffix(" by URL")) for group, check in found}))

        suites = xml.etree.ElementTree.parse(junit).getroot()
        self.assertEqual(sum(int(suite.get("tests")) for suite in suites), len(found))
        self.assertEqual(sum(int(suite.get("failures")) for suite in suites), 0)
        text = page.read_text()
        self.assertGreater(text.count("<svg"), 5)
        self.assertGreater(text.count("data:image/png;base64,"), 5)

    def test_what_changed_is_told(self):
        before = self.folder / "before.json"
        code, output, report = self.report("--short", "--standalone", "--group", "pause")
        self.assertEqual(code, 0, output)
        for finding in report["groups"][0]["findings"]:
            if finding["check"] == "stops":
                finding.update(measured=40.0, verdict="failed")
            if finding["check"] == "silent":
                finding.update(check="was once")
        before.write_text(json.dumps(report))
        code, output, _ = self.report("--short", "--standalone", "--group", "pause", "--baseline", before)
        self.assertEqual(code, 0, output)
        self.assertRegex(output, r"mended: pause, stops: 40 ms, failed -> .*passed")
        self.assertRegex(output, r"new: pause, silent")
        self.assertRegex(output, r"gone: pause, was once")

    def test_a_backend_that_shows_nothing_fails(self):
        code, output, report = self.report("--short", "--standalone", "--group", "playback", "--backend", FAKE_BACKEND)
        self.assertEqual(code, 1, output)
        self.assertGreater(report["failed"], 0)

    def test_without_the_sinks_pictures_are_captured(self):
        code, output, report = self.report("--short", "--standalone", "--group", "seek", "--observe", "capture")
        self.assertEqual(code, 0, output)
        self.assertIn("captured", report["groups"][0]["observed"])

    def test_what_cannot_begin_says_why(self):
        rows = [(["--group", "none"], "no group"), (["--media", "/nowhere", "--group", "seek"], "--media"),
                (["--backend", "/nowhere.so", "--group", "seek"], "/nowhere.so"),
                (["--baseline", "/nowhere"], "--json wrote"), (["--json", "/nowhere/x"], "/nowhere/x")]
        for arguments, reason in rows:
            with self.subTest(arguments=arguments):
                code, _, errors = run(*arguments)
                self.assertEqual(code, 2)
                self.assertIn(reason, errors)

    def test_a_terminal_sees_each_check(self):
        ours, theirs = pty.openpty()
        child = subprocess.Popen([QUALIFY, "--short", "--standalone", "--group", "capability"], stdin=subprocess.DEVNULL,
                                 stdout=theirs, stderr=subprocess.DEVNULL)
        os.close(theirs)
        seen = b""
        try:
            while piece := os.read(ours, 4096):
                seen += piece
        except OSError:  # the last one has closed it
            pass
        os.close(ours)
        self.assertEqual(child.wait(), 0, seen)
        self.assertEqual(seen.count(b"passed\x1b[0m: capability, "), 5, seen)


unittest.main(argv=sys.argv[:1], verbosity=2, warnings="ignore")
