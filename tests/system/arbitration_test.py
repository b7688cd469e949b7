#!/usr/bin/env python3
"""A player and a main system, two processes: who gets the decoders, and what the main system hears.

Usage: arbitration_test.py CLIP ZANT_MAINSYS, in a box
"""

import concurrent.futures
import ctypes
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
import leftovers  # noqa: E402
from host_run import TIMEOUT, UVA_HOST, Run  # noqa: E402
from wait_until import wait_until  # noqa: E402

CLIP, MAINSYS = sys.argv[1:3]
OPTIONS = ["--no-progress-timeout", "60"]
UNANSWERED = (r": the main system did not answer the request for the decoder within \d+\.\d s; start zant-mainsys, or "
              r"play without a main system \(NOX_GST_STANDALONE=1\)\n$")
ASKED = 'expect_signal("DECODER_NEEDED_IND", 60)'
BOTH_ASKED = [ASKED] * 2
UNTIL_THE_PLAYER_ENDS = "sleep(600)"
NEXT_PLAYER = 'expect_signal("PLAYER_ENDED", 60)'


def asked_back(kinds):
    return f'release("{kinds}") expect_signal("DECODER_RELEASE_RESP", 60, {{kinds = "{kinds}"}})'


class MainSystem:
    """Runs a script, from when the link is open."""

    def __init__(self, *lines):
        self.folder = tempfile.TemporaryDirectory()
        script = pathlib.Path(self.folder.name) / "main.lua"
        script.write_text("\n".join([*lines, ""]))
        self.output = pathlib.Path(self.folder.name) / "output"
        self.process = subprocess.Popen([MAINSYS, "--script", script], stdin=subprocess.DEVNULL,
                                        stdout=self.output.open("w"), stderr=subprocess.STDOUT)
        if not wait_until(lambda: "main system is up" in self.text()):
            raise AssertionError(self.text())

    def text(self):
        return self.output.read_text(errors="replace")

    def finish(self, may_leave=False, code=0):
        """What it printed; nothing may be left in the shared memory, but what was sent to a player that ended."""
        ended = self.process.wait(TIMEOUT)
        text = self.text()
        self.folder.cleanup()
        if ended != code or "never freed" in text and not may_leave:
            raise AssertionError(f"exit code {ended}\n{text}")
        return text


def links_of(process):
    folder = f"/proc/{process}/fd"
    return [os.readlink(os.path.join(folder, name)) for name in os.listdir(folder)]


class Arbitration(unittest.TestCase):
    def plays(self, run):
        self.assertEqual(run.code, 0, run.report())
        self.assertTrue(run.named("PlaybackFinished"), run.report())
        self.assertNotIn("never freed", run.errors)

    def is_refused(self, run, reason=UNANSWERED):
        self.assertEqual(run.code, 1, run.report())
        self.assertEqual(run.last("DecodeError", "reason"), 2, run.report())
        self.assertEqual(len(run.errors.strip().splitlines()), 1, run.report())
        self.assertRegex(run.errors, reason)

    def test_the_main_system_receives_exactly_this(self):
        """... of two players, one with sound and square pixels, one with neither."""
        mine, asked = "SIG_ID_MPLAYER_", "SIG_ID_MPLAYER_DECODER_NEEDED_IND param1="
        rows = [(CLIP, ["516 " + asked + "1 (audio)", "516 " + asked + "2 (video)"],
                 [f"489 {mine}MEDIA_INFO_IND size=48 '<media><audio codec=\"AAC\" lang=\"und\" /></media>'",
                  f"490 {mine}VIDEO_FORMAT_IND size=22 video 640x360 display 640x360 aspect 16/9 rate 25/1"]),
                (pathlib.Path(CLIP).with_name("par-8x9.mp4"), ["516 " + asked + "2 (video)"],
                 [f"490 {mine}VIDEO_FORMAT_IND size=22 video 360x240 display 320x240 aspect 4/3 rate 25/1"])]
        for clip, requests, formats in rows:
            with self.subTest(clip):
                main = MainSystem('control("output-ddp:0")', *BOTH_ASKED[:len(requests)],
                                  'local format = expect_signal("VIDEO_FORMAT_IND", 60)',
                                  'assert(format.payload:find("^video %d+x%d+"), format.payload)',
                                  'control("output-ddp:1")', asked_back("both"), 'control("output-ddp:0")',
                                  'expect_no_signal("DECODER_RELEASE_RESP", 0.3)')
                self.plays(Run(clip, *OPTIONS, "--window", "320,120,642x300"))
                heard = re.findall(r"<- (.*) seq=(\d+)(.*)", main.finish(may_leave=True))
                self.assertEqual([int(number) for _, number, _ in heard], list(range(1, len(heard) + 1)))
                said = [before + after for before, _, after in heard]
                self.assertEqual(said[:1], [f"513 {mine}SET_WINDOW_REQ size=8 window 480,180 963x450"])
                self.assertEqual(sorted(said[1:-1]), sorted(formats + requests))
                self.assertEqual(said[-1:], [f"520 {mine}DECODER_RELEASE_RESP param1=3 (audio+video)"])

    def test_a_signal_ends_the_main_system_in_order(self):
        for number in (signal.SIGTERM, signal.SIGINT):
            main = subprocess.Popen([MAINSYS], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
            self.assertIn("main system is up", main.stdout.readline())
            main.send_signal(number)
            main.communicate(timeout=TIMEOUT)
            self.assertEqual(main.returncode, 0)

    def test_a_refused_player_ends_with_its_reason(self):
        main = MainSystem("refuse()", ASKED, 'expect_signal("VIDEO_FORMAT_IND", 600)', UNTIL_THE_PLAYER_ENDS)
        self.is_refused(Run(CLIP, *OPTIONS), "the main system has none to give, .*end the player that has it")
        self.assertIn("main.lua:3: VIDEO_FORMAT_IND did not come within 600 s: the player has ended; since the last ",
                      main.finish(code=1))

    def test_without_a_main_system_every_player_says_so(self):
        rows = [(), ("--mse",), ("--no-progress-timeout", "3"), ("--mse", "--no-progress-timeout", "60")] * 3
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            runs = list(pool.map(lambda options: Run(CLIP, *options), rows))
        for options, run in zip(rows, runs):
            self.assertEqual(run.code, 1, run.report())
            self.assertRegex(run.errors, UNANSWERED, options)

    def test_without_a_main_system_a_player_gives_up_and_the_next_plays(self):
        start = time.monotonic()
        self.is_refused(Run(CLIP, *OPTIONS))
        self.assertGreater(time.monotonic() - start, 5)
        main = MainSystem(*[*BOTH_ASKED, NEXT_PLAYER] * 2)
        for _ in range(2):  # the second is a new process, which begins anew
            self.plays(Run(CLIP, *OPTIONS))
        main.finish()

    def test_a_silent_main_system(self):
        main = MainSystem("ignore()", ASKED, UNTIL_THE_PLAYER_ENDS)
        self.is_refused(Run(CLIP, *OPTIONS))
        main.finish()

    def test_a_late_main_system_is_asked_for_both_decoders_before_it_grants_either(self):
        for options in ([], ["--mse"]):
            with self.subTest(options):
                main = MainSystem("delay(1.5)", *BOTH_ASKED, UNTIL_THE_PLAYER_ENDS)
                self.plays(Run(CLIP, *OPTIONS, *options))
                signals = re.findall(r"(<-|->) (516|517)", main.finish())
                self.assertEqual(signals, [("<-", "516")] * 2 + [("->", "517")] * 2)

    def test_a_script_answers_each_request_as_it_likes(self):
        main = MainSystem("ignore()", "local asked = {}", 'when("DECODER_NEEDED_IND", function(signal)',
                          "    asked[#asked + 1] = signal.kinds",
                          "    sleep(#asked * 0.3)",
                          "    grant(signal.kinds)",
                          "end)", 'expect_state("video decoder asked for", 60)',
                          'expect_state("video decoder granted", 60)', 'wait_signal("PLAYER_ENDED", 60)',
                          'assert(#asked == 2 and asked[1] ~= asked[2], "both kinds are asked for, once")')
        self.plays(Run(CLIP, *OPTIONS))
        signals = re.findall(r"(<-|->) (516|517) .* \((\w+)\)", main.finish())
        granted = [kind for _, number, kind in signals if number == "517"]
        self.assertEqual(sorted(granted), ["audio", "video"], signals)

    def test_stopping_ends_the_wait_for_an_answer(self):
        main = MainSystem("ignore()", ASKED, UNTIL_THE_PLAYER_ENDS)
        player = subprocess.Popen([UVA_HOST, *OPTIONS, CLIP], stdin=subprocess.DEVNULL,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.assertTrue(wait_until(lambda: "<- 516" in main.text()))
        start = time.monotonic()
        player.send_signal(signal.SIGINT)
        self.assertEqual(player.wait(TIMEOUT), 128 + signal.SIGINT)
        self.assertLess(time.monotonic() - start, 4)  # of the 5 that the answer may take
        main.finish()

    def test_the_player_goes_on_when_the_main_system_dies(self):
        dying = MainSystem(*BOTH_ASKED, 'expect_signal("VIDEO_FORMAT_IND", 60)', "sleep(0.5)", "crash()")
        with concurrent.futures.ThreadPoolExecutor() as pool:
            run = pool.submit(Run, CLIP, *OPTIONS)
            dying.finish(code=-signal.SIGKILL)
            main = MainSystem("restart()", 'control("output-ddp:1")', asked_back("both"))
            self.plays(run.result())
        main.finish()

    def test_a_player_leaves_nothing_however_it_ends(self):
        main = MainSystem(*[*BOTH_ASKED, NEXT_PLAYER] * 3)
        before = leftovers.names()
        shell = {"/tmp/zant_dbg_server_uva"}
        for end, left in ((signal.SIGKILL, shell), (None, set()), (signal.SIGINT, set())):
            player = subprocess.Popen([UVA_HOST, *OPTIONS, CLIP], stdin=subprocess.DEVNULL,
                                      stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
            self.addCleanup(player.kill)
            for line in player.stdout:
                if "playing" in line.lower():
                    break
            queues = {link for link in links_of(player.pid) if link.startswith("/Q_")}
            self.assertGreaterEqual(len(queues), 2)
            self.assertFalse([link for link in queues if not link.endswith(" (deleted)")])
            if end is not None:
                player.send_signal(end)
            player.communicate(timeout=TIMEOUT)
            self.assertEqual(set(leftovers.since(before | left)), set())
            self.assertEqual(leftovers.names() - before, left)  # the next player takes it over
        main.finish()

    def test_a_link_that_cannot_be_opened_is_named_and_asks_nobody(self):
        main = MainSystem('expect_no_signal("DECODER_NEEDED_IND", 1)')
        mine = "/BplayerAppIfLlDestFunc"
        libc = ctypes.CDLL(None)
        libc.mq_unlink(mine.encode())
        foreign = (ctypes.c_long * 8)(0, 1, 64)  # one message of 64 bytes
        os.close(libc.mq_open(mine.encode(), os.O_CREAT | os.O_RDWR, 0o600, foreign))
        rows = [(mine, [], ("Message too long", "remove it"))]
        limited, unlimited = ["prlimit", "--msgqueue=0:0"], ["prlimit", "--msgqueue=unlimited:unlimited"]
        if subprocess.run([*limited, *unlimited, "true"], stderr=subprocess.DEVNULL).returncode != 0:
            rows.append(("/Q_UVAGST_IF_REC_", limited, ("Too many open files", "RLIMIT_MSGQUEUE")))
        for queue, before, said in rows:
            with self.subTest(queue=queue):
                run = Run(CLIP, *OPTIONS, before=before)
                for text in ("<UVA> ***E: no link to the main system", queue, *said):
                    self.assertEqual(run.output.count(text), 1, run.report())
                self.is_refused(run, "decoder refused")
                self.assertLess(run.seconds_between("BackendResourceRequestAsync", "DecodeError"), 3)
        libc.mq_unlink(mine.encode())
        main.finish()
        if len(rows) > 1:
            refused = subprocess.run([*limited, MAINSYS], stdin=subprocess.DEVNULL, capture_output=True, text=True)
            self.assertIn("queue /BplayerAppIfUlDestFunc", refused.stderr)
            self.assertIn("RLIMIT_MSGQUEUE", refused.stderr)

    def test_garbage_from_the_main_system_does_no_harm(self):
        # Not before the decoders are had: a flood leaves no room for their grants.
        main = MainSystem(ASKED, 'expect_signal("VIDEO_FORMAT_IND", 60)', "sleep(0.5)",
                          "garbage(200)", "raw(530, {size = 2147483647, address = 8})",
                          "raw(530, {size = -1, address = 0x20000000})", "raw(670)", "sleep(1.5)", asked_back("both"))
        self.plays(Run(CLIP, *OPTIONS))
        main.finish()


unittest.main(argv=sys.argv[:1], verbosity=2, warnings="ignore")
