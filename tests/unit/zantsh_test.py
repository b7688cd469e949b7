#!/usr/bin/env python3
"""The shell's client against a program with a shell, in a /tmp of their own.

Usage: zantsh_test.py ZANTSH SHELL_EXAMPLE [TVBOX]
"""

import os
import pathlib
import pty
import re
import select
import signal
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
import own_mounts  # noqa: E402
from wait_until import wait_until  # noqa: E402

# Copies of the programs, which every user can reach. What the environment names for them (suppressions of a
# sanitizer) lies in the tree, as this file does, and the tree may lie in /tmp.
programs = [(pathlib.Path(path).name, pathlib.Path(path).read_bytes()) for path in sys.argv[1:]]
TMP_IS_OWN = own_mounts.hide_tmp(__file__)
os.chdir("/")
if TMP_IS_OWN:
    for name, content in programs:
        path = pathlib.Path("/tmp/bin") / name
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(content)
        path.chmod(0o755)
ZANTSH, SHELL, TVBOX = (["/tmp/bin/" + name for name, _ in programs] + [None])[:3]
SERVER = "/tmp/zant_dbg_server_uva"


def zantsh(*arguments, given=None):
    done = subprocess.run([ZANTSH, *arguments], input=given, capture_output=True, text=True,
                          timeout=60, stdin=None if given else subprocess.DEVNULL)
    return done.returncode, done.stdout, done.stderr


class Person:
    """At a terminal."""

    def __init__(self, *arguments):
        self.pid, self.screen = pty.fork()
        if self.pid == 0:
            os.environ.update(TERM="dumb", HOME="/tmp")
            os.execv(ZANTSH, [ZANTSH, *arguments])
        self.seen = ""

    def type(self, keys):
        os.write(self.screen, keys.encode())

    def sees(self, pattern, seconds=20):
        """Waits for it; what stood before is forgotten."""
        def look():
            if select.select([self.screen], [], [], 0)[0]:
                self.seen += os.read(self.screen, 4096).decode().replace("\r", "")
            return re.search(pattern, self.seen)
        if not wait_until(look, seconds):
            return False
        self.seen = self.seen[look().end():]
        return True

    def leave(self):
        self.type("exit\n")
        return os.waitstatus_to_exitcode(os.waitpid(self.pid, 0)[1])


@unittest.skipUnless(TMP_IS_OWN, "no namespaces here")
class ZantshTest(unittest.TestCase):
    def setUp(self):
        subprocess.run(["rm", "-rf", SERVER, "/tmp/zant_dbg_client", "/tmp/usb_logs"], check=True)

    def start(self, output="/tmp/output"):
        server = subprocess.Popen([SHELL], stdout=open(output, "a"))
        self.addCleanup(server.wait, timeout=20)
        self.addCleanup(server.terminate)
        self.assertTrue(wait_until(lambda: zantsh("m_echo")[0] == 0))
        return server

    def test_reply_output_and_exit_code(self):
        self.start()
        for words, code, out in [
            (["m_greet", "World"], 0, "Hello World\nOK\n"),
            (["m_echo a,  b"], 0, "a,  b\nOK\n"),
            (["m_greet"], 1, "ERROR: Parameter 1 (name) is missing\nERR\n"),
            (["m_nosuch"], 1, "-- ERROR: Unknown mshell command: m_nosuch\nERR\n"),
        ]:
            self.assertEqual(zantsh(*words)[:2], (code, out))
        self.assertEqual(zantsh("m_help", "x" * 1100)[0], 2)
        self.assertEqual(zantsh(given="m_echo one\n\nm_nosuch\nexit\nm_echo two\n")[:2],
                         (1, "one\nOK\n-- ERROR: Unknown mshell command: m_nosuch\nERR\n"))

    def test_follows_the_rolling_log(self):
        pathlib.Path("/tmp/usb_logs").mkdir(mode=0o755)
        self.start("/dev/null")
        self.assertEqual(zantsh("m_tracedirectprintmode", "0")[0], 0)
        self.assertEqual(zantsh("m_greet", "log")[1], "Hello log\nOK\n")
        self.assertEqual(zantsh("m_tracelogfilemaxsize", "1")[0], 0)
        self.assertEqual(zantsh("m_greet", "rotation")[1], "Hello rotation\nOK\n")

    def test_shows_all_of_a_command_and_nothing_of_itself(self):
        pathlib.Path("/tmp/usb_logs").mkdir(mode=0o755)
        self.start()
        for mode in ["1", "0"]:  # through a thread of the process's own, then
            zantsh("m_tracedirectprintmode", mode)
            zantsh("m_traceonall", "0")
            code, out, _ = zantsh("m_greet", "Bob")
            self.assertRegex(out, r"\A\[\d+\] \w+ example CMshell::ProcessMshellCmd\(\): "
                                  r"Processing cmd: m_greet Bob\nHello Bob\n"
                                  r"\[\d+\] .*Sending Ack/Nack successful\nOK\n\Z")
            zantsh("m_traceoffall")
            done = zantsh(given="m_help\n" * 20)[1]
            self.assertEqual(done, 20 * (zantsh("m_help")[1]))
            self.assertEqual(zantsh("m_echo"), (0, "OK\n", ""))

    def test_says_when_output_is_switched_off(self):
        self.start()
        self.assertIn("the end of the output did not come", zantsh("m_stoptracingtoscreen")[2])
        self.assertEqual(zantsh("m_greet", "Bob")[:2], (0, "OK\n"))
        self.assertIn("m_starttracingtoscreen", zantsh("m_greet", "Bob")[2])
        self.assertEqual(zantsh("m_starttracingtoscreen")[0], 0)
        self.assertEqual(zantsh("m_greet", "Bob"), (0, "Hello Bob\nOK\n", ""))

    def test_output_of_others_goes_to_nobody_else(self):
        self.start()
        clients = [subprocess.Popen([ZANTSH, "--timeout", "60", "m_greet", str(i)], text=True,
                                    stdout=subprocess.PIPE) for i in range(12)]
        self.assertEqual([client.communicate(timeout=60)[0] for client in clients],
                         [f"Hello {i}\nOK\n" for i in range(12)])

    def test_a_session(self):
        self.start()
        person = Person()
        self.addCleanup(os.close, person.screen)
        self.assertTrue(person.sees("zantsh> "))
        person.type("help\n")
        self.assertTrue(person.sees("Ctrl-C gives the prompt back"))
        person.type("m_gr\tBob\n")
        self.assertTrue(person.sees(r"\nHello Bob\nOK\nzantsh> "))
        person.type("m_tr\t")
        self.assertTrue(person.sees(r"\ntrace: .*m_traceon m_traceonall"))
        person.type("\x03")
        self.assertTrue(person.sees("zantsh> "))

        with open("/tmp/output", "a") as output:
            output.write("a word between\n")
        self.assertTrue(person.sees("a word between\n"))
        zantsh("m_greet", "another")
        person.type("m_sleep 3\n")
        self.assertTrue(person.sees("m_sleep 3\n"))
        person.type("\x03")
        self.assertTrue(person.sees("the command may still be running\n.*zantsh> ", 2))
        person.type("m_greet again\n")
        self.assertTrue(person.sees(r"\nHello again\nOK\nzantsh> "), person.seen)
        self.assertNotIn("another", person.seen)
        self.assertEqual(person.leave(), 0)

    def test_a_session_outlives_the_process(self):
        server = self.start()
        person = Person()
        self.addCleanup(os.close, person.screen)
        person.type("m_greet one\n")
        self.assertTrue(person.sees("Hello one\nOK\nzantsh> "))
        server.terminate()
        server.wait(timeout=20)
        person.type("m_greet two\n")
        self.assertTrue(person.sees("is the program running"))
        self.start("/tmp/elsewhere")
        person.type("m_greet three\n")
        self.assertTrue(person.sees("Hello three\nOK\nzantsh> "))
        self.assertEqual(person.leave(), 0)

    def test_watches(self):
        self.start()
        self.assertEqual(zantsh("--watch", "1")[0], 2)
        watch = subprocess.Popen([ZANTSH, "--watch", "0.05", "m_greet", "Bob"], text=True,
                                 stdout=subprocess.PIPE)
        for _ in range(3):
            self.assertRegex(watch.stdout.readline(), r"^--- \d\d:\d\d:\d\d  m_greet Bob$")
            self.assertEqual(watch.stdout.readline(), "Hello Bob\n")
            self.assertEqual(watch.stdout.readline(), "OK\n")
        watch.send_signal(signal.SIGINT)
        self.assertEqual(watch.wait(timeout=20), -signal.SIGINT)
        self.assertFalse(os.path.exists("/tmp/zant_dbg_client"))

    def test_says_what_to_check(self):
        for make, text in [
            (lambda: None, "No such file or directory; is the program running"),
            (lambda: pathlib.Path(SERVER).touch(), "Connection refused; the program that made it"),
        ]:
            make()
            code, out, error = zantsh("m_echo")
            self.assertEqual((code, out), (2, ""))
            self.assertIn(text, error)
        os.unlink(SERVER)
        self.start()
        pathlib.Path("/tmp/zant_dbg_client").mkdir()
        self.assertIn("remove it", zantsh("m_echo")[2])
        os.rmdir("/tmp/zant_dbg_client")
        self.assertEqual(zantsh("--socket", "a/b", "m_echo")[0], 2)
        self.assertEqual(zantsh("--follow", "/no/such", "m_echo")[0], 2)
        if os.geteuid() == 0:
            done = subprocess.run([ZANTSH, "m_echo"], capture_output=True, text=True, user=65534)
            self.assertEqual(done.returncode, 2)
            self.assertIn("is for user 0 and root", done.stderr)

    def test_a_late_reply_goes_to_nobody_else(self):
        self.start()
        code, _, error = zantsh("--timeout", "1", "m_sleep", "3")
        self.assertEqual(code, 2)
        self.assertIn("may still be running", error)
        self.assertIn("is busy", zantsh("--timeout", "0.3", "m_echo")[2])
        self.assertEqual(zantsh("m_nosuch")[0], 1)  # and not the OK of the sleep

    def test_many_clients_get_their_own_replies(self):
        self.start()
        clients = [subprocess.Popen([ZANTSH, "--timeout", "60", command],
                                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                   for command in ["m_echo", "m_nosuch"] * 4]
        self.assertEqual([client.wait(timeout=60) for client in clients], [0, 1] * 4)

    @unittest.skipUnless(TVBOX, "no tvbox in this build")
    def test_reaches_into_a_box(self):
        box = subprocess.Popen([TVBOX, "--name", "shellbox", "--require", "--share", SHELL, SHELL],
                               stdout=open("/tmp/boxed", "w"))
        try:
            self.assertTrue(wait_until(lambda: zantsh("m_echo")[0] == 0))
            self.assertEqual(zantsh("--box", "shellbox", "m_greet", "box")[:2],
                             (0, "Hello box\nOK\n"))
            self.assertIn("running: shellbox", zantsh("--box", "other", "m_echo")[2])
        finally:
            box.send_signal(signal.SIGTERM)
            box.wait(timeout=20)


unittest.main(argv=sys.argv[:1], verbosity=2, warnings="ignore")
