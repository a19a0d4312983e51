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


def exported(library):
    said = subprocess.run(["nm", "--dynamic", "--defined-only", "--with-symbol-versions", library], stdout=subprocess.PIPE, text=True,
                          check=True).stdout  # fmt: skip
    return {line.split()[-1].replace("@@", "@") for line in said.splitlines() if line}


class Packages(unittest.TestCase):
    def test_symbols_are_those_of_the_libraries(self):
        for package, library in LIBRARIES.items():
            first, *lines = (DEBIAN / f"{package}.symbols").read_text().splitlines()
            headers = subprocess.run(["objdump", "--private-headers", library], stdout=subprocess.PIPE, text=True, check=True).stdout
            self.assertEqual(first, f"{re.search(r'SONAME +(.+)', headers).group(1)} {package} #MINVER#")
            listed = {line.split()[0] for line in lines if line.startswith(" ")}
            # A version itself is a symbol of its name.
            self.assertEqual({f"{name.split('@')[0]}@{name.split('@')[-1]}" for name in exported(library)}, listed, package)

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
