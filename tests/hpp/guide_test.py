#!/usr/bin/env python3
"""Compiles every example of docs/cpp.md as it stands, and lets its host and its reader play a stream from ffmpeg."""

import re
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

guide, compiler, build, source, sanitize, material = sys.argv[1:7]
build, source = Path(build), Path(source)
blocks = re.findall(r"^```cpp\n(.*?)^```$", Path(guide).read_text(), re.M | re.S)
programs = [block for block in blocks if "int main(" in block]
fragments = [block for block in blocks if "int main(" not in block]
assert len(programs) == 2 and len(fragments) > 10, f"{len(programs)} programs and {len(fragments)} fragments"

# What a fragment may use without making it.
HEAD = """
#include <gst_source.hpp>
#include <poll.h>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <vector>
namespace gs = gst_source;
using namespace std::chrono_literals;
void use(const std::uint8_t *data, std::size_t size);
"""
MADE = ("gs::Buffer buffer", "gs::Source source", "gs::Map map", "gs::Reader reader", "std::vector<std::uint8_t> memory")


def function(number, fragment):
    """The fragment as a function. What it declares by itself is no parameter."""
    arguments = [made for made in MADE if not re.search(rf"^\S.* {made.split()[-1]}(;| = )", fragment, re.M)]
    declared = ", ".join("[[maybe_unused]] {} &{}".format(*made.rsplit(" ", 1)) for made in arguments)
    return f"void fragment{number}({declared});\nvoid fragment{number}({declared}) {{\n{fragment}}}\n"


def wait(condition, what):
    end = time.monotonic() + 100
    while not condition():
        assert time.monotonic() < end, f"{what}: nothing for 100 s"
        time.sleep(0.02)


with tempfile.TemporaryDirectory() as folder:
    root = Path(folder)
    strict = [compiler, "-Wall", "-Wextra", "-pedantic", "-Wshadow", "-Wconversion", "-Werror", "-Wno-unused-variable",
              "-Wno-unused-but-set-variable", f"-I{source / 'include'}", f"-I{source / 'shbsink'}"]
    (root / "fragments.cpp").write_text(HEAD + "".join(function(*pair) for pair in enumerate(fragments)))
    for standard in ("-std=c++17", "-std=c++20"):
        subprocess.run([*strict, standard, "-fsyntax-only", "fragments.cpp"], cwd=root, check=True)

    # Two runs at a time must not meet in one buffer.
    name = f"cpp-guide-{root.name}"
    flags = [] if sanitize == "none" else [f"-fsanitize={sanitize}"]
    libraries = [flag for path in (build / "src", build / "shbsink") for flag in (f"-L{path}", f"-Wl,-rpath,{path}")]
    # The reader gets by with the library of the buffer.
    for program, text, linked in (("host", programs[0], ["-lgst_source", "-lshb"]), ("reader", programs[1], ["-lshb"])):
        assert ('"my-host"' in text) == (program == "host")
        (root / f"{program}.cpp").write_text(text.replace('"my-host"', f'"{name}"'))
        subprocess.run([*strict, "-std=c++17", *flags, f"{program}.cpp", "-o", program, *libraries, *linked], cwd=root, check=True)
    with socket.socket(type=socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        url = f"udp://127.0.0.1:{probe.getsockname()[1]}"
    sender = subprocess.Popen(["ffmpeg", "-nostdin", "-loglevel", "error", "-re", "-stream_loop", "-1", "-i", material, "-map", "0", "-c",
                               "copy", "-f", "mpegts", f"{url}?pkt_size=1316"], stdin=subprocess.DEVNULL)
    host = None
    try:
        with (root / "host.out").open("wb") as out:
            host = subprocess.Popen([root / "host", url], stdout=out)
        wait(lambda: (Path("/dev/shm") / name).exists() or host.poll() is not None, "the buffer of the host")
        reader = subprocess.run([root / "reader", name], stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=100, check=False)
        assert host.wait(100) == 0, f"the host ended with {host.returncode}"
    finally:
        for process in filter(None, (sender, host)):
            process.kill()
            process.wait()
    assert reader.returncode == 0, reader.stderr
    assert reader.stderr.strip() == b"buffer closed by its creator", reader.stderr
    assert reader.stdout.startswith(b"\0\0\0\1") and len(reader.stdout) > 10000, f"{len(reader.stdout)} bytes read"
    lines = (root / "host.out").read_text()
    assert re.search(r"^H264 320x240, [1-9][0-9.]* frames/s$", lines, re.M), lines
    none = subprocess.run([root / "reader", name], stderr=subprocess.PIPE, text=True, check=False)
    assert (none.returncode, none.stderr) == (1, f"{name}: not found\n"), none
    wrong = subprocess.run([root / "host", "file:///tmp"], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=False)
    assert wrong.returncode == 1 and wrong.stderr.startswith("not a stream URL"), wrong
    assert not list(Path("/dev/shm").glob(f"{name}*")), "the host left its shared memory behind"
