#!/usr/bin/env python3
"""Checks the guides: every link leads somewhere, every picture is there, and what is written is easy to read.

    scripts/guides.py            # exit code 1, with one line for each finding

Looked at are README.md, CONTRIBUTING.md, CHANGELOG.md, examples/README.md and everything below docs/. Links to other machines
are not followed.
"""

import re
import statistics
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
COLUMNS = 128
MEDIAN_WORDS = 15  # of the sentences of a guide
LONGEST_WORDS = 32
# Words that only this project would use so, and the field's own.
WORDS = {
    r"mend(s|ed|ing)?\b": "fix",
    r"way round\b": "workaround",
    r"hear(s|d)? .{0,20}\bout\b": "wait until",
    r"for want of\b": "caused by",
    r"tells? (of|whether|which|how|what|when|why|who)\b": "report, say, show",
    r"told apart\b": "distinguished",
}


def guides():
    names = ["README.md", "CONTRIBUTING.md", "CHANGELOG.md", "examples/README.md"]
    return [ROOT / name for name in names if (ROOT / name).exists()] + sorted((ROOT / "docs").rglob("*.md"))


def is_report(path):
    """What was measured, for those who want to know how."""
    return "reports" in path.parts


def is_written_by_a_program(path):
    return is_report(path) and path.parent.name != "reports"


def without_code(text):
    text = re.sub(r"^( *)```.*?^\1```$", lambda found: "\n" * found.group().count("\n"), text, flags=re.S | re.M)
    # A paragraph that is indented by four after an empty line is code as well, unless it goes on with a list.
    lines = text.split("\n")
    in_list = code = False
    for i, line in enumerate(lines):
        if re.match(r"\s*([-*]|\d+\.)\s", line):
            in_list, code = True, False
        elif line.strip() and not line.startswith(" "):
            in_list = code = False
        if line.startswith("    ") and not in_list and (code or i == 0 or not lines[i - 1].strip()):
            code = True
            lines[i] = ""
    return "\n".join(lines)


def anchors(path):
    """What the headings of a page are called in links, as GitHub and mkdocs make it."""
    found = set()
    for heading in re.findall(r"^#{1,6} +(.*?) *#*$", without_code(path.read_text()), re.M):
        text = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading)
        name = re.sub(r"[^\w\- ]", "", text.replace("`", "")).strip().lower().replace(" ", "-")
        number = 0
        while (unique := name if number == 0 else f"{name}-{number}") in found:
            number += 1
        found.add(unique)
    return found


def link_findings(path):
    text = re.sub(r"`[^`\n]*`", "", without_code(path.read_text()))
    for number, line in enumerate(text.split("\n"), 1):
        for target in re.findall(r"\]\(<?([^)>\s]+)>?(?:\s+\"[^\"]*\")?\)", line):
            if re.match(r"[a-z]+:", target):
                continue
            file, _, anchor = target.partition("#")
            place = (path.parent / file).resolve() if file else path
            if not place.exists():
                yield number, f"{target}: there is no such file"
            elif anchor and place.suffix == ".md" and anchor not in anchors(place):
                yield number, f"{target}: {place.name} has no such heading"


def sentences(text):
    """The prose of a page: no headings, tables and code."""
    block, blocks = [], []
    for line in [*without_code(text).split("\n"), ""]:
        item = re.match(r"\s*([-*]|\d+\.)\s+", line)
        if not line.strip() or line.lstrip().startswith(("#", "|", "!")) or item:
            blocks.append(" ".join(block))
            block = [line[item.end() :]] if item else []
        else:
            block.append(line.strip())
    for text in blocks:
        plain = re.sub(r"`[^`]*`", "X", re.sub(r"!?\[([^\]]*)\]\([^)]*\)", r"\1", text))
        for sentence in re.split(r"(?<=[.!?])\s+", plain):
            if sentence.split():
                yield sentence


def prose_findings(path):
    if is_written_by_a_program(path):
        return
    text = path.read_text()
    for number, line in enumerate(without_code(text).split("\n"), 1):
        if len(line) > COLUMNS and not line.lstrip().startswith("|"):
            yield number, f"{len(line)} columns"
        for pattern, better in WORDS.items():
            if found := re.search(r"\b" + pattern, re.sub(r"`[^`]*`", "", line), re.I):
                yield number, f'"{found.group()}": better {better}'
    if is_report(path):
        return
    lengths = [len(sentence.split()) for sentence in sentences(text)]
    if lengths and statistics.median(lengths) > MEDIAN_WORDS:
        yield 1, f"sentences of {statistics.median(lengths)} words on the median"
    for sentence in sentences(text):
        if len(sentence.split()) > LONGEST_WORDS:
            yield 1, f"a sentence of {len(sentence.split())} words: {sentence[:60]} ..."


def main():
    findings = 0
    for path in guides():
        for number, finding in sorted([*link_findings(path), *prose_findings(path)]):
            print(f"{path.relative_to(ROOT)}:{number}: {finding}")
            findings += 1
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
