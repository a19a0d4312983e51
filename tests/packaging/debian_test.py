#!/usr/bin/env python3
"""The Debian packages name what is built: debian_test.py REPOSITORY LIBGST_SOURCE LIBSHB

Their build notices the same, ten minutes later: symbols that are not listed, and versions that have gone apart.
"""

import re
import subprocess
import sys
import unittest
from pathlib import Path

ROOT = Path(sys.argv[1])
DEBIAN = ROOT / "packaging" / "debian"
LIBRARIES = {"libgst-source1": sys.argv[2], "libshb2": sys.argv[3]}


def output(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout


def exported(library):
    """Each symbol as NAME@VERSION; a version is a symbol of its own name."""
    said = output("nm", "--dynamic", "--defined-only", "--with-symbol-versions", library)
    names = [line.split()[-1].replace("@@", "@") for line in said.splitlines()]
    return {name if "@" in name else f"{name}@{name}" for name in names}


class Packages(unittest.TestCase):
    def test_symbols_are_those_of_the_libraries(self):
        for package, library in LIBRARIES.items():
            first, *lines = (DEBIAN / f"{package}.symbols").read_text().splitlines()
            soname = re.search(r"SONAME +(.+)", output("objdump", "--private-headers", library)).group(1)
            self.assertEqual(first, f"{soname} {package} #MINVER#")
            listed = {line.split()[0] for line in lines if line.startswith(" ")}
            self.assertEqual(exported(library), listed, package)

    def test_version_is_one(self):
        version = re.search(r"^  version: '(.*)',$", (ROOT / "meson.build").read_text(), re.MULTILINE).group(1)
        self.assertEqual((DEBIAN / "changelog").read_text().split(")")[0], f"gst-source ({version}")
        changes = (ROOT / "CHANGELOG.md").read_text()
        self.assertEqual(re.search(r"^## ([0-9.]+)", changes, re.MULTILINE).group(1), version)

    def test_each_package_is_installed_somewhere(self):
        names = re.findall(r"^Package: (.*)$", (DEBIAN / "control").read_text(), re.MULTILINE)
        self.assertEqual(sorted(names), sorted(path.stem for path in DEBIAN.glob("*.install")))


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
