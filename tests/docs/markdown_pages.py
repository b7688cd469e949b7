"""The tree's Markdown: its pages, their links and what they show."""

import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[2]
TOPS = ("docs", "bench", "web", "tools", "tests", "fuzz", "framework", "platform", "host", "uvaBackends")
SKIPPED = {"node_modules", "__pycache__"}


def pages():
    """All of them, whoever wrote them."""
    below = [path for top in TOPS for path in (ROOT / top).rglob("*.md") if not SKIPPED & set(path.parts)]
    return sorted([*ROOT.glob("*.md"), *below])


class Page:
    def __init__(self, path):
        self.path = path
        self.name = str(path.relative_to(ROOT))
        self.text = path.read_text()
        self.prose, self.blocks = [], []  # lines outside of code; (language, text) of fences and indented code
        self.split()

    def split(self):
        fence, code, before, is_list = None, [], "", False
        for line in self.text.splitlines():
            opened = re.match(r"```(\w*)$", line)
            if fence is not None:
                if opened:
                    self.blocks.append((fence, "\n".join(code) + "\n"))
                    fence, code = None, []
                else:
                    code.append(line)
                continue
            is_list = re.match(r"\s*([-*]|\d+\.) ", line) is not None or (is_list and (not line or line.startswith(" ")))
            indented = line.startswith("    ") and not is_list and (not before.strip() or code)
            if code and not indented and line.strip():
                self.blocks.append(("", "\n".join(code) + "\n"))
                code = []
            if opened:
                fence = opened[1]
            elif indented or (code and not line):
                code.append(line[4:])
            else:
                self.prose.append(line)
            before = line
        if code:
            self.blocks.append(("", "\n".join(code) + "\n"))

    def links(self):
        text = re.sub(r"`[^`]*`", "", "\n".join(self.prose))
        return re.findall(r"\]\(([^)\s]+)\)", text)

    def spans(self):
        return re.findall(r"`([^`]+)`", "\n".join(self.prose))

    def anchors(self):
        """Of the headings, as forges and the site's generator make them."""
        found = []
        for line in self.prose:
            if heading := re.match(r"#+ (.*)", line):
                plain = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", heading[1])
                anchor = re.sub(r"[^\w\- ]", "", plain.lower()).replace(" ", "-")
                found.append(anchor + (f"-{found.count(anchor)}" if anchor in found else ""))
        return set(found)
