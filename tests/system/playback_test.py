#!/usr/bin/env python3
"""Whole playback through the reference host: generated clips, and real files where they are.

Usage: playback_test.py CLIP_FOLDER [CORPUS_FOLDER]
"""

import concurrent.futures
import os
import pathlib
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
import gtest_result  # noqa: E402
from host_run import Run, probe  # noqa: E402

TOLERANCE = 0.05  # seconds, of a reported duration
LONG = 12  # seconds; of a longer file the beginning and the end are played

CLIPS = pathlib.Path(sys.argv[1])
CORPUS = pathlib.Path(sys.argv[2]) if len(sys.argv) > 2 else None

# Where the demuxer, whose word counts, says something else than ffprobe, and why.
DURATION_DIFFERS = {
    ".ts": "a transport stream has no length: the demuxer reckons from the last clock references that"
           " it happens to find, and a short file may have none",
    "frag.mp4": "the demuxer counts the fragments that it has seen when it is asked",
    "h264-320x240.mp4": "ffprobe counts the time before the first picture",
    "h264-640x480.mp4": "likewise",
    "mp3-cbr-5s.mp3": "encoder delay and padding, 68 ms, are cut off",
    "mp3-cover-art.mp3": "the parser reckons from the bit rate",
    "opus.mp4": "the movie header says 1.5 s, the fragments add up to 2.5 s",
}


def comparable_duration(path, duration):
    return duration is not None and path.name not in DURATION_DIFFERS and path.suffix not in DURATION_DIFFERS


def playable():
    yield from sorted(path for path in CLIPS.iterdir()
                      if path.suffix in (".mp4", ".webm", ".mkv", ".ts", ".ogv"))
    if CORPUS is None or not CORPUS.is_dir():
        return
    fragments = ("-init.mp4", "-seg1.mp4")
    for folder in ("progressive", "mse"):
        yield from sorted(path for path in (CORPUS / folder).iterdir()
                          if not path.name.endswith(fragments))
    yield from sorted((CORPUS / "hls" / "ts").glob("*.ts"))


def broken():
    return sorted((CORPUS / "broken").iterdir()) if CORPUS and CORPUS.is_dir() else []


def play(path):
    duration, _ = probe(path)
    options = ["--seek", str(int(duration - 3))] if duration and duration > LONG else []
    return Run(path, "--no-progress-timeout", "30", *options)


def start(pool, paths, function):
    return {path: pool.submit(function, path) for path in paths}


class Playback(unittest.TestCase):
    """Reaches the end, and reports size and duration."""


class Broken(unittest.TestCase):
    """Ends with the end or an error in one line; never blocks, never dies."""


def playback_case(path):
    def test(self):
        run = RUNS[path].result()
        self.assertEqual(run.code, 0, run.report())
        self.assertTrue(run.named("PlaybackFinished"), run.report())
        duration, size = probe(path)
        if size is not None:
            reported = run.last("NewMetadata", "width"), run.last("NewMetadata", "height")
            self.assertEqual(reported, size)
        if comparable_duration(path, duration):
            self.assertAlmostEqual(run.last("duration", "seconds"), duration, delta=TOLERANCE)
    return test


def broken_case(path):
    def test(self):
        run = RUNS[path].result()
        self.assertIn(run.code, (0, 1), run.report())
        if run.code == 1:
            self.assertEqual(len(run.errors.strip().splitlines()[-1:]), 1, run.report())
    return test


def name_of(path):
    return "test_" + path.name.replace("-", "_").replace(".", "_")


RUNS = {}
with concurrent.futures.ThreadPoolExecutor(max_workers=int(os.environ.get("PLAYBACK_JOBS", "4"))) as executor:
    for item in playable():
        setattr(Playback, name_of(item), playback_case(item))
        RUNS[item] = executor.submit(play, item)
    for item in broken():
        setattr(Broken, name_of(item), broken_case(item))
        RUNS[item] = executor.submit(Run, item, "--no-progress-timeout", "3")
    sys.argv = sys.argv[:1]
    gtest_result.main()
