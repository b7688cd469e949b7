#!/usr/bin/env python3
"""The library on another set than the simulated one, built as docs/how-to/port-to-a-set.md says.

Usage: port_test.py SOURCE FOLDER TVBOX CLIPS [TEST]...

In FOLDER are built: the set of this folder (set, installed to sdk), and against that the library, the reference
host and uva-qualify (product). What was built before is built on. CLIPS is the folder of the qualification's clips.
"""
import json
import os
import pathlib
import subprocess
import sys
import unittest

if len(sys.argv) < 5:
    sys.exit(__doc__.strip())
SOURCE, FOLDER, TVBOX, CLIPS = (pathlib.Path(word).resolve() for word in sys.argv[1:5])
HERE = pathlib.Path(__file__).resolve().parent
SET, SDK, PRODUCT = FOLDER / "set", FOLDER / "sdk", FOLDER / "product"
LIBRARY = PRODUCT / "uvaBackends/libuvagstbackend.so"
HOST = PRODUCT / "tools/uva-host/uva-host"
QUALIFY = PRODUCT / "tools/uva-qualify/uva-qualify"
# Of the qualification what needs no more than pictures that are seen in time; all of it takes some minutes.
GROUPS = ["playback", "seek", "mainsystem"]

# Nothing of the simulated set, and the system's compiler, whatever has built the tests.
ENVIRONMENT = {name: value for name, value in os.environ.items()
               if name not in ("NOX_GST_STANDALONE", "NOX_PLAY_SPEED", "CC", "CXX")}
ENVIRONMENT.update(PKG_CONFIG_PATH=str(SDK / "lib/pkgconfig"), LD_LIBRARY_PATH=str(SDK / "lib"),
                   GST_PLUGIN_PATH=str(SDK / "lib/gst"), GST_REGISTRY=str(FOLDER / "registry.bin"),
                   UVA_BACKEND_LIBRARY=str(LIBRARY), PYTHONPATH=str(SOURCE / "tests/support"))


def run(*command, **more):
    return subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace", env=ENVIRONMENT, **more)


def build(source, folder, options, *targets):
    """Raises with what was printed when something is wrong."""
    commands = [["ninja", "-C", folder, *targets]]
    if not (folder / "build.ninja").exists():
        commands.insert(0, ["meson", "setup", folder, source, *options])
    for command in commands:
        done = run(*command)
        if done.returncode != 0:
            raise AssertionError(f"{' '.join(map(str, command))}\n{done.stdout}")


def setUpModule():
    build(HERE, SET, ["--prefix", SDK, "--libdir", "lib"], "install")
    build(SOURCE, PRODUCT, ["-Duva_sdk=system", "-Dvendor_link=system", "-Dsimulation=false", "-Dtests=false",
                            "-Doptimization=0", "-Ddebug=false", "-Dwerror=true"],
          *(program.relative_to(PRODUCT) for program in (LIBRARY, HOST, QUALIFY)))


def in_box(*command):
    hidden = [path for path in (FOLDER, SOURCE, CLIPS) if pathlib.Path("/tmp") in path.parents]
    return run(TVBOX, "--require", *(word for path in hidden for word in ("--share", path)), *command, timeout=600)


class Port(unittest.TestCase):
    def test_nothing_is_undefined(self):
        done = run("ldd", "-r", LIBRARY)
        self.assertEqual(done.returncode, 0, done.stdout)
        self.assertNotRegex(done.stdout, "undefined|not found")
        self.assertRegex(done.stdout, rf"libuva\.so => {SDK}/lib/libuva\.so")
        self.assertRegex(done.stdout, rf"libcpucomm\.so => {SDK}/lib/libcpucomm\.so")

    def test_slots_stand_where_they_must(self):
        done = run(SOURCE / "tests/unit/slot_order_test.py", LIBRARY, HOST)
        self.assertEqual(done.returncode, 0, done.stdout)

    def test_it_plays(self):
        done = in_box("--", sys.executable, HERE / "on_the_set.py", PRODUCT, CLIPS)
        self.assertEqual(done.returncode, 0, done.stdout)

    def test_it_qualifies(self):
        report = FOLDER / "report.json"
        report.unlink(missing_ok=True)
        groups = [word for group in GROUPS for word in ("--group", group)]
        done = in_box("--main-system", f"{sys.executable} {HERE / 'main_system.py'} {FOLDER / 'qualify.journal'}", "--",
                      QUALIFY, "--short", "--observe", "capture", "--media", CLIPS, "--json", report, *groups)
        self.assertEqual(done.returncode, 0, done.stdout)
        findings = [finding for group in json.loads(report.read_text())["groups"] for finding in group["findings"]]
        passed = [finding for finding in findings if finding["verdict"] == "passed"]
        self.assertGreater(len(passed), len(findings) // 2, done.stdout)


unittest.main(argv=[sys.argv[0], *sys.argv[5:]], verbosity=2)
