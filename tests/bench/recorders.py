#!/usr/bin/env python3
"""Benchmark of the recorder, beside ffmpeg that records the same stream.

    tests/bench/recorders.py --build build/test [--out FOLDER] [--quick] [--only cpu|many]

cpu   CPU of one `gst-source-read record` beside that of `ffmpeg -c copy`, which gets the same 4 Mb/s transport stream by UDP. They take
      turns, and the ratio is taken within a round. The host of the shared buffer is in neither figure: it runs all the time.
many  Twenty recorders of one buffer at once: what they lose, and what each of them takes.

Leaves recorders.md and recorders.json in FOLDER. Nothing is asserted but that every recorder lost nothing and that its file holds
what was sent meanwhile.
"""

import argparse
import contextlib
import datetime
import json
import os
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from bench import Child, sender
from buffer import ROOT, between, machine, spread, table, verdict, wrapped
from noticed import free_port

RECORDERS = 20
CONTAINERS = ["mkv", "mp4"]
FPS = 25
# The sender may leave a frame out where the material begins anew.
MATERIAL_S = 30
# Effort: full, quick. `warm` is for the start, which ffmpeg takes 5 s for.
EFFORT = {"rounds": (5, 1), "warm": (8, 6), "seconds": (20, 3), "many seconds": (60, 4)}


def material(folder):
    """30 s of 4 Mb/s H.264 + AAC, constant rate, as a transport stream."""
    path = folder / "bench-4M.ts"
    subprocess.run(
        ["ffmpeg", "-nostdin", "-loglevel", "error", "-y",
         "-f", "lavfi", "-i", f"testsrc2=size=1280x720:rate={FPS},noise=alls=20:allf=t", "-f", "lavfi", "-i", "sine=sample_rate=48000",
         "-t", str(MATERIAL_S), "-c:v", "libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-g", str(FPS),
         "-pix_fmt", "yuv420p",
         "-b:v", "3700k", "-minrate", "3700k", "-maxrate", "3700k", "-bufsize", "3700k", "-nal-hrd", "cbr",
         "-c:a", "aac", "-b:a", "128k", "-ac", "2", "-f", "mpegts", str(path)], check=True)
    return path


def cpu_ns(pid):
    """What all threads of a process have used, to the ns; /proc/PID/stat counts hundredths of a second."""
    total = 0
    for task in Path(f"/proc/{pid}/task").iterdir():
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            total += int((task / "schedstat").read_text().split()[0])
    return total


def packets(path, kind):
    """Times of the packets of a file, seconds."""
    out = subprocess.run(["ffprobe", "-v", "error", "-select_streams", kind, "-show_entries", "packet=pts_time", "-of", "csv=p=0", str(path)],
                         check=True, stdout=subprocess.PIPE, text=True).stdout
    return sorted(float(line.rstrip(",")) for line in out.split())


def holes(path):
    """Frames that are missing between the first and the last of a file, by their times: video and audio."""
    missing = 0
    for kind, step in (("v", 1 / FPS), ("a", 1024 / 48000)):
        times = packets(path, kind)
        assert len(times) > 10, f"{path.name} has {len(times)} frames of kind {kind}"
        missing += sum(max(0, round((after - before) / step) - 1) for before, after in zip(times, times[1:]))
    return missing


class Bench:
    def __init__(self, build, folder, quick):
        build = build.resolve()
        self.host = build / "tools/gst-source/gst-source"
        self.reader = build / "tools/gst-source-read/gst-source-read"
        self.folder = folder
        self.quick = quick
        path = os.pathsep.join(filter(None, [str(build / "shbsink"), os.environ.get("GST_PLUGIN_PATH")]))
        self.environment = dict(os.environ, GST_PLUGIN_PATH=path)
        self.name = f"gst-source-bench-{os.getpid()}"
        self.source = material(folder)

    def effort(self, name):
        return EFFORT[name][self.quick]

    @contextlib.contextmanager
    def playing(self):
        """A host that plays, and the URL at which ffmpeg gets the same."""
        urls = [f"udp://127.0.0.1:{free_port(socket.SOCK_DGRAM)}" for _ in range(2)]
        quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        host = Child([str(self.host), urls[0], "--name", self.name], env=self.environment, **quiet)
        with host, sender(self.source, urls):
            self.await_frames()
            yield host, urls[1]

    def await_frames(self):
        give_up = time.monotonic() + 60
        while time.monotonic() < give_up:
            listed = subprocess.run([str(self.reader), "tracks", self.name, "--json"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                    text=True, check=False)
            tracks = [json.loads(line) for line in listed.stdout.splitlines()]
            if len(tracks) == 2 and all(track["frames"] > 2 * FPS for track in tracks):
                return
            time.sleep(0.1)
        sys.exit("recorders.py: no stream in the buffer within a minute")

    def record(self, path):
        return Child([str(self.reader), "record", self.name, str(path), "--json"], env=self.environment, stdout=subprocess.PIPE,
                     stderr=subprocess.DEVNULL, text=True)

    @staticmethod
    def ffmpeg(url, path):
        return Child(["ffmpeg", "-nostdin", "-loglevel", "fatal", "-i", f"{url}?fifo_size=100000&buffer_size=4000000",
                      "-map", "0", "-c", "copy", "-y", str(path)])

    def measure(self, children, seconds):
        """CPU of each, ns a second, once they have started."""
        time.sleep(self.effort("warm"))
        begin = [cpu_ns(child.process.pid) for child in children]
        time.sleep(seconds)
        return [(cpu_ns(child.process.pid) - first) / seconds for child, first in zip(children, begin)]

    @staticmethod
    def finish(child):
        """The recorder's own count, of one that is ended in order."""
        os.kill(child.process.pid, signal.SIGINT)
        output = child.process.stdout.read()
        child.end(0)
        assert child.process.returncode == 0, f"a recorder has failed ({child.process.returncode})"
        return json.loads(output.splitlines()[-1])

    # ---- One recorder beside ffmpeg

    def cpu(self):
        results = {}
        with self.playing() as (_, url):
            for container in CONTAINERS:
                own, other, start = [], [], []
                for number in range(self.effort("rounds")):
                    path = self.folder / f"own-{container}-{number}.{container}"
                    with self.record(path) as child:
                        own += self.measure([child], self.effort("seconds"))
                        summary = self.finish(child)
                        lost = summary["video_lost_frames"] + summary["audio_lost_frames"]
                        assert lost == 0 and holes(path) <= 1 + summary["duration_s"] // MATERIAL_S, f"{path.name} lacks frames"
                        start.append(child.cpu - own[-1] / 1e9 * summary["duration_s"])
                    path.unlink()
                    path = self.folder / f"ffmpeg-{container}-{number}.{container}"
                    with self.ffmpeg(url, path) as child:
                        other += self.measure([child], self.effort("seconds"))
                        child.end(signal.SIGINT)
                    # That it worked all the time is enough.
                    assert len(packets(path, "v")) >= FPS * self.effort("seconds"), f"{path.name} lacks frames"
                    path.unlink()
                results[container] = {
                    "own": own, "ffmpeg": other, "ratio": spread([mine / theirs for mine, theirs in zip(own, other)]),
                    "start_ms": 1000 * statistics.median(start)}
        return {"containers": results, "rounds": self.effort("rounds"), "seconds": self.effort("seconds")}

    # ---- Many at once

    def many(self):
        with self.playing() as (host, _), contextlib.ExitStack() as stack:
            before = cpu_ns(host.process.pid)
            begin = time.monotonic()
            paths = [self.folder / f"many-{number}.{CONTAINERS[number % len(CONTAINERS)]}" for number in range(RECORDERS)]
            children = [stack.enter_context(self.record(path)) for path in paths]
            each = self.measure(children, self.effort("many seconds"))
            host_cpu = (cpu_ns(host.process.pid) - before) / (time.monotonic() - begin)
            summaries = [self.finish(child) for child in children]
            missing = [holes(path) for path in paths]
            # What none of them has was not sent.
            missing = [one - min(missing) for one in missing]
        return {"recorders": RECORDERS, "seconds": self.effort("many seconds"), "each": each, "host": host_cpu,
                "lost": [one["video_lost_frames"] + one["audio_lost_frames"] for one in summaries], "holes": missing,
                "frames": [one["video_frames"] + one["audio_frames"] for one in summaries]}


def percent(ns_per_second):
    return f"{ns_per_second / 1e7:.2f} %"


def report_cpu(cpu):
    rows, aims = [], []
    for container, figures in cpu["containers"].items():
        rows.append([container, percent(statistics.median(figures["own"])), percent(statistics.median(figures["ffmpeg"])),
                     between(figures["ratio"]), f"{figures['start_ms']:.0f} ms"])
        ratio = figures["ratio"]["median"]
        aims.append([f"CPU of a recorder into {container} at most that of ffmpeg -c copy", f"{ratio:.2f}", verdict(ratio <= 1)])
    text = ("## One recorder beside ffmpeg\n\nCPU in parts of a core while a 4 Mb/s stream of H.264 and AAC is recorded, medians of "
            f"{cpu['rounds']} rounds of {cpu['seconds']} s; the ratio is taken within each round: median (10th to 90th percentile). ffmpeg also receives "
            "and takes apart the transport stream, which the host does for all recorders of its buffer. The start comes once and is in no other figure.\n\n"
            + table(["Container", "gst-source-read record", "ffmpeg -c copy", "ratio", "start of the recorder"], rows))
    return text, aims


def report_many(many):
    lost = sum(many["lost"]) + sum(many["holes"])
    rows = [[many["recorders"], many["seconds"], f"{sum(many['frames']):,}", sum(many["lost"]), sum(many["holes"]),
             percent(statistics.median(many["each"])), percent(sum(many["each"])), percent(many["host"])]]
    text = ("## Many recorders of one buffer\n\nHalf of them into mkv, half into mp4. Lost is what the recorders report; missing is what the files lack by their "
            "times. CPU in parts of a core; the host's is with the start of the recorders.\n\n"
            + table(["Recorders", "seconds", "frames", "lost", "missing", "CPU of each", "of all", "of the host"], rows))
    return text, [[f"{many['recorders']} recorders at 4 Mb/s on {os.cpu_count()} cores lose nothing", lost, verdict(lost == 0)]]


def report(results, out):
    texts, aims = [], []
    for name, write in (("cpu", report_cpu), ("many", report_many)):
        if name in results:
            text, own = write(results[name])
            texts.append(text)
            aims += own
    load = ", ".join(f"{name} {before:.2f} to {after:.2f}" for name, (before, after) in results["load"].items())
    top = (f"# The recorder, measured\n\nWritten by `tests/bench/recorders.py` on {results['date']}; {results['machine']}. Load of the machine (1 min), before "
           f"and after each part: {load}.\n")
    if max(map(max, results["load"].values())) > os.cpu_count():
        top += "\n**The machine was busy with other things meanwhile: these figures stand until they are taken on an idle one.**\n"
    document = wrapped("\n".join([top, table(["Aim", "measured", ""], aims), *texts]))
    (out / "recorders.md").write_text(document)
    return document


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, required=True, help="a build directory with the tools and the plug-in")
    parser.add_argument("--out", type=Path, default=ROOT / "out/bench", help="folder for the results (default: out/bench)")
    parser.add_argument("--quick", action="store_true", help="everything once and short: shows that it works, and no figures to rely on")
    parser.add_argument("--only", choices=["cpu", "many"], help="one of the benchmarks")
    arguments = parser.parse_args()
    arguments.out.mkdir(parents=True, exist_ok=True)
    results = {"date": datetime.date.today().isoformat(), "machine": machine(), "quick": arguments.quick, "load": {}}
    with tempfile.TemporaryDirectory() as folder:
        bench = Bench(arguments.build, Path(folder), arguments.quick)
        for name in [arguments.only] if arguments.only else ["cpu", "many"]:
            print(f"recorders.py: {name} ...", file=sys.stderr)
            before = os.getloadavg()[0]
            results[name] = getattr(bench, name)()
            results["load"][name] = (before, os.getloadavg()[0])
    (arguments.out / "recorders.json").write_text(json.dumps(results, indent=1) + "\n")
    print(report(results, arguments.out))


if __name__ == "__main__":
    main()
