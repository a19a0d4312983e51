#!/usr/bin/env python3
"""Writes the C source of an extension module from a public header: make_ffi.py MODULE HEADER OUT COMPILER...

The header itself is what cffi reads, so that no declaration and no struct stands twice. The compiler that
builds the module gives the places of the fields and the values of the constants.
"""

import re
import subprocess
import sys
from pathlib import Path

from cffi import FFI

# What C calls: a function of the same name in Python. And what cffi cannot see, since the preprocessor takes
# it out.
EXTRA = {
    "shb.h": """
        #define SHB_TIME_NONE ...
        #define SHB_OFFSET_NONE ...
        #define SHB_CODEC_DATA_MAX ...
        #define SHB_VERSION_NUMBER ...
        extern "Python" void gst_source_python_stalled(void *user, uint64_t silent_ms);
    """,
    "gst_source_api.h": """
        extern "Python" void gst_source_python_media_changed(void *user, media_code_info_t *info);
    """,
}


def declarations(header, compiler):
    """The declarations of a header, as plain C without comments, macros and attributes."""
    text = re.sub(r"^#include <.*>$", "", header.read_text(), flags=re.M)
    # The types of the headers that it includes are known to cffi.
    return subprocess.run(
        [*compiler, "-E", "-P", "-D__attribute__(x)=", "-"], input=text, stdout=subprocess.PIPE, text=True, check=True
    ).stdout


def main():
    module, header, out, *compiler = sys.argv[1:]
    header = Path(header)
    ffi = FFI()
    ffi.cdef(declarations(header, compiler) + EXTRA[header.name])
    ffi.set_source(module, f"#include <{header.name}>")
    ffi.emit_c_code(out)


if __name__ == "__main__":
    main()
