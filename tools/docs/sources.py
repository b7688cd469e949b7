"""What a page links to of the tree, beside pages: a public header leads to its place in the API reference, another
source to a page of the site that shows it."""

import os
import pathlib
import posixpath
import xml.etree.ElementTree
from urllib.parse import unquote

from docutils import nodes
from pygments.lexers import get_lexer_for_filename
from pygments.util import ClassNotFound
from sphinx import addnodes

PICTURES = {".png", ".svg"}


def api_pages(tag_file):
    """Of each header and folder that the API reference has: its page."""
    if not tag_file:
        return {}
    pages = {}
    for compound in xml.etree.ElementTree.parse(tag_file).getroot().findall("compound"):
        page = compound.findtext("filename")
        if compound.get("kind") == "file":
            pages[compound.findtext("path") + compound.findtext("name")] = page + ("" if page.endswith(".html") else ".html")
        elif compound.get("kind") == "dir":
            pages[compound.findtext("path").rstrip("/")] = page
    return pages


class SourcePages:
    def __init__(self, root):
        self.root = root
        self.api = api_pages(os.environ.get("API_TAGS"))
        self.shown = {}  # path: the page that shows it

    def connect(self, app):
        app.connect("doctree-read", self.resolve, priority=100)  # before downloads are collected
        app.connect("html-collect-pages", self.pages)

    def resolve(self, app, doctree):
        page = app.env.docname
        links = list(doctree.findall(addnodes.download_reference)) + list(doctree.findall(addnodes.pending_xref))
        for link in links:
            path = posixpath.normpath(posixpath.join(posixpath.dirname(page), unquote(link["reftarget"])))
            target = self.place(path)
            if target:
                uri = posixpath.relpath(target, posixpath.dirname(page) or ".")
                link.replace_self(nodes.reference("", "", *link.children, refuri=uri, internal=True))

    def place(self, path):
        """Where the site has it; None: it is a page or a picture, which Sphinx knows, or nothing."""
        if path in self.api:
            return "api/" + self.api[path]
        if not (self.root / path).is_file() or pathlib.PurePath(path).suffix in PICTURES | {".md"}:
            return None
        self.shown[path] = "source/" + path
        return self.shown[path] + ".html"

    def pages(self, app):
        for path, page in sorted(self.shown.items()):
            text = (self.root / path).read_text()
            try:
                language = get_lexer_for_filename(path).aliases[0]
            except ClassNotFound:
                language = "none"
            body = app.builder.highlighter.highlight_block(text, language)
            yield page, {"title": path, "body": f"<h1>{path}</h1>\n{body}"}, "page.html"
