#!/usr/bin/env python3
"""The benchmark of the recorder runs through and leaves whole results: recorders_test.py BUILD

Figures are not judged. The benchmark itself looks for frames that are missing, and fails.
"""

import json
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import recorders

BUILD = Path(sys.argv.pop())


class Quick(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.out = Path(cls.folder.name)
        subprocess.run([sys.executable, recorders.__file__, "--quick", "--build", BUILD, "--out", cls.out], check=True, stdout=subprocess.DEVNULL)
        cls.results = json.loads((cls.out / "recorders.json").read_text())

    def test_both_sides_worked_in_each_container(self):
        containers = self.results["cpu"]["containers"]
        self.assertEqual(list(containers), recorders.CONTAINERS)
        for figures in containers.values():
            self.assertGreater(min(figures["own"]), 0)
            self.assertGreater(min(figures["ffmpeg"]), 0)
            self.assertGreater(figures["ratio"]["median"], 0)

    def test_many_recorders_lose_nothing(self):
        many = self.results["many"]
        self.assertEqual(many["lost"], [0] * recorders.RECORDERS)
        self.assertEqual(many["holes"], [0] * recorders.RECORDERS)
        self.assertGreater(min(many["frames"]), many["seconds"] * recorders.FPS)

    def test_the_report_has_every_aim(self):
        report = (self.out / "recorders.md").read_text()
        for container in recorders.CONTAINERS:
            self.assertIn(f"| CPU of a recorder into {container} at most that of ffmpeg -c copy | ", report)
        self.assertIn(f"| {recorders.RECORDERS} recorders at 4 Mb/s on ", report)

    def test_nothing_is_left_in_shared_memory(self):
        left = [path.name for path in Path("/dev/shm").glob("gst-source-bench-*")]
        digits = {name.removeprefix("gst-source-bench-").split("+")[0] for name in left}
        self.assertEqual([name for name in digits if name.isdigit() and not Path(f"/proc/{name}").exists()], [])


if __name__ == "__main__":
    unittest.main()
