#!/usr/bin/env python3
"""The corpora's archives: corpus_test.py [ARCHIVE...]"""

import sys
import tempfile
import unittest
from pathlib import Path

import corpus

ARCHIVES = sys.argv[1:]
del sys.argv[1:]


class Corpus(unittest.TestCase):
    def setUp(self):
        place = tempfile.TemporaryDirectory()
        self.addCleanup(place.cleanup)
        self.place = Path(place.name)
        self.archive = self.place / "some.tar.xz"

    def file(self, name, contents):
        (self.place / name).write_bytes(contents)
        return self.place / name

    def unpacked(self, archive):
        corpus.unpack(archive, self.place / "unpacked")
        return {file.name: file.read_bytes() for file in (self.place / "unpacked").iterdir()}

    def test_a_finding_is_added_by_the_name_of_its_contents(self):
        corpus.add(self.archive, self.file("seed-0", b"seed"))
        corpus.add(self.archive, self.file("bus-crash-" + "0" * 40, b"finding"), self.file("named", b"\0\n"))
        sha1 = "e29e8d943c26ff1664409f6ea3acc5d9ee297aca"
        self.assertEqual({"seed-0": b"seed", sha1: b"finding", "named": b"\0\n"}, self.unpacked(self.archive))

    def test_the_archive_depends_on_the_inputs_alone(self):
        corpus.add(self.archive, self.file("a", b"1"), self.file("b", b"2"))
        other = self.place / "other.tar.xz"
        corpus.add(other, self.file("b", b"2"))
        corpus.add(other, self.file("a", b"1"), self.file("b", b"2"))
        self.assertEqual(self.archive.read_bytes(), other.read_bytes())

    def test_an_input_is_never_replaced(self):
        corpus.add(self.archive, self.file("seed-0", b"seed"))
        with self.assertRaises(SystemExit):
            corpus.add(self.archive, self.file("seed-0", b"another"))
        self.assertEqual({"seed-0": b"seed"}, self.unpacked(self.archive))

    def test_each_archive_of_ours_holds_inputs(self):
        self.assertTrue(ARCHIVES)
        for archive in ARCHIVES:
            self.assertGreater(len(self.unpacked(archive)), 50, archive)


if __name__ == "__main__":
    unittest.main()
