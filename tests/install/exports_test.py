#!/usr/bin/env python3
"""What the shared libraries export is what the packages' symbols files say, no less and no more.

Usage: exports_test.py SYMBOLS_FILE LIBRARY [SYMBOLS_FILE LIBRARY]...
"""

import re
import subprocess
import sys
import unittest

ENTRY = re.compile(r' (?:\(c\+\+\)"(?P<cpp>.*)@Base"|(?P<c>\S+)@Base) \S+$')


def promised(path):
    """The SONAME and the names, demangled."""
    with open(path, encoding="utf-8") as file:
        soname = file.readline().split()[0]
        entries = [ENTRY.match(line.rstrip("\n")) for line in file]
    return soname, {entry["cpp"] or entry["c"] for entry in entries}


def exported(library):
    """Without weak functions: those that the compiler makes of templates where it does not optimise."""
    names = [fields[2] for fields in map(str.split, run("nm", "--dynamic", "--defined-only", library).splitlines())
             if fields[1] != "W"]
    return set(run("c++filt", input="\n".join(names)).splitlines())


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


class Exports(unittest.TestCase):
    def test_libraries(self):
        for symbols, library in zip(sys.argv[1::2], sys.argv[2::2]):
            with self.subTest(library=library):
                soname, names = promised(symbols)
                self.assertIn(f"soname: [{soname}]", run("readelf", "--dynamic", library))
                self.assertEqual(exported(library), names, f"see docs/reference/versions.md, then write {symbols} anew")


unittest.main(argv=sys.argv[:1], verbosity=2)
