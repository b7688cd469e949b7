#!/usr/bin/env python3
"""A player in a box, asked and told from outside through its debug shell, and what it logs.

Usage: shell_test.py CLIP ZANTSH SYSLOG, where SYSLOG is what the box keeps of the system log
"""

import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
from host_run import TIMEOUT, UVA_HOST, Run  # noqa: E402
from wait_until import wait_until  # noqa: E402

CLIP, ZANTSH = sys.argv[1:3]
SHORT_CLIP = pathlib.Path(CLIP).with_name("vp9-opus.webm")
SHORT_CLIP_HAS = (25, 51)  # frames, and packets of sound
KEY = "00112233445566778899aabbccddeeff:0123456789abcdef0123456789abcdef"
SYSLOG = pathlib.Path(sys.argv[3])
PLAY = [UVA_HOST, "--standalone", "--no-progress-timeout", "60"]
OUTPUT = pathlib.Path("/tmp/player.out")


def zantsh(*words):
    done = subprocess.run([ZANTSH, "--timeout", "60", *words], capture_output=True, text=True,
                          stdin=subprocess.DEVNULL, timeout=TIMEOUT)
    return done.returncode, done.stdout


def rendered(since):
    """What GStreamer's log says was rendered, per sink: by their streaming threads."""
    with SYSLOG.open(errors="replace") as log:
        log.seek(since)
        threads = re.findall(r"\[(\w+)\].*'silent': rendering object", log.read())
    return sorted(threads.count(thread) for thread in set(threads))


class DebugOutput(unittest.TestCase):
    """Whatever GStreamer logs, and under whatever lock: it plays as without."""

    def test_plays_to_its_end(self):
        for levels, *options in [("*:5",), ("*:5", "--mse"), ("*:5", "--mse", "--key", KEY, "--protect", "cenc"),
                                 ("*:4,basesink:5",), ("GST_PADS:5,basesink:5",), ("basesink:5",)]:
            with self.subTest(levels=levels, options=options):
                start = SYSLOG.stat().st_size
                run = Run(SHORT_CLIP, "--standalone", "--no-progress-timeout", "60", *options,
                          environment={"GST_DEBUG": levels, "GST_DEBUG_FILE": "/dev/null"})
                self.assertEqual(run.code, 0, run.report())
                counts = rendered(start)
                self.assertEqual(len(counts), 2, counts)
                for count, there_are in zip(counts, SHORT_CLIP_HAS):
                    self.assertGreater(count, there_are / 5)  # what comes late on a busy machine is not rendered


class Shell(unittest.TestCase):
    def stop(self):
        self.player.terminate()
        self.player.wait(TIMEOUT)
        for path in ("/etc/tracesuva.cfg", "/etc/preinituva.cfg"):
            pathlib.Path(path).unlink(missing_ok=True)

    def play(self):
        """A player that plays the clip over and over, and answers."""
        self.player = subprocess.Popen([*PLAY, *[CLIP] * 100], stdout=OUTPUT.open("w"), stdin=subprocess.DEVNULL)
        self.addCleanup(self.stop)
        self.assertTrue(wait_until(lambda: zantsh("m_echo")[0] == 0))
        self.assertTrue(wait_until(lambda: "playing" in OUTPUT.read_text().lower()))

    def test_is_asked_and_told_while_it_plays(self):
        self.play()
        self.assertEqual(zantsh("m_starttracingtoscreen")[0], 0)
        self.assertIn("zant_mshell_uva", zantsh("m_threadlist")[1])
        # The library's units bear the names that the host has given them.
        units = re.findall(r"Trace unit +(\d+) (\w+)", zantsh("m_tracestate")[1])
        self.assertEqual([name for number, name in units if number in ("4", "9", "33")],
                         ["TRACE_THREAD", "TRACE_SHELL", "TRACE_CFG_FILE_THREAD"])
        self.assertIn("for unit 9 (TRACE_SHELL)", zantsh("m_traceon", "trace_shell", "30")[1])
        listed = re.findall(r"^(\w+)", zantsh("m_help")[1], re.MULTILINE)[1:]  # without its title
        self.assertIn("u_gst_debug_set_threshold", listed)
        self.assertEqual(len(listed), len(set(listed)), listed)

        self.assertEqual(zantsh("m_state", "/tmp/state.json"), (0, "Written to /tmp/state.json\nOK\n"))
        state = json.loads(pathlib.Path("/tmp/state.json").read_text())
        backend, = state["media"]["backends"]
        self.assertEqual(backend["state"], "PLAYING")
        self.assertGreater(backend["duration_seconds"], 1)
        self.assertLessEqual({"gst_run", "zant_mshell_uva"}, {thread["name"] for thread in state["threads"]})
        for words in [(), ("/tmp/graph.dot", backend["address"])]:
            self.assertEqual(zantsh("m_graph", *words)[0], 0)
        self.assertIn("halvideosink", pathlib.Path("/tmp/graph.dot").read_text())
        self.assertEqual(zantsh("m_graph", "/tmp/graph.dot", "1f")[0], 1)

        start = SYSLOG.stat().st_size
        self.assertEqual(zantsh("m_gst_debug_set_threshold", "uvabackend:5")[0], 0)
        self.assertTrue(wait_until(lambda: "<gst:uvabackend>" in SYSLOG.read_text()[start:]))
        self.assertEqual(zantsh("m_gst_debug_set_threshold")[0], 1)
        self.assertEqual(zantsh("m_gst_debug_set_threshold", "*:0")[0], 0)

        # All of it, from now on, told in either way.
        for tell in (lambda: zantsh("m_gst_debug_set_threshold", "*:5"),
                     lambda: pathlib.Path("/tmp/GST_DEBUG").write_text("*:5\n")):
            start = SYSLOG.stat().st_size
            tell()
            # One that was about to end renders a few more.
            self.assertTrue(wait_until(lambda: sum(count > 10 for count in rendered(start)) >= 2))
            self.assertEqual(zantsh("m_gst_debug_set_threshold", "*:0")[0], 0)

        # Who comes second plays, but has no shell; the first keeps its own.
        start = SYSLOG.stat().st_size
        second = subprocess.run([*PLAY, CLIP], capture_output=True, timeout=TIMEOUT)
        self.assertEqual(second.returncode, 0, second.stderr)
        self.assertIn("Second instance already running", SYSLOG.read_text()[start:])
        code, output = zantsh("m_echo", "still", "here")
        self.assertEqual(code, 0)
        self.assertRegex(output, r"(?s)^still here\n.*OK\n$")  # between them the player's own may come

        self.player.send_signal(signal.SIGTERM)
        self.assertEqual(self.player.wait(TIMEOUT), 128 + signal.SIGTERM)

    def test_starts_with_the_levels_of_the_trace_file_alone(self):
        pathlib.Path("/etc/tracesuva.cfg").write_text("MSHELL = m_starttracingtoscreen\n"
                                                       "MSHELL = m_traceon 19 TRACELEVEL_DEBUG\n")
        pathlib.Path("/etc/preinituva.cfg").write_text("MSHELL = m_traceon 9 TRACELEVEL_DEBUG\n")
        self.play()
        for unit, level in [("19", "TRACELEVEL_DEBUG"), ("9", "TRACELEVEL_WARNING")]:
            code, state = zantsh("m_tracestate", unit)
            self.assertEqual(code, 0)
            self.assertIn(level, state)


unittest.main(argv=sys.argv[:1], verbosity=2, warnings="ignore")
