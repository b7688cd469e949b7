#!/usr/bin/env python3
"""Makes a program's manual page of what its --help prints.

Usage: make_page.py NAME "WHAT IT DOES" VERSION OUT.1 "OTHER NAMES" COMMAND...

The help's headings become sections, its tables of options and terms lists, its examples stay as they
are laid out. Other programs that it mentions are referred to.
"""

import os
import re
import subprocess
import sys

NAME, PURPOSE, VERSION, OUT, OTHERS = sys.argv[1:6]
COMMAND = sys.argv[6:]
TERM_AND_TEXT = re.compile(r"(\S.*?)(?: {2,}(\S.*))?$")


def roff(text):
    return re.sub(r"^([.'])", r"\\&\1", text.replace("\\", r"\e").replace("-", r"\-"))


def indent(line):
    return len(line) - len(line.lstrip())


def is_heading(lines, index):
    """A line at the margin with an indented one right behind it."""
    line, following = lines[index], lines[index + 1] if index + 1 < len(lines) else ""
    return bool(line) and indent(line) == 0 and indent(following) > 0 and len(line) < 60 and not line.endswith(",")


def blocks(lines):
    """Runs of lines between empty ones."""
    block = []
    for line in [*lines, ""]:
        if line.strip():
            block.append(line)
        elif block:
            yield block
            block = []


def entries(block, margin):
    """(term, text) of a table; the text of a term may stand in deeper lines behind it."""
    found = []
    for line in block:
        if indent(line) <= margin:
            term, text = TERM_AND_TEXT.match(line.strip()).groups()
            found.append([term, [text] if text else []])
        else:
            found[-1][1].append(line.strip())
    return found


def render(block, as_is):
    margin = min(map(indent, block))
    if margin == 0:
        return [".PP", *map(roff, block)]
    rows = entries(block, margin) if indent(block[0]) == margin else []
    is_table = rows and all(text for _, text in rows) and not any("  " in line for _, text in rows for line in text)
    if is_table or (rows and rows[0][0].startswith("-")):
        return [line for term, text in rows for line in (".TP", ".B " + roff(term), *map(roff, text))]
    if as_is or not rows or any(text for _, text in rows):
        return [".PP", ".nf", *(roff(line[min(margin, 2):]) or r"\&" for line in block), ".fi"]
    return [".PP", *(roff(line.strip()) for line in block)]


def page(text):
    lines = [line.rstrip() for line in text.splitlines()]
    usage = [line for line in lines if re.match("[Uu]sage: ", line)]
    start = lines.index(usage[0])
    end = start + 1
    while end < len(lines) and indent(lines[end]) > 7:  # argparse goes on below
        end += 1
    synopsis = [lines[start].split(": ", 1)[1], *(line.strip() for line in lines[start + 1:end])]
    sections = [("DESCRIPTION", [])]
    rest = [*lines[:start], "", *lines[end:]]
    for index, line in enumerate(rest):
        if line and is_heading(rest, index):
            sections.append((line.rstrip(":").upper(), []))
        else:
            sections[-1][1].append(line)
    out = [f'.TH {NAME.upper()} 1 "" "uva\\-gst\\-backend {VERSION}" "User Commands"',
           ".SH NAME", rf"{roff(NAME)} \- {roff(PURPOSE)}", ".SH SYNOPSIS", *map(roff, synopsis)]
    for heading, body in sections:
        parts = [line for block in blocks(body) for line in render(block, heading.startswith(("EXAMPLE", "DESCRIPTION")))]
        if parts:
            out += [".SH " + roff(heading), *parts]
    others = [name for name in OTHERS.split() if name != NAME and re.search(rf"(?<![\w-]){name}(?![\w-])", text)]
    if others:
        out += [".SH SEE ALSO", ",\n".join(rf"\fB{roff(name)}\fR(1)" for name in sorted(others))]
    return "\n".join(out) + "\n"


help_text = subprocess.run([*COMMAND, "--help"], check=True, capture_output=True, text=True,
                           env={**os.environ, "COLUMNS": "100", "LC_ALL": "C.UTF-8"}).stdout
with open(OUT, "w", encoding="utf-8") as file:
    file.write(page(help_text))
