#!/usr/bin/env python3
"""Scripts in a player, in the main system and in the host: those of the manual and of --help do what they say.

Usage: script_test.py CLIP ZANT_MAINSYS SCRIPT_PAGE, in a box
"""

import contextlib
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
from host_run import TIMEOUT, UVA_HOST  # noqa: E402
from wait_until import wait_until  # noqa: E402

CLIP, MAINSYS, PAGE = sys.argv[1:4]
PATIENT = ["--no-progress-timeout", "60"]
QUICK = {"NOX_PLAY_SPEED": "4"}
CONFIGURATION = pathlib.Path("/etc/preinituva.cfg")
PLAYERS = pathlib.Path("/etc/player.lua")


def of_page(title):
    section = re.search(rf"^## {title}$(.*?)^## ", pathlib.Path(PAGE).read_text(), re.MULTILINE | re.DOTALL)
    return re.search(r"^```lua\n(.*?)^```", section[1], re.MULTILINE | re.DOTALL)[1]


def of_help(program):
    text = subprocess.run([program, "--help"], capture_output=True, text=True, check=True).stdout
    return re.search(r"such as\n\n((?: {10}.*\n)+)", text)[1]


class Scripts(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def write(self, text, name="test.lua"):
        path = self.folder / name
        path.write_text(text)
        return path

    def host(self, *options, **environment):
        return subprocess.run([UVA_HOST, *PATIENT, *options, CLIP], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=TIMEOUT, env=dict(os.environ, **environment))

    def scripted(self, text, *options, **environment):
        return self.host("--standalone", "--script", self.write(text), *options, **environment)

    def test_the_hosts_of_the_manual_and_of_the_help(self):
        for text in (of_page("In the host"), of_help(UVA_HOST).replace("seek(20)", "seek(4)")):
            for options in ((), ("--mse",)):
                done = self.scripted(text, *options, **QUICK)
                self.assertEqual((done.returncode, done.stderr), (0, ""), (text, done.stdout))
                self.assertIn(" until its script ended, 640x360", done.stdout)

    def test_a_script_decides_how_the_host_ends(self):
        rows = [("log('it is ' .. ...)\nexpect_signal('DecodeError', 0.2)", 1, ":2: DecodeError did not come within 0.2 s"),
                ("expect_signal('NOPE', 1)", 1, ":1: no signal here has 'NOPE' in its name"),
                ("seek('x')", 1, ":1: seek: argument 1 (seconds) is missing or no finite number"),
                ("seek(math.huge)", 1, ":1: seek: argument 1 (seconds) is missing or no finite number"),
                ("volume(1.5)", 1, ":1: volume: a volume is from 0 to 1"),
                ("window(0, 0, -1, 9)", 1, ":1: window: width is below 0"),
                ("pause('now')", 1, ":1: pause: that is too much: write pause()"),
                ("window(1, 2, 3, 4, 5)", 1, ":1: window: that is too much: write window(x, y, width, height)"),
                ("seek(1, 2)", 1, ":1: seek: that is too much: write seek(seconds)"),
                ("press(key.red)", 1, ":1: press: the key 114 does nothing"),
                ("wait_state('playing', 60) return position() < 0", 1, ": the script has returned false"),
                ("wait_until(function() press(key.stop) end, 1000)", 0, ""),
                ("\nplay(", 2, ":2: unexpected symbol near")]
        for text, code, said in rows:
            done = self.scripted(text)
            self.assertEqual(done.returncode, code, (text, done.stdout, done.stderr))
            self.assertIn(said, done.stderr)
        done = self.scripted(rows[0][0])
        self.assertRegex(done.stdout, r"(?m)^script .*test\.lua: it is .*\.mp4$")
        stopped = self.scripted("expect_state('playing', 60) wait_trace('never', 1000)", "--duration", "1")
        self.assertEqual(stopped.returncode, 0, stopped.stderr)
        self.assertIn("played 1.0 s as long as asked", stopped.stdout)
        failed = self.host("--standalone", "--script", self.write("sleep(1000)"), "--backend", "/nosuch.so")
        self.assertEqual(failed.returncode, 1)

    def test_a_seek_beyond_the_media_leads_to_its_end(self):
        for options in ((), ("--mse",)):
            done = self.scripted("expect_state('playing', 60)\n"
                                 "local function is_at_end() return math.abs(position() - status().duration) < 0.1 end\n"
                                 "for _, paused in ipairs { false, true } do\n"
                                 "    wait_until(function() return position() > 0.2 end, 60)\n"
                                 "    if paused then pause() expect_state('paused', 60) end\n"
                                 "    if paused then press(key.right) assert(is_at_end()) press(key.left) assert(position() == 0) end\n"
                                 "    local number = seek(99999)\n"
                                 "    assert(is_at_end(), position())\n"
                                 "    local told = expect_signal('SeekResult', 60, {number = number, outcome = 'succeeded'})\n"
                                 "    assert(told.target == 99999 and is_at_end() and told.position == status().duration, told.position)\n"
                                 "    play()\n"
                                 "    expect_state('ended', 60)\n"
                                 "    assert(is_at_end(), position())\n"
                                 "    if not paused then play() expect_state('playing', 60) end\n"
                                 "end\n", *options)
            self.assertEqual((done.returncode, done.stderr), (0, ""), (options, done.stdout))

    def test_playback_that_fails_stops_its_script(self):
        done = self.host("--deny-resources", "--script", self.write("expect_state('ended', 1000)"))
        self.assertEqual(done.returncode, 1)
        self.assertNotIn("test.lua", done.stderr)
        self.assertIn("decoder", done.stderr)

    def test_lines_that_nobody_gets_are_an_error_but_a_reader_may_go(self):
        script = self.write("for i = 1, 100 do log('a line') end sleep(0.01) log('another')")
        for program in ([UVA_HOST, "--standalone", "--script", script, CLIP], [MAINSYS, "--script", script]):
            with open("/dev/full", "w", encoding="ascii") as full:
                done = subprocess.run(program, stdin=subprocess.DEVNULL, stdout=full, stderr=subprocess.PIPE, text=True, timeout=TIMEOUT)
            self.assertEqual(done.returncode, 1, program)
            self.assertIn(": cannot write all to standard output: ", done.stderr)
            reader, writer = os.pipe()
            os.close(reader)
            done = subprocess.run(program, stdin=subprocess.DEVNULL, stdout=writer, stderr=subprocess.PIPE, text=True, timeout=TIMEOUT)
            os.close(writer)
            self.assertEqual((done.returncode, done.stderr), (0, ""), program)

    def test_ctrl_c_ends_the_host_and_its_script(self):
        path = self.write("log('waits') sleep(1000)")
        with subprocess.Popen([UVA_HOST, "--standalone", "--script", path, CLIP], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True) as player:
            self.assertTrue(any("waits" in line for line in player.stdout))
            player.send_signal(signal.SIGINT)
            player.communicate(timeout=TIMEOUT)
        self.assertEqual(player.returncode, 128 + signal.SIGINT)

    def test_the_main_systems_of_the_manual_and_of_the_help(self):
        for text in (of_page("In the main system"), of_help(MAINSYS)):
            output = self.folder / "output"
            main = subprocess.Popen([MAINSYS, "--script", self.write(text)], stdin=subprocess.DEVNULL,
                                    stdout=output.open("w"), stderr=subprocess.STDOUT)
            self.assertTrue(wait_until(lambda: "main system is up" in output.read_text()))
            played = self.host(**QUICK)
            self.assertEqual(main.wait(TIMEOUT), 0, (text, output.read_text(), played.stdout, played.stderr))
            self.assertEqual(played.returncode, 0, (played.stderr, output.read_text()))

    def test_a_script_that_nobody_writes_is_waited_for_until_a_signal(self):
        pipe = self.folder / "pipe"
        os.mkfifo(pipe)
        with subprocess.Popen([MAINSYS, "--script", pipe], stdin=subprocess.DEVNULL) as main:
            self.assertTrue(wait_until(lambda: "\nState:\tS" in pathlib.Path(f"/proc/{main.pid}/status").read_text()))
            main.terminate()
            self.assertEqual(main.wait(TIMEOUT), -signal.SIGTERM)

    def test_a_signal_during_computing_does_not_take_the_result(self):
        script = self.write("log('computes') for i = 1, 1e8 do end")
        with subprocess.Popen([MAINSYS, "--script", script], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True) as main:
            self.assertTrue(any("computes" in line for line in main.stdout))
            main.terminate()
            self.assertEqual(main.wait(TIMEOUT), 0)

    def test_states_are_those_after_an_order(self):
        script = self.write('expect_state("main system up", 0) expect_state("video decoder free", 0) lend("video")\n'
                            'expect_state("video decoder lent", 0) take("video") grant("both")\n'
                            'expect_state("video decoder granted", 0) delay(0.2)\n'
                            'local began = now() expect_state("audio decoder granted", 60) assert(now() - began < 30)\n')
        done = subprocess.run([MAINSYS, "--script", script], stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=TIMEOUT)
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_lines_of_the_terminal_are_the_same_commands(self):
        rows = [("grant video # now", "-> 517 SIG_ID_MPLAYER_DECODER_AVAILABLE_IND param1=2 (video)"),
                ("raw DECODER_AVAILABLE_IND param1=0x3 size=-1", "-> 517 SIG_ID_MPLAYER_DECODER_AVAILABLE_IND param1=3 size=-1"),
                ("control a=b", "-> 530 SIG_ID_MPLAYER_CONTROL_REQ size=3 'a=b'"),
                ("control \x1b[2J", "obey control ?[2J\n"),
                ("delay 1.5", "obey delay 1.5\n"), ("garbage 1e0", "obey garbage 1.0\n"), ("delay -1", "delay: argument 1 (seconds) is missing or no number of seconds"),
                ("refuse video", "refuse: that is too much: write refuse()"),
                ("grant video audio", "grant: that is too much: write grant([kind])"),
                ("raw 1 2 3", "raw: that is too much: write raw(signal [, fields])"),
                ("release pictures", "release: 'pictures' is no kind of decoder: write audio, video or both"),
                ("raw NOPE", "raw: 'NOPE' is no signal: take a name from the log"),
                ("raw 530 colour=1", "raw: 'colour' is no field"), ("raw 530 count=0", "raw: the count is from 1 to 100000"),
                ("raw 5000000000", "raw: a signal has 32 bits: 5000000000 does not fit"),
                ("delay 3601", "delay: a delay is an hour at most"), ("garbage", "garbage: argument 1 (count) is missing"),
                ("wait 1000", "'wait' is no command; 'help' lists them"), ("help", "  lend(kind)\n"),
                ("status", '"granted":["video"]')]
        done = subprocess.run([MAINSYS], input="\n".join([*(line for line, _ in rows), "", "quit", "lend both"]), text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=TIMEOUT)
        self.assertEqual(done.returncode, 0)
        for line, said in rows:
            self.assertIn(said, done.stdout, line)
        self.assertNotIn("obey lend", done.stdout)  # behind the end nothing is obeyed

    @contextlib.contextmanager
    def player(self, text, *options):
        """A player that a line of its configuration gives the script. With a main system, which is there until it has ended."""
        PLAYERS.write_text(text)
        PLAYERS.chmod(0o644)
        CONFIGURATION.write_text(f"MSHELL = m_starttracingtoscreen\nMSHELL = m_script {PLAYERS} 60\n")
        self.addCleanup(CONFIGURATION.unlink)
        self.addCleanup(PLAYERS.unlink)
        with subprocess.Popen([MAINSYS], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as main:
            self.assertIn("main system is up", main.stdout.readline())
            with subprocess.Popen([UVA_HOST, *PATIENT, *options, CLIP], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, text=True, env=dict(os.environ, **QUICK)) as host:
                yield host
            main.communicate("quit\n", timeout=TIMEOUT)

    def test_the_players_of_the_manual(self):
        with self.player(of_page("In a player")) as host:
            printed = host.communicate(timeout=TIMEOUT)[0]
        self.assertIn(f"script 1 ({PLAYERS}) finished\n", printed)
        self.assertEqual(host.returncode, 0, printed)

    def test_a_player_ends_in_order_while_its_script_runs(self):
        with self.player("local seen = {}\n"
                         "when('', function(signal) seen[signal.name] = (seen[signal.name] or 0) + 1 end)\n"
                         "wait_state('media ended', 600)\n"
                         "for name, count in pairs(seen) do log(name .. ' ' .. count) end\n"
                         "log('that is all') while true do sleep(1000) end",
                         "--script", self.write("sleep(600)")) as host:
            printed = ""
            for line in host.stdout:
                printed += line
                if line == f"script {PLAYERS}: that is all\n":
                    host.terminate()
        self.assertEqual(host.returncode, 128 + signal.SIGTERM, printed)
        self.assertIn(f"script 1 ({PLAYERS}) stopped: {PLAYERS}:5: stopped\n", printed)
        for said in ("VideoFormat 1", "AudioFormat 1", "DecoderGranted 2", "NewMetadata ", "PlaybackFinished 1"):
            self.assertIn(f"script {PLAYERS}: {said}", printed)


unittest.main(argv=sys.argv[:1], verbosity=2, warnings="ignore")
