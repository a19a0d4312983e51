#!/usr/bin/env python3
"""scripts/cases.py counts what Meson reports, and misses nothing that failed."""

import importlib.util
import unittest
from pathlib import Path

spec = importlib.util.spec_from_file_location("cases", Path(__file__).parents[2] / "scripts" / "cases.py")
cases = importlib.util.module_from_spec(spec)
spec.loader.exec_module(cases)


def report(*suites):
    return "<testsuites>" + "".join(f'<testsuite name="{name}">{body}</testsuite>' for name, body in suites) + "</testsuites>"


class Report(unittest.TestCase):
    def test_counts_what_passed(self):
        text = report(("p.one.A", '<testcase name="x" classname="A"/><testcase name="y" classname="A"/>'), ("p.two.B", '<testcase name="z"/>'))
        self.assertEqual(cases.read_report(text), (3, [], []))

    def test_names_failures_and_errors_with_what_they_say(self):
        text = report(("p.one.A", '<testcase name="x" classname="A"><failure message="1 is not 2">at line 3</failure></testcase>'
                                  '<testcase name="y" classname="A"><error message="died"/></testcase>'))
        self.assertEqual(cases.read_report(text), (0, [("A.x", "1 is not 2\nat line 3"), ("A.y", "died")], []))

    def test_what_was_not_run_is_neither(self):
        text = report(("p.one.A", '<testcase name="x" classname="A"><skipped message="first&#10;needs root"/></testcase>'
                                  '<testcase name="y" classname="A"><skipped/></testcase>'))
        self.assertEqual(cases.read_report(text), (0, [], [("A.x", "needs root"), ("A.y", "no reason given")]))

    def test_reads_what_a_program_left_when_it_died(self):
        text = report(("p.one.A", '<testcase name="x"><failure>\x1b[31mred\x00</failure></testcase>'))
        self.assertEqual(cases.read_report(text), (0, [("p.one.A.x", "[31mred")], []))

    def test_a_program_without_a_case_has_failed(self):
        text = report(("p.p:s / one.A", '<testcase name="x" classname="A"/>'), ("p.p:s / two.B", ""))
        self.assertEqual(cases.read_report(text, ["one", "two", "on"]), (1, [("two", "no case ran"), ("on", "no case ran")], []))


class Names(unittest.TestCase):
    def test_full_name_is_that_of_the_list(self):
        self.assertEqual(cases.full_name({"name": "steps", "suite": ["p:unit", "p:short"]}), "p:unit+short / steps")
        self.assertEqual(cases.full_name({"name": "steps", "suite": ["p"]}), "steps")

    def test_program_is_the_end_of_the_full_name(self):
        self.assertEqual(cases.program_of("p:unit+short / steps"), "steps")
        self.assertEqual(cases.program_of("steps"), "steps")


class Files(unittest.TestCase):
    def test_only_what_the_selected_tests_depend_on(self):
        tests = [{"name": "a", "suite": ["p:s"], "depends": ["1", "2"]}, {"name": "b", "suite": ["p:s"], "depends": ["3"]}]
        targets = [{"id": "1", "filename": ["/build/t/a"]}, {"id": "2", "filename": ["/build/l.so", "/build/m"]}, {"id": "3", "filename": ["/build/b"]}]
        self.assertEqual(cases.needed_files("/build", tests, targets, {"p:s / a"}), ["l.so", "m", "t/a"])


if __name__ == "__main__":
    unittest.main()
