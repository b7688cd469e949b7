#!/usr/bin/env python3
"""What the documentation says is there: links, files, programs, their options, commands of the shell, examples.

Usage: docs_test.py BUILD_FOLDER with-web|without-web

Without npm's packages the web player cannot be asked for its options.
"""

import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import unittest
from urllib.parse import unquote, urlsplit

from markdown_pages import ROOT, TOPS, Page, pages

BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
WITH_WEB = sys.argv.pop(1) == "with-web"
PAGES = {path: Page(path) for path in pages()}
INDEX = ROOT / "docs/index.md"
SOURCES = [path for top in TOPS for path in sorted((ROOT / top).rglob("*"))
           if path.suffix in (".h", ".cpp", ".c", ".py", ".js") and "node_modules" not in path.parts]


def target_of(page, link):
    parts = urlsplit(link)
    return (page.path.parent / unquote(parts.path)).resolve() if parts.path else page.path, unquote(parts.fragment)


class Links(unittest.TestCase):
    def test_lead_to_files_and_headings(self):
        checked = 0
        for page in PAGES.values():
            for link in page.links():
                if urlsplit(link).scheme in ("http", "https"):
                    continue
                checked += 1
                path, anchor = target_of(page, link)
                with self.subTest(page=page.name, link=link):
                    self.assertTrue(path.exists(), "there is no such file")
                    if anchor:
                        self.assertIn(path, PAGES, "an anchor, and no page")
                        self.assertIn(anchor, PAGES[path].anchors(), f"the headings of {PAGES[path].name}")
        self.assertGreater(checked, 100, "the links were not found")

    def test_every_page_is_in_the_navigation(self):
        listed = [target_of(PAGES[INDEX], link)[0] for link in PAGES[INDEX].links()]
        for path, page in PAGES.items():
            with self.subTest(page=page.name):
                if path != INDEX:
                    self.assertTrue(path in listed, f"add a line for {page.name} to docs/index.md, under the kind of "
                                                "page that it is: tutorial, how-to, reference, explanation")
        self.assertEqual(len(listed), len(set(listed)), "docs/index.md has a page twice")


class Paths(unittest.TestCase):
    """A path of the tree that a page or a comment names is there."""

    PLACE = rf"(?:{'|'.join(TOPS)})/[\w./*{{}},-]*[\w*}}/]"

    def exists(self, name, bases=(ROOT,)):
        names = [re.sub(r"\b[A-Z]{3,}", "*", name)]  # NAME stands for any
        while any("{" in each for each in names):
            names = [each.replace(found[0], one, 1) for each in names if (found := re.search(r"\{([^}]*)\}", each))
                     for one in found[1].split(",")]
        return all(any(list(base.glob(each.rstrip("/"))) for base in bases) for each in names)

    def test_of_pages(self):
        checked = 0
        for page in PAGES.values():
            for span in page.spans():
                for name in re.findall(rf"(?<![\w/.$-]){self.PLACE}", span):
                    checked += 1
                    with self.subTest(page=page.name, path=name):
                        self.assertTrue(self.exists(name, (ROOT, ROOT / "framework", ROOT / "host/include", BUILD)), "there is no such file")
        self.assertGreater(checked, 100, "the paths were not found")

    def test_of_comments(self):
        checked = 0
        for source in SOURCES:
            mark = "#" if source.suffix == ".py" else "//"
            comments = "\n".join(re.findall(rf"(?:^|\s){mark}/* (.*)", source.read_text(), re.M))
            for name, anchor in re.findall(r"(?<![\w/.$-])(docs/[\w./-]+\.\w+|(?:[a-z_]+/)+[\w-]+\.h)(?:#([\w-]+))?", comments):
                checked += 1
                with self.subTest(source=str(source.relative_to(ROOT)), path=name):
                    bases = [ROOT, ROOT / "framework", ROOT / "host/include", ROOT / "platform/uva/include", source.parent,
                             ROOT / "uvaBackends/gst-backend/src", pathlib.Path("/usr/include")]
                    self.assertTrue(self.exists(name, bases), "there is no such file")
                    if anchor:
                        self.assertIn(anchor, PAGES[ROOT / name].anchors())
        self.assertGreater(checked, 5, "the comments were not found")


class Names(unittest.TestCase):
    """A function or member that a header's comment names, as name() or Class::name, is declared somewhere."""

    def test_are_declared(self):
        texts = {source: source.read_text() for source in SOURCES}
        words = {word for text in texts.values() for word in re.findall(r"\w+", re.sub(r"//.*", "", text))}
        checked = 0
        for source, text in texts.items():
            comments = "\n".join(re.findall(r"//+ ?(.*)", text)) if source.suffix == ".h" else ""
            for name in re.findall(r"\b(?:\w+::)*[A-Za-z]\w*\(\)|\b(?:\w+::)+\w+", comments):
                checked += 1
                with self.subTest(source=str(source.relative_to(ROOT)), name=name):
                    self.assertEqual(set(re.findall(r"\w+", name)) - words, set(), "nothing of that name is declared")
        self.assertGreater(checked, 100, "the names were not found")


class Programs:
    """Programs of the tree, by name, with the options that their --help knows."""

    SCRIPTS = ("./play", "./check", "bench/run", "tests/chaos/run", "tools/docs/docs", "tools/fuzz/fuzz",
               "tools/mutate/mutate", "tools/uva-soak/uva-soak", "web/run/player")
    NESTED = {"./play": ["uva-host", "web/run/player"]}  # whose options it takes too

    def __init__(self):
        built = {path.name: path for path in sorted((BUILD / "tools").glob("*/*"))
                 if path.name == path.parent.name and os.access(path, os.X_OK)}
        scripts = {name: ROOT / name for name in self.SCRIPTS}
        self.files = {**built, **scripts}
        self.known = {}

    def named(self, word):
        """The program that a word of a command means, or None: "./play", "uva-host", "../tools/uva-soak/uva-soak"."""
        names = {word, word.removeprefix("./"), word.rpartition("/")[2] if "/" in word else word}
        names |= {name for name in self.files if word.endswith("/" + name)}
        return next((name for name in sorted(names, key=len, reverse=True) if name in self.files), None)

    def options(self, name):
        if name not in self.known:
            texts = [self.help_of(each) for each in [name, *self.NESTED.get(name, [])] if WITH_WEB or not each.startswith("web/")]
            self.known[name] = {option for text in texts for option in re.findall(r"(?<![\w-])--?[a-zA-Z][\w-]*", text)}
        return self.known[name]

    def help_of(self, name):
        done = subprocess.run([self.files[name], "--help"], cwd=ROOT, stdin=subprocess.DEVNULL, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120)
        return done.stdout


def words_of(command):
    lexer = shlex.shlex(command, posix=True, punctuation_chars=True)
    lexer.whitespace_split, lexer.commenters = True, "#"
    return list(lexer)


class Commands(unittest.TestCase):
    """A command that a page shows is one that works: its program is there and knows its options."""

    TAKES_A_PROGRAM = {"--main-system", "--backend"}  # the word behind is a value

    @classmethod
    def setUpClass(cls):
        cls.programs = Programs()

    def commands(self, page):
        """(command, whether each line is one): blocks of sh are commands, of others what begins with a program."""
        for language, text in page.blocks:
            if language in ("", "sh"):
                for line in re.sub(r"\\\n\s*", " ", text).splitlines():
                    if line.strip():
                        yield line.strip().removeprefix("$ "), language == "sh" or line.lstrip().startswith("$ ")
        for span in page.spans():
            yield span, False

    def uses(self, command):
        """(program, option) of each option."""
        program, before = None, ""
        for word in words_of(command):
            word = word.strip("[]|")
            if " " in word and self.programs.named(word.split()[0]):
                yield from self.uses(word)
            elif before not in self.TAKES_A_PROGRAM and self.programs.named(word):
                program = self.programs.named(word)
            elif program and re.match(r"--?[a-zA-Z]", word):
                yield program, word.split("=")[0]
            elif set(word) <= set(";&|()") or (not before.startswith("--") or before == "--") and shutil.which(word):
                program = None
            before = word

    def test_options_are_known(self):
        checked = 0
        for page in PAGES.values():
            for command, must_be in self.commands(page):
                try:
                    uses = list(self.uses(command))
                except ValueError:  # quotes of a longer text
                    self.assertFalse(must_be, f"{page.name}: {command}")
                    continue
                for program, option in uses:
                    if program.startswith("web/") and not WITH_WEB:
                        continue
                    checked += 1
                    with self.subTest(page=page.name, command=command):
                        self.assertIn(option, self.programs.options(program), f"{program} --help does not have it")
        self.assertGreater(checked, 100, "the options were not found")

    def test_build_options_are_known(self):
        """Meson's own have a prefix, or are few."""
        own = set(re.findall(r"^option\('(\w+)'", (ROOT / "meson_options.txt").read_text(), re.M))
        builtin = r"(b|c|cpp)_\w+|buildtype|optimization|debug|werror|unity|prefix|\w*dir|strip"
        used = {(page.name, name) for page in PAGES.values() for command, _ in self.commands(page)
                for name in re.findall(r"(?:^|\s)-D(\w+)=", command)}
        self.assertGreater(len(used), 5, "the build options were not found")
        for page, name in sorted(used):
            with self.subTest(page=page, option=name):
                self.assertTrue(name in own or re.fullmatch(builtin, name), "meson_options.txt does not have it")

    def test_programs_are_there(self):
        checked = 0
        for page in PAGES.values():
            for command, must_be in self.commands(page):
                if must_be:
                    checked += 1
                    word = next(word for word in words_of(command) if not re.match(r"\w+=", word))
                    with self.subTest(page=page.name, command=command):
                        self.assertTrue(self.is_there(word), f"there is no {word}")
        self.assertGreater(checked, 50, "the commands were not found")

    def is_there(self, word):
        there = self.programs.named(word) or (ROOT / word).is_file() or (ROOT / "docs/examples" / word).exists()
        return there or subprocess.run(["bash", "-c", 'type -t "$1"', "bash", word], stdout=subprocess.DEVNULL).returncode == 0

    def test_of_the_shell_are_registered(self):
        called = r"(?:zantsh (?:--\w+ \w+ )?|MSHELL = )'?(m_[a-z_]+)"
        named = {word for page in PAGES.values() for word in re.findall(called, page.text)}
        named |= set(re.findall(r"\bm_[a-z_]{3,}\b", PAGES[ROOT / "docs/reference/shell.md"].text))
        self.assertGreater(len(named), 30, "the commands were not found")
        sources = [path.read_text() for path in SOURCES if path.suffix == ".cpp" and "tests" not in path.parts]
        registered = {word for text in sources for word in re.findall(r'"(m_[a-z_]+)', text)}
        self.assertGreater(len(registered), 30, "the commands were not found")
        self.assertEqual(named - registered, set(), "no such command of the debug shell")


class Examples(unittest.TestCase):
    """Code that a page shows stands in docs/examples, whose programs the build makes; or it is of a page whose Lua a
    test runs, as a recipe of the tests says."""

    SUFFIXES = {"cpp": (".cpp", ".h"), "lua": (".lua",), "python": (".py",)}

    def test_are_shown_as_they_are(self):
        files = [path for path in (ROOT / "docs/examples").rglob("*") if path.is_file()]
        recipes = "".join(path.read_text() for path in (ROOT / "tests").rglob("meson.build"))
        shown = 0
        for page in PAGES.values():
            for language, text in page.blocks:
                if language in self.SUFFIXES and not (language == "lua" and page.name in recipes):
                    shown += 1
                    with self.subTest(page=page.name):
                        self.assertTrue(any(text in path.read_text() for path in files if path.suffix in self.SUFFIXES[language]),
                                        f"no example holds this, as it stands here:\n{text}")
        self.assertGreater(shown, 10, "the examples were not found")

    def test_are_built(self):
        recipe = (ROOT / "docs/examples/meson.build").read_text()
        for path in (ROOT / "docs/examples").rglob("*.cpp"):
            with self.subTest(example=path.name):
                self.assertIn(f"'{path.stem}", recipe, "docs/examples/meson.build does not build it")


if __name__ == "__main__":
    unittest.main(verbosity=2)
