#!/usr/bin/env python3
"""Every block of code in the guides: blocks_test.py REPOSITORY BUILD

C and C++ are compiled with all warnings, and linked when they have a main(). What is not a whole program stands in a function, or
in a file, after what the guide's earlier blocks include. Python is compiled, and asked for nothing that the package does not have.
Commands of the shell parse, and give the programs options that they know. Files of sources are good to `gst-source check`. JSON and
YAML parse.
"""

import ast
import json
import os
import re
import shlex
import subprocess
import sys
import tempfile
import textwrap
import unittest
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import yaml

root, build = Path(sys.argv[1]), Path(sys.argv[2])
sys.path.insert(0, str(root / "scripts"))

import manuals  # noqa: E402

GUIDES = [root / "README.md", root / "CONTRIBUTING.md", root / "examples" / "README.md", *sorted((root / "docs").glob("*.md"))]
# Its fragments follow on each other; tests/hpp/guide_test.py compiles them so, and runs its programs.
ELSEWHERE = ["cpp.md"]
WARNINGS = ["-Wall", "-Wextra", "-Werror", "-Wno-unused-variable", "-Wno-unused-function", "-Wno-unused-parameter",
            "-Wno-unused-but-set-variable"]  # fmt: skip
INCLUDES = {
    "c": "#include <gst_source_api.h>\n#include <inttypes.h>\n#include <poll.h>\n#include <shb.h>\n#include <stdio.h>\n#include <stdlib.h>\n"
    "#include <string.h>\n#include <unistd.h>\n",
    "cpp": "#include <gst_source.hpp>\n#include <cstdio>\n#include <iostream>\n#include <string>\n#include <vector>\n"
    "namespace gs = gst_source;\n",
}
# The commands by which a guide may call a program.
PROGRAMS = {
    "gst-source": "gst-source",
    "scripts/run": "gst-source",
    "gst-source-read": "gst-source-read",
    "scripts/read": "gst-source-read",
}


def blocks(*languages):
    """Each block of these languages: its guide, its line, its text."""
    for guide in GUIDES:
        text = guide.read_text()
        for found in re.finditer(r"^( *)```(\w+)\n(.*?)^\1```$", text, re.S | re.M):
            if found.group(2).lower() in languages:
                yield guide, text.count("\n", 0, found.start()) + 2, textwrap.dedent(found.group(3))


def compiled(language, name, text):
    """What the compiler says against it; nothing when it has nothing against it."""
    compiler = shlex.split(os.environ["CC" if language == "c" else "CXX"])
    standard = ["-std=gnu11"] if language == "c" else ["-std=c++17"]
    with tempfile.TemporaryDirectory() as folder:
        file = Path(folder) / f"block.{language}"
        program = "int main(" in text
        command = [*compiler, *standard, *WARNINGS, f"-I{root / 'include'}", f"-I{root / 'shbsink'}", file, "-o", Path(folder) / "out"]
        if "#include <gst/" in text:
            command += subprocess.run(["pkg-config", "--cflags", "--libs", "gstreamer-1.0"], stdout=subprocess.PIPE, text=True,
                                      check=True).stdout.split()  # fmt: skip
        if program:
            libraries = [build / "src", build / "shbsink"]
            command += [flag for path in libraries for flag in (f"-L{path}", f"-Wl,-rpath,{path}")] + ["-lgst_source", "-lshb"]
        else:
            command.append("-c")
        inside = "static void block(void) {\n" if language == "c" else "static void block() {\n"
        wrapped = f"{INCLUDES[language]}{inside}{text}\n}}\nvoid use_block({'void' if language == 'c' else ''});\n" + (
            f"void use_block({'void' if language == 'c' else ''}) {{ block(); }}\n"
        )
        errors = []
        for form in [text] if program else [INCLUDES[language] + text, wrapped]:
            file.write_text(form)
            run = subprocess.run(command, stderr=subprocess.PIPE, text=True, check=False)
            if run.returncode == 0:
                return None
            errors.append(run.stderr)
        return f"{name}:\n" + "\n".join(errors)


class Compiled(unittest.TestCase):
    def all_compile(self, language):
        with ThreadPoolExecutor(os.cpu_count()) as pool:
            jobs = [pool.submit(compiled, language, f"{guide.name}:{line}", text)
                    for guide, line, text in blocks(language) if guide.name not in ELSEWHERE or "int main(" in text]  # fmt: skip
        self.assertTrue(jobs)
        self.assertFalse("\n".join(filter(None, (job.result() for job in jobs))))

    def test_c(self):
        self.all_compile("c")

    def test_cpp(self):
        self.all_compile("cpp")


class Python(unittest.TestCase):
    def test_compiles_and_asks_for_what_is_there(self):
        found = list(blocks("python"))
        self.assertTrue(found)
        for guide, line, text in found:
            with self.subTest(guide=guide.name, line=line):
                tree = ast.parse(text)
                if "PYTHONPATH" not in os.environ:
                    continue
                import gst_source  # pylint: disable=import-outside-toplevel

                names = {alias.asname or alias.name for node in ast.walk(tree) if isinstance(node, ast.Import)
                         for alias in node.names if alias.name == "gst_source"}  # fmt: skip
                for node in ast.walk(tree):
                    if isinstance(node, ast.Attribute) and isinstance(node.value, ast.Name) and node.value.id in names:
                        self.assertTrue(hasattr(gst_source, node.attr), f"gst_source has no {node.attr}")
                    if isinstance(node, ast.ImportFrom) and node.module == "gst_source":
                        for alias in node.names:
                            self.assertTrue(hasattr(gst_source, alias.name), f"gst_source has no {alias.name}")


class Shell(unittest.TestCase):
    def test_parses(self):
        for guide, line, text in blocks("sh"):
            with self.subTest(guide=guide.name, line=line):
                run = subprocess.run(["bash", "-n", "-c", text], stderr=subprocess.PIPE, text=True, check=False)
                self.assertEqual((run.returncode, run.stderr), (0, ""))

    def test_options_are_known(self):
        tables = {program["name"]: program for program in manuals.describe(build)["programs"]}
        seen = 0
        for guide, line, text in blocks("sh"):
            for command in re.split(r"[\n|&;]+|\$\(", text.replace("\\\n", " ")):
                words = re.sub(r"(^|\s)#.*", "", command).split()
                while words and (words[0] in ("sudo", "exec") or re.fullmatch(r"\w+=\S*", words[0])):
                    words.pop(0)
                if not words or words[0] not in PROGRAMS:
                    continue
                program = tables[PROGRAMS[words[0]]]
                known = {name for option in program["options"] for name in option["names"]}
                for one in program["commands"]:
                    if len(words) > 1 and words[1] == one["name"].split()[-1]:
                        known = {name for option in one["options"] for name in option["names"]}
                for word in words[1:]:
                    if re.match(r"--?[a-z]", word):
                        seen += 1
                        with self.subTest(guide=guide.name, line=line, command=command.strip()):
                            self.assertIn(word.split("=")[0], known)
        self.assertGreater(seen, 50)


class Files(unittest.TestCase):
    def test_files_of_sources(self):
        for guide, line, text in blocks("toml"):
            if "[[source]]" not in text:
                continue
            with self.subTest(guide=guide.name, line=line), tempfile.TemporaryDirectory() as folder:
                file = Path(folder) / "cameras.toml"
                file.write_text(text)
                for secret in re.findall(r'_file = "([^"/]+)"', text):
                    (Path(folder) / secret).write_text("viewer:secret\n")
                    (Path(folder) / secret).chmod(0o600)
                variables = {name: "a secret text" for name in re.findall(r"\$\{(\w+)\}", text)}
                run = subprocess.run([build / "tools" / "gst-source" / "gst-source", "check", file], env={**os.environ, **variables},
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60, check=False)  # fmt: skip
                self.assertEqual(run.returncode, 0, run.stdout)

    def test_json_and_yaml(self):
        for guide, line, text in blocks("json"):
            with self.subTest(guide=guide.name, line=line):
                try:
                    json.loads(text)
                except json.JSONDecodeError:
                    for record in filter(None, text.splitlines()):
                        json.loads(record)
        for guide, line, text in blocks("yaml"):
            with self.subTest(guide=guide.name, line=line):
                list(yaml.safe_load_all(text))


unittest.main(argv=sys.argv[:1])
