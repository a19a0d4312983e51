#!/usr/bin/env python3
"""Compiles the C host of the README as it stands and lets it play a stream from ffmpeg."""

import re
import socket
import subprocess
import sys
import tempfile
from pathlib import Path

readme, compiler, build, source, sanitize = sys.argv[1:6]
build, source = Path(build), Path(source)
blocks = re.findall(r"^```c\n(.*?)^```$", Path(readme).read_text(), re.M | re.S)
assert len(blocks) == 1, f"the README has {len(blocks)} C programs, not one"

with tempfile.TemporaryDirectory() as folder:
    # Two runs at a time must not meet in one buffer.
    name = f"readme-host-{Path(folder).name}"
    program = blocks[0].replace('"my-host"', f'"{name}"')
    assert name in program
    (Path(folder) / "host.c").write_text(program)
    host = Path(folder) / "host"
    flags = [] if sanitize == "none" else [f"-fsanitize={sanitize}"]
    libraries = [build / "src", build / "shbsink"]
    subprocess.run([compiler, "-std=c99", "-Wall", "-Wextra", "-pedantic", "-Werror", *flags, "-D_POSIX_C_SOURCE=200809L", str(host) + ".c",
                    "-o", host, f"-I{source / 'include'}", f"-I{source / 'shbsink'}", *(f"-L{path}" for path in libraries),
                    *(f"-Wl,-rpath,{path}" for path in libraries), "-lgst_source", "-lshb"], check=True)
    with socket.socket(type=socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        url = f"udp://127.0.0.1:{probe.getsockname()[1]}"
    sender = subprocess.Popen(
        ["ffmpeg", "-nostdin", "-loglevel", "error", "-re", "-f", "lavfi", "-i", "testsrc2=size=320x180:rate=25", "-c:v", "libx264",
         "-preset", "ultrafast", "-tune", "zerolatency", "-g", "25", "-pix_fmt", "yuv420p", "-f", "mpegts", f"{url}?pkt_size=1316"],
        stdin=subprocess.DEVNULL)
    try:
        run = subprocess.run([host, url], stdout=subprocess.PIPE, text=True, timeout=60, check=False)
    finally:
        sender.terminate()
        sender.wait()
    lines = [line for line in run.stdout.splitlines() if line.startswith("connected: H264 320x180, ")]
    print(run.stdout)
    assert run.returncode == 0, f"the host ended with {run.returncode}"
    assert lines and int(lines[-1].split()[3]) > 25, "no line tells of a playing stream"
    assert not list(Path("/dev/shm").glob(f"{name}*")), "the host left its shared memory behind"
