#!/usr/bin/env python3
"""Whole playback through the reference host: generated clips, and real files where they are.

Usage: playback_test.py CLIP_FOLDER [CORPUS_FOLDER]
"""

import concurrent.futures
import os
import pathlib
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
from host_run import UVA_HOST, Run, probe  # noqa: E402

TOLERANCE = 0.05  # seconds, of a reported duration
JOBS = int(os.environ.get("PLAYBACK_JOBS", "4"))
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


def each(rows, function):
    """(row, what the function makes of it), several at once."""
    rows = list(rows)
    with concurrent.futures.ThreadPoolExecutor(JOBS) as pool:
        return zip(rows, pool.map(function, rows))


# What GStreamer says; the others end like whole ones.
ERRORS = {
    "element-too-large.webm": "the media cannot be played (GStreamer: matroskademux0: Could not demultiplex stream.",
    "garbage-prefix.mp3": "the media cannot be played (GStreamer: typefind: Could not determine type of stream.)",
    "missing-stsd.mp4": "the media cannot be played (GStreamer: qtdemux0: This file is corrupt and cannot be played.)",
    "no-streams.webm": "the media cannot be played (GStreamer: matroskademux0: ",
    "ten-bytes.bin": "the media cannot be played (GStreamer: typefind: Could not determine type of stream.)",
    "truncated-after-moov.mp4": "the media ended before anything was played",
    "vp9-bad-bitstream.webm": "the media cannot be played (GStreamer: vp9parse0: No caps set)",
    "vp9-bad-frame.webm": "the media cannot be played (GStreamer: matroskademux0: Could not demultiplex stream.",
}
PROMPT = 5  # seconds: below every bound, with room for a busy machine


class Playback(unittest.TestCase):
    def test_reaches_the_end_and_reports_size_and_duration(self):
        for path, run in each(playable(), play):
            with self.subTest(path):
                self.assertEqual(run.code, 0, run.report())
                self.assertTrue(run.named("PlaybackFinished"), run.report())
                duration, size = probe(path)
                if size is not None:
                    reported = run.last("NewMetadata", "width"), run.last("NewMetadata", "height")
                    self.assertEqual(reported, size)
                if comparable_duration(path, duration):
                    self.assertAlmostEqual(run.last("duration", "seconds"), duration, delta=TOLERANCE)

    def test_what_is_broken_ends_or_fails_soon_with_the_error_of_gstreamer(self):
        for path, run in each(broken(), Run):
            with self.subTest(path):
                error = ERRORS.get(path.name)
                # decodebin drops an error that an element has while it is being connected.
                if error is not None and error not in run.errors:
                    run = Run(path)
                self.assertEqual(run.code, 0 if error is None else 1, run.report())
                if error is not None:
                    self.assertIn(error, run.errors.splitlines()[-1])
                    self.assertLess(run.seconds_between("play", "UVA_ReleaseBackend"), PROMPT - 1)

    def test_an_end_right_behind_a_seek_is_not_lost(self):
        rows = [(clip, before, mode) for clip in ("h264-aac.mp4", "vp8-vorbis.webm", "tone.aac")
                for before in (-5, 0, 0.03, 0.3) for mode in ((), ("--mse",))]
        for row, run in each(rows, lambda row: Run(CLIPS / row[0], "--seek", 2 - row[1], *row[2])):
            with self.subTest(row):
                self.assertEqual(run.code, 0, run.report())
                self.assertTrue(run.named("PlaybackFinished"), run.report())
                self.assertLess(run.seconds_between("SeekCompletedEx", "UVA_ReleaseBackend"), PROMPT - 1)

    def test_nothing_is_printed_but_what_was_asked_for(self):
        clip = CLIPS / "h264-aac.mp4"
        pathlib.Path("/tmp/GST_DEBUG").write_text("*:1\n")  # the library says that it has read it
        for options in ((), ("--mse",), ("--seek", "1.5")):
            run = Run(clip, "--quiet", *options)
            self.assertEqual((run.code, run.output, run.errors), (0, "", ""))
        answer = subprocess.run([UVA_HOST, "--quiet", "--can-play", "video/mp4"], capture_output=True, check=True)
        self.assertEqual((answer.stdout, answer.stderr), (b"yes\n", b""))


unittest.main(argv=sys.argv[:1], verbosity=2, warnings="ignore")
