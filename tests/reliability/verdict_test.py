#!/usr/bin/env python3
"""The checks of the cycles, of the dead networks and of the soak of the service can fail: verdict_test.py BUILD SANITIZERS

A host that loses something with every close is found out, by the right measure, and one that loses nothing is not; a source that nobody tells of its dead
network is found out too.
"""

import argparse
import subprocess
import sys
import tempfile
import time
import unittest
from collections import Counter
from pathlib import Path

import cycles
import dead_networks
import fleet_soak
import verdict
from rig import Sample

# A sanitizer brings an allocator of its own, which does not tell what is in use, and finds such losses itself.
HEAP = {"heap"} if sys.argv.pop() == "none" else set()
BUILD = Path(sys.argv.pop())
# What a loss shows in. A pipeline has descriptors of its own.
LOSSES = {"": set(), "memory": HEAP, "descriptors": {"descriptors"}, "threads": {"threads"}, "pipeline": {"descriptors", "objects"} | HEAP}


class Losses(unittest.TestCase):
    def test_each_loss_shows_where_it_must(self):
        commands = {loss: [sys.executable, cycles.__file__, "--build", BUILD, "--only", "udp", "--mode", "no peer", "--opens", "24", "--leak", loss]
                    for loss in LOSSES}
        running = {loss: subprocess.Popen(command, stdout=subprocess.PIPE, text=True) for loss, command in commands.items()}
        try:
            for loss, process in running.items():
                said = process.communicate(timeout=240)[0]
                found = {line.removeprefix("udp, no peer: ").split(":")[0] for line in said.splitlines() if line.startswith("udp, no peer: ")}
                with self.subTest(loss=loss):
                    self.assertEqual(found - {"log of the host"}, LOSSES[loss], said)
                    self.assertEqual(process.returncode, 1 if LOSSES[loss] else 0)
        finally:
            for process in running.values():
                process.kill()
                process.wait()


class DeadNetworks(unittest.TestCase):
    @unittest.skipUnless(dead_networks.allowed(), "needs network namespaces")
    def test_a_dead_network_that_is_not_noticed_is_a_failure(self):
        # A stall watch that comes too late.
        command = [sys.executable, dead_networks.__file__, "--build", BUILD, "--only", "rtmp", "--condition", "black hole", "--least", "3",
                   "--patience", "6", "--stall-watch", "90000"]
        run = subprocess.run(command, stdout=subprocess.PIPE, text=True, timeout=240)
        self.assertIn("rtmp, black hole, stall watch: noticed > 6 s, and not within 102 s\n", run.stdout)
        self.assertIn("1 of 2 cases held", run.stdout)
        self.assertEqual(run.returncode, 1)


class Verdict(unittest.TestCase):
    @staticmethod
    def series(cycles_done, **changes):
        return [Sample(**{"memory_kib": 9000, "heap_kib": 3000, "descriptors": 8, "threads": 6, "objects": 0,
                          **{what: change(i) for what, change in changes.items()}}) for i in range(cycles_done)]

    def test_what_stays_is_flat(self):
        self.assertEqual(verdict.growing(self.series(50)), [])
        self.assertEqual(verdict.growing(self.series(1000, heap_kib=lambda i: 3000 + i % 7 * 40)), [])

    def test_what_is_kept_from_the_first_cycles_on_is_flat(self):
        self.assertEqual(verdict.growing(self.series(50, threads=lambda i: 4 if i < 3 else 6)), [])

    def test_one_descriptor_in_a_hundred_cycles_is_growth(self):
        self.assertEqual(len(verdict.growing(self.series(1000, descriptors=lambda i: 8 + i // 100))), 1)

    def test_heap_that_grows_by_less_than_a_pipeline_is_growth(self):
        self.assertEqual(len(verdict.growing(self.series(1000, heap_kib=lambda i: 3000 + 10 * i))), 1)
        self.assertEqual(len(verdict.growing(self.series(50, heap_kib=lambda i: 3000 + 40 * i))), 1)

    def test_heap_that_comes_to_rest_is_flat(self):
        self.assertEqual(verdict.growing(self.series(1000, heap_kib=lambda i: 3000 + min(i, 400) * 10)), [])


class FleetSoak(unittest.TestCase):
    """An hour of samples as they would be taken, with 1,000 new pipelines in the second half."""

    def failures(self, pictures=1, **changes):
        with tempfile.TemporaryDirectory() as folder:
            soak = fleet_soak.Soak(argparse.Namespace(minutes=60, seed=1, build=Path(folder)), Path(folder))
        soak.start, soak.pictures = time.monotonic(), Counter({200: pictures})
        samples = range(0, 3600, fleet_soak.SAMPLE_S)
        # What each is, and by how much it wavers.
        flat = {"private_kib": (160_000, 3000), "threads": (443, 2), "descriptors": (915, 5), "shared_files": (200, 0), "cpu": (0.4, 0.05)}
        soak.samples = [{"at": at, "pipelines": at * 2000 // 3600,
                         **{what: value + i % 7 / 7 * wavering + changes.get(what, 0) * at / 3600 for what, (value, wavering) in flat.items()}}
                        for i, at in enumerate(samples)]
        soak.judge()
        return [failure.split(": ")[1].split(" ")[0] for failure in soak.failures]

    def test_what_wavers_is_flat(self):
        self.assertEqual(self.failures(), [])

    def test_growth_is_found(self):
        # Each over an hour; a pipeline in two is lost, and 60 threads, ...
        for what, growth in {"private_kib": 160_000, "threads": 60, "descriptors": 80, "shared_files": 4, "cpu": 0.4}.items():
            with self.subTest(what):
                self.assertEqual(self.failures(**{what: growth}), [what])

    def test_no_picture_is_a_failure(self):
        self.assertEqual(self.failures(pictures=0), ["no"])


if __name__ == "__main__":
    unittest.main()
