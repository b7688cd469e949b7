#!/usr/bin/env python3
"""What libchaos.so does to a program, by its seed: libchaos_test.py PROBE LIBCHAOS."""

import os
import subprocess
import sys
import unittest

PROBE, LIBCHAOS = sys.argv[1:3]


def probe(**environment):
    """(what each thread met, what was done, exit code) of the probe under the library."""
    clean = {name: value for name, value in os.environ.items() if not name.startswith("CHAOS_")}
    done = subprocess.run([PROBE], env=dict(clean, LD_PRELOAD=LIBCHAOS, **environment), capture_output=True, text=True,
                          timeout=60, check=False)
    *threads, told = done.stdout.splitlines() or [""]
    return threads, told, done.returncode


class LibChaos(unittest.TestCase):
    def test_same_seed_same_decisions(self):
        for profile in ("interrupts", "failures"):  # the time of day is everybody's
            with self.subTest(profile):
                first, again, other = (probe(CHAOS_SEED=seed, CHAOS_PROFILE=profile)[0] for seed in "774")
                self.assertEqual(len(set(first)), 3, "each thread draws numbers of its own")
                self.assertEqual(first, again)
                self.assertNotEqual(first, other)

    def test_effects_arrive_where_the_profile_has_them(self):
        for profile, effects in (("interrupts", "i"), ("clock", "ic"), ("failures", "in"), ("threads", "t"),
                                 ("light", "")):
            with self.subTest(profile):
                threads, told, code = probe(CHAOS_SEED="5", CHAOS_PROFILE=profile)
                self.assertEqual(code, 0)
                for met in threads:
                    self.assertEqual(set(met), {".", *effects})
                for effect, name in (("i", "interrupts"), ("n", "failed allocations"), ("t", "failed starts"),
                                     ("c", "clock steps")):
                    self.assertEqual(name in told, effect in effects, told)

    def test_pauses_are_long_at_places_that_the_seed_chooses(self):
        told = [probe(CHAOS_SEED=str(seed), CHAOS_PROFILE="light")[1] for seed in range(1, 80)]
        with_long = sum("long pauses" in each for each in told)
        self.assertGreater(with_long, 0)
        self.assertLess(with_long, len(told) / 2)

    def test_nothing_without_a_seed(self):
        threads, told, code = probe()
        self.assertEqual((threads, told, code), (["." * 800] * 3, "seed 0, profile none:", 0))

    def test_unknown_profile_is_refused(self):
        self.assertEqual(probe(CHAOS_SEED="1", CHAOS_PROFILE="none")[2], 2)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
