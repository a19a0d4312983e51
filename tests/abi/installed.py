#!/usr/bin/env python3
"""Installs into a folder and builds a host against that copy by pkg-config."""

import os
import subprocess
import sys
import tempfile
from pathlib import Path

build, compiler, cpp_compiler = sys.argv[1:4]
HOST = """
#include <gst_source_api.h>
#include <shb.h>
int main(void) {
    const shb_geometry_t geometry = SHB_INIT(shb_geometry_t);
    if (geometry.struct_size != sizeof geometry || shb_version() != SHB_VERSION_NUMBER)
        return 1;
    gst_source_destroy(gst_source_create(SOURCE_TYPE_UDP, (void *)shb_strerror(SHB_OK), 0, 0));
    return 0;
}
"""
HOST_CPP = """
#include <gst_source.hpp>
int main() {
    const auto source = gst_source::Source::open(gst_source::Buffer(), "udp://127.0.0.1:5000");
    return source.code() == gst_source::Errc::not_open ? 0 : 1;
}
"""

with tempfile.TemporaryDirectory() as folder:
    root = Path(folder)
    subprocess.run(["meson", "install", "-C", build, "--no-rebuild", "--quiet", "--destdir", folder], check=True)
    files = {path.name: path for path in root.rglob("*") if path.is_file()}
    for name in ("gst_source_api.h", "shb.h", "gst_source.hpp", "gst-source.pc", "gst-source-cpp.pc", "shb.pc", "libgstshbsink.so", "gst-source", "gst-source-read",
                 "rtmps-gnutls.conf"):
        assert name in files, f"{name} is not installed"
    library = files["libgst_source.so.1.0.0"].parent
    assert files["rtmps-gnutls.conf"].match("share/gst-source/rtmps-gnutls.conf"), "where docs/protocols.md has it"
    assert files["libgstshbsink.so"].parent == library / "gstreamer-1.0"
    assert (library / "libgst_source.so").is_symlink() and (library / "libgst_source.so.1").is_symlink()
    assert (library / "libshb.so").is_symlink() and (library / "libshb.so.2").is_symlink()
    for name in ("libgst_source.so.1", "libshb.so.2"):
        soname = subprocess.run(["readelf", "-d", library / name], stdout=subprocess.PIPE, text=True, check=True).stdout
        assert f"[{name}]" in soname, soname
    environment = dict(os.environ, PKG_CONFIG_PATH=str(files["gst-source.pc"].parent), PKG_CONFIG_SYSROOT_DIR=folder)
    for file, text, modules, command in (("host.c", HOST, ["gst-source", "shb"], [compiler, "-std=c99"]),
                                         ("host.cpp", HOST_CPP, ["gst-source-cpp"], [cpp_compiler, "-std=c++17"])):
        flags = subprocess.run(["pkg-config", "--cflags", "--libs", *modules], env=environment, stdout=subprocess.PIPE, text=True,
                               check=True).stdout.split()
        (root / file).write_text(text)
        subprocess.run([*command, "-Wall", "-Wextra", "-pedantic", "-Werror", file, "-o", "host", *flags], cwd=folder, check=True)
        subprocess.run(["./host"], cwd=folder, env=dict(os.environ, LD_LIBRARY_PATH=str(library)), stdout=subprocess.DEVNULL, check=True)
