#!/usr/bin/env python3
"""Copies the guides for mkdocs: site_pages.py REPOSITORY INTO

README.md becomes index.md. Files outside docs/ that a page links to, such as headers and examples, are copied beside the pages,
below repository/, and the links go there.
"""

import os
import re
import shutil
import sys
from pathlib import Path

ROOT, INTO = Path(sys.argv[1]).resolve(), Path(sys.argv[2])
PAGES = {"README.md": "index.md"}
LINK = re.compile(r"(\]\(<?)([^)>\s#]+)")


def place(file):
    """Where a file of the repository stands on the site."""
    name = str(file.relative_to(ROOT))
    if name in PAGES:
        return INTO / PAGES[name]
    return INTO / file.relative_to(ROOT / "docs") if file.is_relative_to(ROOT / "docs") else INTO / "repository" / name


def copy(file, done):
    if file in done:
        return
    done.add(file)
    there = place(file)
    there.parent.mkdir(parents=True, exist_ok=True)
    if file.suffix != ".md":
        shutil.copyfile(file, there)
        return

    def moved(link):
        if re.match(r"[a-z]+:", link.group(2)):
            return link.group()
        target = (file.parent / link.group(2)).resolve()
        if target.is_dir():
            target = target / "README.md" if (target / "README.md").exists() else target
        if not target.is_file():
            return link.group()
        copy(target, done)
        return link.group(1) + os.path.relpath(place(target), there.parent)

    there.write_text(LINK.sub(moved, file.read_text()))


shutil.rmtree(INTO, ignore_errors=True)
copied = set()
for page in [ROOT / "README.md", *sorted((ROOT / "docs").rglob("*")), ROOT / "CONTRIBUTING.md", ROOT / "CHANGELOG.md"]:
    if page.is_file():
        copy(page, copied)
