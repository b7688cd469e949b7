"""A browser without a window, told what to do over a pipe (Chrome's DevTools protocol)."""

import base64
import fcntl
import json
import os
import shutil
import subprocess
import tempfile
import time

PROGRAM = shutil.which("chromium")


class Browser:
    """One page. Complaints are what its console has of warnings and errors."""

    def __init__(self, width=1200, height=900, dark=False):
        self.folder = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        pipes = [*os.pipe(), *os.pipe()]
        # The browser reads from 3 and writes to 4: those of the pipes are to be none of them.
        to_browser, self.out, self.inp, from_browser = (fcntl.fcntl(each, fcntl.F_DUPFD_CLOEXEC, 10) for each in pipes)
        for each in pipes:
            os.close(each)
        self.process = subprocess.Popen(
            ["bash", "-c", f'exec "$0" "$@" 3<&{to_browser} 4>&{from_browser}', PROGRAM, "--headless", "--no-sandbox",
             "--disable-gpu", "--remote-debugging-pipe", f"--user-data-dir={self.folder.name}", "about:blank"],
            pass_fds=(to_browser, from_browser), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL)
        os.close(to_browser)
        os.close(from_browser)
        self.buffer = b""
        self.orders = 0
        self.session = None
        self.complaints = []
        target = self.ask("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.ask("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Runtime", "Log", "Page", "Network"):
            self.ask(domain + ".enable")
        self.resize(width, height)
        self.ask("Emulation.setEmulatedMedia",
                 features=[{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])

    def close(self):
        self.session = None
        self.ask("Browser.close")
        self.process.wait(60)
        os.close(self.out)
        os.close(self.inp)
        self.folder.cleanup()

    def ask(self, method, **parameters):
        self.orders += 1
        order = {"id": self.orders, "method": method, "params": parameters}
        if self.session:
            order["sessionId"] = self.session
        os.write(self.out, json.dumps(order).encode() + b"\0")
        while True:
            message = self.take()
            if message.get("id") == self.orders:
                if "error" in message:
                    raise RuntimeError(f"{method}: {message['error']}")
                return message["result"]
            self.note(message)

    def take(self):
        while b"\0" not in self.buffer:
            piece = os.read(self.inp, 1 << 16)
            if not piece:
                raise EOFError("the browser has ended")
            self.buffer += piece
        message, self.buffer = self.buffer.split(b"\0", 1)
        return json.loads(message)

    def note(self, message):
        parameters = message.get("params", {})
        if message.get("method") == "Runtime.exceptionThrown":
            details = parameters["exceptionDetails"]
            self.complaints.append(details.get("exception", {}).get("description") or details["text"])
        elif message.get("method") == "Runtime.consoleAPICalled" and parameters["type"] in ("error", "warning"):
            self.complaints.append(" ".join(str(each.get("value")) for each in parameters["args"]))
        elif message.get("method") == "Log.entryAdded" and parameters["entry"]["level"] in ("error", "warning"):
            self.complaints.append(parameters["entry"]["text"])

    def resize(self, width, height=900):
        self.ask("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)

    def open(self, address):
        self.ask("Page.navigate", url=address)
        if not self.wait("location.href !== 'about:blank' && document.readyState === 'complete'"):
            raise AssertionError(f"{address} does not open")

    def run(self, script):
        """The value of an expression; a promise is waited for."""
        result = self.ask("Runtime.evaluate", expression=script, awaitPromise=True, returnByValue=True)
        if "exceptionDetails" in result:
            raise RuntimeError(result["exceptionDetails"])
        return result["result"].get("value")

    def wait(self, script, seconds=60):
        """Until an expression is true; what it was at last."""
        end = time.monotonic() + seconds
        while not (value := self.run(script)) and time.monotonic() < end:
            time.sleep(0.05)
        return value

    def picture(self, path):
        """All of the page as PNG."""
        shot = self.ask("Page.captureScreenshot", format="png", captureBeyondViewport=True)
        path.write_bytes(base64.b64decode(shot["data"]))
