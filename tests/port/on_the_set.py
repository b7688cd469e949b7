#!/usr/bin/env python3
"""What is played on the other set: pictures are counted where they are shown, and its main system is heard.

Usage: on_the_set.py PRODUCT CLIPS    (in a box; the folder of the build, and that of the qualification's clips)
"""
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import unittest

from wait_until import wait_until

PRODUCT, CLIPS = sys.argv[1:3]
CLIP = f"{CLIPS}/short.mp4"
FACTS, = (row for row in json.loads(pathlib.Path(CLIPS, "clips.json").read_text()) if row["name"] == "short.mp4")
SOUNDS = FACTS["seconds"] * 48000 // 1024 # of 1024 samples each
MAIN_SYSTEM = [sys.executable, str(pathlib.Path(__file__).with_name("main_system.py"))]
NEED_AUDIO, NEED_VIDEO = "> 516 1 -", "> 516 2 -"
ASPECT_AND_RATE = "0010 0009 0019 0001".replace(" ", "") # 16:9, 25 a second
FORMAT = "> 490 0 deadbeafff00" + "014000b4" * 2 + ASPECT_AND_RATE # 320 by 180, shown as that
GONE = "gone, 0 left behind, 0 in use" # an orderly end, no block lost
CODEC = "> 489 0 " + b'<media><audio codec="AAC" lang="und" /></media>\0'.hex()


class MainSystem:
    """The set's main system: what it has told, and orders for it. As a context it is there."""

    def __init__(self, folder):
        self.journal = folder / "main-system"
        self.journal.touch()
        self.process = None

    def __enter__(self):
        before = len(self.lines())
        self.process = subprocess.Popen([*MAIN_SYSTEM, self.journal], stdin=subprocess.PIPE, text=True)
        assert wait_until(lambda: "ready" in self.lines()[before:])
        return self

    def __exit__(self, *_):
        self.end(signal.SIGTERM)

    def end(self, how):
        if self.process.poll() is None:
            self.process.send_signal(how)
        self.process.communicate()

    def order(self, what):
        print(what, file=self.process.stdin, flush=True)

    def lines(self):
        return self.journal.read_text().splitlines()

    def leaves(self):
        return [line for line in self.lines() if line.startswith("gone, ")]

    def hears(self, line, times=1):
        return wait_until(lambda: self.lines().count(line) >= times)


class OnTheSet(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.main_system = MainSystem(self.folder)

    def start(self, *arguments):
        """A host on this set. Its sinks tell what they have shown when they are stopped."""
        self.sinks = self.folder / "sinks"
        self.sinks.unlink(missing_ok=True)
        host = subprocess.Popen([f"{PRODUCT}/tools/uva-host/uva-host", *arguments], text=True, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                env=dict(os.environ, OTHERSET_JOURNAL=str(self.sinks)))
        self.addCleanup(host.kill)
        return host

    def shown(self, kind):
        """What the sinks of a kind have shown or played, and whether they had a decoder."""
        told = re.findall(rf"^{kind} (\w+) units=\d+ shown=(\d+) ", self.sinks.read_text(), re.MULTILINE)
        return [(granted, int(shown)) for granted, shown in told]

    def assert_plays(self, *options):
        host = self.start(*options, CLIP)
        output = host.communicate(timeout=60)[0]
        self.assertEqual(host.returncode, 0, output)
        self.assert_all_was_seen(output)

    def assert_all_was_seen(self, output):
        self.assertEqual(self.shown("video"), [("granted", FACTS["pictures"])], output)
        (granted, sounds), = self.shown("audio")
        self.assertEqual(granted, "granted")
        self.assertGreater(sounds, 0.95 * SOUNDS)

    def assert_is_refused(self, reason, *options):
        host = self.start(*options, CLIP)
        output = host.communicate(timeout=60)[0]
        self.assertEqual(host.returncode, 1, output)
        self.assertIn(reason, output)
        # Which sink asks first is open; the other may never come to ask.
        for kind in ("audio", "video"):
            for had, shown in self.shown(kind):
                self.assertIn((had, shown), [("refused", 0), ("unasked", 0)], output)

    def test_url_and_samples_play_with_every_picture(self):
        for options in [(), ("--mse",)]:
            with self.subTest(options=options), self.main_system:
                before = len(self.main_system.lines())
                self.assert_plays(*options)
                self.assertTrue(wait_until(lambda: GONE in self.main_system.lines()[before:]), self.main_system.lines())
                told = self.main_system.lines()[before:]
                self.assertEqual(sorted(line for line in told if line.startswith(">")),
                                 sorted([NEED_AUDIO, NEED_VIDEO, CODEC, FORMAT]), told)

    def test_seek_shows_pictures_from_the_target_on(self):
        with self.main_system:
            host = self.start("--mse", "--start", "1", CLIP)
            output = host.communicate(timeout=60)[0]
            self.assertEqual((host.returncode, self.shown("video")), (0, [("granted", FACTS["rate"] * (FACTS["seconds"] - 1))]), output)

    def test_refusal_shows_nothing_and_the_next_request_is_granted(self):
        with self.main_system:
            self.main_system.order("refuse")
            for options in [(), ("--mse",)]:
                self.assert_is_refused("decoder refused", *options)
            self.main_system.order("grant")
            self.assert_plays()

    def test_host_that_refuses_is_an_error_and_no_hang(self):
        with self.main_system:
            self.assert_is_refused("decoder", "--deny-resources")
            self.assertNotIn(NEED_VIDEO, self.main_system.lines())

    def test_main_system_dies_in_the_middle_and_comes_back(self):
        with self.main_system:
            host = self.start(CLIP)
            self.assertTrue(self.main_system.hears(FORMAT))
            self.main_system.end(signal.SIGKILL)
            output = host.communicate(timeout=60)[0]
            self.assertEqual(host.returncode, 0, output)
            self.assert_all_was_seen(output)
        self.assert_is_refused("did not answer")
        with self.main_system:
            self.assert_plays()
            self.assertTrue(self.main_system.hears(FORMAT, times=2)) # with payloads in the new memory

    def test_main_system_comes_back_while_it_plays(self):
        with self.main_system:
            host = self.start(f"{CLIPS}/main.mp4") # six seconds: it still plays when the next one is there
            self.assertTrue(self.main_system.hears(FORMAT))
            self.main_system.end(signal.SIGKILL)
        with self.main_system:
            before = len(self.main_system.lines())
            self.assertIsNone(host.poll(), "it was over before")
            self.main_system.order("ask 3") # of which the new one knows nothing
            output = host.communicate(timeout=60)[0]
            self.assertEqual(host.returncode, 0, output)
            self.assertTrue(wait_until(lambda: "> 520 3 -" in self.main_system.lines()[before:]), self.main_system.lines())

    def test_what_a_killed_host_had_is_free(self):
        with self.main_system:
            for times in range(1, 6):
                host = self.start(CLIP)
                self.assertTrue(self.main_system.hears(FORMAT, times), self.main_system.lines())
                host.kill()
                host.communicate()
                self.assertTrue(wait_until(lambda: len(self.main_system.leaves()) == times), self.main_system.lines())
                self.assertRegex(self.main_system.leaves()[-1], " 0 in use$")
            self.assert_plays()

    def test_decoders_that_are_asked_back_return_when_nothing_plays(self):
        with self.main_system:
            host = self.start(CLIP)
            self.assertTrue(self.main_system.hears(FORMAT))
            self.main_system.order("ask 2\ncontrol output-ddp:2") # one right behind the other
            output = host.communicate(timeout=60)[0]
            self.assertEqual(host.returncode, 0, output)
            self.assertIn(" ddp=2\n", self.sinks.read_text())
            self.assertTrue(self.main_system.hears("> 520 2 -"), self.main_system.lines())
            self.assertTrue(self.main_system.hears(GONE), self.main_system.lines())
            self.assert_all_was_seen(output)


unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)
