#!/usr/bin/env python3
"""Runs the messaging benchmark and writes what it gave as Markdown and a plot.

usage: report_messaging.py <build directory> <result.md>
"""

import json
import os
import pathlib
import subprocess
import sys

from report_support import machine, plot

LIMIT = 1.10


def draw(rows, axis):
    for key in ('p50', 'p99'):
        axis.plot([row['senders'] for row in rows], [row[f'{key}_ns'] / 1000 for row in rows],
                  marker='o', label=key)
    axis.set_yscale('log')
    axis.set_xlabel('sender threads')
    axis.set_ylabel('round trip to one queue thread, µs')
    axis.grid(True, which='both', alpha=0.3)
    axis.legend()


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    result = pathlib.Path(sys.argv[2])
    load = os.getloadavg()[0]
    output = subprocess.run([pathlib.Path(sys.argv[1]) / 'bench' / 'messaging_bench'], check=True,
                            capture_output=True, text=True).stdout
    figures = json.loads(output)
    trip = figures['round_trip']
    apart = figures['round_trip_two_processors']
    same = figures['same_thread']
    ratio = trip['ours_ns'] / trip['bare_ns']
    lines = [
        '# Messaging', '',
        f'Machine: {machine()}; load average {load:.1f} when the run began.', '',
        'Medians of 1001 short turns, both sides of a ratio in one run, in turns; wall-clock time. In '
        'the first row both threads share a processor; left alone, the scheduler chooses.', '',
        '| what | ns | bare system calls, ns | ratio | limit | |', '|---|---|---|---|---|---|',
        f'| send, handled by a queue thread, answered, received | {trip["ours_ns"]} '
        f'| {trip["bare_ns"]} | {ratio:.2f} | {LIMIT} x | {"kept" if ratio <= LIMIT else "MISSED"} |',
        f'| the same, the threads on two processors | {apart["ours_ns"]} | {apart["bare_ns"]} '
        f'| {apart["ours_ns"] / apart["bare_ns"]:.2f} | - | |',
        f'| send and receive on one thread | {same["ours_ns"]} | {same["bare_ns"]} '
        f'| {same["ours_ns"] / same["bare_ns"]:.2f} | - | |',
        f'| the same with a payload of 64 bytes | {same["with_payload_ns"]} | - | - | - | |', '',
        '| queue observers of a message with 64 bytes | ns to notify all | ns each |',
        '|---|---|---|',
    ]
    for row in figures['observers']:
        lines.append(f'| {row["observers"]} | {row["ns"]} | {row["ns"] / row["observers"]:.0f} |')
    lines += ['', '| sender threads | p50, µs | p99, µs |', '|---|---|---|']
    for row in figures['senders']:
        lines.append(f'| {row["senders"]} | {row["p50_ns"] / 1000:.1f} | {row["p99_ns"] / 1000:.1f} |')
    lines += ['', f'![round trips]({result.stem}.png)', '']
    plot(lambda axis: draw(figures['senders'], axis), (7, 4), 1, result.with_suffix('.png'))
    result.write_text('\n'.join(lines))
    print('\n'.join(lines))


main()
