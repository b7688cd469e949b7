#!/usr/bin/env python3
"""Media sources as a user plays them: files taken apart and fed, sought, switched, encrypted.

Usage: mse_test.py CLIP_FOLDER CORPUS_FOLDER
"""

import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
import gtest_result  # noqa: E402
from host_run import UVA_HOST, Run, probe  # noqa: E402

CLIPS = pathlib.Path(sys.argv[1])
CORPUS = pathlib.Path(sys.argv[2])

# Test programs play beside other programs.
PATIENT = ("--no-progress-timeout", "60")
KEY_ID = "00112233445566778899aabbccddeeff"
KEY = KEY_ID + ":0123456789abcdef0123456789abcdef"

# A clip for each container and codec; None: it plays to the end, else what the refusal names.
CLIP_ROWS = {
    "h264-aac.mp4": None,
    "frag.mp4": None,
    "h265-eac3.mp4": None,
    "vp8-vorbis.webm": None,
    "vp9-opus.webm": None,
    "h264-aac.ts": None,
    "h265-aac.ts": None,
    "h265-10bit.ts": None,
    "opus.ogg": None,
    "aac-only.mp4": None,
    "mpeg2-ac3.ts": None,  # the sound alone
    "mjpeg-pcm.mkv": "mjpeg",
}


def answer(*options):
    """(exit code, lines of standard output, standard error) of a question."""
    done = subprocess.run([UVA_HOST, "--standalone", *options], capture_output=True, text=True, timeout=60,
                          env={k: v for k, v in os.environ.items() if k != "UVA_DEFAULT_MEDIA"})
    return done.returncode, done.stdout.splitlines(), done.stderr


def ranges(run):
    """Positions that the run reports with its states."""
    return [line for line in run.output.splitlines() if " state " in line]


class MediaSources(unittest.TestCase):
    def test_every_codec_plays_to_its_end(self):
        for name, refused in CLIP_ROWS.items():
            with self.subTest(name):
                run = Run(CLIPS / name, "--mse", *PATIENT)
                if refused:
                    self.assertEqual(run.code, 1, run.report())
                    self.assertIn(refused, run.errors)
                    self.assertIn("without --mse", run.errors)
                    continue
                self.assertEqual(run.code, 0, run.report())
                self.assertEqual(run.named("PlaybackFinished"), [{"reason": 0}], run.report())
                ended = [a for a in run.named("writeData") if a["status"] == 1]
                self.assertEqual(len(ended), len({a["sourceId"] for a in run.named("writeData")}), run.report())

    def test_seek_switch_and_detach(self):
        run = Run(CLIPS / "frag.mp4", "--mse", "--seek", "4.5,1.5", "--switch-at", f"3={CLIPS / 'clip.mp4'}",
                  "--detach-at", "2=audio", *PATIENT)
        self.assertEqual(run.code, 0, run.report())
        outcomes = [a["outcome"] for a in run.named("SeekCompletedEx")]
        # Two of the user's, one of the backend's own when the source comes back.
        self.assertEqual(outcomes, [0, 0, 0], run.report())
        self.assertEqual([a["result"] for a in run.named("removeSource") + run.named("attachSource")], [True, 1])
        self.assertTrue(any(" video 1.5-" in line for line in ranges(run)), run.report())

    def test_separate_files_and_what_does_not_fit(self):
        run = Run(CLIPS / "aac-only.mp4", "--mse", CLIPS / "h264-only.mp4", *PATIENT)
        self.assertEqual(run.code, 0, run.report())
        twice = Run(CLIPS / "aac-only.mp4", "--mse", CLIPS / "h264-aac.mp4")
        self.assertEqual(twice.code, 1)
        self.assertIn("there is audio already", twice.errors)
        other = Run(CLIPS / "h264-only.mp4", "--mse", "--switch-at", f"1={CLIPS / 'vp8-vorbis.webm'}")
        self.assertEqual(other.code, 1)
        self.assertIn("renditions must have one codec", other.errors)

    def test_protected(self):
        for options in (("--protect", "cenc"), ("--protect", "cbcs", "--full-sample-decrypter"),
                        ("--protect", "cbcs", "--key-delay", "700")):
            with self.subTest(options):
                run = Run(CLIPS / "h264-aac.mp4", "--mse", "--key", KEY, *options, *PATIENT)
                self.assertEqual(run.code, 0, run.report())
                first = next(a for a in run.named("writeData") if a["samples"])
                self.assertEqual(first["result"], 1)
        # The delay is kept, and is no stall.
        delay = run.seconds_between("initBackend", "PlaybackFinished")
        self.assertGreater(delay, 2.5, run.report())

    def test_keys_that_change(self):
        keys = ("--key", "000102030405060708090a0b0c0d0e0f:202122232425262728292a2b2c2d2e2f",
                "--key", "101112131415161718191a1b1c1d1e1f:303132333435363738393a3b3c3d3e3f")
        for name, refused in (("protected/rotation.mp4", None), ("protected/restart.mp4", None), ("protected/mixed.mp4", "'seig'")):
            with self.subTest(name):
                run = Run(CLIPS / name, "--mse", *keys, "--seek", "4.2", *PATIENT)
                self.assertEqual(run.code, 1 if refused else 0, run.report())
                if refused:
                    self.assertIn(refused, run.errors)
                else:
                    self.assertTrue(run.named("PlaybackFinished"), run.report())

    def test_inputs_share_their_time(self):
        with tempfile.TemporaryDirectory() as folder:
            files = [pathlib.Path(folder) / name for name in ("audio.ts", "video.ts")]
            for file, offset, left_out in zip(files, ("20", "20.5"), ("-vn", "-an")):
                subprocess.run(["ffmpeg", "-v", "error", "-i", CLIPS / "h264-aac.mp4", "-c", "copy", left_out,
                                "-output_ts_offset", offset, file], check=True, stdin=subprocess.DEVNULL)
            run = Run(files[0], "--mse", files[1], *PATIENT)
        self.assertEqual(run.code, 0, run.report())
        ended = ranges(run)[-1]  # with where each of the two ended
        self.assertTrue(" audio 2.0-" in ended and " video 2.5-" in ended, run.report())
        self.assertAlmostEqual(run.last("NewMetadata", "duration"), 2.5, delta=0.1)

    def test_a_missing_key_holds_no_release_up(self):
        host = subprocess.Popen([UVA_HOST, "--mse", "--key", KEY, "--protect", "cenc", "--key-delay", "100000",
                                 str(CLIPS / "h264-aac.mp4")],
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        for line in host.stdout:
            if "event NeedMSEData" in line:
                break
        start = time.monotonic()
        host.send_signal(signal.SIGINT)
        rest = host.communicate(timeout=60)[0]
        self.assertEqual(host.returncode, 130, rest)
        self.assertLess(time.monotonic() - start, 10)
        self.assertNotIn("NewMetadata", rest)

    @unittest.skipUnless((CORPUS / "broken").is_dir(), "the corpus of real files is not there")
    def test_what_showed_nothing_has_not_been_played(self):
        for name in ("vp9-bad-bitstream.webm", "vp9-bad-frame.webm"):
            run = Run(CORPUS / "broken" / name, "--mse", *PATIENT)
            self.assertEqual(run.code, 1, run.report())
            self.assertIn("the media cannot be played (GStreamer: vp9parse0: No caps set)", run.errors)

    @unittest.skipUnless((CORPUS / "cenc").is_dir(), "the corpus of real files is not there")
    def test_real_encrypted_file_with_and_without_its_key(self):
        media = CORPUS / "cenc/sintel-cenc-subsamples.mp4"
        key_id = "abba271e8bcf552bbd2e86a434a9a5d9"
        with tempfile.TemporaryDirectory() as folder:
            picture = pathlib.Path(folder) / "picture.png"
            without = Run(media, "--mse", "--snapshot", picture)
            self.assertEqual(without.code, 1)
            self.assertIn(f"no key for key id {key_id}", without.errors)
            self.assertFalse(picture.exists())
            run = Run(media, "--mse", "--key", key_id + ":69eaa802a6763af979e8d1940fb88392", "--snapshot", picture,
                      *PATIENT)
            self.assertEqual(run.code, 0, run.report())
            self.assertEqual(probe(picture)[1], (256, 110))


class Questions(unittest.TestCase):
    def test_can_play(self):
        rows = [
            (('video/mp4; codecs="avc1.640028,mp4a.40.2"',), 0, "yes"),
            (("video/MP4",), 1, "no: the MIME type 'video/MP4' is not supported"),
            (('video/mp4; codecs="avc1.640028, mp4v.20.9"',), 1, "no: the codec 'mp4v.20.9' is not supported"),
            (('video/webm; codecs="vp09.00.51.08"', "--width", "3840", "--height", "2160", "--framerate", "61"), 1,
             "no: the codec 'vp09.00.51.08' not with width 3840, height 2160, framerate 61"),
            (("video/mp4", "--channels", "eleven"), 1, "no: channels 'eleven' is no number that is accepted"),
            (('video/webm;CODECS="vp09.00.51.08" ; Width = 3840;hEIGHT="2160";FrameRate=61',), 1,
             "no: the codec 'vp09.00.51.08' not with width 3840, height 2160, framerate 61"),
            (('video/webm; codecs="vp09.00.51.08"; width=3840; height=2160; framerate=61', "--framerate", "60"), 0, "yes"),
            (("video/mp4; BITRATE=1e6",), 1, "no: bitrate '1e6' is no number that is accepted"),
            (("video/mp4; bitrate=1000000; eotf=pq; channels=11",), 1, "no: channels '11' is no number that is accepted"),
            (('video/mp4; cryptoblockformat="subsample;1"; width=10241',), 1,
             "no: width '10241' is no number that is accepted"),
        ]
        for arguments, code, text in rows:
            with self.subTest(arguments):
                self.assertEqual(answer("--can-play", *arguments)[:2], (code, [text]))
        self.assertEqual(answer("--can-play", "nothing")[0], 2)
        self.assertEqual(answer()[0], 2)

    def test_list_types(self):
        code, lines, _ = answer("--list-types")
        self.assertEqual((code, len(lines), lines[0]), (0, 58, "application/ogg"))


sys.argv = sys.argv[:1]
gtest_result.main()
