#!/usr/bin/env python3
"""Holds every include against the table in docs/architecture.md, and the table against itself."""
import collections
import fnmatch
import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
CODE = [path for path in sum((sorted((ROOT / top).rglob("*")) for top in
        ("framework", "uvaBackends", "platform", "host", "tools", "web/native")), [])
        if path.suffix in (".h", ".cpp", ".c", ".def")]
NAMES = {str(path.relative_to(ROOT)) for path in CODE}


def table():
    rows = re.findall(r"^\| `([^`]+)` \| (.*?) ?\|$", (ROOT / "docs/architecture.md").read_text(), re.M)
    return {room: re.findall(r"`([^`]+)`", allowed) for room, allowed in rows}


def covers(place, name):
    return name == place or name.startswith(place + "/") or fnmatch.fnmatch(name, place)


class Rooms(unittest.TestCase):
    def setUp(self):
        self.table = table()
        self.by_end = collections.defaultdict(set)
        for name in NAMES:
            parts = name.split("/")
            for begin in range(len(parts)):
                self.by_end["/".join(parts[begin:])].add(name)

    def meant(self, name, include):
        """The file of the tree: the neighbour, else the only one of that name."""
        beside = str(pathlib.PurePath(name).parent / include)
        return {beside} if beside in NAMES else self.by_end[include]

    def test_every_include_is_allowed(self):
        checked = 0
        for name in sorted(NAMES):
            rows = [room for room in self.table if covers(room, name)]
            self.assertTrue(rows, f"{name} is in no room of docs/architecture.md")
            for include in re.findall(r'^#include "([^"]+)"', (ROOT / name).read_text(), re.M):
                for target in self.meant(name, include):
                    checked += 1
                    allowed = rows + [place for room in rows for place in self.table[room]]
                    with self.subTest(file=name, include=include):
                        self.assertTrue(any(covers(place, target) for place in allowed),
                                        f"{target} is above its room, or a stranger to it")
        self.assertGreater(checked, 500, "the includes were not found")

    def test_no_room_is_above_itself(self):
        folders = {room for room in self.table if (ROOT / room).is_dir()}
        below = {room: {place for place in self.table[room] if place in folders} for room in folders}
        while below:
            lowest = {room for room, places in below.items() if not places & below.keys()}
            self.assertTrue(lowest, f"a cycle among {sorted(below)}")
            below = {room: places for room, places in below.items() if room not in lowest}


if __name__ == "__main__":
    unittest.main(verbosity=2)
