#!/usr/bin/env python3
"""Records that real hosts make, and what a replay of them says of good libraries and of faulty ones.

Usage: replay_test.py MEDIA RECORDS UVA_HOST UVA_REPLAY ODD_HOST FAKE_LIBRARY [FAULTY_LIBRARY], in a box
"""

import os
import pathlib
import re
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest

MEDIA, RECORDS = map(pathlib.Path, sys.argv[1:3])
HOST, REPLAY, ODD_HOST, FAKE = sys.argv[3:7]
FAULTY = sys.argv[7] if len(sys.argv) > 7 else None
CLIP = str(MEDIA / "clip.mp4")


def run(*command, **env):
    return subprocess.run(list(map(str, command)), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True, errors="replace", timeout=300, env=dict(os.environ, **env))


class Replay(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.record = self.folder / "it.uvarec"

    def entries(self, record=None):
        """Kind and text of each entry."""
        done = run(REPLAY, "--list", record or self.record)
        self.assertEqual(done.returncode, 0, done.stderr)
        lines = [re.match(r" *[\d.]+ +t\d+ +b\d+ +#\d+ +(\w+) +(.*)", line) for line in done.stdout.splitlines()]
        return [match.groups() for match in lines if match]

    def check_replay(self, code, *options, record=None, **env):
        done = run(REPLAY, "--quiet", *options, record or self.record, **env)
        self.assertEqual(done.returncode, code, done.stdout + done.stderr)
        return done.stdout

    def test_playback_of_a_file_comes_again(self):
        done = run(HOST, "--quiet", "--record", self.record, "--seek", "2", "--duration", "2", CLIP)
        self.assertEqual((done.returncode, done.stdout), (0, ""), done.stderr)
        kinds = [kind for kind, _ in self.entries()]
        self.assertEqual(kinds.count("call"), kinds.count("return"))
        self.assertEqual(kinds.count("event"), kinds.count("taken"))
        self.assertIn(("call", "setPosition(2)"), self.entries())
        self.assertEqual(self.check_replay(0), "")
        self.assertEqual(self.check_replay(0, "--fast"), "")

    def test_protected_samples_come_again_with_their_key(self):
        key = "00112233445566778899aabbccddeeff:000102030405060708090a0b0c0d0e0f"
        done = run(HOST, "--quiet", "--mse", "--key", key, "--protect", "cenc", "--duration", "1", "--record", self.record, CLIP)
        self.assertEqual(done.returncode, 0, done.stderr)
        entries = self.entries()
        texts = {kind: [text for found, text in entries if found == kind] for kind, _ in entries}
        self.assertTrue(any("createDecrypter(0011223344" in text for text in texts["ask"]))
        self.assertTrue(all("protection=null" not in text or "payload=null" in text for text in texts["sample"]))
        self.assertEqual(len(texts["freed"]), len(texts["sample"]))
        self.assertEqual(self.check_replay(0, "--key", key), "")

    def test_a_killed_host_leaves_all_that_was(self):
        host = subprocess.Popen([HOST, "--quiet", "--mse", "--record", str(self.record), "--loop", CLIP], stderr=subprocess.DEVNULL)
        time.sleep(2)  # of playback
        host.send_signal(signal.SIGKILL)
        host.wait()
        entries = self.entries()
        self.assertGreater(sum(kind == "sample" for kind, _ in entries), 30)
        self.assertNotIn(("call", "UVA_ReleaseBackend()"), entries)
        self.assertEqual(self.check_replay(0), "")

    def test_digests_are_told_and_not_played(self):
        full = self.folder / "full.uvarec"
        for record, payloads in ((full, "full"), (self.record, "digest")):
            done = run(HOST, "--quiet", "--mse", "--duration", "0.5", CLIP, UVA_RECORD=str(record), UVA_RECORD_PAYLOADS=payloads)
            self.assertEqual(done.returncode, 0, done.stderr)
        self.assertRegex(str(self.entries()), r"payload=<\d+ bytes, [0-9a-f]{16}>")
        self.assertLess(self.record.stat().st_size, full.stat().st_size / 4)
        done = run(REPLAY, self.record)
        self.assertEqual(done.returncode, 3)
        self.assertIn("sizes and hashes", done.stderr)

    def test_a_file_that_cannot_be_written_costs_the_record_alone(self):
        done = run(HOST, "--quiet", "--duration", "0.3", CLIP, UVA_RECORD="/nowhere/it")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(len(done.stderr.splitlines()), 1, done.stderr)
        self.assertIn("uvarecord: no record is made: /nowhere/it: No such file or directory", done.stderr)
        done = run(HOST, "--duration", "0.3", "--record", "/nowhere/it", CLIP)
        self.assertEqual(done.returncode, 1)
        self.assertIn("/nowhere/it", done.stderr)

    def test_each_process_has_its_own_with_p(self):
        done = run(HOST, "--quiet", "--duration", "0.3", CLIP, UVA_RECORD=f"{self.folder}/%p.uvarec")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertTrue(all(path.stem.isdigit() for path in self.folder.glob("*.uvarec")))
        self.assertEqual(len(list(self.folder.glob("*.uvarec"))), 1)

    def test_what_is_no_record_is_refused(self):
        self.record.write_bytes(b"UVAREC\r\n" + b"\1" * 100)
        done = run(REPLAY, self.record)
        self.assertEqual(done.returncode, 3)
        self.assertIn("offset 8: a record of version 16843009", done.stderr)

    def test_an_end_that_does_not_come_is_told_and_shortened_to(self):
        done = run(HOST, "--quiet", "--backend", FAKE, "--record", self.record, "--seek", "0.1,0.2", CLIP, FAKE_CLIP_SECONDS="1")
        self.assertEqual(done.returncode, 0, done.stderr)
        again = dict(FAKE_CLIP_SECONDS="1")
        self.check_replay(0, "--library", FAKE, **again)
        again["FAKE_CLIP_STALLS"] = "1"
        options = ["--library", FAKE, "--patience", "0.5"]
        self.assertIn("PlaybackFinished(reason=0, detail=0) did not come", self.check_replay(1, *options, **again))
        short = self.folder / "short.uvarec"
        self.check_replay(1, *options, "--fast", "--minimize", short, **again)
        self.assertEqual([text for kind, text in self.entries(short) if kind == "call" and "eventCompleted" not in text][2:],
                         ["play()", "UVA_ReleaseBackend()"])
        self.check_replay(1, *options, "--fast", record=short, **again)

    def test_an_event_is_answered_as_often_as_it_was(self):
        again = dict(FAKE_CLIP_SECONDS="2")
        done = run(ODD_HOST, "answered-twice", MEDIA / "tiny.mp4", UVA_RECORD=str(self.record), UVA_BACKEND_LIBRARY=FAKE, **again)
        self.assertEqual(done.returncode, 0, done.stderr)
        first, second = [text for kind, text in self.entries() if kind == "call" and "eventCompleted" in text][-2:]
        self.assertRegex(first, r"#[1-9]")
        self.assertEqual(first, second)
        for options in ([], ["--fast"]):
            self.assertEqual(self.check_replay(0, "--library", FAKE, *options, **again), "")

    def test_a_call_that_crashes_or_hangs_is_named(self):
        done = run(HOST, "--quiet", "--backend", FAKE, "--record", self.record, "--seek", "0.1", CLIP, FAKE_CLIP_SECONDS="1")
        self.assertEqual(done.returncode, 0, done.stderr)
        for how, text in (("crash", r"the process ended with Aborted inside setPosition\(0\.1\)"), ("hang", r"setPosition\(0\.1\) does not return")):
            with self.subTest(how):
                told = self.check_replay(1, "--library", FAKE, "--patience", "1", FAKE_CLIP_SECONDS="1", FAKE_SEEKS=how)
                self.assertRegex(told.splitlines()[0], text)

    def test_a_library_that_is_not_there(self):
        done = run(REPLAY, "--library", "/nowhere.so", *sorted(RECORDS.glob("*.uvarec"))[:1])
        self.assertEqual(done.returncode, 3)
        self.assertIn("/nowhere.so", done.stderr)

    def test_an_answer_that_a_seek_made_void_comes_before_its_end(self):
        record = bytearray((RECORDS / "samples-seek.uvarec").read_bytes())
        places, at = [], 64
        while at < len(record):
            size, kind = struct.unpack_from("<IB", record, at)
            code = struct.unpack_from("<H", record, at + 28)[0]
            places.append((at, (kind, code)))
            at += (size + 7) // 8 * 8
        event, need_mse_data, cancel_data_requests, seek_completed = 3, 4, 41, 42
        seek = [at for at, what in places if what == (event, cancel_data_requests)][1]
        end = [at for at, what in places if what == (event, seek_completed)][1]
        request = [at for at, what in places if what == (event, need_mse_data) and at < seek][-1]
        # The request comes as early again, its answer as late: while the host is still to answer those behind the seek.
        for at, _ in places:
            milliseconds = (-150 if at == request else 0) + (300 if at > end else 0)
            time_of_entry = struct.unpack_from("<Q", record, at + 8)[0] + milliseconds * 1000000
            struct.pack_into("<Q", record, at + 8, time_of_entry)
        self.record.write_bytes(record)
        self.check_replay(0, "--bound", "3000")

    def test_hosts_of_the_kept_records_play_to_their_end(self):
        for case, clip in (("unasked-samples", "h264-aac.mp4"), ("endless-seek", "h264-aac.mp4"), ("missing-key", "tone.mp3")):
            with self.subTest(case):
                done = run(ODD_HOST, case, MEDIA / clip)
                self.assertEqual(done.returncode, 0, done.stderr)

    @unittest.skipIf(FAULTY is None, "no library with faults is built here")
    def test_a_record_is_red_with_the_old_fault(self):
        done = run(ODD_HOST, "answered-inside", MEDIA / "tiny.mp4", UVA_RECORD=str(self.record))
        self.assertEqual(done.returncode, 0, done.stderr)
        for record in (self.record, RECORDS / "answered-inside.uvarec"):
            with self.subTest(record=record):
                self.check_replay(0, "--bound", "500", "--library", FAULTY, record=record)
                told = self.check_replay(1, "--bound", "500", "--library", FAULTY, record=record, UVA_FAULT="answered-inside")
                self.assertRegex(told, r"the position was 5\.000 s, not 5\.[5-9]")


unittest.main(argv=sys.argv[:1], verbosity=2, warnings="ignore")
