#!/usr/bin/env python3
"""The benchmark of the shared buffer runs through and leaves whole results: buffer_test.py BUILD

Figures are not judged. The programs of the benchmark themselves compare every message and frame with what was sent, and fail.
"""

import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as xml
from pathlib import Path

import buffer

BUILD = Path(sys.argv.pop())


class Quick(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.out = Path(cls.folder.name)
        subprocess.run([sys.executable, buffer.__file__, "--quick", "--build", BUILD, "--out", cls.out], check=True, stdout=subprocess.DEVNULL)
        cls.results = json.loads((cls.out / "results.json").read_text())

    def test_each_size_is_copied_both_ways_beside_memcpy(self):
        for way in buffer.WAYS:
            self.assertEqual(list(self.results["copy"][way]), [str(size) for size in buffer.SIZES])
            for figures in self.results["copy"][way].values():
                self.assertEqual(figures["rounds"], buffer.EFFORT["copy rounds"][True])
                self.assertGreater(figures["own_ns"], 0)
                self.assertGreater(figures["memcpy_ns"], 0)
                self.assertLessEqual(figures["ratio"]["p10"], figures["ratio"]["p90"])

    def test_every_contestant_that_is_installed_takes_part(self):
        left_out = set()
        if not (BUILD / "tests/bench/wake-iceoryx").exists() or shutil.which("iox-roudi") is None:
            left_out = {"iceoryx", "iceoryx, made in place"}
        if os.geteuid() != 0:
            left_out.add("shb, other user")
        inspected = subprocess.run(["gst-inspect-1.0", "unixfdsink"], capture_output=True, text=True, check=False)
        if "wait-for-connection" not in inspected.stdout:
            left_out.add("unixfdsink/unixfdsrc")
        self.assertEqual(set(self.results["wake"]["left_out"]), left_out)
        self.assertEqual(set(self.results["wake"]["us"]), {name for name, _, _ in buffer.WAKE} - left_out)
        self.assertTrue(all(self.results["wake"]["left_out"].values()), "without a reason")

    def test_latencies_of_each_size_are_told_in_order(self):
        for figures in self.results["wake"]["us"].values():
            self.assertEqual(list(figures), [str(size) for size in buffer.SIZES])
            for parts in figures.values():
                self.assertGreater(parts["p50"], 0)
                self.assertLessEqual(parts["p50"], parts["p99"])
                self.assertLessEqual(parts["p99"], parts["p99.9"])

    def test_what_readers_get_and_lose_adds_up(self):
        cases = self.results["readers"]["cases"]
        self.assertEqual([(case["rate"], case["readers"]) for case in cases], [(rate, count) for rate in (0, 2000) for count in (1, 4, 16)])
        sleepers = self.results["readers"]["sleepers"]
        self.assertEqual([case["readers"] for case in sleepers], buffer.SLEEPERS)
        for case in sleepers:
            self.assertGreater(case["woken_per_frame"], 0)
            self.assertGreater(case["slept_per_frame"], 0)
            self.assertGreater(case["calls_per_frame"], 0)
            # All of them by one call, however many there are.
            self.assertLessEqual(case["calls_per_frame"], 1)
        for case in cases + sleepers:
            for one in case["rounds"]:
                self.assertGreater(one["written"], 0)
                self.assertEqual(one["readers"], case["readers"])
                self.assertEqual(one["delivered"] + one["lost"], one["written"] * case["readers"])

    def test_every_sink_gets_the_whole_stream(self):
        sink = self.results["sink"]
        self.assertEqual(set(sink["ratio"]), {"fakesink", "shbsink", "filesink to /dev/null", "filesink to tmpfs"})
        self.assertEqual(set(sink["frames"].values()), {25 * sink["seconds"]})
        self.assertEqual(sink["bytes"]["shbsink"], sink["bytes"]["filesink to tmpfs"])
        self.assertTrue(all(milliseconds > 0 for milliseconds in sink["cpu_ms"].values()))

    def test_the_report_holds_every_part_and_its_plot(self):
        report = (self.out / "buffer.md").read_text()
        for part in ("copy", "wake", "readers", "sink"):
            self.assertIn(f"(buffer-{part}.svg)", report)
            picture = xml.parse(self.out / f"buffer-{part}.svg").getroot()
            self.assertGreater(len(picture.findall("{http://www.w3.org/2000/svg}rect")), 3)
        for name in self.results["wake"]["us"]:
            self.assertIn(f"\n| {name} | ", report)
        for name, reason in self.results["wake"]["left_out"].items():
            self.assertIn(f"- {name}: left out, {reason}", report)

    def test_nothing_is_left_in_shared_memory(self):
        self.assertEqual([str(left) for left in Path("/dev/shm").glob("gst-source-bench-*") if not self.alive(left)], [])

    @staticmethod
    def alive(left):
        """Whether it belongs to a run beside this one."""
        digits = left.name.removeprefix("gst-source-bench-").split("+")[0]
        return not digits.isdigit() or Path(f"/proc/{digits}").exists()


if __name__ == "__main__":
    unittest.main()
