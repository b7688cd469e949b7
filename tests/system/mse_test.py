#!/usr/bin/env python3
"""Media sources as a user plays them: files taken apart and fed, sought, switched, encrypted.

Usage: mse_test.py CLIP_FOLDER CORPUS_FOLDER
"""

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
from host_run import UVA_HOST, Run, probe  # noqa: E402

CLIPS = pathlib.Path(sys.argv[1])
CORPUS = pathlib.Path(sys.argv[2])

# Test programs play beside other programs.
PATIENT = ("--no-progress-timeout", "60")
KEY_ID = "00112233445566778899aabbccddeeff"
KEY = KEY_ID + ":0123456789abcdef0123456789abcdef"

def answer(*options):
    """(exit code, lines of standard output, standard error) of a question."""
    done = subprocess.run([UVA_HOST, "--standalone", *options], capture_output=True, text=True, timeout=60,
                          env={k: v for k, v in os.environ.items() if k != "UVA_DEFAULT_MEDIA"})
    return done.returncode, done.stdout.splitlines(), done.stderr


class MediaSources(unittest.TestCase):
    def test_seek_switch_and_detach(self):
        run = Run(CLIPS / "frag.mp4", "--mse", "--seek", "4.5,1.5", "--switch-at", f"3={CLIPS / 'clip.mp4'}",
                  "--detach-at", "2=audio", *PATIENT)
        self.assertEqual(run.code, 0, run.report())
        outcomes = [a["outcome"] for a in run.named("SeekCompletedEx")]
        # Two of the user's, one of the backend's own when the source comes back.
        self.assertEqual(outcomes, [0, 0, 0], run.report())
        self.assertEqual([a["result"] for a in run.named("removeSource") + run.named("attachSource")], [True, 1])
        self.assertRegex(run.output, r" state .* video 1\.5-", run.report())

    def test_begins_where_it_is_told(self):
        run = Run(CLIPS / "frag.mp4", "--mse", "--start", "0:04.5", *PATIENT)
        self.assertEqual(run.code, 0, run.report())
        self.assertEqual(run.named("setPosition"), [], run.report())
        self.assertRegex(run.output, r" state playing at 4\.[5-9]", run.report())
        pictures = int(re.search(r", (\d+) pictures", run.output).group(1))
        self.assertAlmostEqual(pictures, 1.58 / 0.04, delta=2, msg=run.report())

    def test_separate_files_and_what_does_not_fit(self):
        run = Run(CLIPS / "aac-only.mp4", "--mse", CLIPS / "h264-only.mp4", *PATIENT)
        self.assertEqual(run.code, 0, run.report())
        twice = Run(CLIPS / "aac-only.mp4", "--mse", CLIPS / "h264-aac.mp4")
        self.assertEqual(twice.code, 1)
        self.assertIn("there is audio already", twice.errors)
        other = Run(CLIPS / "h264-only.mp4", "--mse", "--switch-at", f"1={CLIPS / 'vp8-vorbis.webm'}")
        self.assertEqual(other.code, 1)
        self.assertIn("renditions must have one codec", other.errors)
        refused = Run(CLIPS / "mjpeg-pcm.mkv", "--mse")
        self.assertEqual(refused.code, 1)
        self.assertIn("mjpeg cannot be fed as a media source; play the URL without --mse", refused.errors)

    def test_protected(self):
        run = Run(CLIPS / "h264-aac.mp4", "--mse", "--key", KEY, "--key", "f" + KEY[1:], "--protect", "cbcs",
                  "--full-sample-decrypter", "--key-delay", "700", *PATIENT)
        self.assertEqual(run.code, 0, run.report())
        delay = run.seconds_between("initBackend", "PlaybackFinished")
        self.assertGreater(delay, 2.5, run.report())  # kept, and no stall

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
            (('video/webm; codecs="vp09.00.51.08"; Width=3840', "--height", "2160", "--framerate", "61"), 1,
             "no: the codec 'vp09.00.51.08' not with width 3840, height 2160, framerate 61"),
            (("video/mp4", "--channels", "eleven"), 1, "no: channels 'eleven' is no number that is accepted"),
        ]
        for arguments, code, text in rows:
            with self.subTest(arguments):
                self.assertEqual(answer("--can-play", *arguments)[:2], (code, [text]))
        self.assertEqual(answer("--can-play", "nothing")[0], 2)
        self.assertEqual(answer()[0], 2)

    def test_list_types(self):
        code, lines, _ = answer("--list-types")
        self.assertEqual((code, len(lines), lines[0]), (0, 58, "application/ogg"))


unittest.main(argv=sys.argv[:1], verbosity=2, warnings="ignore")
