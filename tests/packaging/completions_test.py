#!/usr/bin/env python3
"""The manual pages are clean to groff; each shell completes options, values, commands and names of buffers; and every word that
the completions offer is one that the programs take."""

import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

root, host, reader = Path(sys.argv[1]), sys.argv[2], sys.argv[3]
sys.path.insert(0, str(root / "scripts"))

import manuals  # noqa: E402

COMPLETIONS = root / "packaging" / "completions"
BASH = """
source /usr/share/bash-completion/bash_completion
source "$1"
COMP_WORDS=("${@:2}")
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
COMP_LINE="${COMP_WORDS[*]}"
COMP_POINT=${#COMP_LINE}
compopt() { :; }
"$(complete -p "$2" | sed 's/.*-F \\([^ ]*\\).*/\\1/')"
printf '%s\\n' "${COMPREPLY[@]}"
"""


# What the names of buffers are completed from.
LIST = """#!/bin/sh
test "$*" = "list --json" && echo '{"name":"/camera","state":"alive"}' && echo '{"name":"/studio","state":"alive"}'
"""


def with_buffers(folder):
    """An environment in which gst-source-read lists two buffers."""
    program = Path(folder) / "gst-source-read"
    program.write_text(LIST)
    program.chmod(0o755)
    return {"HOME": folder, "PATH": f"{folder}:/usr/bin:/bin"}


def lines(command, **more):
    run = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=60, check=True, **more)
    assert not run.stderr, f"{command}: {run.stderr}"
    return run.stdout.split("\n")[:-1]


class Pages(unittest.TestCase):
    def test_groff_has_nothing_to_say(self):
        pages = sorted(page for page in manuals.MAN.iterdir() if page.suffix != ".in")
        self.assertEqual(len(pages), len(list(manuals.MAN.glob("*.in"))))
        for page in pages:
            run = subprocess.run(["groff", "-man", "-Tutf8", "-ww", page], capture_output=True, text=True, check=True)
            self.assertEqual(run.stderr, "", page)
            self.assertIn("NAME", re.sub(".\b", "", run.stdout))


class Bash(unittest.TestCase):
    def complete(self, *words, **more):
        return lines(["bash", "-c", BASH, "bash", COMPLETIONS / f"{words[0]}.bash", *words], **more)

    def test_options_and_commands(self):
        self.assertEqual(self.complete("gst-source", "--stall"), ["--stall-watch"])
        self.assertEqual(self.complete("gst-source", "re"), ["reload"])
        self.assertIn("--segment", self.complete("gst-source-read", "record", "--se"))
        self.assertNotIn("--segment", self.complete("gst-source-read", "list", "--"))

    def test_values(self):
        self.assertEqual(self.complete("gst-source", "--color", "a"), ["auto", "always"])
        self.assertEqual(self.complete("gst-source-read", "read", "--kind", ""), ["video", "audio"])

    def test_files(self):
        with tempfile.TemporaryDirectory() as folder:
            (Path(folder) / "cameras.toml").touch()
            for words in (["--config", "cam"], ["check", "cam"]):
                self.assertEqual(self.complete("gst-source", *words, cwd=folder), ["cameras.toml"])


    def test_buffers(self):
        with tempfile.TemporaryDirectory() as folder:
            environment = with_buffers(folder)
            self.assertEqual(self.complete("gst-source-read", "tracks", "cam", env=environment, cwd=folder), ["camera"])


class Fish(unittest.TestCase):
    def complete(self, line):
        program = line.split()[0]
        script = f"source {COMPLETIONS / program}.fish; complete -C '{line}'"
        with tempfile.TemporaryDirectory() as folder:
            found = lines(["fish", "--no-config", "-c", script], env=with_buffers(folder), cwd=folder)
        return [word.split("\t")[0] for word in found]

    def test_options_commands_and_values(self):
        self.assertIn("--stall-watch", self.complete("gst-source --stall"))
        self.assertIn("reload", self.complete("gst-source re"))
        self.assertIn("--segment", self.complete("gst-source-read record --se"))
        self.assertIn("camera", self.complete("gst-source-read tracks cam"))
        self.assertEqual(sorted(self.complete("gst-source --color a")), ["always", "auto"])


class Zsh(unittest.TestCase):
    def test_functions_are_read(self):
        for name in ("gst-source", "gst-source-read"):
            file = COMPLETIONS / f"_{name}"
            lines(["zsh", "-f", "-n", file])
            self.assertEqual(file.read_text().split("\n")[0], f"#compdef {name}")


class Words(unittest.TestCase):
    def test_programs_take_every_word(self):
        urls = {"--protocols": "rtsp://127.0.0.1:1/x", "--mode": "srt://127.0.0.1:1", "--keylen": "srt://127.0.0.1:1",
                "--islive": "http://127.0.0.1:1/x.m3u8"}  # fmt: skip
        for option, words in manuals.WORDS["gst-source"].items():
            for word in words:
                command = [host, "--print-config", option, word, urls.get(option, "udp://127.0.0.1:1")]
                run = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False)
                self.assertEqual(run.returncode, 0, f"{command}: {run.stderr}")
        commands = {"--kind": ["read"], "--start": ["read"], "--format": ["read"], "--from": ["record"]}
        for option, words in manuals.WORDS["gst-source-read"].items():
            for word in words:
                command = [reader, *commands[option], "no-such-buffer", option, word]
                command += ["out.mkv"] if option == "--from" else []
                run = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False)
                # Wrong is the buffer, and not the command line.
                self.assertEqual(run.returncode, 1, f"{command}: {run.stderr}")

    def test_words_belong_to_options(self):
        for program, options in manuals.WORDS.items():
            text = (COMPLETIONS / f"{program}.bash").read_text()
            for option in options:
                self.assertIn(f"{option})", text)


unittest.main(argv=sys.argv[:1])
