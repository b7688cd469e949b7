"""The site: Sphinx's settings. Run by tools/docs/docs, which names the files of the API reference in the
environment."""

import pathlib
import posixpath
import re
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parent))
from sources import SourcePages  # noqa: E402

project = "uva-gst-backend"
html_title = project
extensions = ["myst_parser"]
root_doc = "docs/index"
include_patterns = ["*.md", "docs/**.md", "bench/*.md", "web/native/*.md"]
exclude_patterns = ["build*", ".*", "web/node_modules"]

html_theme = "furo"
pygments_style = "tango"
pygments_dark_style = pygments_style  # Debian's furo is light alone, also where the user prefers dark
html_static_path = ["site.css"]
html_css_files = ["site.css"]
html_copy_source = False
html_show_sphinx = False
highlight_language = "none"  # indented blocks are outputs as often as code
myst_heading_anchors = 4


def navigation(text):
    """The index's links are the navigation: a table of contents for each section, in their order."""
    trees = []
    for part in re.split(r"^(?=#+ )", text, flags=re.MULTILINE)[1:]:
        heading, body = part.split("\n", 1)
        links = re.findall(r"\[([^]]+)\]\(([^)]+)\.md\)", body)
        entries = "\n".join(f"{name} <{posixpath.normpath('/docs/' + page)}>" for name, page in links)
        caption = f":caption: {heading[3:]}\n" if heading.startswith("## ") else ""
        trees.append(f"```{{toctree}}\n:hidden:\n{caption}\n{entries}\n```\n")
    return text + "\n" + "\n".join(trees)


def setup(app):
    app.connect("source-read", lambda app, name, text: text.__setitem__(0, navigation(text[0])) if name == root_doc else None)
    SourcePages(pathlib.Path(app.srcdir)).connect(app)
