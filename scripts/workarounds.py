#!/usr/bin/env python3
"""The table of docs/workarounds.md, from the first five lines of the headers in src/workarounds/.

    scripts/workarounds.py          fails when the guide says something else, or a header names a test that does not exist
    scripts/workarounds.py --write  writes the table into the guide
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
GUIDE = ROOT / "docs" / "workarounds.md"
FIELDS = ("Symptom", "Seen", "Done", "Cost", "Test")
HEAD = "| Workaround | " + " | ".join(FIELDS) + " |"


def header_fields(header):
    """The five fields of a workaround's header; None for a header of something that workarounds share."""
    lines = header.read_text().splitlines()[:len(FIELDS)]
    if not lines or not lines[0].startswith("// Symptom: "):
        return None
    for line, field in zip(lines, FIELDS):
        if not line.startswith(f"// {field}: "):
            sys.exit(f"{header.relative_to(ROOT)}: expected '// {field}: ...', found '{line}'")
    return [line.split(": ", 1)[1] for line in lines]


def known_tests():
    """Suite.Case of every GoogleTest case, Class.test_case of every Python one, as the sources have them."""
    cases = set()
    for source in (ROOT / "tests").rglob("*.cpp"):
        for suite, case in re.findall(r"^TEST(?:_[FP])?\(\s*(\w+),\s*(\w+)\)", source.read_text(), re.MULTILINE):
            cases.add(f"{suite}.{case}")
    for source in (ROOT / "tests").rglob("*_test.py"):
        text = source.read_text()
        for suite, body in re.findall(r"^class (\w+)\(.*\):\n((?:[ \t]+.*\n|\n)*)", text, re.MULTILINE):
            cases.update(f"{suite}.{case}" for case in re.findall(r"^    def (test_\w+)\(", body, re.MULTILINE))
    return cases


def main():
    rows = [HEAD, "|" + " --- |" * (len(FIELDS) + 1)]
    cases = known_tests()
    for header in sorted((ROOT / "src" / "workarounds").glob("*.h")):
        fields = header_fields(header)
        if fields is None:
            continue
        for case in re.findall(r"\b[A-Z]\w+\.(?:[A-Z]|test_)\w+\b", fields[-1]):
            if case not in cases:
                sys.exit(f"{header.relative_to(ROOT)}: there is no test {case}")
        rows.append(f"| `{header.stem}` | " + " | ".join(field.replace("|", "\\|") for field in fields) + " |")
    text = GUIDE.read_text()
    begin = text.index(HEAD)
    end = text.find("\n\n", begin)
    expected = text[:begin] + "\n".join(rows) + (text[end:] if end >= 0 else "\n")
    if "--write" in sys.argv[1:]:
        GUIDE.write_text(expected)
    elif text != expected:
        sys.exit("docs/workarounds.md differs from the headers: run scripts/workarounds.py --write")


if __name__ == "__main__":
    main()
