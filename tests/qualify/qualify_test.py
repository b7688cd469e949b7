#!/usr/bin/env python3
"""uva-qualify as an integrator runs it: on the simulated set everything holds, and the reports say so.

Usage: qualify_test.py TVBOX SHARE LEFTOVERS UVA_QUALIFY ZANT_MAINSYS FAKE_BACKEND

What plays runs in boxes, two at a time, and leaves nothing behind there.
"""

import concurrent.futures
import json
import os
import pathlib
import pty
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree

TVBOX, SHARE, LEFTOVERS, QUALIFY, MAINSYS, FAKE_BACKEND = sys.argv[1:]
GROUPS = ["playback", "seek", "switch", "underflow", "pause", "elements", "release", "resources", "capability", "keys",
          "mainsystem"]
FOLDER = tempfile.TemporaryDirectory()
BOX = [TVBOX, "--require", "--share", SHARE, "--share", FOLDER.name, "--", sys.executable, LEFTOVERS, QUALIFY]


def path(name):
    return pathlib.Path(FOLDER.name) / name


def run(command, **more):
    return subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace", timeout=1000, **more)


def judge(name, *arguments):
    """Exit code, output and JSON report of a short run in a box."""
    report = path(name + ".json")
    done = run([*BOX, "--short", "--json", report, *arguments])
    return done.returncode, done.stdout, json.loads(report.read_text()) if report.exists() else None


def see_changes():
    """Two runs, the first of which is said to have been otherwise."""
    code, output, report = judge("before", "--standalone", "--group", "release")
    if code != 0:
        return code, output, report
    for finding in report["groups"][0]["findings"]:
        if finding["check"] == "any moment":
            finding.update(measured=1100.0, verdict="failed")
        if finding["check"] == "idle":
            finding.update(check="was once")
    path("before.json").write_text(json.dumps(report))
    return judge("after", "--standalone", "--group", "release", "--baseline", path("before.json"))


def watch_on_a_terminal():
    ours, theirs = pty.openpty()
    child = subprocess.Popen([*BOX, "--short", "--standalone", "--group", "release"], stdin=subprocess.DEVNULL, stdout=theirs,
                             stderr=subprocess.DEVNULL)
    os.close(theirs)
    seen = b""
    try:
        while piece := os.read(ours, 4096):
            seen += piece
    except OSError:  # the last one has closed it
        pass
    os.close(ours)
    return child.wait(), seen


def findings(report):
    return {(found["group"], found["check"]): found for group in report["groups"] for found in group["findings"]}


class Qualify(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        pool = concurrent.futures.ThreadPoolExecutor(2)
        cls.addClassCleanup(pool.shutdown)
        cls.whole = pool.submit(judge, "whole", "--main-system", MAINSYS, "--html", path("report.html"), "--junit",
                                path("report.xml"))
        cls.changes = pool.submit(see_changes)
        cls.captured = pool.submit(judge, "captured", "--standalone", "--group", "seek", "--observe", "capture")
        cls.nothing = pool.submit(judge, "nothing", "--standalone", "--group", "playback", "--backend", FAKE_BACKEND)
        cls.terminal = pool.submit(watch_on_a_terminal)

    def test_the_simulated_set_holds(self):
        code, output, report = self.whole.result()
        self.assertEqual(code, 0, output)
        self.assertEqual([group["name"] for group in report["groups"]], GROUPS)
        found = findings(report)
        self.assertEqual(report["passed"] + report["notJudged"], len(found))
        # A machine that does much else is told from a set that plays badly; nothing else is left open,
        # and only what is measured in time.
        for check, finding in found.items():
            if finding["verdict"] == "not judged":
                self.assertIn("machine was busy", finding["note"], check)
                self.assertIn(finding["unit"], ("ms", "%"), check)
        self.assertEqual(output.splitlines()[-1:],
                         [f"{report['passed']} passed, 0 failed, {report['notJudged']} not judged"])
        # Every check that is listed has been made.
        listed = run([QUALIFY, "--list"]).stdout
        for group, check in found:
            self.assertIn(f"  {check.removesuffix(' by URL')}: ", listed, group)
        self.assertEqual(len([line for line in listed.splitlines() if line.startswith("  ")]),
                         len({(group, check.removesuffix(" by URL")) for group, check in found}))

        suites = xml.etree.ElementTree.parse(path("report.xml")).getroot()
        self.assertEqual(sum(int(suite.get("tests")) for suite in suites), len(found))
        self.assertEqual(sum(int(suite.get("failures")) for suite in suites), 0)
        text = path("report.html").read_text()
        self.assertGreater(text.count("<svg"), 5)
        self.assertGreater(text.count("data:image/png;base64,"), 5)

    def test_what_changed_is_told(self):
        code, output, _ = self.changes.result()
        self.assertEqual(code, 0, output)
        self.assertRegex(output, r"mended: release, any moment: 1100 ms, failed -> .*passed")
        self.assertRegex(output, r"new: release, idle")
        self.assertRegex(output, r"gone: release, was once")

    def test_a_backend_that_shows_nothing_fails(self):
        code, output, report = self.nothing.result()
        self.assertEqual(code, 1, output)
        self.assertGreater(report["failed"], 0)

    def test_without_the_sinks_pictures_are_captured(self):
        code, output, report = self.captured.result()
        self.assertEqual(code, 0, output)
        self.assertIn("captured", report["groups"][0]["observed"])

    def test_what_cannot_begin_says_why(self):
        rows = [(["--group", "none"], "no group"), (["--media", "/nowhere", "--group", "seek"], "--media"),
                (["--backend", "/nowhere.so", "--group", "seek"], "/nowhere.so"),
                (["--baseline", "/nowhere"], "--json wrote"), (["--json", "/nowhere/x"], "/nowhere/x")]
        for arguments, reason in rows:
            with self.subTest(arguments=arguments):
                done = run([QUALIFY, *arguments])
                self.assertEqual(done.returncode, 2)
                self.assertIn(reason, done.stdout)

    def test_a_terminal_sees_each_check(self):
        code, seen = self.terminal.result()
        self.assertEqual(code, 0, seen)
        self.assertEqual(seen.count(b"passed\x1b[0m: release, "), 2, seen)


unittest.main(argv=sys.argv[:1], verbosity=2, warnings="ignore")
