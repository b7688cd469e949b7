#!/usr/bin/env python3
"""What a box gives its command and keeps from everybody else, for the caller and, if that is root, for a user
without rights too.

Usage: tvbox_test.py TVBOX ZANT_MAINSYS
"""

import glob
import os
import pathlib
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
from wait_until import wait_until  # noqa: E402

TVBOX, MAINSYS = sys.argv[1:3]
NOBODY = 65432  # and not what the kernel shows for an id that is unknown

# Each makes the same queue, shared memory and socket, and fails if one is there.
MAKES_NAMES = """
import ctypes, os, signal, socket
libc, flags = ctypes.CDLL(None, use_errno=True), os.O_CREAT | os.O_EXCL | os.O_RDWR
queue = libc.mq_open(b"/tvbox_probe", flags | os.O_NONBLOCK, 0o600, (ctypes.c_long * 8)(0, 50, 48))
for _ in range(50):
    assert libc.mq_send(queue, bytes(48), 48, 0) == 0, os.strerror(ctypes.get_errno())
os.open("/dev/shm/tvbox_probe", flags)
socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM).bind("/tmp/zant_dbg_tvbox_probe")
print("ready", flush=True)
signal.pause()
"""
WRITES_SYSLOG = """
import socket, syslog
syslog.openlog("probe", 0, syslog.LOG_LOCAL3)
syslog.syslog(syslog.LOG_WARNING, "two\\nlines")
socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM).sendto(b"<999>bare", "/dev/log")
for i in range(2000):  # more than the socket holds
    syslog.syslog(syslog.LOG_WARNING, f"last {i}")
"""
SAYS_GOT = """
import signal, sys
signals = {signal.SIGTERM, signal.SIGUSR1}
signal.pthread_sigmask(signal.SIG_BLOCK, signals)  # none comes between two waits
print("ready", flush=True)
while signal.sigwait(signals) == signal.SIGTERM:
    print("got", flush=True)
sys.exit(5)
"""
# In front of a box: where it cannot be made.
FORBIDDEN = "echo 0 > /proc/sys/user/max_mnt_namespaces && exec "


def read(path):
    return pathlib.Path(path).read_text(errors="replace")


def runs(word):
    """Whether a process has the word in its command line."""
    return subprocess.run(["grep", "-qs", word, *glob.glob("/proc/[1-9]*/cmdline")]).returncode == 0


class TvBox(unittest.TestCase):
    user = None  # the caller

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="tvtest", dir="/tmp"))
        self.addCleanup(shutil.rmtree, self.folder)
        self.folder.chmod(0o777)
        (self.folder / "run").mkdir(0o700)
        if self.user:
            os.chown(self.folder / "run", self.user, self.user)
        # Copies, and programs in folders that every user may search.
        self.tvbox, self.mainsys = (shutil.copy(path, self.folder) for path in (TVBOX, MAINSYS))
        self.environment = dict(os.environ, XDG_RUNTIME_DIR=str(self.folder / "run"), PATH="/usr/bin:/bin")
        trial = self.box("true", options=["--require"])
        if trial.returncode == 125:
            self.skipTest(trial.stderr)

    def start(self, *words, cwd="/"):
        """In a session of its own: nobody's Ctrl-C ends the tests half-way."""
        as_user = {"user": self.user, "group": self.user, "extra_groups": []} if self.user else {}
        process = subprocess.Popen(words, cwd=cwd, env=self.environment, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, errors="replace",
                                   start_new_session=True, **as_user)
        self.addCleanup(self.end, process)
        return process

    @staticmethod
    def end(process):
        with process:  # closes its pipes and waits
            process.kill()

    @staticmethod
    def finish(process):
        out, error = process.communicate(timeout=60)
        return subprocess.CompletedProcess(process.args, process.returncode, out, error)

    def run_as_user(self, *words):
        return self.finish(self.start(*words))

    def start_box(self, *command, options=(), cwd="/"):
        return self.start(self.tvbox, *options, "--", *command, cwd=cwd)

    def box(self, *command, options=(), cwd="/"):
        return self.finish(self.start_box(*command, options=options, cwd=cwd))

    def in_tmp(self, suffix):
        """A path directly in /tmp that is this test's alone."""
        return pathlib.Path(str(self.folder) + suffix)

    def assert_ready(self, process):
        self.assertEqual(process.stdout.readline(), "ready\n")

    def assert_refused(self, *command, options=()):
        self.assertEqual(self.box(*command, options=options).returncode, 125, options)

    def test_gives_queues_room_and_keeps_names_apart(self):
        for _ in range(2):
            self.assert_ready(self.start_box("python3", "-c", MAKES_NAMES))
        self.assertFalse(os.path.exists("/tmp/zant_dbg_tvbox_probe") or os.path.exists("/dev/shm/tvbox_probe"))

    def test_shares_what_is_named_under_tmp(self):
        media, link, moved, made, given, absent = map(self.in_tmp, (" a.mp4", "-link", "-1", "-2", "-3", "-none"))
        media.write_text("film")
        if self.user:
            os.chown(media, self.user, -1)
        link.symlink_to(self.folder)
        options = [f"--share={path}" for path in (media, f"{link}/any/n", f"{made}/d/f", given.name, absent, "/home")]
        done = self.box("sh", "-c", f'cat "$0" && echo x > {moved} && mkdir -p {made}/d && echo y >{made}/d/f && '
                        f'echo z > {given} && echo n > {link}/n && mv {moved} "$0"', media, options=options, cwd="/tmp")
        self.assertEqual((done.returncode, done.stdout), (0, "film"), done.stderr)
        self.assertEqual(re.findall("--share '(.*)' changes nothing", done.stderr), ["/home"])
        for path, text in ((media, "x\n"), (made / "d" / "f", "y\n"), (given, "z\n"), (self.folder / "n", "n\n")):
            self.assertEqual(read(path), text)
        self.assertFalse(moved.exists() or absent.exists(), "nothing empty stays")
        self.assertEqual(given.stat().st_uid, self.user or os.geteuid())
        self.assertNotEqual(self.box("cat", given).returncode, 0, "what a command names is not shared")
        subprocess.run(["rm", "-r", made, media, link, given], check=True)

    def test_boxes_that_end_together_bring_out_all(self):
        made = [self.in_tmp(f"-{i}") for i in range(4)]
        for box in [self.start_box("truncate", "-s10M", path, options=["--share", path]) for path in made]:
            self.assertEqual(self.finish(box).returncode, 0)
        for path in made:
            self.assertEqual(path.stat().st_size, 10 << 20)
            path.unlink()

    def test_works_from_folders_under_tmp_and_keeps_its_own(self):
        self.assertEqual(self.box("sh", "-c", "echo a > here", cwd=self.folder).returncode, 0)
        self.assertEqual(read(self.folder / "here"), "a\n")
        done = self.box("sh", "-c", "echo x > /tmp/GST_DEBUG; ls /tmp", options=["--share=/tmp/GST_DEBUG"])
        self.assertIn("GST_DEBUG", done.stdout)
        self.assertFalse(os.path.exists("/tmp/GST_DEBUG"))
        closed = self.folder / "closed"
        closed.mkdir(0o700)
        done = self.box("pwd", options=["--require"], cwd=closed)
        self.assertEqual((done.returncode, done.stdout), (0, "/\n" if self.user else f"{closed}\n"), done.stderr)

    def test_replaces_files_of_etc_and_nothing_outside(self):
        given = self.folder / "my=traces"
        given.write_text("set 1")
        done = self.box("sh", "-c", "cat /etc/tracesuva.cfg /etc/my=traces; echo >/etc/preinit_x && "
                        "cmp /etc/passwd /tmp/.tvbox/etc/passwd && test -d /etc/ssl && ! (echo > /etc/passwd) 2>/dev/null",
                        options=["--etc", f"{given}=tracesuva.cfg", "--etc", given])
        self.assertEqual((done.returncode, done.stdout), (0, "set 1set 1"), done.stderr)
        self.assertFalse(os.path.exists("/etc/tracesuva.cfg") or os.path.exists("/etc/preinit_x"))
        for bad in ("/none=x", "/etc/passwd=a/b", "/etc/passwd=", "/etc", "/dev/zero=x"):
            self.assert_refused("true", options=["--etc", bad])

    def test_collects_syslog(self):
        log = self.folder / "log"
        for options in (["--log", log], []):  # drained though not kept
            self.assertEqual(self.box("python3", "-c", WRITES_SYSLOG, options=options).returncode, 0)
        for line in (" local3.warning probe: two\\x0alines\n", " user.notice <999>bare\n",
                     " local3.warning probe: last 1999\n"):
            self.assertIn(line, read(log))

    def test_passes_exit_codes_on(self):
        for command, code in [(["sh", "-c", "exit 7"], 7), (["sh", "-c", "kill -9 $$"], 128 + signal.SIGKILL),
                              (["no-such-program"], 127), ([self.folder / "run" / "x"], 127), (["/etc/passwd"], 126),
                              ([""], 127), ([], 125)]:
            self.assertEqual(self.box(*command).returncode, code, command)
        for options in (["--nmae", "x"], ["--name", "../x"], ["--name", "tv 1"]):
            self.assert_refused("true", options=options)

    def test_passes_a_signal_on_once(self):
        for _ in range(10):  # a second one would not come always
            running = self.start_box("python3", "-c", SAYS_GOT)
            self.assert_ready(running)
            os.killpg(running.pid, signal.SIGTERM)  # as a build server does: to the whole group
            self.assertEqual(running.stdout.readline(), "got\n")
            running.send_signal(signal.SIGUSR1)
            self.assertEqual((running.stdout.read(), running.wait()), ("", 5))

    def test_leaves_nothing_when_killed(self):
        mark = f"98765{os.getpid()}"
        leaves = f"(setsid sleep {mark} &)"
        killed = self.start_box("sh", "-c", leaves + "; echo ready; exec sleep 1000", options=["--name", "gone"])
        self.assert_ready(killed)
        self.assertTrue(wait_until(lambda: runs(mark)))
        killed.kill()
        self.finish(killed)
        self.assertTrue(wait_until(lambda: not runs(mark)))
        # The name is free again, and the record goes with the next look.
        self.assertEqual(self.run_as_user(self.tvbox, "--list").stdout, "")
        self.assertFalse((self.folder / "run" / "tvbox").exists())
        self.assertEqual(self.box("sh", "-c", leaves, options=["--name", "gone"]).returncode, 0)
        self.assertFalse(runs(mark), "what the command leaves behind ends with it")

    def test_is_listed_and_entered_by_name(self):
        self.assert_ready(self.start_box("sh", "-c", "echo in > /tmp/own; echo ready; exec sleep 1000",
                                         options=["--name", "tv1"]))
        listed = self.run_as_user(self.tvbox, "--list").stdout
        self.assertRegex(listed, r"\Atv1\t.*/proc\S*\tsh")
        self.assert_refused("true", options=["--name", "tv1"])
        entered = self.run_as_user(self.tvbox, "--enter", "tv1", "--", "sh", "-c",
                                   "cat /tmp/own; id -u; cat /proc/sys/fs/mqueue/msg_max; exit 4")
        self.assertEqual((entered.returncode, entered.stdout), (4, f"in\n{self.user or os.geteuid()}\n256\n"))
        own = listed[listed.index("/proc"):listed.index("\tsh")] + "/own"
        self.assertEqual(self.run_as_user("cat", own).stdout, "in\n")
        self.assertEqual(self.run_as_user(self.tvbox, "--enter", "tv2", "true").returncode, 125)

    def test_does_without_process_ids_where_a_new_proc_is_refused(self):
        mark = f"98766{os.getpid()}"
        done = self.run_as_user("unshare", "-Urm", "sh", "-c", "mount -t tmpfs none /proc/fs && exec unshare -Urm "
                                f"{self.tvbox} --require --name tv1 sh -c '(setsid sleep {mark} &); "
                                f"exec {self.tvbox} --enter tv1 echo in'")
        self.assertEqual((done.returncode, done.stdout, runs(mark)), (0, "in\n", False), done.stderr)

    def test_runs_companions_around(self):
        log, mark = self.folder / "companions", self.folder / "mark"
        companion = (f"sh -c 'trap \"echo ended; exit\" TERM; echo begun; touch {mark}; "
                     "while :; do sleep 0.05; done'")
        done = self.box("sh", "-c", f"while ! test -e {mark}; do sleep 0.05; done; echo command",
                        options=["--companion-log", log, "--with", companion])
        self.assertEqual((done.returncode, done.stdout), (0, "command\n"), done.stderr)
        self.assertEqual(read(log), "begun\nended\n")
        self.assertEqual(self.box("echo", "x", options=["--main-system", "/none"]).stdout, "")
        for options in (["--main-system", "/none"], ["--with", "sh 'open"]):
            self.assert_refused("true", options=options)
        ready = self.folder / "ready"
        until_ready = f"until test -s {ready}; do sleep 0.05; done; "
        for failing, wait in ((f"echo $$ > {ready}; exit 3", f"while kill -0 $(cat {ready}); do sleep 0.05; done; "),
                              (f"trap \"exit 3\" TERM; echo x > {ready}; while :; do sleep 0.05; done", "")):
            for code, expected in ((0, 125), (4, 4)):
                done = self.box("sh", "-c", f"{until_ready}{wait}exit {code}", options=["--with", f"sh -c '{failing}'"])
                self.assertEqual(done.returncode, expected, done.stderr)
                self.assertRegex(done.stderr, "companion 'sh' ended with 3" + (" while the command runs\n" if wait else "\n"))
                ready.unlink()

    def with_main(self, program, script):
        return self.start_box("sh", "-c", script,
                              options=["--companion-log", self.folder / "main.log", "--main-system", program])

    def test_waits_for_the_main_system_and_for_no_other(self):
        silent = None if self.user else self.with_main("sleep 1000", "echo ran")  # for long
        # The queue is served when the command starts; where none is wanted, the command starts too.
        self.assertEqual(self.finish(self.with_main(self.mainsys, "ls /dev/mqueue")).stdout[:11], "BplayerAppI")
        self.assertEqual(self.finish(self.with_main(self.mainsys + " --down", "echo ran")).stdout, "ran\n")

        # A second one is refused, and told who serves; when that one is killed, it takes over.
        another = self.mainsys + " --script /dev/null"
        who = r"sed -n 's/.* by zant-mainsys, process \([0-9]*\) .*/\1/p'"
        second = self.finish(self.with_main(
            self.mainsys, f"{another}; echo $?; ls /dev/mqueue; kill -KILL $({another} 2>&1 | {who}); "
            f"until {another} 2> /dev/null; do :; done"))
        self.assertEqual((second.returncode, second.stdout[:13]), (0, "3\nBplayerAppI"), second.stderr)
        self.assertIn("' ended with 137 while the command runs", second.stderr)

        wrong = self.folder / "wrong.lua"
        for text, code, said in (('expect_signal("NOPE", 1)', 1, ":1: no signal here has 'NOPE' in its name"),
                                 ("grant(3)", 1, ":1: grant: argument 1 (audio, video or both) is missing or no text"),
                                 ("return wait_state('video decoder granted', 0) ~= nil", 1, ": the script has returned false"),
                                 ("\nignore(", 2, ":3: unexpected symbol near"), ("quit() error('goes on')", 0, "")):
            wrong.write_text(text + "\n")
            done = self.box(self.mainsys, "--quiet", "--script", wrong)
            self.assertEqual(done.returncode, code, text)
            self.assertIn(said, done.stderr)
        self.assertIn("/nosuch: cannot be read: No such file", self.box(self.mainsys, "--script", "/nosuch").stderr)
        dead = self.finish(self.with_main(self.mainsys + " --audio x", "echo ran"))
        self.assertEqual((dead.returncode, dead.stdout), (125, ""))
        self.assertIn("' ended before it served its queue", dead.stderr)
        self.assertIn("--audio: ", read(self.folder / "main.log"))
        stopped = self.with_main("sh -c 'echo begun; exec sleep 1000'", "echo ran")
        self.assertTrue(wait_until(lambda: "begun\n" in read(self.folder / "main.log")))
        stopped.terminate()
        done = self.finish(stopped)
        self.assertEqual((done.returncode, done.stdout), (128 + signal.SIGTERM, ""))

        if silent:
            late = self.finish(silent)
            self.assertEqual((late.returncode, late.stdout), (125, ""))
            self.assertIn("did not say within 20 s that it serves its queue", late.stderr)

    def test_leaves_nothing_in_tmp_and_shares_no_trace_log(self):
        # In a box around, whose /tmp is this test's alone.
        tvbox = f"env -u XDG_RUNTIME_DIR {self.tvbox} --share {self.folder} sh -c "
        make_log = ('"cat /etc/passwd > /dev/null && mkdir -p /tmp/usb_logs && ls /tmp/usb_logs && '
                    'echo mine > /tmp/usb_logs/log"')
        done = self.box("sh", "-c", f"before=$(ls -A /tmp); {tvbox}{make_log} && mkdir /tmp/usb_logs && "
                        f"echo theirs > /tmp/usb_logs/log && {tvbox}{make_log} && cat /tmp/usb_logs/log && "
                        f"rm -r /tmp/usb_logs && unshare -Ur sh -c '{FORBIDDEN}{tvbox}\"echo plain\"'; "
                        '[ "$(ls -A /tmp)" = "$before" ]')
        self.assertEqual((done.returncode, done.stdout), (0, "theirs\nplain\n"), done.stderr)

    def test_falls_back_to_plain_runs_one_at_a_time(self):
        def forbidden(options, command):
            return self.start("unshare", "-Ur", "sh", "-c", f"{FORBIDDEN}{self.tvbox} {options} sh -c '{command}'")
        fifo = self.in_tmp("/fifo")
        os.mkfifo(fifo)
        fifo.chmod(0o666)
        running = forbidden("", f"echo ready; read x < {fifo}; exit 9")
        self.assert_ready(running)
        following = forbidden("", "echo ready")
        self.assertEqual(self.finish(forbidden("--require", "true")).returncode, 125)
        self.assertEqual(select.select([following.stdout], [], [], 0)[0], [])
        fifo.write_text("go\n")
        done = self.finish(running)
        self.assertEqual(done.returncode, 9)
        self.assertIn("sysctl -w user.max_mnt_namespaces", done.stderr)
        self.assertEqual(self.finish(following).returncode, 0)


@unittest.skipIf(os.geteuid() != 0, "only root can become another user")
class TvBoxOfNobody(TvBox):
    user = NOBODY


unittest.main(argv=sys.argv[:1], verbosity=2, warnings="ignore")
