#!/usr/bin/env python3
"""What the how-to pages show of the examples stands in the examples.

Usage: excerpts_test.py PAGES_FOLDER EXAMPLES_FOLDER
"""

import pathlib
import re
import sys

pages, examples = map(pathlib.Path, sys.argv[1:3])
sources = [path.read_text() for path in examples.iterdir() if path.suffix in (".cpp", ".h")]
shown = 0
strange = []
for page in sorted(pages.glob("*.md")):
    for excerpt in re.findall(r"^```cpp\n(.*?)^```", page.read_text(), re.MULTILINE | re.DOTALL):
        shown += 1
        if not any(excerpt in source for source in sources):
            strange.append(f"{page.name} shows what no example holds:\n{excerpt}")
print("\n".join(strange) or f"{shown} excerpts")
sys.exit(bool(strange) or shown == 0)
