#!/usr/bin/env python3
"""Runs the trace benchmarks and writes what they gave as Markdown and a plot.

usage: report_trace.py <build directory> <result.md>
"""

import json
import pathlib
import statistics
import subprocess
import sys

from report_support import machine, plot

REPETITIONS = 21

# Title, what is measured, its peer, limit as a ratio, limit in ns of the difference.
ROWS = [
    ('dropped trace (macro)', 'droppedTrace', 'loadAndBranch', 1.5, 2.0),
    ('passed trace, queued: producer', 'queuedTrace', 'spdlogAsync', 1.0, None),
]


def run_benchmarks(build):
    output = subprocess.run(
        [build / 'bench' / 'trace_bench', '--benchmark_format=json',
         '--benchmark_enable_random_interleaving=true', '--benchmark_min_time=0.05',
         f'--benchmark_repetitions={REPETITIONS}'],
        check=True, capture_output=True, text=True).stdout
    samples = {}
    for entry in json.loads(output)['benchmarks']:
        if entry['run_type'] != 'iteration':
            continue
        rate = entry.get('items_per_second')
        nanoseconds = 1e9 / rate if rate else entry['cpu_time']
        samples.setdefault(entry['run_name'], []).append(nanoseconds)
    return samples


def idle_kilobytes(build, program):
    """Medians of what is resident, and of what is the process's own."""
    runs = [subprocess.run([build / 'bench' / program], check=True, capture_output=True, text=True)
            .stdout.split() for _ in range(REPETITIONS)]
    return [statistics.median(int(run[column]) for run in runs) for column in (0, 1)]


def draw(samples, axes):
    for axis, (title, ours, peer, _, _) in zip(axes, ROWS):
        axis.boxplot([samples[ours], samples[peer]])
        axis.set_xticklabels([ours, peer])
        axis.set_ylim(bottom=0)
        axis.set_ylabel('ns')
        axis.set_title(title, fontsize=9)


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    build = pathlib.Path(sys.argv[1])
    result = pathlib.Path(sys.argv[2])
    samples = run_benchmarks(build)
    lines = [
        '# Tracing', '',
        f'Machine: {machine()}.', '',
        f'Medians of {REPETITIONS} interleaved repetitions, both sides in one run; processor time of '
        'the tracing thread.', '',
        '| what | ns | peer | ns | ratio | limit | |', '|---|---|---|---|---|---|---|',
    ]
    for title, ours, peer, limit, difference in ROWS:
        mine = statistics.median(samples[ours])
        other = statistics.median(samples[peer])
        kept = mine / other <= limit or (difference is not None and mine <= difference)
        bound = f'{limit} x' + (f' or {difference} ns' if difference else '')
        lines.append(f'| {title} | {mine:.2f} | {peer} | {other:.2f} | {mine / other:.2f} '
                     f'| {bound} | {"kept" if kept else "MISSED"} |')
    lines += ['', '| idle process | resident, kB | of that its own, not of a file, kB |', '|---|---|---|']
    for title, program in (('with the framework, its trace thread started', 'idle_memory_framework'),
                           ('without', 'idle_memory_bare')):
        resident, own = idle_kilobytes(build, program)
        lines.append(f'| {title} | {resident:.0f} | {own:.0f} |')
    lines += ['', f'![spread]({result.stem}.png)', '']
    plot(lambda axes: draw(samples, axes), (9, 4), len(ROWS), result.with_suffix('.png'))
    result.write_text('\n'.join(lines))
    print('\n'.join(lines))


main()
