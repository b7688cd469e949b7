#!/usr/bin/env python3
"""What `meson install` puts where, and that it works there: programs, headers, pkg-config files.

Usage: install_test.py BUILD SOURCE STAGE PREFIX LIBDIR VERSION FEATURE...
"""

import fnmatch
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import unittest

BUILD, SOURCE, STAGE, PREFIX = map(pathlib.Path, sys.argv[1:5])
LIBDIR, VERSION = sys.argv[5:7]
FEATURES = set(sys.argv[7:])
ROOT = STAGE / PREFIX.relative_to("/")
LIBRARIES = ROOT / LIBDIR


def run(*command, **options):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, **options)
    if done.returncode != 0:
        raise AssertionError(f"{shlex.join(map(str, command))}: {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def in_box(*command):
    """Its output, with what is installed alone; beyond it the caller's folder is shared into the box."""
    environment = {name: value for name, value in os.environ.items() if not name.startswith(("UVA_", "GST_"))}
    environment |= {"PATH": f"{ROOT / 'bin'}:{os.environ['PATH']}", "LD_LIBRARY_PATH": str(LIBRARIES),
                    "GST_PLUGIN_PATH": str(LIBRARIES / "gstreamer-1.0"), "GST_REGISTRY": str(STAGE / "registry.bin"),
                    "NOX_GST_STANDALONE": "1", "DISPLAY": "", "WAYLAND_DISPLAY": ""}
    share = ["--share", STAGE] if str(STAGE).startswith("/tmp/") else []
    return run("tvbox", *share, "--", *command, env=environment, cwd=STAGE, timeout=120)


def expected():
    """Patterns of the list; a line "[feature] pattern" is there if the build has the feature."""
    for line in pathlib.Path(__file__).with_name("installed.txt").read_text().splitlines():
        feature, pattern = re.match(r"(?:\[(\w+)\] )?(.*)", line).groups()
        if pattern and not pattern.startswith("#") and (feature is None or feature in FEATURES):
            yield pattern.replace("LIBDIR", LIBDIR).replace("VERSION", VERSION)


def flags(*names):
    return shlex.split(run("pkg-config", f"--define-variable=prefix={ROOT}", "--cflags", "--libs", *names,
                           env={**os.environ, "PKG_CONFIG_PATH": str(LIBRARIES / "pkgconfig")}))


def compile_and_link(source, program, *packages):
    run("c++", "-std=c++17", "-Wall", "-Wextra", "-Werror", source, "-o", program, *flags(*packages),
        env={**os.environ, "LD_LIBRARY_PATH": str(LIBRARIES)})


class Install(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        shutil.rmtree(STAGE, ignore_errors=True)
        run("meson", "install", "-C", BUILD, "--no-rebuild", "--destdir", STAGE)
        cls.files = {str(path.relative_to(ROOT)) for path in STAGE.rglob("*") if not path.is_dir() or path.is_symlink()}

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(STAGE)

    def test_files_are_those_of_the_list(self):
        patterns = list(expected())
        self.assertEqual(sorted(file for file in self.files if not any(fnmatch.fnmatchcase(file, p) for p in patterns)), [])
        self.assertEqual([p for p in patterns if not any(fnmatch.fnmatchcase(file, p) for file in self.files)], [])

    def test_links_lead_to_what_is_installed(self):
        for link in filter(os.path.islink, map(ROOT.joinpath, self.files)):
            self.assertTrue(link.resolve().is_file() and link.resolve().is_relative_to(STAGE), link)

    def test_nothing_leads_back_to_the_build(self):
        for name in self.files:
            file = ROOT / name
            if file.is_symlink() or not file.open("rb").read(4) == b"\x7fELF":
                continue
            self.assertNotRegex(run("readelf", "--dynamic", file), r"\((RPATH|RUNPATH)\)", name)
            stripped = STAGE / "stripped"
            run("strip", "--strip-debug", "-o", stripped, file)
            # A source's name may begin with the build's and lead out of it: "build/../platform".
            inside = re.search(re.escape(bytes(BUILD)) + rb"/(?!\.\./)[ -~]*", stripped.read_bytes())
            self.assertIsNone(inside, f"{name}: {inside}")

    def test_headers_have_all_that_they_include(self):
        own = shlex.split(run("pkg-config", "--cflags", "gstreamer-1.0"))
        for folder, packages in {"uva": ["uva"], "cpucomm": ["cpucomm"], "zant": ["zantframework", "zantremotecalls"],
                                 "uvagstbackend": ["uvagstbackend"]}.items():
            root = ROOT / "include" / folder
            source = STAGE / f"{folder}.cpp"
            source.write_text("".join(f'#include "{header}"\n' for header in sorted(root.rglob("*.h"))))
            run("c++", "-std=c++17", "-fsyntax-only", source, *flags(*packages), *own)

    def test_a_host_is_compiled_and_plays(self):
        compile_and_link(SOURCE / "docs/examples/small_host.cpp", STAGE / "small_host", "uva")
        clip = ROOT / "share/uva-qualify/clips/baseline.mp4"
        events = re.findall(r"^event (\d+)$", in_box(STAGE / "small_host", clip.as_uri()), re.MULTILINE)
        self.assertIn("6", events)  # NewMetadata
        self.assertIn("5", events)  # PlaybackFinished
        self.assertRegex(in_box("uva-host", clip), r"to the end.* 25 pictures")

    def test_each_program_tells_its_version(self):
        for program in sorted(path.name for path in (ROOT / "bin").iterdir()):
            self.assertEqual(in_box(program, "--version"), f"{program} {VERSION}\n")

    def test_a_process_of_the_set_is_compiled(self):
        compile_and_link(SOURCE / "docs/examples/queue_thread.cpp", STAGE / "queue_thread", "zantframework")
        in_box(STAGE / "queue_thread")

    def test_qualification_finds_its_clips(self):
        self.assertIn("0 failed", in_box("uva-qualify", "--standalone", "--short", "--group", "capability"))

    def test_bash_completes(self):
        script = ROOT / "share/bash-completion/completions/uva-host"
        for words, answer in {"uva-host --deny": ["--deny-resources"], "uva-host --protect ": ["cenc", "cbcs"],
                              "uva-host --snapshot ": [], "uva-qualify --observe c": ["capture"],
                              "uva-soak --sp": ["--speed"], "tvbox --sh": ["--share"],
                              "uva-web-player --standalone sha": ["shaka"] if "web" in FEATURES else [], "tvbox --name tv1 -- uva-ho": ["uva-host"],
                              "tvbox --require uva-repl": ["uva-replay"]}.items():
            line = re.split(" ", words)
            told = in_box("bash", "-c", f"""source {script}; COMP_WORDS=({shlex.join(line)}); COMP_CWORD={len(line) - 1}
                _uva_tool {line[0]}; printf '%s\\n' "${{COMPREPLY[@]}}" """)
            self.assertEqual(told.split(), answer, words)


unittest.main(argv=sys.argv[:1], verbosity=2)
