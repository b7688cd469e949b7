#!/usr/bin/env python3
"""Prints "N passed, N failed" from the results of the last test runs in the build folders named.

Each case of GoogleTest, unittest or TAP counts as one; a test program without cases of its own counts as
one. A program that died counts what it had finished, plus one failure.
"""

import json
import pathlib
import re
import sys


def cases(text, gtest, unittest, tap):
    return len(re.findall(rf"^\[ +{gtest} +\] .*ms\)$|(?:^|\.\.\. )(?:{unittest})|^(?:{tap})$", text, re.M))


def count(record):
    text = "\n".join(record.get(stream, "") for stream in ("stdout", "stderr"))
    ran_ok = record["result"] in ("OK", "EXPECTEDFAIL")
    passed = cases(text, "OK", "ok$", r"ok \d+ (?!.*# SKIP).*")
    failed = cases(text, "FAILED", "FAIL$|ERROR$", r"not ok \d+ .*")
    skipped = cases(text, "SKIPPED", "skipped '", r"ok \d+ .*# SKIP.*")
    if record["result"] == "SKIP" and not passed + failed + skipped:
        return 0, 0, 1
    if not passed + failed + skipped:
        return (1, 0, 0) if ran_ok else (0, 1, 0)
    if not ran_ok and failed == 0:
        failed = 1
    return passed, failed, skipped


def main():
    logs = [pathlib.Path(folder) / "meson-logs" / "testlog.json" for folder in sys.argv[1:]]
    records = [json.loads(line) for log in logs for line in log.read_text().splitlines()]
    passed, failed, skipped = (sum(column) for column in zip(*map(count, records))) if records else (0, 0, 0)
    print(f"{passed} passed, {failed} failed" + (f", {skipped} skipped" if skipped else ""))
    return 0 if passed and not failed else 1


if __name__ == "__main__":
    sys.exit(main())
