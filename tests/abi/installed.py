#!/usr/bin/env python3
"""Installs into a folder, builds hosts against that copy by pkg-config and by CMake, and runs its programs from there without
any variable of the environment: a prefix may be any directory."""

import os
import re
import socket
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
    return GST_SOURCE_VERSION_NUMBER >= 0x10000 ? 0 : 1;
}
"""
HOST_CPP = """
#include <gst_source.hpp>
int main() {
    const auto source = gst_source::Source::open(gst_source::Buffer(), "udp://127.0.0.1:5000");
    return source.code() == gst_source::Errc::not_open ? 0 : 1;
}
"""
CMAKE = """
cmake_minimum_required(VERSION 3.16)
project(host C CXX)
find_package(shb 2.1 REQUIRED CONFIG)
find_package(gst-source 2.0 QUIET CONFIG)
if(gst-source_FOUND)
  message(FATAL_ERROR "version 1 stands for version 2")
endif()
find_package(gst-source 1.0 REQUIRED CONFIG)
if(NOT EXISTS "${gst-source_PLUGINS_DIR}/libgstshbsink.so")
  message(FATAL_ERROR "no plug-in in ${gst-source_PLUGINS_DIR}")
endif()
add_executable(c-host host.c)
target_link_libraries(c-host PRIVATE gst-source::gst-source)
add_executable(cpp-host host.cpp)
target_link_libraries(cpp-host PRIVATE gst-source::cpp)
add_executable(reader reader.c)
target_link_libraries(reader PRIVATE shb::shb)
"""
READER = """
#include <shb.h>
int main(void) { return shb_version() == SHB_VERSION_NUMBER ? 0 : 1; }
"""
FILES = ["gst_source_api.h", "shb.h", "gst_source.hpp", "gst-source.pc", "gst-source-cpp.pc", "shb.pc", "libgstshbsink.so",
         "gst-source", "gst-source-read", "rtmps-gnutls.conf", "gst-source.1", "gst-source-read.1", "gst-source.toml.5",
         "shbsink.7", "shbsrc.7", "gst-sourceConfig.cmake", "gst-sourceConfigVersion.cmake", "shbConfig.cmake", "shbConfigVersion.cmake",
         "gst-source.fish", "_gst-source", "gst-source.service", "gst-source@.service", "gst-source.toml"]  # fmt: skip
# What a user's shell has, and nothing that would help a program to find its parts.
PLAIN = {key: value for key, value in os.environ.items() if not key.startswith(("GST_", "LD_"))}


def output(command, **more):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True, **more).stdout


def check_files(files, library):
    for name in FILES:
        assert name in files, f"{name} is not installed"
    assert files["rtmps-gnutls.conf"].match("share/gst-source/rtmps-gnutls.conf"), "where docs/protocols.md has it"
    assert files["libgstshbsink.so"].parent == library / "gstreamer-1.0"
    for base, soname in (("libgst_source.so", "libgst_source.so.1"), ("libshb.so", "libshb.so.2")):
        assert (library / base).is_symlink() and (library / soname).is_symlink()
        dynamic = output(["readelf", "-d", library / soname])
        assert f"[{soname}]" in dynamic, dynamic
    header = files["gst_source_api.h"].read_text()
    version = ".".join(re.search(rf"GST_SOURCE_VERSION_{part} (\d+)", header).group(1) for part in ("MAJOR", "MINOR", "PATCH"))
    assert library / f"libgst_source.so.{version}" in files.values(), f"the header is of version {version}, the library is not"


def build_by_pkg_config(root, files, library):
    environment = dict(os.environ, PKG_CONFIG_PATH=str(files["gst-source.pc"].parent), PKG_CONFIG_SYSROOT_DIR=str(root))
    plugins = output(["pkg-config", "--variable=pluginsdir", "gst-source"], env=environment).strip()
    assert plugins.endswith("/gstreamer-1.0") and Path(f"{root}{plugins.removeprefix(str(root))}").is_dir(), plugins
    for file, module, command in (("host.c", "gst-source", [compiler, "-std=c99"]),
                                  ("host.cpp", "gst-source-cpp", [cpp_compiler, "-std=c++17"])):  # fmt: skip
        flags = output(["pkg-config", "--cflags", "--libs", module], env=environment).split()
        subprocess.run([*command, "-Wall", "-Wextra", "-pedantic", "-Werror", file, "-o", "host", *flags], cwd=root, check=True)
        subprocess.run(["./host"], cwd=root, env=dict(PLAIN, LD_LIBRARY_PATH=str(library)), stdout=subprocess.DEVNULL, check=True)


def build_by_cmake(root, prefix):
    (root / "CMakeLists.txt").write_text(CMAKE)
    out = root / "cmake"
    settings = [f"-DCMAKE_PREFIX_PATH={prefix}", f"-DCMAKE_C_COMPILER={compiler}", f"-DCMAKE_CXX_COMPILER={cpp_compiler}"]
    output(["cmake", "-S", root, "-B", out, *settings], env=PLAIN)
    output(["cmake", "--build", out], env=PLAIN)
    for host in ("c-host", "cpp-host", "reader"):
        subprocess.run([out / host], stdout=subprocess.DEVNULL, env=PLAIN, check=True)


def run_programs(root, files):
    for name in ("gst-source", "gst-source-read"):
        line = output([files[name], "--version"], env=PLAIN)
        assert re.fullmatch(rf"{name} \d+\.\d+\.\d+ \(libshb \d+\.\d+\.\d+, GStreamer 1\.\d+\.\d+\)\n", line), line
    with socket.socket(type=socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        url = f"udp://127.0.0.1:{probe.getsockname()[1]}"
    # Nothing is sent there, so the run fails in its own words; without the plug-in it would not come so far.
    environment = dict(PLAIN, GST_PLUGIN_PATH="", GST_REGISTRY=str(root / "registry"))
    run = subprocess.run([files["gst-source"], url, "--duration", "1", "--name", f"installed-{os.getpid()}"], env=environment,
                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60, check=False)  # fmt: skip
    assert run.returncode == 1 and "is missing" not in run.stdout and "nothing arrived from source 0" in run.stdout, run.stdout


def main():
    with tempfile.TemporaryDirectory() as folder:
        root = Path(folder)
        # Elsewhere than it was configured for.
        subprocess.run(["meson", "install", "-C", build, "--no-rebuild", "--quiet", "--destdir", folder], check=True)
        files = {path.name: path for path in root.rglob("*") if path.is_file()}
        # The completions of bash have the names of the programs.
        files |= {path.name: path for path in root.rglob("bin/*")}
        library = files["gst-source.pc"].parent.parent
        check_files(files, library)
        for name, text in (("host.c", HOST), ("host.cpp", HOST_CPP), ("reader.c", READER)):
            (root / name).write_text(text)
        build_by_pkg_config(root, files, library)
        build_by_cmake(root, files["gst-source"].parent.parent)
        run_programs(root, files)


main()
