#!/usr/bin/env python3
"""Runs the benchmark of the decoder link in a box and writes what it gave as Markdown.

usage: report_link.py <build directory> <result.md>
"""

import json
import pathlib
import subprocess
import sys

from report_support import machine

LIMIT = 1.3


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    build = pathlib.Path(sys.argv[1]).resolve()
    output = subprocess.run([build / 'tools/tvbox/tvbox', '--share', build, '--require', '--', build / 'bench/link_bench'],
                            check=True, capture_output=True, text=True).stdout
    figures = json.loads(output)
    grant = figures['grant']
    lines = [
        '# Decoder link', '',
        f'Machine: {machine()}.', '',
        'Medians of 501 short turns, all sides of a ratio in one run, in turns; two processes, all threads on one '
        'processor.', '',
        '| what | µs | against | µs | ratio | limit | |', '|---|---|---|---|---|---|---|',
    ]
    for peer, title, limit in (('direct', 'bare exchange of two processes, two wake-ups', LIMIT),
                               ('threads', 'bare exchange through as many threads, five wake-ups', None)):
        ratio = grant['ours'] / grant[peer]
        verdict = '' if limit is None else 'kept' if ratio <= limit else 'MISSED'
        lines.append(f'| request to grant | {grant["ours"]:.1f} | {title} | {grant[peer]:.1f} | {ratio:.2f} '
                     f'| {limit or "-"} | {verdict} |')
    for row in figures['payload']:
        lines.append(f'| payload of {row["bytes"]} bytes | {row["ours"]:.1f} | `memcpy` and bare exchange '
                     f'| {row["bare"]:.1f} | {row["ours"] / row["bare"]:.2f} | - | |')
    result = pathlib.Path(sys.argv[2])
    result.write_text('\n'.join(lines + ['']))
    print('\n'.join(lines))


main()
