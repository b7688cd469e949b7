"""Runs unittest cases and prints their results in GoogleTest's words, so that one counter serves."""

import sys
import time
import unittest


class _Result(unittest.TestResult):
    def startTest(self, test):
        super().startTest(test)
        self._start = time.monotonic()
        self._bad = False
        self._skipped = False
        print(f"[ RUN      ] {self._name(test)}", flush=True)

    @staticmethod
    def _name(test):
        return f"{type(test).__name__}.{test._testMethodName}"

    def _report(self, test, error):
        print(self._exc_info_to_string(error, test), flush=True)
        self._bad = True

    def addError(self, test, err):
        super().addError(test, err)
        self._report(test, err)

    addFailure = addError

    def addSubTest(self, test, subtest, err):
        super().addSubTest(test, subtest, err)
        if err is not None:
            print(subtest.id())
            self._report(test, err)

    def addSkip(self, test, reason):
        super().addSkip(test, reason)
        print(reason)
        self._skipped = True

    def stopTest(self, test):
        super().stopTest(test)
        word = "  FAILED  " if self._bad else "  SKIPPED " if self._skipped else "       OK "
        took = round((time.monotonic() - self._start) * 1000)
        print(f"[{word}] {self._name(test)} ({took} ms)", flush=True)


def main():
    """Runs the cases of the calling script. Exit code 0 when none failed."""
    suite = unittest.defaultTestLoader.loadTestsFromModule(sys.modules["__main__"])
    result = _Result()
    suite.run(result)
    sys.exit(0 if result.wasSuccessful() else 1)
