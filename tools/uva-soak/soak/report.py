"""What a soak has seen: progress, summary, and the files."""

import html
import json
import statistics
import sys
import threading
import time

# What may be added between the second and the last quarter: kB, and a number.
MOST_MEMORY = 8192
MOST_MORE = 2
# Fewer samples say nothing of a trend.
FEWEST_SAMPLES = 20
CLEAR_LINE = "\r\x1b[K"
COLOURS = ("#1f77b4", "#d62728", "#2ca02c")


class Report:
    def __init__(self, options, picture_seconds):
        self.options, self.picture_seconds = options, picture_seconds
        self.begin = time.monotonic()
        self.counts, self.memory, self.failures = {}, {}, []
        self._playing = {}  # pictures of a pass under way count when it is over; of long hosts: so far
        self._lock = threading.Lock()

    def take(self, message):
        with self._lock:
            lane = message["lane"]
            if "failure" in message:
                self._fail(f"{lane}: {message['failure']}")
            for name, number in message.get("counts", {}).items():
                counts = self.counts.setdefault(lane, {})
                counts[name] = counts.get(name, 0) + number
            if "memory" in message:
                self.memory.setdefault(lane, []).append({"time": time.monotonic() - self.begin, **message["memory"]})
                self._playing[lane] = message["pictures"]
            if "pictures" in message.get("counts", {}):
                self._playing.pop(lane, None)

    def _fail(self, text):
        """Told at once: a soak is long."""
        self.failures.append(text)
        print(f"{CLEAR_LINE if sys.stderr.isatty() else ''}uva-soak: {text}", file=sys.stderr, flush=True)

    def hours(self):
        shown = sum(counts.get("pictures", 0) for counts in self.counts.values()) + sum(self._playing.values())
        return shown * self.picture_seconds / 3600

    def progress(self):
        if not sys.stderr.isatty():
            return
        with self._lock:
            text = (f"{time.monotonic() - self.begin:5.0f} of {self.options.minutes * 60:.0f} s, "
                    f"{self.hours():.2f} h played, {len(self.failures)} failures")
        print(f"{CLEAR_LINE}{text}", end="", file=sys.stderr, flush=True)

    def trend(self, lane):
        """Median of the second and of the last quarter, slope in kB an hour; None when there is too little."""
        samples = self.memory.get(lane, [])
        if len(samples) < FEWEST_SAMPLES:
            return None
        quarter = len(samples) // 4
        median = lambda part, what: statistics.median(sample[what] for sample in part)  # noqa: E731
        result = {what: (median(samples[quarter:2 * quarter], what), median(samples[-quarter:], what))
                  for what in ("own", "resident", "threads", "descriptors")}
        settled = samples[quarter:]
        result["slope"] = 3600 * statistics.linear_regression([sample["time"] for sample in settled],
                                                              [sample["own"] for sample in settled]).slope
        return result

    def _judge(self):
        for lane in self.memory:
            trend = self.trend(lane)
            if trend is None:
                continue
            for what, most, unit in (("own", MOST_MEMORY, "kB of memory"), ("threads", MOST_MORE, "threads"),
                                     ("descriptors", MOST_MORE, "descriptors")):
                first, last = trend[what]
                if last - first > most:
                    self._fail(f"{lane}: not flat: {first:.0f}, later {last:.0f} {unit}")

    def finish(self, interrupted):
        if sys.stderr.isatty():
            print(CLEAR_LINE, end="", file=sys.stderr, flush=True)
        self._judge()
        text = self._text(interrupted)
        print(text, flush=True)
        if self.failures:
            print(f"uva-soak: repeat it with {self._again()}", file=sys.stderr)
        if self.options.json:
            self.options.json.write_text(json.dumps(self._figures(), indent=1))
        if self.options.html:
            self.options.html.write_text(self._page(text))

    def _again(self):
        options = self.options
        return (f"uva-soak --seed {options.seed} --minutes {options.minutes:g} --speed {options.speed} "
                f"--lanes {','.join(options.lanes)} {options.media}")

    def _text(self, interrupted):
        seconds = time.monotonic() - self.begin
        lines = [f"seed {self.options.seed}: {self.hours():.2f} h played in {seconds / 60:.1f} min"
                 f" ({self.hours() * 3600 / seconds:.1f} times real time, all elements together)"
                 + (", interrupted" if interrupted else "")]
        for lane, counts in sorted(self.counts.items()):
            lines.append(f"{lane}: " + ", ".join(f"{name.replace('_', ' ')} {number}" for name, number in
                                                  counts.items()))
            if trend := self.trend(lane):
                lines.append(f"{lane}: own memory {trend['own'][0]:.0f}, later {trend['own'][1]:.0f} kB "
                             f"({trend['slope']:+.0f} kB/h), resident {trend['resident'][0]:.0f}, later "
                             f"{trend['resident'][1]:.0f} kB, threads {trend['threads'][1]:.0f}, "
                             f"descriptors {trend['descriptors'][1]:.0f}")
        lines.append(f"{len(self.failures)} failures")
        return "\n".join(lines)

    def _figures(self):
        return {"seed": self.options.seed, "hours": self.hours(), "counts": self.counts, "memory": self.memory,
                "trends": {lane: self.trend(lane) for lane in self.memory}, "failures": self.failures}

    def _page(self, text):
        failures = "".join(f"<li>{html.escape(failure)}</li>" for failure in self.failures)
        return (f"<!DOCTYPE html><meta charset='utf-8'><title>uva-soak</title><h1>uva-soak</h1>"
                f"<pre style='white-space: pre-wrap'>{html.escape(text)}\n{html.escape(self._again())}</pre><ul>{failures}</ul>{self._plot()}")

    def _plot(self):
        """Own memory over time, a line a lane, from 0."""
        width, height = 900, 300
        points = [(sample["time"], sample["own"]) for samples in self.memory.values() for sample in samples]
        if not points:
            return ""
        longest, most = (max(values) or 1 for values in zip(*points))
        parts = [f"<text x='4' y='14'>{most / 1024:.1f} MB</text><text x='{width - 70}' y='{height - 4}'>"
                 f"{longest / 60:.1f} min</text>"]
        for number, (lane, samples) in enumerate(self.memory.items()):
            line = " ".join(f"{width * sample['time'] / longest:.1f},{height * (1 - 0.9 * sample['own'] / most):.1f}"
                            for sample in samples)
            colour = COLOURS[number % len(COLOURS)]
            parts.append(f"<polyline fill='none' stroke='{colour}' points='{line}'/>"
                         f"<text x='{100 + 120 * number}' y='{height - 4}' fill='{colour}'>{html.escape(lane)}</text>")
        return (f"<h2>Own memory of the long hosts</h2><svg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 {width} "
                f"{height}' style='border:1px solid #888;max-width:{width}px'>{''.join(parts)}</svg>")
