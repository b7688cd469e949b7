"""Runs uva-host as a user does and reads what it reports."""

import json
import os
import pathlib
import subprocess
import tempfile

UVA_HOST = os.environ.get("UVA_HOST", "uva-host")

# Room for sanitizers on a busy machine; a test of promptness sets its own.
TIMEOUT = 180


class Run:
    """What one run of uva-host left: exit code, output and its part of the time line."""

    def __init__(self, media, *options, timeout=TIMEOUT, environment=None, before=()):
        with tempfile.TemporaryDirectory() as folder:
            timeline = pathlib.Path(folder) / "timeline.json"
            command = [*before, UVA_HOST, "--timeline", str(timeline), *map(str, options), str(media)]
            done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                                  errors="replace", timeout=timeout,
                                  env=dict(os.environ, **(environment or {})))
            self.code = done.returncode
            self.output = done.stdout
            self.errors = done.stderr
            self.trace = []
            if timeline.exists():
                self.trace = [event for event in json.loads(timeline.read_text()) if event.get("cat") == "host"]

    def named(self, name, phase=None):
        """Arguments of all records of that name, in order."""
        return [record.get("args", {}) for record in self.trace
                if record["name"] == name and phase in (None, record["ph"])]

    def last(self, name, key):
        """The argument `key` of the last record of that name, None when there is none."""
        values = [arguments[key] for arguments in self.named(name) if key in arguments]
        return values[-1] if values else None

    def seconds_between(self, first, second):
        """From the first record named `first` to the last named `second`."""
        start = next(record["ts"] for record in self.trace if record["name"] == first)
        end = [record["ts"] + record.get("dur", 0) for record in self.trace if record["name"] == second][-1]
        return (end - start) / 1e6

    def report(self):
        return f"exit code {self.code}\n{self.output}\n{self.errors}"


def probe(path):
    """(duration in seconds or None, (width, height) or None) as ffprobe sees the file."""
    text = subprocess.run(
        ["ffprobe", "-v", "error", "-show_entries",
         "format=duration:stream=codec_type,width,height,duration:stream_disposition=attached_pic",
         "-of", "json", str(path)],
        capture_output=True, text=True, check=True).stdout
    data = json.loads(text)
    duration = data.get("format", {}).get("duration")
    size = None
    for stream in data.get("streams", []):
        attached = stream.get("disposition", {}).get("attached_pic")
        if stream["codec_type"] == "video" and not attached and size is None and "width" in stream:
            size = stream["width"], stream["height"]
    return (float(duration) if duration else None), size
