#!/usr/bin/env python3
"""Playback over HTTP from a server of our own: what networks do to a television.

Usage: http_test.py CLIP_FOLDER
"""

import concurrent.futures
import http.server
import os
import pathlib
import re
import socket
import sys
import threading
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
from host_run import Run  # noqa: E402

CLIPS = pathlib.Path(sys.argv[1])
PROMPT = 5  # seconds: below every bound, with room for a busy machine


class Handler(http.server.BaseHTTPRequestHandler):
    """Serves the clips; the first folder of the path says how."""

    protocol_version = "HTTP/1.1"
    requests = []  # (path, range header, user agent)
    stop = threading.Event()  # lets stalled connections go

    def do_GET(self):
        Handler.requests.append((self.path, self.headers.get("Range"), self.headers.get("User-Agent")))
        how, _, name = self.path.lstrip("/").partition("/")
        if how == "redirect":
            self.send_response(302)
            self.send_header("Location", "/ranges/" + name)
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        if how == "silent":
            Handler.stop.wait()
            return
        path = CLIPS / name
        if how not in ("ranges", "plain", "stalled", "late") or not path.is_file():
            self.send_error(404)
            return
        self.serve(how, path.read_bytes())

    def serve(self, how, body):
        start, end = 0, len(body) - 1
        wanted = re.fullmatch(r"bytes=(\d+)-(\d*)", self.headers.get("Range", ""))
        partial = how == "ranges" and wanted
        if partial:
            start = int(wanted[1])
            end = min(int(wanted[2] or end), end)
        self.send_response(206 if partial else 200)
        if how == "ranges":
            self.send_header("Accept-Ranges", "bytes")
        if partial:
            self.send_header("Content-Range", f"bytes {start}-{end}/{len(body)}")
        self.send_header("Content-Type", "video/mp4")
        self.send_header("Content-Length", str(end - start + 1))
        self.end_headers()
        data = body[start:end + 1]
        share = {"stalled": 4, "late": 2}.get(how, 1)
        data, rest = data[:len(data) // share], data[len(data) // share:]
        try:
            self.wfile.write(data)
            self.wfile.flush()
            if how == "late":
                Handler.stop.wait(6)
                self.wfile.write(rest)
        except OSError:
            return  # the player has seen enough
        if how == "stalled":
            Handler.stop.wait()
            self.close_connection = True

    def log_message(self, *_):
        pass


class Http(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        cls.server.daemon_threads = True
        threading.Thread(target=cls.server.serve_forever, daemon=True).start()
        cls.base = f"http://127.0.0.1:{cls.server.server_address[1]}"

    @classmethod
    def tearDownClass(cls):
        Handler.stop.set()
        cls.server.shutdown()
        cls.server.server_close()

    def setUp(self):
        Handler.requests.clear()

    def test_ranges_and_seek(self):
        run = Run(self.base + "/redirect/clip.mp4", "--seek", "4")
        self.assertEqual(run.code, 0, run.report())
        self.assertEqual(Handler.requests[0][0], "/redirect/clip.mp4")
        self.assertTrue(any(wanted and wanted != "bytes=0-" for _, wanted, _ in Handler.requests),
                        Handler.requests)
        self.assertTrue(all("uva-host" in (agent or "") for _, _, agent in Handler.requests), Handler.requests)

    def test_whole_file_without_ranges(self):
        run = Run(self.base + "/plain/h264-aac.ts")
        self.assertEqual(run.code, 0, run.report())

    def test_not_found(self):
        run = Run(self.base + "/ranges/nothing.mp4")
        self.assertEqual(run.code, 1, run.report())
        self.assertTrue(run.named("BufferingNetworkError"), run.report())
        self.assertRegex(run.errors, r"127\.0\.0\.1 does not answer as it should \(GStreamer: source: .+\)")
        self.assertLess(run.seconds_between("play", "UVA_ReleaseBackend"), PROMPT)

    def test_refused_connection(self):
        with socket.socket() as closed:
            closed.bind(("127.0.0.1", 0))
            port = closed.getsockname()[1]
        # GStreamer's HTTP element keeps the reason to itself; its own error is all there is to quote.
        run = Run(f"http://127.0.0.1:{port}/x.mp4")
        self.assertEqual(run.code, 1, run.report())
        self.assertRegex(run.errors, r": nothing can be fetched from 127\.0\.0\.1 \(GStreamer: source: .+\); check the ")
        self.assertLess(run.seconds_between("play", "UVA_ReleaseBackend"), PROMPT)

    def test_a_server_that_stalls_is_named(self):
        rows = [
            ("/silent/clip.mp4", (), r": no media came from 127\.0\.0\.1 within 10\.0 s; check the address"),
            ("/stalled/clip.mp4", ("--no-progress-timeout", "2"), r": stalled at [\d.]+ s: no data came from 127\.0\.0\.1 for 2\.0 s; check "),
            ("/silent/clip.mp4", ("--mse", "--no-progress-timeout", "2"), r": no media came from 127\.0\.0\.1 within 2\.0 s; "),
        ]
        with concurrent.futures.ThreadPoolExecutor(len(rows)) as pool:
            runs = [pool.submit(Run, self.base + path, *options) for path, options, _ in rows]
        for (path, options, text), run in zip(rows, (run.result() for run in runs)):
            with self.subTest(path=path, options=options):
                self.assertEqual(run.code, 1, run.report())
                self.assertRegex(run.errors, text)
                self.assertLess(run.seconds_between("UVA_ReleaseBackend", "UVA_ReleaseBackend"), PROMPT)

    def test_playback_waits_for_a_late_connection_and_goes_on_where_it_was(self):
        run = Run(self.base + "/late/frag.mp4", "--mse")
        self.assertEqual(run.code, 0, run.report())
        states = re.findall(r" state (\w+) at ([\d.]+) s", run.output)
        held = [i for i, (state, at) in enumerate(states) if state == "buffering" and float(at) > 0.5]
        self.assertEqual(len(held), 1, run.report())
        self.assertEqual([state for state, _ in states[held[0] - 1:]], ["playing", "buffering", "playing", "ended"])
        self.assertLess(float(states[held[0] + 1][1]) - float(states[held[0]][1]), 2)  # of 6 s
        calls = [record["name"] for record in run.trace if record["name"] in ("play", "pause")]
        self.assertEqual(calls, ["play", "pause", "play"], run.report())


unittest.main(argv=sys.argv[:1], verbosity=2, warnings="ignore")
