#!/usr/bin/env python3
"""The page on stalls says what happens: each player stalls, each command runs, each output is as shown.

Usage: stalls_test.py PAGE MEDIA_FOLDER

In a section the first commands start the player; those behind are asked until they say what is shown, as a
reader would. "..." in an output stands for anything.
"""

import os
import pathlib
import re
import signal
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
from wait_until import wait_until  # noqa: E402

PAGE = pathlib.Path(sys.argv[1]).read_text()
MEDIA = sys.argv[2]


def sections():
    """(title, [(commands, what they print)])"""
    for part in re.split(r"^## ", PAGE, flags=re.MULTILINE)[1:]:
        blocks = re.findall(r"^```(\w*)\n(.*?)^```", part, re.MULTILINE | re.DOTALL)
        steps = []
        for kind, text in blocks:
            if kind == "sh":
                steps.append([text, ""])
            else:
                steps[-1][1] = text
        if steps:
            yield part.splitlines()[0], steps


def says(output, shown):
    return all(re.search(".*".join(map(re.escape, line.strip().split("..."))), output) for line in shown.splitlines())


class Stalls(unittest.TestCase):
    def test_each_is_found_as_the_page_says(self):
        titles = []
        for title, (start, *steps) in sections():
            titles.append(title)
            with self.subTest(title):
                self.walk(start[0], steps)
        self.assertEqual(len(titles), 6, titles)

    def walk(self, start, steps):
        player = subprocess.Popen(["bash", "-c", start + "\nwait"], cwd=MEDIA, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                  stderr=subprocess.PIPE, start_new_session=True)
        try:
            for command, shown in steps:
                self.ask(command, shown)
        finally:
            os.killpg(player.pid, signal.SIGTERM)
            with player:
                player.stdin.close()
            self.assertTrue(wait_until(lambda: not self.box_is_there()), "the box does not end")

    @staticmethod
    def box_is_there():
        listed = subprocess.run(["tvbox", "--list"], capture_output=True, text=True, timeout=60).stdout
        return "stall" in [line.split("\t")[0] for line in listed.splitlines()]

    def ask(self, command, shown):
        last = []

        def is_right():
            done = subprocess.run(["bash", "-c", command], cwd=MEDIA, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, text=True, timeout=120)
            last[:] = [done.returncode, done.stdout]
            return done.returncode in (0, 3) and says(done.stdout, shown)
        self.assertTrue(wait_until(is_right), f"{command}{last}\nwas to say\n{shown}")


unittest.main(argv=sys.argv[:1], verbosity=2)
