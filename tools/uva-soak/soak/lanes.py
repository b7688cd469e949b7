"""What goes on inside a box: a lane. It tells the program outside, a line of JSON at a time."""

import contextlib
import functools
import http.server
import json
import pathlib
import random
import re
import signal
import subprocess
import sys
import threading
import time

TREE = pathlib.Path(__file__).resolve().parents[3]
sys.path.append(str(TREE / "tests" / "support"))  # installed, they are beside the program
import leftovers  # noqa: E402
from wait_until import wait_until  # noqa: E402

from .programs import KEY, LONGEST_SILENCE, Host, MainSystem, Program, figures, pictures_from, zantsh  # noqa: E402

PROTECTED = ("--mse", "--key", KEY, "--protect")
LOGS = pathlib.Path("/tmp/usb_logs")
CONFIGURATION = pathlib.Path("/etc/tracesuva.cfg")


class Lane:
    """The common part: the clip, chance, the end, and what is told."""

    def __init__(self, options):
        self.name, self.media, self.speed, self.web = options.in_box, options.media, options.speed, options.web
        self.random = random.Random(f"{options.seed} {self.name}")
        self.times, self.duration = pictures_from(self.media)
        self.until = time.monotonic() + options.minutes * 60
        self.stopped = threading.Event()
        for number in (signal.SIGTERM, signal.SIGINT):
            signal.signal(number, lambda *_: self.stopped.set())

    def over(self):
        return self.stopped.is_set() or time.monotonic() >= self.until

    def tell(self, **what):
        print(json.dumps({"lane": self.name, **what}), flush=True)

    def fails(self, text):
        self.tell(failure=text)

    def counted(self, **counts):
        self.tell(counts=counts)

    def shown_from(self, second):
        """How many pictures there are from that time to the end."""
        return sum(picture >= second - 0.001 for picture in self.times)

    def look_at(self, host, seeks, may_fail=False):
        """What a host that is over has said, against what it must."""
        for wrong in host.wrong + ([] if may_fail else host.errors):
            self.fails(f"{wrong}: {host.report()}")
        least = self.shown_from(seeks[-1]) if seeks else len(self.times)
        for shown in host.passes_to_end:
            if shown < least:
                self.fails(f"{shown} pictures shown, there are {least} from the last target on: {host.command}")
        self.counted(passes=host.passes, pictures=host.pictures, seeks=host.seeks, requests=host.requests,
                     answers=host.answers)

    def left(self, before):
        left = leftovers.since(before)
        if left:
            self.fails("left behind: " + " ".join(left))


class Long(Lane):
    """One host for the whole time: created, played, sought and released again and again."""

    KINDS = {"url": (), "samples": ("--mse",), "protected": (*PROTECTED, "cbcs")}
    ASK_BACK_EVERY = 5  # seconds

    def run(self):
        before = leftovers.names()
        main = MainSystem()
        seeks = [round(self.random.uniform(0, self.duration - 1), 3) for _ in range(4)]
        host = Host(self.media, "--loop", "--seek", ",".join(map(str, seeks)), *self.KINDS[self.name],
                    speed=self.speed)
        self.watch(host, main)
        wait_until(lambda: not host.running() or host.began.is_set(), LONGEST_SILENCE)  # one that only starts is cut off
        code = host.end(signal.SIGINT)
        if code != 128 + signal.SIGINT:
            self.fails(f"exit code {code}, not that of Ctrl-C: {host.report()}")
        self.look_at(host, seeks)
        self.close(main)
        self.left(before)

    def watch(self, host, main):
        asked_at, asked_in = time.monotonic(), 0  # the pass
        while not self.over() and host.running():
            self.stopped.wait(1)
            if host.hangs():
                return self.fails(f"silent for more than {LONGEST_SILENCE} s: {host.report()}")
            with contextlib.suppress(OSError):  # it may have ended
                self.tell(memory=figures(host.process.pid), pictures=host.pictures)
            if main.asked_back > main.given_back and host.passes > asked_in + 2:
                return self.fails("what the main system asked back was not given back: " + main.report())
            if main.asked_back == main.given_back and time.monotonic() - asked_at > self.ASK_BACK_EVERY:
                main.tell("release both")
                asked_at, asked_in = time.monotonic(), host.passes

    def close(self, main):
        code = main.end()
        if code != 0:
            self.fails(f"the main system ended with {code}: {main.report()}")
        if main.asked != main.granted + main.refused:
            self.fails(f"{main.asked} requests for a decoder, {main.granted + main.refused} answers")
        # The host that ends takes a request with it that came too late.
        if main.asked_back - main.given_back > 1:
            self.fails(f"decoders asked back {main.asked_back} times, given back {main.given_back} times")
        self.counted(asked=main.asked, granted=main.granted, asked_back=main.asked_back, given_back=main.given_back)


class Short(Lane):
    """Hosts that come and go, and whatever happens to them."""

    def run(self):
        LOGS.mkdir(mode=0o755, exist_ok=True)
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755,size=256k", "tmpfs", LOGS]).returncode != 0:
            self.fails("no small disk could be mounted in the box")
        server = http.server.ThreadingHTTPServer(
            ("127.0.0.1", 0), functools.partial(Server, self.media))
        server.daemon_threads = True
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.url = f"http://127.0.0.1:{server.server_port}/{self.media.name}"
        before = leftovers.names()
        episodes = [self.plays, self.refused, self.late, self.returns, self.host_killed, self.main_system_killed,
                    self.shell_killed, self.unanswered]
        if self.web:
            episodes.append(self.web_player)
        while not self.over():
            self.random.shuffle(episodes)
            for episode in episodes:
                if not self.over():
                    self.disturb_files()
                    episode()
                    self.counted(**{episode.__name__: 1})
        self.plays()  # takes over what was killed
        self.left(before)

    # ---- what is played, and where

    def host(self, *options):
        kind = self.random.choice([(), ("--mse",), (*PROTECTED, "cenc"), (*PROTECTED, "cbcs", "--key-delay", "100")])
        self.seek = [round(self.random.uniform(self.duration / 2, self.duration - 1), 3)]
        media = self.random.choice([self.media, self.url])
        return Host(media, *kind, "--seek", str(self.seek[0]), *options, speed=self.speed)

    def over_with(self, host, *codes, number=None):
        """Waits for its end, sends it a signal or none, and looks at what it said."""
        if number is None:
            wait_until(lambda: not host.running() or host.hangs() or self.stopped.is_set(), 600)
            if host.hangs():
                self.fails(f"silent for more than {LONGEST_SILENCE} s: {host.report()}")
            number = signal.SIGINT
        code = host.end(number)
        if code not in codes and not self.stopped.is_set():
            self.fails(f"exit code {code}, not {codes[0]}: {host.report()}")
        self.look_at(host, self.seek, may_fail=1 in codes)

    def begun(self, host):
        """Waits until it plays; one that does not is found out at its end."""
        wait_until(lambda: not host.running() or host.began.is_set() or self.stopped.is_set(), LONGEST_SILENCE)

    def has_decoders(self, host, main):
        """Waits until it was granted both: what it asks a main system that is gone is refused."""
        wait_until(lambda: not host.running() or main.granted >= 2 or self.stopped.is_set(), LONGEST_SILENCE)
        self.begun(host)

    def with_main_system(self, *orders):
        """Ended in order, with its ledger in balance, whatever happens meanwhile."""
        return contextlib.closing(Ledger(self, *orders))

    # ---- episodes

    def plays(self):
        with self.with_main_system():
            self.over_with(self.host(), 0)

    def refused(self):
        with self.with_main_system("refuse"):
            self.over_with(self.host(), 1)

    def unanswered(self):
        """Refused, after the five seconds that an answer may take."""
        with self.with_main_system("ignore"):
            self.over_with(self.host(), 1)

    def late(self):
        with self.with_main_system(f"delay {self.random.randrange(50, 1500) / 1000}"):
            self.over_with(self.host(), 0)

    def returns(self):
        """A main system that starts anew while a host plays, and asks for what it never granted."""
        with self.with_main_system() as ledger:
            host = self.host()
            self.has_decoders(host, ledger.main)
            ledger.main.tell("restart")
            ledger.main.tell("release both")
            self.over_with(host, 0)

    def host_killed(self):
        with self.with_main_system():
            host = self.host("--loop")
            self.begun(host)
            time.sleep(self.random.uniform(0, 0.5))
            self.over_with(host, -signal.SIGKILL, number=signal.SIGKILL)

    def main_system_killed(self):
        ledger = Ledger(self)
        host = self.host()
        self.has_decoders(host, ledger.main)
        ledger.main.end(signal.SIGKILL)
        self.over_with(host, 0)

    def shell_killed(self):
        """Clients of the debug shell, one of them killed while it waits."""
        with self.with_main_system():
            host = self.host("--loop")
            self.begun(host)
            sleeper = subprocess.Popen(["zantsh", "m_sleep", "1"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL)
            time.sleep(self.random.uniform(0, 0.5))
            sleeper.kill()
            sleeper.wait()
            for command in ("m_threadlist", "m_traceonall 10", "m_tracestate", "m_queuelist"):
                if host.running() and zantsh(*command.split()) == 2:
                    self.fails(f"the debug shell does not answer {command}: {host.report()}")
            self.over_with(host, 128 + signal.SIGINT, number=signal.SIGINT)

    def web_player(self):
        """In real time: a page's player goes by the clock of the wall."""
        built = TREE / "web" / "run" / "player"
        player = built if built.exists() else "uva-web-player"
        page = Program([player, "--standalone", "--duration", "2", "shaka", self.web])
        wait_until(lambda: not page.running() or self.stopped.is_set(), 120)
        code = page.end(signal.SIGINT)
        if code != 0 and not self.stopped.is_set():
            self.fails(f"exit code {code}: {page.report()}")

    # ---- files

    def disturb_files(self):
        """The configuration is another, and the disk with the logs is full or not."""
        level, size = self.random.choice([5, 10, 30]), self.random.choice([0, 8192, 65536])
        CONFIGURATION.write_text("MSHELL = m_tracedirectprintmode 0\n"
                                 f"MSHELL = m_traceonall {level}\nMSHELL = m_tracelogfilemaxsize {size}\n")
        pathlib.Path("/tmp/GST_DEBUG").write_text(self.random.choice(["uvabackend:6", "*:2", "nonsense:::", ""]))
        filler = LOGS / "filler"
        filler.unlink(missing_ok=True)
        if self.random.random() < 0.5:
            with contextlib.suppress(OSError), filler.open("wb", buffering=0) as file:
                while True:
                    file.write(bytes(4096))
        else:
            for log in LOGS.glob("zanttrc*"):
                log.unlink()


class Ledger:
    """A main system, and whether its books are in balance when it ends."""

    def __init__(self, lane, *orders):
        self.lane, self.main = lane, MainSystem(*orders)
        self.ignores = "ignore" in orders

    def close(self):
        main = self.main
        answered = lambda: self.ignores or main.asked <= main.granted + main.refused  # noqa: E731
        wait_until(answered, 5)
        code = main.end()
        if code != 0:
            self.lane.fails(f"the main system ended with {code}: {main.report()}")
        if not answered():
            self.lane.fails(f"{main.asked} requests for a decoder, {main.granted + main.refused} answers")
        self.lane.counted(asked=main.asked, granted=main.granted, refused=main.refused)


class Server(http.server.BaseHTTPRequestHandler):
    """Gives one file, whole or from a byte on, which seeks need."""

    protocol_version = "HTTP/1.1"

    def __init__(self, media, *rest):
        self.media = media
        super().__init__(*rest)

    def handle(self):
        with contextlib.suppress(ConnectionError):  # whoever seeks, ends or is killed goes away
            super().handle()

    def do_GET(self):
        data = self.media.read_bytes()
        asked = re.fullmatch(r"bytes=(\d+)-(\d*)", self.headers.get("Range", ""))
        first = int(asked.group(1)) if asked else 0
        last = min(int(asked.group(2)), len(data) - 1) if asked and asked.group(2) else len(data) - 1
        self.send_response(206 if asked else 200)
        self.send_header("Content-Type", "video/mp4")
        self.send_header("Accept-Ranges", "bytes")
        if asked:
            self.send_header("Content-Range", f"bytes {first}-{last}/{len(data)}")
        self.send_header("Content-Length", str(max(0, last + 1 - first)))
        self.end_headers()
        self.wfile.write(data[first:last + 1])

    def log_message(self, *_):
        pass


LANES = {"url": Long, "samples": Long, "protected": Long, "short": Short}


def run_lane(options):
    lane = LANES[options.in_box](options)
    try:
        lane.run()
    except Exception as error:  # noqa: BLE001 - told outside, where it counts as a failure
        lane.fails(f"the soak itself failed: {type(error).__name__}: {error}")
