#!/usr/bin/env python3
"""What Meson knows of a build directory's tests, for scripts/test.

    cases.py targets BUILD [MESON TEST OPTION...]    the files that the selected programs need, a line each
    cases.py count BUILD                             "PASSED FAILED" of the last run; names what failed or was not run on standard error
    cases.py times BUILD                             the last run's programs with their seconds, longest first
"""

import json
import re
import subprocess
import sys
import xml.etree.ElementTree as xml
from pathlib import Path

# A program that died may leave anything in the report, colours included, which XML does not allow.
NOT_XML = re.compile("[\x00-\x08\x0b\x0c\x0e-\x1f]")


def full_name(test):
    """The name as `meson test --list` prints it."""
    project = test["suite"][0].split(":")[0]
    suites = "+".join(suite.split(":", 1)[1] for suite in test["suite"] if ":" in suite)
    return f"{project}:{suites} / {test['name']}" if suites else test["name"]


def needed_files(build, tests, targets, names):
    """The built files, relative to the directory `build`, that the tests called `names` depend on."""
    files = {target["id"]: target["filename"] for target in targets}
    needed = {file for test in tests if full_name(test) in names for target in test["depends"] for file in files[target]}
    return sorted(str(Path(file).relative_to(build)) for file in needed)


def targets(build, options):
    listed = subprocess.run(["meson", "test", "-C", build, "--list", "--no-rebuild", *options], stdout=subprocess.PIPE, text=True, check=True)
    names = set(listed.stdout.splitlines())
    facts = [json.loads((Path(build) / "meson-info" / f"intro-{what}.json").read_text()) for what in ("tests", "targets")]
    for file in needed_files(Path(build).resolve(), *facts, names):
        print(file)


def read_report(text, programs=()):
    """(passed, failed as [(name, what it said)], not run as [(name, reason)]) of a JUnit report. Each of `programs` must have a case in it."""
    passed, failed, skipped = 0, [], []
    suites = list(xml.fromstring(NOT_XML.sub("", text)).iter("testsuite"))
    for program in programs:
        # A filter that selects nothing passes as far as GoogleTest is concerned.
        if not any(f" / {program}." in suite.get("name") and suite.find("testcase") is not None for suite in suites):
            failed.append((program, "no case ran"))
    for suite in suites:
        for case in suite.findall("testcase"):
            name = f"{case.get('classname') or suite.get('name')}.{case.get('name')}"
            failure = next((found for found in map(case.find, ("failure", "error")) if found is not None), None)
            skip = case.find("skipped")
            if failure is not None:
                failed.append((name, "\n".join(filter(None, (failure.get("message"), failure.text)))))
            elif skip is not None:
                skipped.append((name, ((skip.get("message") or "").splitlines() or ["no reason given"])[-1]))
            else:
                passed += 1
    return passed, failed, skipped


def count(build):
    reports = list((Path(build) / "meson-logs").glob("testlog*.junit.xml"))
    if len(reports) != 1:
        sys.exit(f"cases: {len(reports)} reports in {build}/meson-logs instead of one")
    tests = json.loads((Path(build) / "meson-info" / "intro-tests.json").read_text())
    google = {full_name(test) for test in tests if test["protocol"] == "gtest"}
    programs = [program_of(run["name"]) for run in last_runs(build) if run["name"] in google and run["result"] == "OK"]
    passed, failed, skipped = read_report(reports[0].read_text(encoding="utf-8", errors="replace"), programs)
    for name, said in failed:
        print(f"test: FAILED: {name}\n{said[:2000]}", file=sys.stderr)
    for name, reason in skipped:
        print(f"test: not run: {name}: {reason}", file=sys.stderr)
    print(passed, len(failed))


def last_runs(build):
    """Meson's records of the last run: its log is the newest, since a setup has one of its own."""
    log = max((Path(build) / "meson-logs").glob("testlog*.json"), key=lambda path: path.stat().st_mtime)
    return [json.loads(line) for line in log.read_text(encoding="utf-8", errors="replace").splitlines()]


def program_of(name):
    """"gst-source:unit+short / steps" is the program "steps"."""
    return name.split(" / ")[-1]


def times(build):
    for run in sorted(last_runs(build), key=lambda run: -run["duration"]):
        print(f"{run['duration']:8.1f} s  {program_of(run['name'])}")


if __name__ == "__main__":
    command, directory, *rest = sys.argv[1:]
    if command == "targets":
        targets(directory, rest)
    elif command == "count":
        count(directory)
    elif command == "times":
        times(directory)
    else:
        sys.exit(f"cases: no command {command}")
