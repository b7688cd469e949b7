#!/usr/bin/env python3
"""What the tutorial and the README's tour show works: files are written as shown, commands run, outputs come.

Usage: shown_test.py BUILD_FOLDER CLIP

Blocks of sh are run, in their order; a block of text behind one is in its output, line by line, each line once what
was shown before it has come. Code that is a whole example file is written under its name. ./play is here what it
starts once it has installed and built: the host in a box with a main system, faster than real time.
"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

from markdown_pages import ROOT, Page

BUILD, CLIP = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
SHARED = ["--share", str(ROOT)] if ROOT.is_relative_to("/tmp") else []
PLAY = f"""play() {{ NOX_PLAY_SPEED=4 tvbox {' '.join(SHARED)} --main-system zant-mainsys --companion-log mainsys.log -- uva-host "$@"; }}
"""


class Shown(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(dir=BUILD, prefix="shown-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_shown(self, command):
        """Its exit code, and its output with what it printed of errors."""
        done = subprocess.run(["bash", "-ec", PLAY + command], cwd=self.folder, stdin=subprocess.DEVNULL, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120,
                              env={**os.environ, "UVA_DEFAULT_MEDIA": str(CLIP)})
        return done.returncode, done.stdout

    def assert_says(self, output, shown, command):
        at = 0
        for line in shown.splitlines():
            found = output.find(line, at)
            self.assertNotEqual(found, -1, f"{command}was to print '{line}', and printed\n{output}")
            at = found + len(line)

    @unittest.skipIf(BUILD.parent != ROOT, "the tutorial works in a build folder in the tree")
    def test_tutorial(self):
        examples = {path.read_text(): path.name for path in (ROOT / "docs/examples/first-player").iterdir()}
        commands = outputs = 0
        command = output = ""
        for language, text in Page(ROOT / "docs/tutorial.md").blocks:
            if text in examples:
                (self.folder / examples[text]).write_text(text)
            elif language == "sh":
                command = text
                commands += 1
                code, output = self.run_shown(command)
                self.assertEqual(code, 0, f"{command}{output}")
            elif language == "text":
                outputs += 1
                self.assert_says(output, text, command)
        self.assertGreaterEqual((commands, outputs), (6, 5))
        self.assertEqual((self.folder / "picture.png").read_bytes()[:4], b"\x89PNG")

    def test_tour(self):
        blocks = [text for language, text in Page(ROOT / "README.md").blocks if language == "sh" and "--snapshot" in text]
        self.assertEqual(len(blocks), 1, "the tour was not found")
        ran = 0
        for line in blocks[0].splitlines():
            command = line.replace("./play", "play").replace("/tmp/", f"{self.folder}/").replace("build/tests/media/clip.mp4", str(CLIP))
            code, output = self.run_shown(command)
            ran += 1
            with self.subTest(line):
                self.assertEqual(code, 1 if re.search(r"#.*\bfails\b", line) else 0, output)
                self.assertRegex(output, r"done |failed ")
                for name in re.findall(r"/tmp/([\w.-]+)", line):
                    self.assertGreater((self.folder / name).stat().st_size, 1000, f"/tmp/{name} is hardly there")
        width = re.search(r'<svg width="(\d+)pt"', (self.folder / "pipeline.svg").read_text())
        self.assertLess(int(width[1]), 2000, "a window shows an empty corner of it")
        self.assertGreaterEqual(ran, 6)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
