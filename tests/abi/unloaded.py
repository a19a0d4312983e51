#!/usr/bin/env python3
"""A host that unloads the library: GStreamer goes on calling the log function that the library has given it."""

import ctypes
import sys

import _ctypes

GST_LEVEL_ERROR = 1

# GStreamer stays loaded, as in a host that uses it itself.
gst = ctypes.CDLL("libgstreamer-1.0.so.0")
gst._gst_debug_category_new.restype = ctypes.c_void_p
library = ctypes.CDLL(sys.argv[1])
library.gst_source_create.restype = ctypes.c_void_p
source = library.gst_source_create(0, sys.argv[1].encode(), 0, 0)
assert source
library.gst_source_destroy(ctypes.c_void_p(source))
_ctypes.dlclose(library._handle)

category = ctypes.c_void_p(gst._gst_debug_category_new(b"host", 0, b"the host's own"))
gst.gst_debug_log(category, GST_LEVEL_ERROR, b"unloaded.py", b"main", 1, None, b"after the library has been closed")
print("still there")
