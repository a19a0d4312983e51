"""The installed package works, where Debian's Python looks for it."""

import os
import subprocess
import sys
import unittest
from pathlib import Path

from support import BUILD, Case, unique_name

import gst_source

CODE = """
import gst_source, sys
with gst_source.Buffer(sys.argv[1]) as buffer, buffer.open("udp://127.0.0.1:9") as source:
    print(gst_source.__file__, source.status().state, file=sys.stderr)
"""


class Installed(Case):
    def test_is_found_and_works(self):
        folder = self.folder()
        subprocess.run(["meson", "install", "-C", BUILD, "--no-rebuild", "--quiet", "--destdir", folder], check=True)
        [package] = folder.rglob("gst_source/__init__.py")
        place = Path("/") / package.parents[1].relative_to(folder)
        prefix = next(path for path in ("/usr/local", "/usr", "/") if str(place).startswith(path))
        if prefix != "/":
            searched = subprocess.run(
                [sys.executable, "-c", "import site; print(site.getsitepackages())"], stdout=-1, text=True, check=True
            ).stdout
            self.assertIn(str(place), searched)
        [library] = folder.rglob("libgst_source.so.1")
        variables = {"PYTHONPATH": str(package.parents[1]), "LD_LIBRARY_PATH": str(library.parent)}
        command = [sys.executable, "-c", CODE, unique_name()]
        child = self.program(command, env={**os.environ, **variables}, stdout=subprocess.DEVNULL, stderr=-1, cwd=folder)
        _, err = child.communicate(timeout=60)
        self.assertEqual(child.returncode, 0, err)
        self.assertIn(f"{package} ", err)
        [description] = folder.rglob("gst-source.pc")
        self.assertIn(f"Version: {gst_source.__version__}\n", description.read_text())
        self.assertEqual(
            sorted(path.name for path in package.parent.iterdir() if path.suffix == ".pyi" or path.name == "py.typed"),
            ["_shb.pyi", "_source.pyi", "py.typed"],
        )


if __name__ == "__main__":
    unittest.main()
