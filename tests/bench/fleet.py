#!/usr/bin/env python3
"""Benchmark of many sources at once, beside the bare chain and ffmpeg.

    tests/bench/fleet.py --build build/test [--out FOLDER] [--quick] [--sources 1 20 100 300] [--seconds 60] [--rounds 3]
                         [--only PART]

sources  N sources of a 2.1 Mb/s transport stream (H.264 + AAC over UDP) in gst-source, in a bare host of the library, as
         bare chains with fakesink in one process, and as N ffmpeg processes. They take turns; the ratios are taken within
         a round.
lap      What the first pass over the rings costs, beside the later ones.
memory   Memory of a source against the size of its ring.
kinds    Descriptors, threads and memory that a source takes, for each protocol.

Leaves fleet.md, its plots and fleet.json in FOLDER. Nothing is asserted: what did not arrive is reported.
"""

import argparse
import contextlib
import datetime
import json
import os
import resource
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request
from pathlib import Path

from bench import Child, playing
from buffer import ROOT, between, machine, spread, table, verdict, wrapped
from constant_rate import transport_stream
from noticed import await_socket, free_port
from plot import grouped_bars
from recorders import cpu_ns

DATAGRAM = 1316  # bytes
RATE = 2_100_000  # bit/s on the wire, of which these are video
VIDEO_RATE = 1_850_000
FPS = 25
MATERIAL_S = 30
# Longer than any run, since the sender does not make time stamps anew.
LONG_S = 300
SOURCES = [1, 20, 100, 300]
VIDEO_BYTES = 8 << 20
TOOL, HOST, CHAIN, FFMPEG = "gst-source", "library + shbsink", "bare chain", "ffmpeg -c copy"
CASES = [TOOL, HOST, CHAIN, FFMPEG]
RINGS = [1 << 20, 8 << 20, 32 << 20]
# Effort: full, quick.
EFFORT = {
    "rounds": (3, 1),
    "seconds": (60, 2),
    "settle": (10, 3),
    "lap": (20, 2),
    "lap bytes": (VIDEO_BYTES, 1 << 20),
    "rings": (20, 2),
    "kinds": (5, 2),
}


# ---- What the system says of processes


# What is known of a process beside its CPU time: counters, then sizes.
DETAILS = [
    "user_s",
    "system_s",
    "voluntary",
    "involuntary",
    "minor",
    "major",
    "threads",
    "descriptors",
    "rss_kb",
    "pss_kb",
    "shared_kb",
]


def sums(pids):
    """Counters and sizes of all of them together."""
    total = dict.fromkeys(["cpu_ns", *DETAILS], 0)
    tick = os.sysconf("SC_CLK_TCK")
    for pid in pids:
        folder = Path(f"/proc/{pid}")
        fields = (folder / "stat").read_text().rsplit(")", 1)[1].split()
        total["minor"] += int(fields[7])
        total["major"] += int(fields[9])
        total["user_s"] += int(fields[11]) / tick
        total["system_s"] += int(fields[12]) / tick
        total["threads"] += int(fields[17])
        total["cpu_ns"] += cpu_ns(pid)
        total["descriptors"] += len(os.listdir(folder / "fd"))
        for line in (folder / "smaps_rollup").read_text().splitlines()[1:]:
            name, size = line.split()[:2]
            key = {"Rss:": "rss_kb", "Pss:": "pss_kb", "Pss_Shmem:": "shared_kb"}.get(name)
            if key is not None:
                total[key] += int(size)
        for task in (folder / "task").iterdir():
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                for line in (task / "status").read_text().splitlines():
                    if line.startswith("voluntary_ctxt"):
                        total["voluntary"] += int(line.split()[1])
                    elif line.startswith("nonvoluntary_ctxt"):
                        total["involuntary"] += int(line.split()[1])
    return total


COUNTERS = ["cpu_ns", "user_s", "system_s", "voluntary", "involuntary", "minor", "major"]


def drops(ports):
    """Datagrams that the system has thrown away because a socket of these ports was full; and how many of the ports are open."""
    total, opened = 0, 0
    for line in Path("/proc/net/udp").read_text().splitlines()[1:]:
        fields = line.split()
        if int(fields[1].split(":")[1], 16) in ports:
            total += int(fields[-1])
            opened += 1
    return total, opened


def busy_ns():
    """What all cores together have worked, ns; the idle time is not in it."""
    fields = Path("/proc/stat").read_text().splitlines()[0].split()
    user, nice, system, _, _, irq, softirq, steal = map(int, fields[1:9])
    return (user + nice + system + irq + softirq + steal) * 1_000_000_000 // os.sysconf("SC_CLK_TCK")


# ---- Contestants


class Bench:
    def __init__(self, arguments, folder):
        build = arguments.build.resolve()
        self.arguments = arguments
        self.folder = folder
        self.programs = build / "tests/bench"
        self.build = build
        self.tool = build / "tools/gst-source/gst-source"
        self.port = 0
        path = os.pathsep.join(filter(None, [str(build / "shbsink"), os.environ.get("GST_PLUGIN_PATH")]))
        self.environment = dict(os.environ, GST_PLUGIN_PATH=path)
        self.name = f"gst-source-bench-{os.getpid()}"
        self.file = transport_stream(
            folder / "fleet.ts", RATE, "640x360", FPS, 1800, 96, 2, MATERIAL_S, LONG_S // MATERIAL_S, constant_video=True
        )

    def effort(self, name):
        return EFFORT[name][self.arguments.quick]

    def tool_command(self, urls, video_bytes):
        """The one way into gst-source: a file of sources, each with a buffer of its own, and the HTTP side."""
        self.port = free_port(socket.SOCK_STREAM)
        text = f'[service]\nhttp = "127.0.0.1:{self.port}"\n[defaults]\nvideo_bytes = {video_bytes}\n'
        for number, url in enumerate(urls):
            text += f'[[source]]\nname = "{self.name}-{number}"\nurl = "{url}"\n'
        path = self.folder / "sources.toml"
        path.write_text(text)
        return [str(self.tool), "--config", str(path), "--json"]

    def get(self, path):
        with urllib.request.urlopen(f"http://127.0.0.1:{self.port}{path}", timeout=60) as answer:
            return answer.read()

    @contextlib.contextmanager
    def scraping(self):
        """What a monitoring system and a page that is open ask for, once a second."""
        ended = threading.Event()

        def scrape():
            while not ended.wait(1):
                with contextlib.suppress(OSError):
                    self.get("/metrics")
                    self.get("/api/sources")

        thread = threading.Thread(target=scrape)
        thread.start()
        try:
            yield
        finally:
            ended.set()
            thread.join()

    def commands(self, case, ports, video_bytes):
        urls = [f"udp://127.0.0.1:{port}" for port in ports]
        if case == TOOL:
            return [self.tool_command(urls, video_bytes)]
        if case == HOST:
            return [self.host_command(urls, video_bytes)]
        if case == CHAIN:
            return [[str(self.programs / "fleet-chains"), *urls]]
        return [
            [
                "ffmpeg",
                "-nostdin",
                "-loglevel",
                "quiet",
                "-i",
                f"{url}?buffer_size=1572864&fifo_size=10000&overrun_nonfatal=1",
                "-map",
                "0",
                "-c",
                "copy",
                "-f",
                "null",
                "-",
            ]
            for url in urls
        ]

    def host_command(self, urls, video_bytes):
        return [str(self.programs / "bench_host"), "fleet", str(video_bytes), *urls]

    @contextlib.contextmanager
    def running(self, case, commands):
        with contextlib.ExitStack() as stack:
            out = subprocess.PIPE if case == HOST else subprocess.DEVNULL
            children = [
                stack.enter_context(Child(command, env=self.environment, stdout=out, stderr=subprocess.DEVNULL, text=True))
                for command in commands
            ]
            try:
                if case == HOST and children[0].process.stdout.readline() != "ready\n":
                    sys.exit("fleet.py: bench_host has opened nothing")
                with self.scraping() if case == TOOL else contextlib.nullcontext():
                    yield children
            finally:
                # All at once; ffmpeg waits for a datagram more before it ends by SIGTERM.
                number = signal.SIGKILL if case == FFMPEG else signal.SIGTERM
                for child in children:
                    os.kill(child.process.pid, number)
                for child in children:
                    child.end(number, patience=60)

    @contextlib.contextmanager
    def sending(self, ports):
        command = [str(self.programs / "fleet-send"), str(self.file), str(RATE), *map(str, ports)]
        with Child(command, stdout=subprocess.PIPE, text=True) as child:
            yield child

    @staticmethod
    def ask(child):
        """The words that a program answers SIGUSR1 with: names and numbers."""
        os.kill(child.process.pid, signal.SIGUSR1)
        return child.process.stdout.readline().split()

    def frames(self, case, children):
        """Video frames of all sources and of the one with the least; none where nobody counts them."""
        if case == HOST:
            words = self.ask(children[0])
            return int(words[1]), int(words[2])
        if case == TOOL:
            counts = [source["video_frames"] for source in json.loads(self.get("/api/sources"))]
            return sum(counts), min(counts, default=0)
        return None

    @staticmethod
    def await_ports(ports, children):
        give_up = time.monotonic() + 120
        while drops(set(ports))[1] < len(ports):
            for child in children:
                if os.waitid(os.P_PID, child.process.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT) is not None:
                    sys.exit(f"fleet.py: {Path(child.process.args[0]).name} has ended by itself")
            if time.monotonic() > give_up:
                sys.exit("fleet.py: not every source was open within two minutes")
            time.sleep(0.05)

    # ---- sources

    def look(self, case, children, sender, ports):
        seen = sums([child.process.pid for child in children])
        seen["frames"] = self.frames(case, children)
        words = self.ask(sender)
        seen.update(
            sent=int(words[1]),
            late_us=int(words[3]),
            dropped=drops(set(ports))[0],
            sender_ns=cpu_ns(sender.process.pid),
            busy_ns=busy_ns(),
            time=time.monotonic(),
        )
        return seen

    @staticmethod
    def window(first, last):
        seconds = last["time"] - first["time"]
        result = {"seconds": seconds} | {name: (last[name] - first[name]) / seconds for name in COUNTERS}
        result |= {
            name: last[name]
            for name in last
            if name not in COUNTERS + ["time", "frames", "sent", "dropped", "sender_ns", "busy_ns"]
        }
        result |= {name: (last[name] - first[name]) / seconds for name in ("sender_ns", "busy_ns")}
        result |= {name: last[name] - first[name] for name in ("sent", "dropped")}
        if last["frames"] is not None:
            result["video_frames"] = last["frames"][0] - first["frames"][0]
            result["least_video_frames"] = last["frames"][1]
        return result

    def turn(self, case, count, video_bytes, pauses):
        """One contestant with so many sources: what it takes from the end of each pause to that of the next."""
        ports = [free_port(socket.SOCK_DGRAM) for _ in range(count)]
        looks = []
        with self.running(case, self.commands(case, ports, video_bytes)) as children:
            self.await_ports(ports, children)
            with self.sending(ports) as sender:
                for pause in pauses:
                    time.sleep(pause)
                    looks.append(self.look(case, children, sender, ports))
        return [self.window(first, last) for first, last in zip(looks, looks[1:])]

    def sources(self):
        rounds = {count: {case: [] for case in CASES} for count in self.arguments.sources}
        for count in self.arguments.sources:
            for number in range(self.arguments.rounds):
                turn = number % len(CASES)
                for case in CASES[turn:] + CASES[:turn]:
                    print(f"fleet.py: {count} x {case}, round {number + 1} ...", file=sys.stderr)
                    rounds[count][case] += self.turn(
                        case, count, self.arguments.video_bytes, [self.effort("settle"), self.arguments.seconds]
                    )
        return {
            "rounds": self.arguments.rounds,
            "seconds": self.arguments.seconds,
            "video_bytes": self.arguments.video_bytes,
            "figures": rounds,
        }

    # ---- lap

    def lap(self):
        """The first pass over a ring ends when it has been filled once."""
        video_bytes = self.effort("lap bytes")
        lap = video_bytes * 8 / VIDEO_RATE
        pauses = [1, lap, lap]
        figures = {case: self.turn(case, self.effort("lap"), video_bytes, pauses) for case in (HOST, CHAIN)}
        return {"sources": self.effort("lap"), "video_bytes": video_bytes, "seconds": lap, "figures": figures}

    # ---- memory

    def memory(self):
        count = self.effort("rings")
        results = {}
        for ring in RINGS:
            ports = [free_port(socket.SOCK_DGRAM) for _ in range(count)]
            with self.running(HOST, self.commands(HOST, ports, ring)) as children:
                self.await_ports(ports, children)
                with self.sending(ports):
                    time.sleep(self.effort("settle"))
                    results[ring] = sums([children[0].process.pid])
        return {"sources": count, "rings": results}

    # ---- kinds

    def footprint(self, urls):
        with self.running(HOST, [self.host_command(urls, 1 << 20)]) as children:
            give_up = time.monotonic() + 60
            # The last to come has a key frame first.
            while int(self.ask(children[0])[2]) < FPS:
                if time.monotonic() > give_up:
                    return None
                time.sleep(0.1)
            time.sleep(self.effort("settle"))
            return sums([children[0].process.pid])

    def kinds(self):
        """By the difference between several sources and one of the same process."""
        many = self.effort("kinds")
        results = {}

        def measure(name, one, more):
            if one is None or more is None:
                print(f"fleet.py: {name}: no stream within a minute", file=sys.stderr)
                return
            results[name] = {
                key: (more[key] - one[key]) / (many - 1) for key in ("descriptors", "threads", "pss_kb", "shared_kb")
            }

        ports = [free_port(socket.SOCK_DGRAM) for _ in range(many)]
        urls = [f"udp://127.0.0.1:{port}" for port in ports]
        with self.sending(ports):
            measure("UDP", self.footprint(urls[:1]), self.footprint(urls))
        for name, url, peers in playing(self.build, self.folder):
            if name == "SRT caller":
                continue  # its listener takes one caller
            with contextlib.ExitStack() as stack:
                for command in peers:
                    child = stack.enter_context(Child(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
                    await_socket(child.process)
                measure(name, self.footprint([url]), self.footprint([url] * many))
        return {"sources": many, "each": results}


# ---- Report


def percent(ns_per_second):
    return f"{ns_per_second / 1e7:.1f} %"


def median(values):
    return statistics.median(list(values))


def of_case(figures, case, key):
    return median(one[key] for one in figures[case])


def ratio(figures, own, other, key="cpu_ns"):
    return spread([mine[key] / theirs[key] for mine, theirs in zip(figures[own], figures[other])])


def arrived(one, count):
    """In parts of what was due meanwhile; a sender that is late catches up later."""
    return min(1, (one["sent"] - one["dropped"]) / (one["seconds"] * count * RATE / 8 / DATAGRAM))


def others_ns(one):
    """What everything else on the machine took."""
    return max(0, one["busy_ns"] - one["cpu_ns"] - one["sender_ns"])


def is_carried(figures, count):
    """Whether the machine had enough for so many; else everything beside them waits as well, and counts as busy."""
    return min(arrived(one, count) for case in CASES for one in figures[case]) >= 0.98


def report_sources(sources, out):
    all_figures = {int(count): figures for count, figures in sources["figures"].items()}
    aims, rows, losses, details, memory = [], [], [], [], []
    for count, figures in all_figures.items():
        ratios = {"a/c": ratio(figures, TOOL, CHAIN), "b/c": ratio(figures, HOST, CHAIN), "a/d": ratio(figures, TOOL, FFMPEG)}
        rows.append(
            [
                count,
                *(percent(of_case(figures, case, "cpu_ns")) for case in CASES),
                *(between(one) for one in ratios.values()),
                percent(of_case(figures, HOST, "cpu_ns") / count),
            ]
        )
        whole = is_carried(figures, count)
        for name, limit, what in (
            ("b/c", 1.05, "library + shbsink at most 1.05 of the bare chain"),
            ("a/d", 1, "gst-source at most ffmpeg -c copy"),
        ):
            value = ratios[name]["median"]
            aims.append(
                [f"{count}: CPU of {what}", f"{value:.2f}", verdict(value <= limit) if whole else "not carried: not judged"]
            )
        for case in CASES:
            steady = figures[case]
            expected = median(one["seconds"] for one in steady) * FPS * count
            frames = [one["video_frames"] for one in steady if "video_frames" in one]
            losses.append(
                [
                    count,
                    case,
                    *(percent(median(values)) for values in (map(others_ns, steady), [one["sender_ns"] for one in steady])),
                    f"{median(one['late_us'] for one in steady) / 1000:.0f} ms",
                    f"{sum(one['sent'] for one in steady):,}",
                    f"{sum(one['dropped'] for one in steady):,}",
                    f"{100 * min(arrived(one, count) for one in steady):.1f} %",
                    f"{100 * median(frames) / expected:.1f} %" if frames else "-",
                ]
            )
            each = {key: of_case(figures, case, key) / count for key in DETAILS}
            details.append(
                [
                    count,
                    case,
                    f"{100 * each['user_s']:.2f} / {100 * each['system_s']:.2f} %",
                    f"{each['voluntary']:.0f}",
                    f"{each['involuntary']:.1f}",
                    f"{each['minor']:.1f}",
                    f"{each['major']:.2f}",
                    f"{each['threads']:.1f}",
                    f"{each['descriptors']:.1f}",
                ]
            )
            memory.append(
                [
                    count,
                    case,
                    f"{each['pss_kb'] / 1024:.2f}",
                    f"{(each['pss_kb'] - each['shared_kb']) / 1024:.2f}",
                    f"{each['rss_kb'] / 1024:.2f}",
                ]
            )
    names = [f"{count} sources" if count > 1 else "1 source" for count in all_figures]
    grouped_bars(
        out / "fleet-cpu.svg",
        "CPU of one source, by the number of sources",
        "% of a core",
        names,
        [
            (case, [of_case(figures, case, "cpu_ns") / count / 1e7 for count, figures in all_figures.items()], None)
            for case in CASES
        ],
    )
    grouped_bars(
        out / "fleet-ratio.svg",
        "CPU, in parts of the bare chain's",
        "ratio",
        names,
        [
            (
                case,
                [ratio(figures, case, CHAIN)["median"] for figures in all_figures.values()],
                [ratio(figures, case, CHAIN)["p90"] for figures in all_figures.values()],
            )
            for case in (TOOL, HOST, FFMPEG)
        ],
        aim=1.05,
    )
    top = (
        f"## Many sources\n\nEach a transport stream of {RATE / 1e6:.1f} Mb/s, H.264 and AAC, over UDP on the loopback, from "
        "one sender for all; medians of "
        f"{sources['rounds']} round(s) of {sources['seconds']:g} s, after the start. Rings of {sources['video_bytes'] >> 20} "
        "MiB a source. (a) gst-source with a file of sources, "
        "--json, scraped once a second, (b) the library and shbsink in a host with nothing else, a buffer for each source, "
        "(c) the same chains with "
        "fakesink in one "
        "process, (d) one ffmpeg process a source. CPU in parts of a core; ratios within each round: median (10th to 90th "
        "percentile).\n\n"
    )
    judged = [figures for count, figures in all_figures.items() if is_carried(figures, count)]
    if any(others_ns(one) > 5e8 for figures in judged for case in CASES for one in figures[case]):
        top += (
            "**The machine was busy with other things meanwhile: these figures stand until they are taken on an idle one.**\n\n"
        )
    text = (
        top
        + table(
            ["Sources", *(f"({letter}) {case}" for letter, case in zip("abcd", CASES)), "a/c", "b/c", "a/d", "(b) a source"],
            rows,
        )
        + "\n![CPU of a source](fleet-cpu.svg)\n\n![Ratios](fleet-ratio.svg)\n"
        + "\n### What arrived\n\nThe sender shares the machine. Others: everything that ran beside, the system's own work "
        "included. Late: the most that the sender was "
        "behind its schedule. Dropped: datagrams for which a socket had no room. Arrived: in parts of what was due, in the "
        "worst round. Video frames: those that came into the buffers, "
        "in parts of those due.\n\n"
        + table(["Sources", "", "others", "sender", "late", "sent", "dropped", "arrived", "video frames"], losses)
        + "\n### A source in detail\n\nPer source and second: CPU (user / system), context switches (voluntary, "
        "involuntary), page faults (minor, major); and threads and "
        "open descriptors of a source, the process's own spread over all sources.\n\n"
        + table(
            ["Sources", "", "user / system", "voluntary", "involuntary", "minor", "major", "threads", "descriptors"], details
        )
        + "\n### Memory of a source\n\nMB, with the process's own spread over all sources: PSS, PSS without shared memory "
        "(the rings), and RSS, which counts the pages of "
        "libraries for each process again.\n\n" + table(["Sources", "", "PSS", "without rings", "RSS"], memory)
    )
    return text, aims


def report_lap(lap, _):
    count = lap["sources"]
    rows = [
        [
            case,
            *(f"{one['cpu_ns'] / count / 1e7:.2f} %" for one in windows),
            *(f"{one['minor'] / count:.1f}" for one in windows),
        ]
        for case, windows in lap["figures"].items()
    ]
    return (
        f"## The first pass over the rings\n\n{count} sources with rings of {lap['video_bytes'] >> 20} MiB, which are full "
        "for the first time after "
        f"{lap['seconds']:.0f} s: CPU of a source, and its minor page faults a second, until then and in as long a time "
        "afterwards. The start is in the former.\n\n"
        + table(["", "CPU, first pass", "CPU, later", "faults, first pass", "faults, later"], rows)
    ), []


def report_memory(memory, out):
    count = memory["sources"]
    rings = {int(ring): one for ring, one in memory["rings"].items()}
    rows = [
        [
            f"{ring >> 20} MiB",
            *(f"{kb / 1024 / count:.2f}" for kb in (one["pss_kb"], one["shared_kb"], one["pss_kb"] - one["shared_kb"])),
        ]
        for ring, one in rings.items()
    ]
    grouped_bars(
        out / "fleet-memory.svg",
        "Memory of a source, by the size of its ring for video",
        "MB",
        [f"{ring >> 20} MiB" for ring in rings],
        [
            ("shared memory", [one["shared_kb"] / 1024 / count for one in rings.values()], None),
            ("everything else", [(one["pss_kb"] - one["shared_kb"]) / 1024 / count for one in rings.values()], None),
        ],
    )
    return (
        f"## Memory by the size of the ring\n\n{count} sources in the bare host; MB of a source (PSS), the process's own "
        "spread over them. The ring of the audio has "
        "its default of 512 KiB.\n\n"
        + table(["--video-bytes", "all", "shared", "else"], rows)
        + "\n![Memory](fleet-memory.svg)\n"
    ), []


def report_kinds(kinds, _):
    rows = [
        [name, f"{one['descriptors']:.1f}", f"{one['threads']:.1f}", f"{(one['pss_kb'] - one['shared_kb']) / 1024:.2f}"]
        for name, one in kinds["each"].items()
    ]
    return (
        f"## What a source takes, by protocol\n\nThe difference between {kinds['sources']} sources and one of the same "
        "process, while they play; memory (PSS) "
        "without the shared buffer, descriptors with the three of its buffer. RTSP over TCP.\n\n"
        + table(["", "descriptors", "threads", "MB"], rows)
    ), []


def report(results, out):
    texts, aims = [], []
    for name, write in (("sources", report_sources), ("lap", report_lap), ("memory", report_memory), ("kinds", report_kinds)):
        if name in results:
            text, own = write(results[name], out)
            texts.append(text)
            aims += own
    load = ", ".join(f"{name} {before:.2f} to {after:.2f}" for name, (before, after) in results["load"].items())
    top = (
        f"# Many sources, measured\n\nWritten by `tests/bench/fleet.py` on {results['date']}; {results['machine']}. Load of "
        "the machine (1 min), before and after "
        f"each part: {load}.\n\nRead the ratios: all sides were measured in turns in one run.\n"
    )
    if aims:
        top += "\n" + table(["Aim", "measured", ""], aims)
    document = wrapped("\n".join([top, *texts]))
    (out / "fleet.md").write_text(document)
    return document


PARTS = ["sources", "lap", "memory", "kinds"]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument(
        "--build",
        type=Path,
        required=True,
        help="a build directory with the tools, the plug-in and the programs of the benchmark",
    )
    parser.add_argument("--out", type=Path, default=ROOT / "out/bench", help="folder for the results (default: out/bench)")
    parser.add_argument(
        "--quick", action="store_true", help="everything once and short: shows that it works, and no figures to rely on"
    )
    parser.add_argument("--only", choices=PARTS, action="append", help="one of the parts, several times: several")
    parser.add_argument("--sources", type=int, nargs="+", help=f"numbers of sources (default: {' '.join(map(str, SOURCES))})")
    parser.add_argument("--seconds", type=float, help="of each measurement (default: 60)")
    parser.add_argument("--rounds", type=int, help="default: 3")
    parser.add_argument("--video-bytes", type=int, default=VIDEO_BYTES, help="ring of each source (default: 8 MiB)")
    arguments = parser.parse_args()
    arguments.sources = arguments.sources or ([1, 2] if arguments.quick else SOURCES)
    arguments.seconds = arguments.seconds or EFFORT["seconds"][arguments.quick]
    arguments.rounds = arguments.rounds or EFFORT["rounds"][arguments.quick]
    if arguments.seconds > LONG_S - 60:
        parser.error(f"the material lasts {LONG_S} s, of which a minute is for the start")
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    arguments.out.mkdir(parents=True, exist_ok=True)
    results = {"date": datetime.date.today().isoformat(), "machine": machine(), "quick": arguments.quick, "load": {}}
    with tempfile.TemporaryDirectory() as folder:
        bench = Bench(arguments, Path(folder))
        for name in arguments.only or PARTS:
            print(f"fleet.py: {name} ...", file=sys.stderr)
            before = os.getloadavg()[0]
            results[name] = getattr(bench, name)()
            results["load"][name] = (before, os.getloadavg()[0])
            (arguments.out / "fleet.json").write_text(json.dumps(results, indent=1) + "\n")
    print(report(results, arguments.out))


if __name__ == "__main__":
    main()
