#!/usr/bin/env python3
"""The corpora of the fuzz targets, an archive each.

    corpus.py unpack ARCHIVE DIRECTORY             the inputs, in a new directory
    corpus.py add ARCHIVE FILE...                  adds inputs; those named as libFuzzer does get the name of their contents
    corpus.py minimise ARCHIVE TARGET              leaves out what adds no coverage in that fuzz target, named inputs excepted
    corpus.py run ARCHIVE DIRECTORY TARGET [...]   unpacks, and runs the target with the directory as its last argument

A new finding, from a build as `scripts/test fuzz` makes it:

    tests/fuzz/corpus.py add tests/fuzz/corpus/bus.tar.xz build/fuzz/tests/fuzz/bus-crash-0123...
"""

import hashlib
import io
import os
import re
import shutil
import subprocess
import sys
import tarfile
import tempfile
from pathlib import Path

# Prefix of an artifact and the SHA-1 of its contents.
LIBFUZZER_NAME = re.compile(r"(?:.*-)?[0-9a-f]{40}")


def read(archive):
    with tarfile.open(archive) as tar:
        return {member.name: tar.extractfile(member).read() for member in tar}


def write(archive, inputs):
    """The same bytes for the same inputs, whoever writes them and when."""
    with tarfile.open(archive, "w:xz", format=tarfile.USTAR_FORMAT, preset=9) as tar:
        for name in sorted(inputs):
            member = tarfile.TarInfo(name)
            member.size = len(inputs[name])
            tar.addfile(member, io.BytesIO(inputs[name]))


def unpack(archive, directory):
    shutil.rmtree(directory, ignore_errors=True)
    Path(directory).mkdir(parents=True)
    for name, contents in read(archive).items():
        (Path(directory) / name).write_bytes(contents)


def add(archive, *files):
    inputs = read(archive) if Path(archive).exists() else {}
    for file in map(Path, files):
        contents = file.read_bytes()
        name = hashlib.sha1(contents).hexdigest() if LIBFUZZER_NAME.fullmatch(file.name) else file.name
        if inputs.setdefault(name, contents) != contents:
            sys.exit(f"corpus.py: there is another input {name}")
    write(archive, inputs)


def minimise(archive, target):
    inputs = read(archive)
    with tempfile.TemporaryDirectory() as place:
        unpack(archive, f"{place}/all")
        kept = Path(place) / "kept"
        kept.mkdir()
        for name, contents in inputs.items():
            if not LIBFUZZER_NAME.fullmatch(name):
                (kept / name).write_bytes(contents)
        subprocess.run([target, "-merge=1", "-max_len=2048", "-close_fd_mask=1", kept, f"{place}/all"], check=True)
        write(archive, {file.name: file.read_bytes() for file in kept.iterdir()})


def run(archive, directory, *command):
    unpack(archive, directory)
    os.execv(command[0], [*command, directory])


if __name__ == "__main__":
    commands = {"unpack": unpack, "add": add, "minimise": minimise, "run": run}
    if len(sys.argv) < 4 or sys.argv[1] not in commands:
        sys.exit(__doc__)
    commands[sys.argv[1]](*sys.argv[2:])
