#!/usr/bin/env python3
"""Checks a time line: the format by its schema, and what a viewer needs besides.

Usage: trace_events.py FILE [CATEGORY]...    fails, with the reason, when a category is missing too
"""

import collections
import fcntl
import json
import pathlib
import sys

import jsonschema

SCHEMA = json.loads((pathlib.Path(__file__).parent / "trace_event.schema.json").read_text())
FIRST_OWN_TRACK = 1 << 30  # below it are threads
ROUNDED = 0.0015  # microseconds


def load(path):
    """The events; none of a file that nobody has written to yet. Not while somebody adds to it."""
    with open(path) as file:
        fcntl.flock(file, fcntl.LOCK_SH)
        return json.loads(file.read() or "[]")


def track_of(event):
    return event["pid"], event["tid"]


def end_of(event):
    return event["ts"] + event.get("dur", 0)


def by_track(events, phases):
    tracks = collections.defaultdict(list)
    for event in events:
        if event["ph"] in phases:
            tracks[track_of(event)].append(event)
    return tracks


def schema_faults(events):
    validator = jsonschema.Draft7Validator(SCHEMA)
    return [f"{error.message} in {error.instance}" for error in validator.iter_errors(events)]


def unnamed_tracks(events):
    names = {track_of(event) for event in events if event["ph"] == "M"}
    return [f"track {track} has no name" for track in {track_of(event) for event in events} - names]


def crossing_spans(events):
    """Two of a track that overlap without one being inside the other."""
    faults = []
    for track, spans in by_track(events, "X").items():
        open_ones = []
        for span in sorted(spans, key=lambda each: (each["ts"], -each["dur"])):
            while open_ones and end_of(open_ones[-1]) <= span["ts"] + ROUNDED:
                open_ones.pop()
            if open_ones and end_of(span) > end_of(open_ones[-1]) + ROUNDED:
                faults.append(f"{track}: '{span['name']}' reaches out of '{open_ones[-1]['name']}'")
            open_ones.append(span)
    return faults


def backward_clocks(events):
    """A thread records in the order of time; the sinks' part of it reaches the file by another way."""
    faults = []
    last = {}
    for event in events:
        if event["ph"] == "M" or event["tid"] >= FIRST_OWN_TRACK:
            continue
        key = (*track_of(event), event["cat"] == "sink")
        if end_of(event) < last.get(key, 0) - ROUNDED:
            faults.append(f"{key}: '{event['name']}' is from before what precedes it")
        last[key] = end_of(event)
    return faults


def loose_arrows(events, dropped=()):
    """Arrows without both ends, or that touch no span. Those of the names in `dropped` may end nowhere."""
    faults = []
    spans = by_track(events, "X")
    arrows = collections.defaultdict(list)
    for event in events:
        if event["ph"] not in "sf":
            continue
        arrows[event["name"], event["id"]].append(event)
        if not any(span["ts"] <= event["ts"] <= end_of(span) for span in spans[track_of(event)]):
            faults.append(f"no span around the arrow '{event['name']}' at {event['ts']}")
    for (name, number), ends in arrows.items():
        phases = "".join(event["ph"] for event in sorted(ends, key=lambda each: each["ts"]))
        whole = "sf" * (len(phases) // 2)
        if name in dropped and "ff" not in phases and phases.startswith("s"):
            continue
        if phases != whole:
            faults.append(f"arrow '{name}' {number}: {phases}")
    return faults


def form_faults(events):
    return [*schema_faults(events), *unnamed_tracks(events), *crossing_spans(events), *backward_clocks(events)]


def faults_of(events, dropped=()):
    return [*form_faults(events), *loose_arrows(events, dropped)]


def categories(events):
    return {event.get("cat") for event in events}


def main():
    events = load(sys.argv[1])
    missing = [f"nothing of '{category}'" for category in sys.argv[2:] if category not in categories(events)]
    if faults := faults_of(events, ("sample", "samples")) + missing:
        sys.exit("\n".join(faults[:20]))


if __name__ == "__main__":
    main()
