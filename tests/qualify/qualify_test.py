#!/usr/bin/env python3
"""uva-qualify as an integrator runs it: on the simulated set everything holds, and the reports say so.

Usage: qualify_test.py TVBOX SHARE LEFTOVERS UVA_QUALIFY ZANT_MAINSYS FAKE_BACKEND

What plays runs in boxes, two at a time, and leaves nothing behind there.
"""

import concurrent.futures
import html
import json
import os
import pathlib
import pty
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree

TVBOX, SHARE, LEFTOVERS, QUALIFY, MAINSYS, FAKE_BACKEND = sys.argv[1:]
GROUPS = ["playback", "picture", "answers", "seek", "switch", "underflow", "pause", "elements", "release", "resources",
          "capability", "keys", "mainsystem"]
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


def stop():
    """A run that a signal ends when the first finding has been told."""
    child = subprocess.Popen([QUALIFY, "--short", "--standalone", "--observe", "sinks", "--backend", FAKE_BACKEND, "--group",
                              "playback", "--group", "seek", "--json", path("stopped.json")], stdin=subprocess.DEVNULL,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    first = child.stdout.readline()
    child.send_signal(signal.SIGTERM)
    return child.wait(60), first + child.communicate()[0]


def run_without_streams():
    report = path("streamless.json")
    words = [QUALIFY, "--short", "--standalone", "--group", "elements", "--json", report]
    done = run([*BOX[:-1], "sh", "-c", '"$@" <&- >&- 2>&-', "sh", *words])
    return done.returncode, done.stdout, json.loads(report.read_text()) if report.exists() else None


# Put into a copy of the report: opens all that is folded up and writes down what a reader would see.
LOOK = """<script>
const complaints = [];
addEventListener("error", event => complaints.push(event.message || "an image"), true);
addEventListener("load", () => {
    document.querySelectorAll("details").forEach(details => { details.open = true; });
    const sizes = (name) => [...document.querySelectorAll(name)].map(part => {
        const box = part.getBoundingClientRect();
        return [box.width, box.height];
    });
    const facts = document.createElement("pre");
    facts.id = "facts";
    facts.textContent = JSON.stringify({
        complaints,
        groups: [...document.querySelectorAll("h2[id]")].filter(group => group.checkVisibility()).map(group => group.id),
        images: [...document.images].map(image => [image.naturalWidth, image.naturalHeight]),
        plots: sizes("svg"),
        beyond: document.documentElement.scrollWidth - document.documentElement.clientWidth,
    });
    document.body.append(facts);
});
</script>"""


def browse(page, width, *options):
    """What a browser prints, and what it complains of."""
    profile = path(f"browser-{page.stem}-{width}")
    done = subprocess.run(["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--enable-logging=stderr",
                           f"--user-data-dir={profile}", f"--window-size={width},2000", *options, page.as_uri()],
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                          errors="replace", timeout=120, check=True)
    return done.stdout, [line for line in done.stderr.splitlines() if "CONSOLE" in line]


def grey_levels(png):
    raw = subprocess.run(["ffmpeg", "-nostdin", "-loglevel", "error", "-i", png, "-f", "rawvideo", "-pix_fmt", "gray", "-"],
                         stdout=subprocess.PIPE, check=True).stdout
    return len(set(raw))


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
        os.environ["FAKE_LEAVES_PROCESS"] = "1"  # which would hold the pipe of its group open
        cls.nothing = pool.submit(judge, "nothing", "--standalone", "--group", "playback", "--backend", FAKE_BACKEND)
        cls.terminal = pool.submit(watch_on_a_terminal)
        cls.stopped = pool.submit(stop)
        cls.streamless = pool.submit(run_without_streams)

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

    @unittest.skipUnless(shutil.which("chromium"), "there is no chromium: the report is not looked at")
    def test_a_browser_shows_the_report(self):
        _, output, _ = self.whole.result()
        self.assertTrue(path("report.html").exists(), output)
        page = path("looked-at.html")
        page.write_text(path("report.html").read_text().replace("</title>", "</title>" + LOOK, 1))
        for width in (1200, 500):
            with self.subTest(width=width):
                dom, errors = browse(page, width, "--dump-dom")
                self.assertEqual(errors, [])
                seen = json.loads(html.unescape(re.search(r'<pre id="facts">(.*?)</pre>', dom, re.S)[1]))
                self.assertEqual(seen["complaints"], [])
                self.assertEqual(seen["groups"], GROUPS)
                self.assertGreater(len(seen["images"]), 5)
                self.assertGreater(len(seen["plots"]), 5)
                for size in seen["images"] + seen["plots"]:
                    self.assertGreater(min(size), 0, seen)
                self.assertLessEqual(seen["beyond"], 0, "the page is wider than the window")
        browse(path("report.html"), 1200, f"--screenshot={path('report.png')}")
        self.assertGreater(grey_levels(path("report.png")), 20)

    def test_what_changed_is_told(self):
        code, output, _ = self.changes.result()
        self.assertEqual(code, 0, output)
        self.assertRegex(output, r"mended: release, any moment: 1100 ms, failed -> .*passed")
        self.assertRegex(output, r"new: release, idle")
        self.assertRegex(output, r"gone: release, was once")

    def test_a_backend_that_shows_nothing_and_leaves_a_process_fails(self):
        code, output, report = self.nothing.result()
        self.assertEqual(code, 1, output)
        self.assertGreater(report["failed"], 1)
        self.assertEqual(findings(report)["playback", "processes"]["verdict"], "failed")

    def test_a_signal_leaves_reports_of_what_was_found(self):
        code, output = self.stopped.result()
        self.assertEqual(code, 3, output)
        self.assertIn("stopped by Terminated", output)
        report = json.loads(path("stopped.json").read_text())
        self.assertFalse(report["complete"])
        self.assertEqual([(group["name"], group["error"]) for group in report["groups"]], [("playback", "stopped by Terminated")])
        self.assertGreater(report["failed"], 0)

    def test_without_standard_streams_a_good_library_passes(self):
        code, output, report = self.streamless.result()
        self.assertEqual(code, 0, output)
        self.assertEqual(report["failed"], 0)

    def test_without_the_sinks_pictures_are_captured(self):
        code, output, report = self.captured.result()
        self.assertEqual(code, 0, output)
        self.assertIn("captured", report["groups"][0]["observed"])

    def test_what_cannot_begin_says_why(self):
        empty = path("empty")
        empty.mkdir()
        (empty / "clips.json").write_text("[]")
        rows = [(["--group", "none"], "no group"), (["--media", "/nowhere", "--group", "seek"], "--media"),
                (["--backend", "/nowhere.so", "--group", "seek"], "/nowhere.so"),
                (["--baseline", "/nowhere"], "--json wrote"), (["--json", "/nowhere/x"], "/nowhere/x"),
                (["--baseline", "/tmp"], "--json wrote"), (["--media", empty, "--group", "seek"], "no test clips"),
                (["--json", empty / "x", "--html", f"{empty}/./x"], "two reports")]
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
