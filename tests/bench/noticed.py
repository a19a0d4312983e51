#!/usr/bin/env python3
"""How long each protocol takes to notice that its peer is gone, and to deliver frames again when it is back.

    tests/bench/noticed.py --build build/test [--only TEXT] [--patience 100]

Each case plays a stream from a real peer on loopback by gst-source, kills or stops (SIGSTOP) the peer, and reads from the library's log when the session was
given up; then the peer is started again (or continued) and the time until access units arrive again is taken. All cases run at the
same time. "-" in the first column of figures: not noticed within the patience.
"""

import argparse
import json
import os
import random
import signal
import socket
import subprocess
import tempfile
import threading
import time
from pathlib import Path

LOOPBACK = "127.0.0.1"


claims = []  # what keeps the ports that were given out from other programs of the tests, until this one ends


def claimed(port):
    claim = socket.socket(socket.AF_UNIX)
    try:
        claim.bind(f"\0gst-source-udp-port-{port}")
    except OSError:
        claim.close()
        return False
    claims.append(claim)
    return True


def free_port(kind=socket.SOCK_STREAM):
    """A port that the kernel calls free. It gives ports of its own range to any socket that sends without having been bound; with the dozens of
    UDP ports and sockets of a long run, one of those soon takes a port that its owner has yet to bind. So UDP ports lie below that range."""
    first = int(Path("/proc/sys/net/ipv4/ip_local_port_range").read_text().split()[0])
    for port in random.sample(range(first // 2, first), first // 2) if kind == socket.SOCK_DGRAM and first > 4096 else [0]:
        with socket.socket(type=kind) as probe:
            try:
                probe.bind((LOOPBACK, port))
            except OSError:
                continue
            if port == 0 or claimed(port):
                return probe.getsockname()[1]
    raise RuntimeError("no port is free")


def ffmpeg(source, *output):
    return ["ffmpeg", "-nostdin", "-loglevel", "quiet", "-re", "-stream_loop", "-1", "-i", str(source), "-map", "0", "-c", "copy", *output]


NGINX = """daemon off; master_process off; pid {folder}/pid; error_log {folder}/error.log;
{modules}
events {{ worker_connections 64; }}
{body}
"""


def nginx(folder, body, modules=()):
    """Makes the folder and its configuration; `modules` are the names of "rtmp" and "stream" as far as `body` has such blocks."""
    folder.mkdir(parents=True, exist_ok=True)
    load = " ".join(f"load_module /usr/lib/nginx/modules/ngx_{module}_module.so;" for module in modules)
    (folder / "conf").write_text(NGINX.format(folder=folder, modules=load, body=body))
    # Not in the search path of ordinary users, who may not write to its usual log either.
    return ["/usr/sbin/nginx", "-e", "stderr", "-p", str(folder), "-c", str(folder / "conf")]


def await_socket(process, bound=3):
    """Waits until the process has opened a socket; a writer of files never does, and the bound ends the wait."""
    end = time.monotonic() + bound
    while time.monotonic() < end and process.poll() is None:
        try:
            if any(os.readlink(entry.path).startswith("socket:") for entry in os.scandir(f"/proc/{process.pid}/fd")):
                return
        except OSError:
            pass
        time.sleep(0.02)


class Case:
    """`peers` are the commands that bring the stream; `victim` is the index of the one that goes away."""

    def __init__(self, name, url, peers, victim=0, stop=signal.SIGKILL, flags=()):
        self.name, self.url, self.peers, self.victim, self.stop, self.flags = name, url, peers, victim, stop, flags
        self.noticed = self.back = None
        self.problem = ""

    def run(self, tool, environment, patience):
        children = []
        host = None
        samples, endings = [], []
        try:
            for command in self.peers:
                children.append(subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
                await_socket(children[-1])
            host = subprocess.Popen([tool, "--json", "--interval", "0.1", *self.flags, self.url], env=environment,
                                    stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

            def read_log():
                for line in host.stderr:
                    if "DoBusMessage--------------error!!" in line:
                        endings.append(time.monotonic())

            threading.Thread(target=read_log, daemon=True).start()

            def read():
                for line in host.stdout:
                    samples.append((time.monotonic(), json.loads(line)))

            threading.Thread(target=read, daemon=True).start()

            def wait(condition, bound):
                """Time of the first sample, from now on, that meets the condition."""
                seen, end = len(samples), time.monotonic() + bound
                while time.monotonic() < end:
                    while seen < len(samples):
                        when, sample = samples[seen]
                        seen += 1
                        if condition(sample):
                            return when
                    time.sleep(0.02)
                return None

            if wait(lambda s: (s.get("video_frames") or 0) > 60, 60) is None:
                self.problem = "never played"
                return
            before = len(endings)
            victim = children[self.victim]
            start = time.monotonic()
            victim.send_signal(self.stop)
            while len(endings) == before and time.monotonic() < start + patience:
                time.sleep(0.02)
            self.noticed = endings[before] - start if len(endings) > before else None
            frames = samples[-1][1]["video_frames"]
            start = time.monotonic()
            if self.stop == signal.SIGSTOP:
                victim.send_signal(signal.SIGCONT)
            else:
                victim.wait()
            end, when = time.monotonic() + patience, None
            while when is None and time.monotonic() < end:
                # A sender that finds nobody ends; a real one would try again.
                if children[self.victim].poll() is not None:
                    children[self.victim] = subprocess.Popen(self.peers[self.victim], stdin=subprocess.DEVNULL,
                                                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                when = wait(lambda s: s["video_frames"] > frames + 10, 0.5)
            self.back = when - start if when else None
        finally:
            for child in [host, *children]:
                if child is not None and child.poll() is None:
                    child.send_signal(signal.SIGCONT)
                    child.terminate()
                    try:
                        child.wait(10)
                    except subprocess.TimeoutExpired:
                        child.kill()
                        child.wait()


def cases(build, material, folder):
    made = []

    def add(*arguments, **options):
        made.append(Case(*arguments, **options))

    rtsp_server = build / "tests/peers/peers-rtsp-server"
    for stop, word in ((signal.SIGKILL, "killed"), (signal.SIGSTOP, "stopped")):
        port = free_port(socket.SOCK_DGRAM)
        add(f"UDP, sender {word}", f"udp://{LOOPBACK}:{port}", [ffmpeg(material, "-f", "mpegts", f"udp://{LOOPBACK}:{port}?pkt_size=1316")],
            stop=stop)
        for protocols in ("tcp", "udp"):
            port = free_port()
            add(f"RTSP over {protocols.upper()}, server {word}", f"rtsp://{LOOPBACK}:{port}/stream",
                [[str(rtsp_server), "--port", str(port), "--file", str(material.with_suffix(".mkv")), "--video", "h264", "--audio", "aac"]], stop=stop, flags=("--protocols", protocols))
        port = free_port(socket.SOCK_DGRAM)
        add(f"SRT caller, listener {word}", f"srt://{LOOPBACK}:{port}", [ffmpeg(material, "-f", "mpegts", f"srt://{LOOPBACK}:{port}?mode=listener")],
            stop=stop)
        port = free_port(socket.SOCK_DGRAM)
        add(f"SRT listener, caller {word}", f"srt://:{port}", [ffmpeg(material, "-f", "mpegts", f"srt://{LOOPBACK}:{port}?mode=caller")],
            stop=stop, flags=("--mode", "listener"))
        for idle in (0, 5):
            port = free_port()
            server = nginx(folder / f"rtmp{port}", f"rtmp {{ access_log off; server {{ listen {LOOPBACK}:{port}; application live {{ live on; }} }} }}", modules=["rtmp"])
            publish = ffmpeg(material, "-f", "flv", f"rtmp://{LOOPBACK}:{port}/live/a")
            flags = ("--idle-timeout", str(idle))
            add(f"RTMP, publisher {word}, idle-timeout {idle}", f"rtmp://{LOOPBACK}:{port}/live/a", [server, publish], victim=1, stop=stop, flags=flags)
            if stop == signal.SIGSTOP:
                port = free_port()
                server = nginx(folder / f"rtmp{port}", f"rtmp {{ access_log off; server {{ listen {LOOPBACK}:{port}; application live {{ live on; }} }} }}", modules=["rtmp"])
                publish = ffmpeg(material, "-f", "flv", f"rtmp://{LOOPBACK}:{port}/live/a")
                add(f"RTMP, server {word}, idle-timeout {idle}", f"rtmp://{LOOPBACK}:{port}/live/a", [server, publish], stop=stop, flags=flags)
        port = free_port()
        root = folder / f"hls{port}"
        (root / "www").mkdir(parents=True)
        temporary = " ".join(f"{use}_temp_path {use};" for use in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        server = nginx(root, f"http {{ access_log off; {temporary} server {{ listen {LOOPBACK}:{port}; root {root}/www; }} }}")
        write = ffmpeg(material, "-f", "hls", "-hls_time", "1", "-hls_list_size", "6", "-hls_flags", "delete_segments", str(root / "www/live.m3u8"))
        add(f"HLS, server {word}", f"http://{LOOPBACK}:{port}/live.m3u8", [write, server], victim=1, stop=stop)
    return made


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=Path("build/test"), help="build directory (default: build/test)")
    parser.add_argument("--only", default="", help="run the cases whose name contains this text")
    parser.add_argument("--patience", type=float, default=100, help="s to wait for each event (default: 100)")
    arguments = parser.parse_args()
    build = arguments.build.resolve()
    environment = dict(os.environ, GST_PLUGIN_PATH=str(build / "shbsink"), GST_DEBUG_FILE=os.devnull)
    with tempfile.TemporaryDirectory() as folder:
        folder = Path(folder)
        folder.chmod(0o755)
        material = folder / "material.ts"
        subprocess.run(["ffmpeg", "-nostdin", "-loglevel", "error", "-f", "lavfi", "-i", "testsrc2=size=320x180:rate=25", "-f", "lavfi", "-i",
                        "sine=sample_rate=48000", "-t", "20", "-c:v", "libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-g", "25",
                        "-pix_fmt", "yuv420p", "-c:a", "aac", "-ac", "2", str(material)], check=True)
        # The RTSP server plays its file once: ten minutes of the same.
        subprocess.run(["ffmpeg", "-nostdin", "-loglevel", "error", "-stream_loop", "30", "-i", str(material), "-map", "0", "-c", "copy",
                        str(material.with_suffix(".mkv"))], check=True)
        chosen = [case for case in cases(build, material, folder) if arguments.only in case.name]
        runs = [threading.Thread(target=case.run, args=(str(build / "tools/gst-source/gst-source"), environment, arguments.patience))
                for case in chosen]
        for run in runs:
            run.start()
        for run in runs:
            run.join()
    print(f"{'':44} {'noticed after':>14} {'frames again after':>19}")
    for case in chosen:
        figures = [f"{value:.1f} s" if value is not None else "-" for value in (case.noticed, case.back)]
        print(f"{case.name:44} {figures[0]:>14} {figures[1]:>19}  {case.problem}")


if __name__ == "__main__":
    main()
