#!/usr/bin/env python3
"""A library's dynamic symbol table holds the interface, each function under its version, and nothing else.

    exported_symbols.py LIBRARY VERSION [HEADER [LATER=FUNCTION,...]...]

The functions are those of the header, without one those of libgst_source. Those that came later have a version of their own.
"""

import re
import subprocess
import sys
from pathlib import Path

LIBRARY, VERSION = sys.argv[1:3]
EXPECTED = set(re.findall(r"^SHB_API [^(]*?(\w+)\(", Path(sys.argv[3]).read_text(), re.MULTILINE)) if len(sys.argv) > 3 else {
    "gst_source_create", "gst_source_close_live_stream", "gst_source_get_status", "gst_source_get_media_info",
    "gst_source_set_media_change_callback", "gst_source_destroy", "gst_rtsp_source_open_live_stream",
    "gst_srt_source_open_live_stream", "gst_rtmp_source_open_live_stream", "gst_udp_source_open_live_stream",
    "gst_hls_source_open_live_stream",
    "_ZN9GSTREAMER7GstInitEv", "_ZN9GSTREAMER9GstDeInitEv",
}

assert EXPECTED
later = dict(argument.split("=") for argument in sys.argv[4:])
version_of = {name: version for version, names in later.items() for name in names.split(",")}
lines = subprocess.run(["nm", "-D", "--defined-only", LIBRARY], stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()
symbols = {line.split()[-1] for line in lines if line.split()[-2] != "A"}
versions = {line.split()[-1].split("@")[0] for line in lines if line.split()[-2] == "A"}
expected = {f"{name}@@{version_of.get(name, VERSION)}" for name in EXPECTED}
assert symbols == expected, f"missing {expected - symbols}, too many {symbols - expected}"
assert versions == {VERSION, *later}, versions
