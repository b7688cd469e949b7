#!/usr/bin/env python3
"""One time line of a player and its main system: whole, complete, and readable whatever happens.

Usage: timeline_test.py CLIP ZANT_MAINSYS, in a box
"""

import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
import trace_events  # noqa: E402
from host_run import TIMEOUT, UVA_HOST  # noqa: E402
from wait_until import wait_until  # noqa: E402

CLIP, MAINSYS = sys.argv[1:3]
KEY = "000102030405060708090a0b0c0d0e0f:00112233445566778899aabbccddeeff"
EVERYWHERE = {"host", "uva", "event", "state", "bus", "decoder", "link", "sink", "main system", "flow"}
SAMPLES = EVERYWHERE | {"feeding"}
MAY_BE_LEFT = {"samples"}  # the last request, when the stream has ended
MODES = {  # options, and what has to be there
    "a file": ([], EVERYWHERE),
    "a file and a seek": (["--seek", "4"], EVERYWHERE | {"seek"}),
    "samples": (["--mse"], SAMPLES),
    "protected samples and a seek": (["--mse", "--protect", "cenc", "--key", KEY, "--seek", "4"],
                                     SAMPLES | {"decryption", "seek"}),
}


class TimeLine(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = pathlib.Path(folder.name) / "line.json"
        self.environment = dict(os.environ, UVA_TIMELINE=str(self.path))

    def main_system(self):
        process = subprocess.Popen([MAINSYS], env=self.environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        self.assertIn("main system is up", process.stdout.readline())
        return process

    def quit(self, process):
        process.communicate("quit\n", TIMEOUT)
        self.assertEqual(process.returncode, 0)

    def play(self, *options):
        done = subprocess.run([UVA_HOST, *options, CLIP], env=self.environment, capture_output=True, text=True, timeout=TIMEOUT)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def test_everybody_records_into_one_file(self):
        for mode, (options, wanted) in MODES.items():
            with self.subTest(mode):
                self.path.unlink(missing_ok=True)
                main_system = self.main_system()
                self.play(*options)
                self.quit(main_system)
                events = trace_events.load(self.path)
                self.assertEqual(trace_events.faults_of(events, MAY_BE_LEFT | ({"sample"} if "seek" in mode else set())), [])
                self.assertEqual(wanted - trace_events.categories(events), set())
                self.look_at_the_arrows(events, "--mse" in options)
                self.look_at_the_pictures(events)
                if "seek" in mode:
                    self.look_at_the_seek(events)

    def look_at_the_arrows(self, events, samples):
        """From a sink's thread to the main system and back, and from a request for samples to them."""
        tracks = {}
        for event in events:
            if event["ph"] in "sf":
                tracks.setdefault(event["name"], []).append((event["ph"], event["pid"]))
        main_system = next(event["pid"] for event in events if event.get("cat") == "main system")
        self.assertIn(("f", main_system), tracks["BplayerAppIfUlDestFunc"])
        self.assertIn(("s", main_system), tracks["BplayerAppIfLlDestFunc"])
        for name in ("queued", "received", "answer", *(("samples", "sample") if samples else ("resources",))):
            self.assertIn(name, tracks)

    def look_at_the_pictures(self, events):
        shown = [event["args"]["pts_ns"] for event in events if event["name"] in ("first picture", "picture")]
        self.assertGreater(len(shown), 20)
        self.assertTrue([event for event in events if event["name"] == "end of stream"])

    def look_at_the_seek(self, events):
        """Asked for, and landed: what comes behind the flush is at the target."""
        begin, end = ([event for event in events if event["ph"] == phase and event["name"] == "seek"] for phase in "be")
        self.assertEqual([event["args"]["outcome"] for event in end], ["succeeded"])
        self.assertEqual([event["id"] for event in begin], [event["id"] for event in end])
        asked = begin[0]["ts"]
        flush = [event["ts"] for event in events if event["name"] == "flush ends" and event["ts"] > asked]
        landed = [event["args"]["pts_ns"] / 1e9 for event in events if event["name"] == "first picture" and event["ts"] > flush[0]]
        self.assertAlmostEqual(landed[0], 4, delta=0.5)

    def test_what_a_killed_player_leaves_can_be_read(self):
        main_system = self.main_system()
        player = subprocess.Popen([UVA_HOST, "--quiet", "--mse", CLIP], env=self.environment)
        wanted = {"host", "feeding", "sink", "link", "main system"}
        self.assertTrue(wait_until(lambda: self.path.exists() and wanted <= trace_events.categories(trace_events.load(self.path))))
        player.send_signal(signal.SIGKILL)
        player.wait()
        events = trace_events.load(self.path)
        self.assertEqual(trace_events.form_faults(events), [])
        self.quit(main_system)
        self.play("--quiet", "--standalone", "--duration", "0.2")  # which also takes away what the other left behind
        after = trace_events.load(self.path)
        self.assertEqual(after[:len(events)], events)
        self.assertIn("granted", {event["name"] for event in after if event.get("cat") == "main system"})

    def test_a_run_adds_to_the_file_and_the_option_begins_a_new_one(self):
        standalone = ["--quiet", "--standalone", "--duration", "0.2"]
        self.play(*standalone)
        first = trace_events.load(self.path)
        self.play(*standalone)
        second = trace_events.load(self.path)
        self.assertEqual(second[:len(first)], first)
        self.assertEqual(len({event["pid"] for event in second}), 2)
        self.play(*standalone, "--timeline", str(self.path))
        self.assertEqual(len({event["pid"] for event in trace_events.load(self.path)}), 1)

    def test_a_file_that_is_no_time_line_stays_as_it_is(self):
        self.path.write_text("[1, 2]\n")
        done = subprocess.run([UVA_HOST, "--quiet", "--standalone", "--duration", "0.2", CLIP], env=self.environment,
                              capture_output=True, text=True, timeout=TIMEOUT)
        self.assertEqual(self.path.read_text(), "[1, 2]\n")
        self.assertEqual(done.returncode, 1)
        self.assertIn("it is there and no time line, or a damaged one: delete it", done.stderr)


unittest.main(argv=sys.argv[:1], verbosity=2)
