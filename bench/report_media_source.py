#!/usr/bin/env python3
"""Runs the benchmark of media sources in a box and writes what it gave as Markdown.

usage: report_media_source.py <build directory> <result.md>
"""

import json
import pathlib
import subprocess
import sys

from report_support import machine

SAMPLE_LIMIT = 1.10
PROTECTED_LIMIT = 1.15
WHOLE_LIMITS = {1000: 1.30, 20000: 1.05}  # by bytes
QUERY_LIMIT = 5


def verdict(kept):
    return 'kept' if kept else 'MISSED'


def row(what, ours, title, other, limit=None):
    ratio = ours / other
    return (f'| {what} | {ours:.2f} | {title} | {other:.2f} | {ratio:.2f} | {limit or "-"} '
            f'| {verdict(ratio <= limit) if limit else ""} |')


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    build = pathlib.Path(sys.argv[1]).resolve()
    output = subprocess.run([build / 'tools/tvbox/tvbox', '--share', build, '--', build / 'bench/media_source_bench'],
                            check=True, capture_output=True, text=True).stdout
    figures = json.loads(output[output.index('{'):])
    lines = [
        '# Media sources', '',
        f'Machine: {machine()}.', '',
        'Time from `play()` to the end of the stream, for each sample; the client answers from inside the event, the '
        'sink takes everything at once. Medians of 15 turns, both sides in turns.', '',
        '| what | µs | against | µs | ratio | limit | |', '|---|---|---|---|---|---|---|',
    ]
    for sample in figures['samples']:
        lines.append(row(f'sample of {sample["bytes"]} bytes, `writeData` to sink pad', sample['ours'],
                         'the same buffers pushed into a bare `appsrc`', sample['bare'], SAMPLE_LIMIT))
    for sample in figures['protected']:
        name = f'protected sample of {sample["bytes"]} bytes'
        lines.append(row(name, sample['ours'], 'AES-CTR and one copy alone', sample['cipher'], PROTECTED_LIMIT))
        lines.append(row(name, sample['ours'], 'the same and a clear sample through the bin',
                         sample['cipher'] + sample['clear'], WHOLE_LIMITS.get(sample['bytes'])))
    query = figures['queryMicroseconds']
    lines += [
        '', '| what | | limit | |', '|---|---|---|---|',
        f'| processor time for an hour of 1080p25 at 4 Mbit/s with sound, without decoding '
        f'| {figures["cpuSecondsAnHour"]:.2f} s | - | |',
        f'| resident memory before and after 24 hours of samples | {figures["memoryBefore"]:.1f} MB, '
        f'{figures["memoryAfter24Hours"]:.1f} MB | flat | |',
        f'| capability query, mean of 10,000 | {query:.2f} µs | {QUERY_LIMIT} µs | {verdict(query <= QUERY_LIMIT)} |',
    ]
    result = pathlib.Path(sys.argv[2])
    result.write_text('\n'.join(lines + ['']))
    print('\n'.join(lines))


main()
