#!/usr/bin/env python3
"""uva-scope looks at players that are made to stall in every way that it names, and at what is no player.

Usage: scope_test.py CLIP UVA_SCOPE ZANTSH ZANT_MAINSYS SILENT_CLIENT, in a box
"""

import contextlib
import http.client
import io
import json
import os
import pathlib
import signal
import socket
import subprocess
import sys
import tarfile
import tempfile
import time
import unittest
import urllib.parse

HERE = os.path.dirname(__file__)
sys.path[:0] = [os.path.join(HERE, "..", "support"), os.path.join(HERE, "..", "..", "docs", "examples")]
import stalled_server  # noqa: E402
from browser import PROGRAM, Browser  # noqa: E402
from host_run import TIMEOUT, UVA_HOST  # noqa: E402
from wait_until import wait_until  # noqa: E402

CLIP, SCOPE, ZANTSH, MAINSYS, SILENT = sys.argv[1:]
SOCKET = "zant_dbg_server_uva"
KEY = "00112233445566778899aabbccddeeff:0123456789abcdef0123456789abcdef"
PATIENT = ("--no-progress-timeout", "600")


class Scope:
    """A running uva-scope and its interface."""

    def __init__(self, *options, **more):
        self.process = subprocess.Popen([SCOPE, *options], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True, **more)
        self.address = self.process.stdout.readline().strip()
        parts = urllib.parse.urlsplit(self.address)
        self.port, self.token = parts.port, parts.path

    def close(self):
        self.process.terminate()
        self.process.wait(TIMEOUT)
        self.process.stdout.close()

    def request(self, method, path, body=None, headers=None):
        """(status, headers, body), of a path as it is."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=60)
        with contextlib.closing(connection):
            connection.request(method, path, body, headers or {})
            response = connection.getresponse()
            return response.status, response.headers, response.read()

    def get(self, name):
        return self.request("GET", self.token + name)

    def post(self, name, **wish):
        status, headers, body = self.request("POST", self.token + name, json.dumps({"player": ":" + SOCKET, **wish}))
        assert status == 200, body
        return body if headers["Content-Type"] == "image/png" else json.loads(body)

    def player(self):
        player, = json.loads(self.get("state")[2])["players"]
        return player

    def why(self):
        return [(each["waits_for"], each["sentence"]) for each in self.player()["why"]]


class WithPlayers(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.addCleanup(self.leaves_no_folder)
        self.scope = Scope("--socket", SOCKET)
        self.addCleanup(self.scope.close)

    def leaves_no_folder(self):
        folders = pathlib.Path("/dev/shm")
        self.assertTrue(wait_until(lambda: not list(folders.glob("uva-scope-*"))), "left in /dev/shm when it had ended")

    def enterContext(self, context):  # as in Python 3.11's own
        value = context.__enter__()
        self.addCleanup(context.__exit__, None, None, None)
        return value

    def start(self, command, standalone=True, **more):
        environment = {name: value for name, value in os.environ.items() if name != "NOX_GST_STANDALONE"}
        if standalone:
            environment["NOX_GST_STANDALONE"] = "1"
        output = self.folder / f"{len(list(self.folder.iterdir()))}.out"
        process = subprocess.Popen(list(map(str, command)), stdout=output.open("w"), stderr=subprocess.STDOUT, env=environment,
                                   **{"stdin": subprocess.DEVNULL, **more})

        def end():
            process.kill()
            process.wait(TIMEOUT)
        self.addCleanup(end)
        process.output = output
        return process

    def main_system(self, *orders):
        process = self.start([MAINSYS], stdin=subprocess.PIPE)
        self.addCleanup(process.stdin.close)
        self.assertTrue(wait_until(lambda: "main system is up" in process.output.read_text()))
        for order in orders:
            self.order(process, order)

        def leave():  # in order: its queue goes
            process.terminate()
            process.wait(TIMEOUT)
        self.addCleanup(leave)
        return process

    def order(self, process, order):
        process.stdin.write(order.encode() + b"\n")
        process.stdin.flush()
        self.assertTrue(wait_until(lambda: "obey " + order in process.output.read_text()))

    def play(self, *options, **more):
        return self.start([UVA_HOST, *PATIENT, *options], **more)

    def stalls(self, who, says):
        """Waits until exactly this is what the scope says."""
        def is_so():
            whys = self.scope.why()
            return any(waits == who and says in sentence for waits, sentence in whys)
        self.assertTrue(wait_until(is_so), (self.scope.why(), self.scope.player()["reason"]))
        seconds = self.scope.player()["why"][0]["seconds"]
        self.assertTrue(wait_until(lambda: self.scope.player()["why"][0]["seconds"] > seconds), "its time goes on")


class Stalls(WithPlayers):
    def setUp(self):
        super().setUp()
        server = stalled_server.serve(CLIP, pathlib.Path(CLIP).stat().st_size // 4)
        self.url = f"127.0.0.1:{server.server_address[1]}/clip.mp4"

        def stop():
            server.over.set()
            server.shutdown()
            server.server_close()
        self.addCleanup(stop)

    def test_client(self):
        self.start([SILENT, CLIP], standalone=False, stdin=subprocess.PIPE)
        self.stalls("client", "has not answered whether")

    def test_main_system(self):
        self.main_system("ignore")
        self.play(CLIP, standalone=False)
        self.stalls("main system", "has not answered the request")

    def test_decoder(self):
        main = self.main_system("lend video")
        player = self.play("--loop", CLIP, standalone=False)
        self.stalls("decoder", "lent to another application")
        main_system = self.scope.player()["main_system"]
        self.assertEqual((main_system["lent"], main_system["granted"]), (["video"], ["audio"]))
        self.order(main, "take video")
        self.assertTrue(wait_until(lambda: self.scope.why() == [("", "it moves")]), self.scope.why())
        self.assertIsNone(player.poll())

    def test_key(self):
        self.play("--mse", "--protect", "cenc", "--key", KEY, "--key-delay", "3000000", CLIP)
        self.stalls("key", "it has no key yet")

    def test_data(self):
        self.play("--mse", "http://" + self.url)
        self.stalls("data", "delivers no samples for")

    def test_network(self):
        self.play(f"http://user:secret@{self.url}?token=secret")
        self.stalls("network", f"nothing comes from http://{self.url} after")
        self.assertNotIn("secret", json.dumps(self.scope.player()["state"]))


class Scoping(WithPlayers):
    def playing(self, *options):
        player = self.play("--loop", *options, CLIP)
        self.assertTrue(wait_until(lambda: self.scope.why() == [("", "it moves")]), self.scope.player()["reason"])
        return player

    def test_a_player_dies_and_another_comes(self):
        self.assertEqual(self.scope.player()["status"], "waiting")
        first = self.playing()
        first.kill()
        self.assertTrue(wait_until(lambda: self.scope.player()["status"] == "ended"), self.scope.player()["status"])
        self.playing()
        processes = [each[2] for each in self.scope.player()["timeline"] if each[1] == "process"]
        self.assertEqual([each for each in processes if each in ("answers", "ended")], ["answers", "ended", "answers"])

    def test_a_player_that_is_stopped(self):
        player = self.playing()
        with subprocess.Popen([ZANTSH, "--timeout", "60", "m_sleep", "4"], stdout=subprocess.DEVNULL) as sleeper:
            self.assertTrue(wait_until(lambda: f" {sleeper.pid} " in pathlib.Path("/proc/locks").read_text()), "its turn")
            time.sleep(0.3)  # the scope, which asks ten times a second, waits for its turn
            player.send_signal(signal.SIGSTOP)
            self.assertTrue(wait_until(lambda: self.scope.player()["status"] == "silent"))
            self.assertIn(f"process {player.pid} is stopped", self.scope.player()["reason"])
            self.assertEqual(self.scope.why(), [])
            player.send_signal(signal.SIGCONT)
            self.assertEqual(sleeper.wait(TIMEOUT), 0)
        self.assertTrue(wait_until(lambda: self.scope.player()["status"] == "answers"))

    def test_ctrl_c_leaves_nothing(self):
        self.playing()
        for ends in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            before = self.folders()
            scope = Scope("--socket", SOCKET, start_new_session=True)
            self.assertTrue(wait_until(lambda: self.folders() > before), "its probe has a folder")
            os.killpg(scope.process.pid, ends)  # as a terminal does: its probes get it too
            self.assertEqual(scope.process.wait(TIMEOUT), 0)
            scope.process.stdout.close()
            self.assertTrue(wait_until(lambda: self.folders() == before), (ends, self.folders()))

    def folders(self):
        return set(pathlib.Path("/dev/shm").glob("uva-scope-*"))

    def test_says_where_it_looks(self):
        cases = {"no box nosuch runs": (["--box", "nosuch"], 1), "no shell at /tmp/nosuch": (["--socket", "nosuch"], 1)}
        asked = [subprocess.Popen([SCOPE, "--why", *options], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
                 for options, _ in cases.values()]
        self.playing()
        with open("/dev/full", "w", encoding="ascii") as full:
            deaf = subprocess.Popen([SCOPE, "--why"], stdout=full, stderr=subprocess.PIPE, text=True)
            served = subprocess.run([SCOPE], stdout=full, stderr=subprocess.PIPE, text=True, timeout=TIMEOUT)
        for (says, (options, code)), process in zip(cases.items(), asked):
            with self.subTest(options=options):
                errors = process.communicate(timeout=TIMEOUT)[1]
                self.assertEqual(process.returncode, code)
                self.assertIn("no player answers at /tmp/", errors)
                self.assertIn(says, errors)
        self.assertIn("cannot write", deaf.communicate(timeout=TIMEOUT)[1])
        self.assertEqual((deaf.returncode, served.returncode), (1, 1))
        self.assertIn("cannot write", served.stderr)

    def test_a_probe_whose_scope_was_killed_leaves_nothing(self):
        self.playing()
        with subprocess.Popen([SCOPE, "--probe", "--socket", SOCKET], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as probe:
            probe.stdout.readline()
            probe.stdout.close()
            self.assertEqual(probe.wait(TIMEOUT), 0)

    def test_others_use_the_shell_meanwhile(self):
        self.playing()
        self.scope.post("output", on=True)
        for _ in range(20):
            done = subprocess.run([ZANTSH, "--timeout", "20", "m_tracestate", "9"], capture_output=True, text=True,
                                  stdin=subprocess.DEVNULL, timeout=TIMEOUT)
            self.assertEqual(done.returncode, 0, done.stderr)
            self.assertIn("TRACE_SHELL", done.stdout)
            self.assertNotIn("uva-scope", done.stdout)
        # Somebody's long command is no end of the player.
        with subprocess.Popen([ZANTSH, "--timeout", "60", "m_sleep", "7"], stdout=subprocess.DEVNULL) as sleeper:
            self.assertTrue(wait_until(lambda: self.scope.player()["status"] == "silent"), self.scope.player()["status"])
            self.assertIn("nothing comes any more", self.scope.player()["reason"], "within two seconds")
            self.assertEqual(sleeper.wait(TIMEOUT), 0)
        self.assertTrue(wait_until(lambda: self.scope.player()["status"] == "answers"))

    def test_controls(self):
        player = self.playing()
        self.assertTrue(wait_until(lambda: "level" in str(self.scope.player()["state"].get("trace"))))
        self.assertIn("text", self.scope.post("output", on=True))
        self.assertIn("for unit 9 (TRACE_SHELL)", self.scope.post("trace", unit=9, level=10)["text"])
        self.assertIn("text", self.scope.post("threshold", levels="*:2,uvabackend:3"))
        self.assertTrue(wait_until(lambda: any("Processing cmd: m_gst" in line[2] for line in self.scope.player()["lines"])))

        def level():
            units = self.scope.player()["state"]["trace"]["units"]
            return [unit["level"] for unit in units if unit["unit"] == 9]
        self.assertTrue(wait_until(lambda: level() == [10]), level())
        self.scope.post("trace", unit=9, level=30)
        graph = self.scope.post("graph")
        self.assertIn("halvideosink", graph["dot"])
        self.assertIn("<svg", graph["svg"], graph["error"])
        self.assertIn("no such backend", self.scope.post("graph", backend="1f")["error"])
        self.assertTrue(wait_until(lambda: self.scope.post("picture")[:4] == b"\x89PNG"))

        status, headers, archive = self.scope.get("bundle?player=" + urllib.parse.quote(":" + SOCKET))
        self.assertEqual((status, headers["Content-Type"]), (200, "application/x-tar"))
        with tarfile.open(fileobj=io.BytesIO(archive)) as tar:
            files = {pathlib.Path(member.name).name: tar.extractfile(member).read() for member in tar}
        self.assertEqual(set(files), {"state.json", "main-system.json", "why.json", "timeline.json", "traces.txt", "log.txt",
                                      "graph.dot", "graph.svg"})
        self.assertEqual(json.loads(files["state.json"])["process"]["id"], player.pid)
        tracks = [event["args"]["name"] for event in json.loads(files["timeline.json"])["traceEvents"] if event["ph"] == "M"]
        self.assertLessEqual({"wanted", "pipeline", "waits for", "events"}, set(tracks))
        self.assertIn(b"Processing cmd", files["traces.txt"])

    def test_refuses_who_has_no_business_here(self):
        self.playing()
        before = self.scope.player()["state"]["trace"]
        token, port = self.scope.token, self.scope.port
        wish = json.dumps({"player": ":" + SOCKET, "unit": 9, "level": 0})
        rows = [
            ("GET", "/", None, {}, 403),
            ("GET", f"{token[:-2]}{'1' if token[-2] == '0' else '0'}/state", None, {}, 403),
            ("GET", token.upper() + "x", None, {"Host": f"localhost:{port}"}, 403),
            ("GET", token + "state", None, {"Host": "evil.example"}, 403),
            ("GET", token + "state", None, {"Host": f"127.0.0.1.evil.example:{port}"}, 403),
            ("GET", token + "state", None, {"Origin": "http://evil.example"}, 403),
            ("GET", token + "trace", None, {}, 405),
            ("POST", token + "state", "{}", {}, 405),
            ("PUT", token + "trace", wish, {}, 405),
            ("DELETE", token, None, {}, 405),
            ("POST", "/trace", wish, {}, 403),
            ("POST", token + "trace", wish, {"Origin": "http://127.0.0.1:1"}, 403),
            ("POST", token + "trace", json.dumps({"unit": "9; m_ls", "level": 0}), {}, 400),
            ("POST", token + "trace", json.dumps({"unit": 1e99, "level": 0}), {}, 400),
            ("POST", token + "threshold", json.dumps({"levels": "*:5\nm_ls x"}), {}, 400),
            ("POST", token + "threshold", json.dumps({"levels": "*:5 m_ls"}), {}, 400),
            ("POST", token + "graph", json.dumps({"backend": "0 /etc/x"}), {}, 400),
            ("POST", token + "trace", "[" * 4000, {}, 400),
            ("POST", token + "trace", "x" * 5000, {}, 413),
            ("GET", token + "nothing.js", None, {}, 404),
            ("GET", token + "../../etc/passwd", None, {}, 403),
            ("GET", token + "%2e%2e/%2e%2e/etc/passwd", None, {}, 403),
            ("GET", token + "bundle?player=nobody", None, {}, 404),
        ]
        for method, path, body, headers, expected in rows:
            with self.subTest(method=method, path=path.replace(token, "/TOKEN/"), headers=headers):
                status, answered, _ = self.scope.request(method, path, body, headers)
                self.assertEqual(status, expected)
                self.assertIn("default-src 'none'", answered["Content-Security-Policy"])
                self.assertIsNone(answered["Access-Control-Allow-Origin"])
        self.assertEqual(self.scope.player()["state"]["trace"], before)
        with contextlib.closing(socket.create_connection(("127.0.0.1", port))) as raw:
            raw.sendall(f"GET {token}state HTTP/1.1\r\n\r\n".encode())  # without a host
            self.assertNotIn(b"200", raw.recv(64))
        # Much of it, as the address sanitizer keeps 256 MB of what is freed.
        resident, size, piece = self.resident(), 512 << 20, bytes(1 << 20)
        with contextlib.closing(socket.create_connection(("127.0.0.1", port))) as raw:
            raw.settimeout(TIMEOUT)
            raw.sendall(f"POST /trace HTTP/1.1\r\nHost: localhost\r\nContent-Length: {size}\r\n\r\n".encode())
            for _ in range(size // len(piece)):
                raw.sendall(piece)
            self.assertIn(b" 403 ", raw.recv(64))
        self.assertLess(self.resident() - resident, size * 3 // 4, "what is refused is not kept")
        with open("/proc/net/tcp", encoding="ascii") as listening:
            addresses = {line.split()[1] for line in listening if line.split()[3] == "0A"}
        self.assertIn(f"0100007F:{port:04X}", addresses)
        self.assertNotIn(f"00000000:{port:04X}", addresses)

    def test_a_page_that_does_not_read_holds_nobody_up(self):
        self.playing()
        with contextlib.closing(socket.create_connection(("127.0.0.1", self.scope.port))) as idle:
            idle.sendall(f"GET {self.scope.token}events HTTP/1.1\r\nHost: localhost\r\n\r\n".encode())
            before = self.scope.player()["why"]
            resident = self.resident()
            time.sleep(3)  # thirty updates that nobody takes
            self.assertLess(self.resident() - resident, 8 << 20)
            self.assertTrue(before)
            self.assertEqual(self.scope.player()["status"], "answers")

    def resident(self):
        statm = pathlib.Path(f"/proc/{self.scope.process.pid}/statm").read_text()
        return int(statm.split()[1]) * os.sysconf("SC_PAGESIZE")


class Hostile(WithPlayers):
    """What serves the shell's socket is no player."""

    ANSWERS = [b"", b"no JSON", b"[" * 100000, b"[1, 2]", b'{"media": {"backends": [[[]], 7, {"address": {}}]}}',
               b'{"media": {"backends": [{"address": "\xff\x00", "sources": [{"name": "<script>alert(1)</script>"}]}]}}',
               b'"' + b"x" * (9 << 20) + b'"']

    def serve(self, answer):
        path = "/tmp/" + SOCKET
        pathlib.Path(path).unlink(missing_ok=True)
        server = self.enterContext(contextlib.closing(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)))
        server.bind(path)
        self.addCleanup(pathlib.Path(path).unlink, missing_ok=True)
        server.settimeout(30)
        asked = 0
        while asked < 4:
            bytes_, _ = server.recvfrom(2000)
            words = bytes_.rstrip(b"\0").split()
            if len(bytes_) != 1023:
                continue
            if words[0] == b"m_state":
                asked += 1
                pathlib.Path(words[1].decode()).write_bytes(answer)
            with contextlib.suppress(OSError):
                server.sendto(b"OK\0", "/tmp/zant_dbg_client")
        return server

    def test_is_told_of_and_harms_nobody(self):
        for answer in self.ANSWERS:
            with self.subTest(answer=answer[:40]):
                with contextlib.closing(self.serve(answer)):
                    player = self.scope.player()
                    self.assertIn(player["status"], ("answers", "silent", "waiting"))
        self.assertIsNone(self.scope.process.poll())


@unittest.skipUnless(PROGRAM, "there is no chromium: the page is not looked at")
class Page(WithPlayers):
    def test_shows_a_stall(self):
        self.main_system("lend video")
        self.play("--mse", "--protect", "cenc", "--key", KEY, "--key-delay", "3000000", CLIP)
        self.stalls("key", "it has no key yet")
        for width, dark in ((1200, False), (500, True)):
            with self.subTest(width=width):
                browser = Browser(width, dark=dark)
                self.addCleanup(browser.close)
                browser.open(self.scope.address)
                self.assertTrue(browser.wait("document.querySelector('#why.stalled .who')?.textContent.startsWith('key, for')"))
                browser.run("document.getElementById('draw').click()")
                self.assertTrue(browser.wait("document.querySelectorAll('#graph svg g.cluster').length > 3"))
                self.assertTrue(browser.wait("document.querySelectorAll('#threads tbody tr').length > 5"))
                self.assertIn("another application", browser.run("document.getElementById('decoders').textContent"))
                self.assertTrue(browser.wait("document.getElementById('timeline').height > 100"))
                self.assertEqual(browser.run("document.documentElement.scrollWidth - document.documentElement.clientWidth"), 0)
                browser.run("document.getElementById('draw').click()")
                self.assertTrue(browser.wait("document.getElementById('graph-tools').textContent.includes('changed')"))
                picture = self.folder / f"{width}.png"
                browser.picture(picture)
                self.assertGreater(picture.stat().st_size, 20000)
                self.assertEqual(browser.complaints, [])

    def test_shows_that_the_player_and_the_scope_have_gone(self):
        browser = Browser()
        self.addCleanup(browser.close)
        browser.open(self.scope.address)
        self.assertTrue(browser.wait("document.getElementById('why').textContent.includes('No player answers at /tmp/zant')"))
        player = self.play("--loop", CLIP)
        self.assertTrue(browser.wait("document.getElementById('why').textContent.includes('it moves')"))
        browser.run("document.getElementById('snap').click()")
        self.assertTrue(browser.wait("document.querySelector('#picture img')?.naturalWidth > 100"))
        player.send_signal(signal.SIGKILL)
        self.assertTrue(browser.wait("document.getElementById('why').textContent.includes('The player has ended')"))
        self.assertEqual(browser.complaints, [])
        self.scope.process.terminate()
        self.assertTrue(browser.wait("document.getElementById('link').textContent === 'uva-scope has gone'"))


unittest.main(argv=sys.argv[:1], verbosity=2, warnings="ignore")
