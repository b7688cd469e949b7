"""The programs that a soak runs, and what they say of themselves."""

import os
import re
import shutil
import signal
import subprocess
import threading
import time

KEY = "00112233445566778899aabbccddeeff:0123456789abcdef0123456789abcdef"
# What uva-host documents as its longest wait for an operation and for any phase, and the second that
# nothing may take beyond.
LONGEST_SILENCE = 31
# An operation waits for two decoders, five seconds each, at most.
LONGEST_CALL = 11
PLAYED = re.compile(r" done  .*: played .* (to the end|as long as asked|until interrupted)")
CALL = re.compile(r" call  (\w+).* \((\d+)\.\d+ ms\)$")
ANSWERED = re.compile(r", (\d+) of (\d+) requests answered")
OF_REQUESTS = " requests for samples "
SUMMARY = re.compile(r", (\d+) (pictures|dropped|damaged|samples held)")


class Program:
    """A process whose lines are looked at as they come, on a thread of its own."""

    def __init__(self, command, environment=None):
        self.process = subprocess.Popen([str(word) for word in command], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace",
                                        env=dict(os.environ, **(environment or {})))
        self.command = " ".join(map(str, command))
        self.last_lines = []
        self.heard = time.monotonic()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self.process.stdout:
            self.heard = time.monotonic()
            self.last_lines = [*self.last_lines[-7:], line.rstrip()]
            self.take(line)

    def take(self, line):
        """For whoever derives from it."""

    def running(self):
        return self.process.poll() is None

    def tell(self, line):
        try:
            self.process.stdin.write(line + "\n")
            self.process.stdin.flush()
        except OSError:
            pass  # it has ended: whoever waits for its answer sees that

    def send(self, number):
        if self.running():
            self.process.send_signal(number)

    def end(self, number=signal.SIGTERM, within=LONGEST_SILENCE + 5):
        """Its exit code; None when it had to be killed because it did not end in time."""
        self.send(number)
        try:
            code = self.process.wait(within)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            code = None
        self._reader.join(5)
        self.process.stdin.close()
        return code

    def report(self):
        return f"{self.command}: " + " | ".join(self.last_lines[-3:])


class Host(Program):
    """uva-host: what it asked, answered and showed; `wrong` has what must not be."""

    def __init__(self, media, *options, speed, environment=None):
        self.passes = self.pictures = self.seeks = self.requests = self.answers = 0
        self.passes_to_end = []  # pictures of each
        self.wrong = []
        self.errors = []  # lines of standard error, which count unless a failure is expected
        self.stacks = ""  # of one that was silent for long
        self.began = threading.Event()
        environment = {"NOX_PLAY_SPEED": str(speed), **(environment or {})}
        super().__init__(["uva-host", *options, media], environment)

    def take(self, line):
        if "event SeekCompletedEx outcome=0" in line:
            self.seeks += 1
        elif " state playing" in line:
            self.began.set()
        elif PLAYED.search(line):
            self._passed(line)
        elif line.startswith("uva-host: ") and OF_REQUESTS in line:
            self.wrong.append(line.strip())  # even where playback is to fail
        elif line.startswith("uva-host: "):
            self.errors.append(line.strip())
        took = CALL.search(line)
        if took and int(took.group(2)) > LONGEST_CALL * 1000:
            self.wrong.append(f"{took.group(1)} took {took.group(2)} ms")

    def _passed(self, line):
        counts = {name: int(number) for number, name in SUMMARY.findall(line)}
        self.passes += 1
        self.pictures += counts.get("pictures", 0)
        if told := ANSWERED.search(line):
            self.answers += int(told.group(1))
            self.requests += int(told.group(2))
        if " to the end" in line:
            self.passes_to_end.append(counts.get("pictures", 0))
        for name, what in (("dropped", "pictures dropped"), ("damaged", "pictures damaged"),
                           ("samples held", "samples held when all has been played")):
            if name in counts:
                self.wrong.append(f"{counts[name]} {what}")

    def hangs(self):
        silent = time.monotonic() - self.heard
        if silent > LONGEST_SILENCE / 2 and not self.stacks and self.running():
            self.stacks = stacks(self.process.pid)  # before it ends itself
        return self.running() and silent > LONGEST_SILENCE

    def report(self):
        return super().report() + (f"; it stood at\n{self.stacks}" if self.stacks else "")


class MainSystem(Program):
    """zant-mainsys with its ledger: what was asked for, answered, asked back and given back."""

    def __init__(self, *orders):
        self.asked = self.granted = self.refused = self.asked_back = self.given_back = 0
        self.up = threading.Event()
        super().__init__(["zant-mainsys"])
        if not self.up.wait(LONGEST_SILENCE):
            raise RuntimeError("the main system does not come up: " + self.report())
        for order in orders:
            self.tell(order)

    def take(self, line):
        for text, count in ((" <- 516 ", "asked"), (" -> 517 ", "granted"), (" -> 518 ", "refused"),
                            (" -> 519 ", "asked_back"), (" <- 520 ", "given_back")):
            if text in line:
                setattr(self, count, getattr(self, count) + 1)
        if "main system is up" in line:
            self.up.set()


def zantsh(*words):
    """The exit code of a command of the debug shell."""
    return subprocess.run(["zantsh", "--timeout", "20", *words], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL, timeout=60).returncode


def stacks(process):
    """Where the threads of a process stand, where there is a debugger."""
    if shutil.which("gdb") is None:
        return "(install gdb to see where)"
    done = subprocess.run(["gdb", "-p", str(process), "-batch", "-ex", "thread apply all bt 12"], text=True,
                          capture_output=True, stdin=subprocess.DEVNULL)
    return "\n".join(line[:160] for line in done.stdout.splitlines() if line.startswith(("Thread", "#")))


def figures(process):
    """What a process has of memory (kB, resident, and of that its own without a file), threads and descriptors."""
    with open(f"/proc/{process}/smaps_rollup", encoding="ascii") as lines:
        sizes = {line.split(":")[0]: int(line.split()[1]) for line in lines if line.endswith("kB\n")}
    return {"resident": sizes["Rss"], "own": sizes["Anonymous"], "threads": len(os.listdir(f"/proc/{process}/task")),
            "descriptors": len(os.listdir(f"/proc/{process}/fd"))}


def missing():
    """What is not installed or not in the path."""
    return [name for name in ("tvbox", "uva-host", "zant-mainsys", "zantsh", "ffprobe", "unshare")
            if shutil.which(name) is None]


def pictures_from(media):
    """(times of the pictures in order, seconds in all)."""
    text = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v", "-show_entries",
                           "packet=pts_time:format=duration", "-of", "csv=p=0", str(media)],
                          capture_output=True, text=True, check=True).stdout.split()
    return sorted(float(time.strip(",")) for time in text[:-1]), float(text[-1])
