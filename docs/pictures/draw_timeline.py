#!/usr/bin/env python3
"""Draws the tracks of a host and its main system below one another.

usage: draw_timeline.py <line.json> <out.png> [<seconds>]

The file is the one that UVA_TIMELINE named for both. What the library and its sinks have recorded is
left out. Only the first seconds are drawn, if a number is given.
"""

import json
import pathlib
import sys

import matplotlib
matplotlib.use('Agg')
from matplotlib import pyplot  # noqa: E402

COLOURS = {'opening': '#c7d5e8', 'buffering': '#f2d9a6', 'playing': '#b9dcb4', 'seeking': '#e3bcd8', 'ended': '#d0d0d0',
           'asked for': '#f2d9a6', 'granted': '#b9dcb4', 'asked back': '#e6b3ad'}
WIDTH_OF_LETTER = 0.0062  # of the drawing


def tracks_of(path):
    """(name, spans, instants) of each track, times in seconds of the clock."""
    records = json.loads(pathlib.Path(path).read_text())
    named = [record for record in records if record['ph'] == 'M']
    processes = {record['pid']: record['args']['name'] for record in named if record['name'] == 'process_name'}
    tracks = {(record['pid'], record['tid']): record['args']['name'] for record in named if record['name'] == 'thread_name'}
    # The host is above.
    for (process, number), name in sorted(tracks.items(), key=lambda track: (processes[track[0][0]], track[0])):
        own = [record for record in records if (record['pid'], record['tid']) == (process, number) and
               record.get('cat') in ('host', 'main system')]
        process = processes[process]
        spans = [(short(r['name']), r['ts'] / 1e6, r['dur'] / 1e6) for r in own if r['ph'] == 'X']
        instants = [(short(r['name']), r['ts'] / 1e6) for r in own if r['ph'] == 'i']
        if spans or instants:
            yield f'{process}\n{name}', sorted(spans, key=lambda span: span[1]), sorted(instants, key=lambda i: i[1])


def short(name):
    for prefix in ('SIG_ID_MPLAYER_', 'SIG_ID_'):
        name = name.removeprefix(prefix)
    return name.rsplit('/', 1)[-1]


def free_row(rows, start, length):
    """The first row whose last text has ended; rows holds these ends."""
    for row, end in enumerate(rows):
        if end <= start:
            rows[row] = start + length
            return row
    rows.append(start + length)
    return len(rows) - 1


def draw_track(axis, top, name, spans, instants, begin, length):
    """Returns how many rows it took."""
    rows = []
    for text, start, duration in spans:
        start -= begin
        width = max(duration, length * 0.001)
        row = free_row(rows, start, max(width, length * WIDTH_OF_LETTER * (len(text) + 1)))
        axis.barh(top + row, width, left=start, height=0.8, color=COLOURS.get(text, '#9db8d9'), edgecolor='#666666',
                  linewidth=0.4)
        axis.text(start, top + row, ' ' + text, va='center', fontsize=7, clip_on=True)
    for text, start in instants:
        start -= begin
        row = free_row(rows, start, length * WIDTH_OF_LETTER * (len(text) + 3))
        axis.plot(start, top + row, marker='|', color='#a03030', markersize=9)
        axis.text(start, top + row, '  ' + text, va='center', fontsize=7, clip_on=True)
    axis.text(-0.01 * length, top + (len(rows) - 1) / 2, name, ha='right', va='center', fontsize=8)
    return len(rows)


def main():
    if len(sys.argv) not in (3, 4):
        sys.exit(__doc__)
    tracks = [*tracks_of(sys.argv[1])]
    starts = [start for _, spans, instants in tracks for start in
              [span[1] for span in spans] + [instant[1] for instant in instants]]
    begin = min(starts)
    length = float(sys.argv[3]) if len(sys.argv) == 4 else max(starts) - begin
    figure, axis = pyplot.subplots(figsize=(14, 8))
    top = 0
    for name, spans, instants in tracks:
        top += draw_track(axis, top, name, [s for s in spans if s[1] - begin < length],
                          [i for i in instants if i[1] - begin < length], begin, length)
        axis.axhline(top - 0.5, color='#cccccc', linewidth=0.5)
    axis.set_ylim(top - 0.5, -0.7)
    axis.set_xlim(0, length)
    axis.set_yticks([])
    axis.set_xlabel('seconds')
    figure.tight_layout()
    figure.savefig(sys.argv[2], dpi=90)


main()
