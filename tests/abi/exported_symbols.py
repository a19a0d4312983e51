#!/usr/bin/env python3
"""The library's dynamic symbol table holds the interface and nothing else."""

import subprocess
import sys

EXPECTED = {
    "gst_source_create", "gst_source_close_live_stream", "gst_source_get_status", "gst_source_get_media_info",
    "gst_source_set_media_change_callback", "gst_source_destroy", "gst_rtsp_source_open_live_stream",
    "gst_srt_source_open_live_stream", "gst_rtmp_source_open_live_stream", "gst_udp_source_open_live_stream",
    "gst_hls_source_open_live_stream",
    "_ZN9GSTREAMER7GstInitEv", "_ZN9GSTREAMER9GstDeInitEv",
}

lines = subprocess.run(["nm", "-D", "--defined-only", "--without-symbol-versions", sys.argv[1]], stdout=subprocess.PIPE, text=True,
                       check=True).stdout.splitlines()
symbols = {line.split()[-1] for line in lines if line.split()[-2] != "A"}
versions = {line.split()[-1] for line in lines if line.split()[-2] == "A"}
assert symbols == EXPECTED, f"missing {EXPECTED - symbols}, too many {symbols - EXPECTED}"
assert versions == {"GST_SOURCE_1.0"}, versions
