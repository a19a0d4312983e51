#!/usr/bin/env python3
"""Benchmarks of the library, each figure measured side by side with its yardsticks in one run.

    tests/bench/bench.py --build build/test [--only cpu|close] [--seconds 20] [--cycles 100]

cpu    CPU seconds of (a) the library with the companion sink, (b) the same chain by gst-launch-1.0 with fakesink and (c) ffmpeg -c copy to
       null, all three fed the same 9 Mb/s H.264 + AAC transport stream over UDP at the same time. CPU is user + system time of the whole
       process, its start included (getrusage of the ended child).
close  Duration of a close in ms: p50, p99 and the largest of all cycles, per protocol: playing, in the rebuild wait, peer absent or
       refusing (closed port), peer that accepts and says nothing, and 20 ms after the open (mid-connect).

Nothing here is asserted: figures of a shared machine are read as ratios within one run.
"""

import argparse
import contextlib
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

from noticed import await_socket, ffmpeg, free_port, nginx


def material(folder):
    """30 s of 9 Mb/s H.264 + AAC, constant rate, as a transport stream."""
    path = folder / "bench-9M.ts"
    if not path.exists():
        part = folder / "bench-part.ts"
        subprocess.run(
            ["ffmpeg", "-nostdin", "-loglevel", "error", "-y",
             "-f", "lavfi", "-i", "testsrc2=size=1280x720:rate=25,noise=alls=20:allf=t", "-f", "lavfi", "-i", "sine=sample_rate=48000",
             "-t", "30", "-c:v", "libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-g", "25", "-pix_fmt", "yuv420p",
             "-b:v", "8700k", "-minrate", "8700k", "-maxrate", "8700k", "-bufsize", "8700k", "-nal-hrd", "cbr",
             "-c:a", "aac", "-b:a", "128k", "-ac", "2", "-f", "mpegts", str(part)], check=True)
        part.rename(path)
    return path


class Child:
    """A child process that ends with the block, and whose CPU time is known afterwards."""

    def __init__(self, command, **options):
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, **options)
        self.cpu = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()

    def end(self, number=signal.SIGTERM, patience=10):
        """CPU seconds of the child and of the children it has waited for."""
        if self.cpu is not None:
            return self.cpu
        os.kill(self.process.pid, number)
        give_up = time.monotonic() + patience
        while True:
            pid, status, usage = os.wait4(self.process.pid, os.WNOHANG)
            if pid:
                break
            if time.monotonic() > give_up:
                os.kill(self.process.pid, signal.SIGKILL)
                give_up = float("inf")
            time.sleep(0.01)
        self.process.returncode = os.waitstatus_to_exitcode(status)
        self.cpu = usage.ru_utime + usage.ru_stime
        return self.cpu


def sender(source, targets):
    tee = "|".join(f"[f=mpegts]{target}?pkt_size=1316" for target in targets)
    return Child(["ffmpeg", "-nostdin", "-loglevel", "error", "-re", "-stream_loop", "-1", "-i", str(source), "-map", "0", "-c", "copy",
                  "-f", "tee", tee])


def bench_cpu(arguments, environment, folder):
    ports = [free_port(socket.SOCK_DGRAM) for _ in range(3)]
    urls = [f"udp://127.0.0.1:{port}" for port in ports]
    chain = (f"udpsrc uri={urls[1]} buffer-size=1572864 mtu=1492 ! tsdemux name=d latency=700 "
             "d. ! queue max-size-time=1000000000 ! h264parse config-interval=-1 ! video/x-h264,stream-format=byte-stream,alignment=au "
             "! fakesink sync=true async=false "
             "d. ! queue max-size-time=1000000000 ! aacparse ! audio/mpeg,stream-format=adts ! fakesink sync=false async=false")
    with sender(material(folder), urls):
        with Child([str(arguments.host), "run", urls[0], str(arguments.seconds)], env=environment, stdout=subprocess.PIPE, text=True) as a, \
                Child(["gst-launch-1.0", "-q", *chain.split()], env=environment) as b, \
                Child(["ffmpeg", "-nostdin", "-loglevel", "quiet", "-i", urls[2], "-c", "copy", "-f", "null", "-"]) as c:
            frames = a.process.stdout.readline().split()
            # The host ends by itself: signal 0 only asks whether it is still there.
            figures = {"library + shbsink": a.end(0), "gst-launch-1.0 + fakesink": b.end(signal.SIGINT),
                       "ffmpeg -c copy to null": c.end(signal.SIGINT)}
    print(f"\nCPU seconds over {arguments.seconds} s of a 9 Mb/s stream ({' video frames, '.join(frames)} bytes arrived)")
    own = figures["library + shbsink"]
    for name, cpu in figures.items():
        print(f"  {name:28} {cpu:6.2f} s   library / this = {own / cpu:.2f}")


def percentile(values, part):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(len(ordered) * part))]


class SilentServer:
    """Accepts TCP connections on a kernel-chosen port and never answers."""

    def __enter__(self):
        self.socket = socket.create_server(("127.0.0.1", 0))
        self.port = self.socket.getsockname()[1]
        self.peers = []
        threading.Thread(target=self.accept, daemon=True).start()
        return self

    def accept(self):
        while True:
            try:
                self.peers.append(self.socket.accept()[0])
            except OSError:
                return

    def __exit__(self, *_):
        self.socket.close()
        for peer in self.peers:
            peer.close()


def playing(build, folder):
    """Name, location and peers of a source that plays, for each protocol that needs a server."""
    stream = material(folder)
    matroska = stream.with_suffix(".mkv")
    subprocess.run(["ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-stream_loop", "40", "-i", str(stream), "-map", "0", "-c", "copy",
                    str(matroska)], check=True)
    port = free_port(socket.SOCK_STREAM)
    yield ("RTSP", f"rtsp://127.0.0.1:{port}/stream",
           [[str(build / "tests/peers/peers-rtsp-server"), "--port", str(port), "--file", str(matroska), "--video", "h264", "--audio", "aac"]])
    port = free_port(socket.SOCK_STREAM)
    server = nginx(folder / "rtmp", f"rtmp {{ server {{ listen 127.0.0.1:{port}; application live {{ live on; }} }} }}", modules=["rtmp"])
    yield "RTMP", f"rtmp://127.0.0.1:{port}/live/a", [server, ffmpeg(stream, "-f", "flv", f"rtmp://127.0.0.1:{port}/live/a")]
    port, inner = free_port(socket.SOCK_DGRAM), free_port(socket.SOCK_DGRAM)
    # A listener that outlives its callers.
    yield ("SRT caller", f"srt://127.0.0.1:{port}",
           [["srt-live-transmit", "-q", f"udp://127.0.0.1:{inner}", f"srt://127.0.0.1:{port}?mode=listener"],
            ffmpeg(stream, "-f", "mpegts", f"udp://127.0.0.1:{inner}?pkt_size=1316")])
    port = free_port(socket.SOCK_STREAM)
    www = folder / "hls" / "www"
    www.mkdir(parents=True)
    folder.chmod(0o755)
    server = nginx(folder / "hls", f"http {{ access_log off; server {{ listen 127.0.0.1:{port}; root {www}; }} }}")
    write = ffmpeg(stream, "-f", "hls", "-hls_time", "1", "-hls_list_size", "6", "-hls_flags", "delete_segments", str(www / "live.m3u8"))
    yield "HLS", f"http://127.0.0.1:{port}/live.m3u8", [write, server]


def bench_close(arguments, environment, folder):
    rows = []

    def measure(name, url, when, cycles, delay):
        run = subprocess.run([str(arguments.host), "close", url, when, str(cycles), str(delay)], env=environment, stdout=subprocess.PIPE,
                             text=True, check=False)
        values = [float(line) for line in run.stdout.split()]
        if values:
            rows.append((name, len(values), percentile(values, 0.5), percentile(values, 0.99), max(values)))

    few = max(3, arguments.cycles // 10)
    port = free_port(socket.SOCK_DGRAM)
    with Child(ffmpeg(material(folder), "-f", "mpegts", f"udp://127.0.0.1:{port}?pkt_size=1316")):
        measure("UDP, playing", f"udp://127.0.0.1:{port}", "playing", arguments.cycles, 0)
    for name, url, peers in playing(arguments.build.resolve(), folder):
        with contextlib.ExitStack() as running:
            for command in peers:
                child = running.enter_context(Child(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
                await_socket(child.process)
            measure(f"{name}, playing", url, "playing", arguments.cycles // 2, 0)

    measure("UDP, no sender", f"udp://127.0.0.1:{free_port(socket.SOCK_DGRAM)}", "after", few, 300)
    measure("UDP, in the rebuild wait", f"udp://127.0.0.1:{free_port(socket.SOCK_DGRAM)}", "wait", few, 500)
    forms = {"RTSP": "rtsp://127.0.0.1:{}/live", "RTMP": "rtmp://127.0.0.1:{}/live/a", "RTMPS": "rtmps://127.0.0.1:{}/live/a",
             "HLS": "http://127.0.0.1:{}/live.m3u8"}
    for name, form in forms.items():
        refused = form.format(free_port(socket.SOCK_STREAM))
        measure(f"{name}, peer refuses", refused, "after", few, 300)
        measure(f"{name}, in the rebuild wait", refused, "wait", few, 500)
        with SilentServer() as server:
            silent = form.format(server.port)
            # Each of RTMPS's waits out twice its time-out of 10 s.
            measure(f"{name}, 20 ms after the open", silent, "after", 2 if name == "RTMPS" else few, 20)
            measure(f"{name}, peer accepts and is silent", silent, "after", 1 if name == "RTMPS" else few, 1000)
    absent = f"srt://127.0.0.1:{free_port(socket.SOCK_DGRAM)}"
    measure("SRT caller, peer absent", absent, "after", few, 300)
    measure("SRT caller, 20 ms after the open", absent, "after", few, 20)
    # A passphrase that is too short fails every play.
    measure("SRT caller, in the rebuild wait", absent + "?passphrase=short", "wait", few, 500)
    measure("SRT listener, no caller", f"srt://:{free_port(socket.SOCK_DGRAM)}", "after", few, 300)

    print("\nDuration of a close in ms")
    print(f"  {'':34} {'cycles':>6} {'p50':>9} {'p99':>9} {'largest':>9}")
    for name, cycles, p50, p99, largest in rows:
        print(f"  {name:34} {cycles:6} {p50:9.1f} {p99:9.1f} {largest:9.1f}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=Path("build/test"), help="build directory (default: build/test)")
    parser.add_argument("--only", choices=["cpu", "close"], help="one of the benchmarks")
    parser.add_argument("--seconds", type=float, default=20, help="duration of the CPU benchmark in s (default: 20)")
    parser.add_argument("--cycles", type=int, default=100, help="closes of a playing source (default: 100)")
    arguments = parser.parse_args()
    arguments.host = (arguments.build / "tests/bench/bench_host").resolve()
    for program in ("ffmpeg", "gst-launch-1.0"):
        if shutil.which(program) is None:
            sys.exit(f"{program} is missing")
    # The framework reports every refused connection on standard error; here that is what is asked for.
    environment = dict(os.environ, GST_PLUGIN_PATH=str((arguments.build / "shbsink").resolve()), GST_DEBUG_FILE=os.devnull)
    with tempfile.TemporaryDirectory() as folder:
        if arguments.only != "close":
            bench_cpu(arguments, environment, Path(folder))
        if arguments.only != "cpu":
            bench_close(arguments, environment, Path(folder))


if __name__ == "__main__":
    main()
