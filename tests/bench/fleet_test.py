#!/usr/bin/env python3
"""The benchmark of many sources runs through and leaves whole results: fleet_test.py BUILD

Figures are not judged.
"""

import json
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import fleet

BUILD = Path(sys.argv.pop())


def buffers():
    return {path.name for path in Path("/dev/shm").glob("gst-source-bench-*")}


class Quick(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.before = buffers()
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.out = Path(cls.folder.name)
        subprocess.run(
            [
                sys.executable,
                fleet.__file__,
                "--quick",
                "--build",
                BUILD,
                "--out",
                cls.out,
                "--only",
                "sources",
                "--only",
                "lap",
                "--only",
                "memory",
                "--sources",
                "2",
                "--video-bytes",
                str(1 << 20),
            ],
            check=True,
            stdout=subprocess.DEVNULL,
        )
        cls.results = json.loads((cls.out / "fleet.json").read_text())

    def test_every_contestant_was_sent_the_stream_and_took_it(self):
        figures = self.results["sources"]["figures"]["2"]
        self.assertEqual(list(figures), fleet.CASES)
        for case, rounds in figures.items():
            with self.subTest(case):
                self.assertGreater(rounds[0]["sent"], 100)
                self.assertLess(rounds[0]["dropped"], rounds[0]["sent"])
                self.assertGreater(rounds[0]["cpu_ns"], 0)
                self.assertGreater(rounds[0]["threads"], 2)
                self.assertGreater(rounds[0]["pss_kb"], 1000)
        for case in (fleet.TOOL, fleet.HOST):
            self.assertGreater(figures[case][0]["video_frames"], 0)
            self.assertGreater(figures[case][0]["shared_kb"], 2 * 1024)

    def test_a_larger_ring_is_so_much_more_shared_memory(self):
        rings = {int(ring): one["shared_kb"] for ring, one in self.results["memory"]["rings"].items()}
        count = self.results["memory"]["sources"]
        self.assertGreaterEqual(rings[8 << 20] - rings[1 << 20], count * 7 * 1024 - 64)

    def test_the_report_has_every_aim_and_its_plots(self):
        report = (self.out / "fleet.md").read_text()
        for aim in ("library + shbsink at most 1.05 of the bare chain", "gst-source at most ffmpeg -c copy"):
            self.assertIn(f"| 2: CPU of {aim} | ", report)
        for plot in ("fleet-cpu.svg", "fleet-ratio.svg", "fleet-memory.svg"):
            self.assertIn(f"({plot})", report)
            self.assertTrue((self.out / plot).exists())

    def test_nothing_is_left_in_shared_memory(self):
        left = {name.removeprefix("gst-source-bench-").split("+")[0].split("-")[0] for name in buffers() - self.before}
        self.assertEqual([name for name in left if name.isdigit() and not Path(f"/proc/{name}").exists()], [])


if __name__ == "__main__":
    unittest.main()
