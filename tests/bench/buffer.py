#!/usr/bin/env python3
"""Benchmark of the shared buffer and its sink, each figure measured side by side with its yardsticks in one run.

    tests/bench/buffer.py [--out FOLDER] [--quick] [--only copy|wake|readers|sink] [--build DIR]

copy     Writing and reading beside memcpy of the same sizes, between the same source and rings of the same kind; writing once more beside a
         reader that never sleeps.
wake     Time from a write in one process to the whole message in the hands of another, which slept: the shared buffer, shmsink/shmsrc,
         unixfdsink/unixfdsrc, iceoryx, a Unix socket.
readers  One writer with 1, 4 and 16 reading processes, unpaced and at a live pace; what it takes to wake up to 64 that sleep.
sink     CPU of one and the same pipeline that ends in shbsink, fakesink or filesink.

Installs and builds what is needed (in build/bench; with --build it takes that build directory as it is and installs nothing), takes less than
five minutes, and leaves buffer.md, results.json and the plots in FOLDER. The contestants take turns, round by round, and ratios are
taken within a round. Nothing is asserted but that everything sent arrives unharmed.
"""

import argparse
import contextlib
import datetime
import fcntl
import json
import math
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import textwrap
import time
from pathlib import Path

from bench import Child, material
from plot import grouped_bars

ROOT = Path(__file__).resolve().parents[2]
SIZES = [1024, 16384, 65536, 1048576]
NAMES = {1024: "1 kB", 16384: "16 kB", 65536: "64 kB", 1048576: "1 MB"}
PARTS = {"p50": 0.5, "p99": 0.99, "p99.9": 0.999}
FRAMES = 16384  # bytes of a frame in `readers`
WAYS = ["write", "awake", "read"]
AIMS = {"write": 0.95, "awake": 0.9, "read": 0.9}  # of memcpy's speed from 64 kB on
SLEEPERS = [1, 4, 16, 64]
SLEEPERS_RATE = 200

BARE = "bare memcpy and futex"
# Name, program and variant, how the message gets there.
WAKE = [
    ("shb, in place", ["wake-shb", "borrow"], "copied into the buffer, read where it lies"),
    ("shb, copied out", ["wake-shb", "read"], "copied into the buffer and out of it"),
    ("shb, any of 8", ["wake-shb", "any"], "like in place, but shb_wait_any waits for eight tracks, written in turn"),
    ("shb, set of 8 in epoll", ["wake-shb", "set"], "the same, but epoll waits for the descriptor of a set"),
    ("shb, other user", ["wake-shb", "other"], "like in place, but the reader may write nothing and is woken by a socket"),
    ("unixfdsink/unixfdsrc", ["wake-shmsink", "unixfd"], "copied into a pool of memory with descriptors, which unixfdsink sends, read where it lies"),
    ("shmsink/shmsrc", ["wake-shmsink"], "copied into the memory by shmsink, read where it lies"),
    ("iceoryx", ["wake-iceoryx", "copy"], "copied into a loaned chunk, read where it lies"),
    ("iceoryx, made in place", ["wake-iceoryx", "loan"], "not copied at all: what it carries was made in the loaned chunk"),
    (BARE, ["wake-bare"], "the least that one copy and one wake-up can take, without any safety"),
    ("Unix socket", ["wake-socket"], "copied into the kernel and out of it"),
]
OWN = ["shb, in place", "shb, copied out"]
PROGRAMS = ["copy", "readers", "sink", "wake-bare", "wake-shb", "wake-shmsink", "wake-socket"]

# Effort: full, quick.
EFFORT = {
    "copy rounds": (40, 2), "copy bytes": (32 << 20, 8 << 20),
    "wake rounds": (7, 1), "wake messages": (600, 40), "wake rate": (1000, 1000),
    "readers rounds": (3, 1), "readers ms": (1000, 150),
    "sink rounds": (15, 1), "sink repeats": (10, 0),
}


def run(command, environment=None, bound=150):
    """Standard output of a program that has to succeed within the bound."""
    with subprocess.Popen([str(part) for part in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                          env=environment) as process:
        try:
            output = process.communicate(timeout=bound)[0]
            if process.returncode != 0:
                sys.exit(f"buffer.py: {' '.join(map(str, command))} has failed ({process.returncode})")
            return output
        finally:
            process.kill()
            # Programs that end by themselves leave nothing.
            for left in Path("/dev/shm").glob(f"gst-source-bench-{process.pid}*"):
                with contextlib.suppress(FileNotFoundError):
                    left.unlink()


def prepare():
    """Installs and builds in build/bench. Without iceoryx there is one contestant less, so its packages may fail."""
    commands = ". scripts/lib.sh; "
    packages = commands + 'need_packages "${build_packages[@]}" "${runtime_packages[@]}" "${sender_packages[@]}" '
    optional = commands + "need_packages cmake iceoryx libiceoryx-posh-dev"
    options = "--buildtype=release -Dwerror=false -Dtest_parts=bench"
    targets = " ".join(f"tests/bench/{name}" for name in PROGRAMS)

    def shell(text):
        return subprocess.run(["bash", "-euc", text, "buffer.py"], cwd=ROOT, stdin=subprocess.DEVNULL, check=False).returncode == 0

    if not shell(packages + "libgtest-dev libgmock-dev gstreamer1.0-tools"):
        sys.exit(1)
    iceoryx = shell(optional)
    build = ROOT / "build/bench"
    # A directory that was configured before iceoryx came does not know of it.
    if iceoryx and (build / "build.ninja").exists() and "wake-iceoryx" not in (build / "build.ninja").read_text():
        shell("meson setup --reconfigure build/bench >/dev/null")
    if not shell(commands + f"configure bench {options}; build_targets bench {targets} shbsink/libgstshbsink.so"):
        sys.exit(1)
    if iceoryx and not shell(commands + "build_targets bench tests/bench/wake-iceoryx"):
        print("buffer.py: the program for iceoryx could not be built", file=sys.stderr)
    return build


def percentile(values, part):
    """Nearest rank."""
    return sorted(values)[max(0, math.ceil(len(values) * part) - 1)]


def spread(values):
    return {"median": statistics.median(values), "p10": percentile(values, 0.1), "p90": percentile(values, 0.9)}


class Bench:
    def __init__(self, build, folder, quick):
        self.programs = build.resolve() / "tests/bench"
        self.folder = folder
        self.quick = quick
        path = os.pathsep.join(filter(None, [str(build.resolve() / "shbsink"), os.environ.get("GST_PLUGIN_PATH")]))
        # What a program that was killed leaves there goes with the folder.
        self.environment = dict(os.environ, GST_PLUGIN_PATH=path, TMPDIR=str(folder))

    def effort(self, name):
        return EFFORT[name][self.quick]

    def program(self, name):
        return self.programs / name

    # ---- copy

    def copy(self):
        rounds = {(way, size): [] for way in WAYS for size in SIZES}
        for line in run([self.program("copy"), self.effort("copy rounds"), self.effort("copy bytes"), *SIZES]).splitlines():
            way, size, own, plain = line.split()
            rounds[way, int(size)].append((float(own), float(plain)))
        return {way: {size: {"own_ns": statistics.median(own for own, _ in rounds[way, size]),
                             "memcpy_ns": statistics.median(plain for _, plain in rounds[way, size]),
                             "rounds": len(rounds[way, size]),
                             "ratio": spread([plain / own for own, plain in rounds[way, size]])} for size in SIZES}
                for way in WAYS}

    # ---- wake

    @contextlib.contextmanager
    def roudi(self):
        """iceoryx's daemon. There can be only one of it on a machine: runs that need it wait for one another."""
        pools = "".join(f"[[segment.mempool]]\nsize = {size}\ncount = 64\n" for size in SIZES)
        config, log = self.folder / "roudi.toml", self.folder / "roudi.log"
        config.write_text(f"[general]\nversion = 1\n[[segment]]\n{pools}")
        with open(Path(tempfile.gettempdir()) / f"gst-source-bench-roudi-{os.getuid()}", "w", encoding="ascii") as lock, \
                open(log, "w", encoding="utf-8") as output:
            fcntl.flock(lock, fcntl.LOCK_EX)
            with Child(["iox-roudi", "-c", str(config), "-m", "off", "-l", "off"], stdout=output, stderr=subprocess.STDOUT) as daemon:
                end = time.monotonic() + 30
                while "ready" not in log.read_text(encoding="utf-8", errors="replace"):
                    ended = os.waitid(os.P_PID, daemon.process.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT)
                    if ended is not None or time.monotonic() > end:
                        sys.exit(f"buffer.py: iox-roudi does not start:\n{log.read_text(encoding='utf-8', errors='replace')}")
                    time.sleep(0.02)
                yield

    def missing(self, command):
        """Why a contestant cannot take part, or none."""
        if not self.program(command[0]).exists():
            return "not built: its development files were missing"
        if command[0] == "wake-iceoryx" and shutil.which("iox-roudi") is None:
            return "its daemon iox-roudi is not installed"
        if command[1:] == ["other"] and os.geteuid() != 0:
            return "only root can become another user"
        if command[1:] == ["unixfd"]:
            # The elements came with GStreamer 1.24; a sink that waits for its receiver, without which the first messages are lost, with 1.26.
            asked = subprocess.run(["gst-inspect-1.0", "unixfdsink"], env=self.environment, capture_output=True, text=True, check=False)
            if "wait-for-connection" not in asked.stdout:
                return "GStreamer here has no unixfdsink that waits for its receiver (1.26 has)"
        return None

    def wake_round(self, command):
        daemon = self.roudi() if command[0] == "wake-iceoryx" else contextlib.nullcontext()
        values = {size: [] for size in SIZES}
        counts = None
        with daemon:
            output = run([self.program(command[0]), *command[1:], self.effort("wake messages"), self.effort("wake rate"), *SIZES],
                         self.environment)
        for line in output.splitlines():
            words = line.split()
            if words[0] == "received":
                counts = int(words[1]), int(words[3])
            else:
                values[int(words[0])].append(int(words[1]) / 1000)
        if counts is None or counts[0] != counts[1] or any(len(of_size) != self.effort("wake messages") for of_size in values.values()):
            sys.exit(f"buffer.py: {' '.join(command)}: not everything arrived: {counts}")
        return values

    def wake(self):
        left_out = {name: reason for name, command, _ in WAKE if (reason := self.missing(command))}
        taking_part = [(name, command) for name, command, _ in WAKE if name not in left_out]
        rounds = {name: [] for name, _ in taking_part}
        for number in range(self.effort("wake rounds")):
            turn = number % len(taking_part)
            for name, command in taking_part[turn:] + taking_part[:turn]:
                rounds[name].append(self.wake_round(command))
        us = {name: {size: {part: statistics.median(percentile(one[size], PARTS[part]) for one in of_name) for part in ("p50", "p99")}
                     | {"p99.9": percentile([value for one in of_name for value in one[size]], PARTS["p99.9"])} for size in SIZES}
              for name, of_name in rounds.items()}
        return {"left_out": left_out, "rounds": self.effort("wake rounds"), "messages": self.effort("wake messages"),
                "rate": self.effort("wake rate"), "us": us,
                "rounds_us": {name: {size: [[percentile(one[size], PARTS[part]) for part in ("p50", "p99")] for one in of_name]
                                     for size in SIZES} for name, of_name in rounds.items()}}

    # ---- readers

    def readers(self):
        cases = [self.readers_case(readers, rate) for rate in (0, 2000) for readers in (1, 4, 16)]
        sleepers = [self.readers_case(readers, SLEEPERS_RATE) for readers in SLEEPERS]
        return {"bytes": FRAMES, "ms": self.effort("readers ms"), "cases": cases, "sleepers": sleepers}

    def readers_case(self, readers, rate):
        rounds = []
        for _ in range(self.effort("readers rounds")):
            lines = run([self.program("readers"), readers, FRAMES, rate, self.effort("readers ms")]).splitlines()
            frames, nanoseconds, calls, woken = map(int, lines[0].split()[1:])
            delivered, lost, slept = zip(*(map(int, line.split()[1:]) for line in lines[1:]))
            rounds.append({"written": frames, "ns_per_write": nanoseconds / frames, "calls_per_frame": calls / frames,
                           "woken_per_frame": woken / frames, "delivered": sum(delivered), "lost": sum(lost),
                           "slept_per_frame": sum(slept) / frames, "readers": len(delivered)})
        return {"readers": readers, "rate": rate, "rounds": rounds,
                **{name: statistics.median(one[name] for one in rounds) for name in rounds[0]}}

    # ---- sink

    def sink(self):
        part, file = material(self.folder), self.folder / "long.ts"
        run(["ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-stream_loop", self.effort("sink repeats"), "-i", part, "-map", "0",
             "-c", "copy", "-f", "mpegts", file])
        with tempfile.TemporaryDirectory(dir="/dev/shm", prefix="gst-source-bench-") as memory:
            copy = Path(memory) / "frames"
            sinks = {"fakesink": ["fakesink"], "shbsink": ["shbsink"], "filesink to /dev/null": ["filesink", "location=/dev/null"],
                     "filesink to tmpfs": ["filesink", f"location={copy}"]}
            rounds = {name: [] for name in sinks}
            frames, size = {}, {}
            names = list(sinks)
            for number in range(self.effort("sink rounds") + 1):
                turn = number % len(names)
                for name in names[turn:] + names[:turn]:
                    words = run([self.program("sink"), file, *sinks[name]], self.environment).split()
                    frames[name], size[name] = int(words[0]), int(words[1])
                    # The first round brings the file and the programs into memory.
                    if number > 0:
                        rounds[name].append(int(words[2]) / 1e6)
            size["filesink to tmpfs"] = copy.stat().st_size
        return {"seconds": 30 * (self.effort("sink repeats") + 1), "frames": frames, "bytes": size,
                "rounds": self.effort("sink rounds"),
                "cpu_ms": {name: statistics.median(values) for name, values in rounds.items()},
                "ratio": {name: spread([own / plain for own, plain in zip(values, rounds["fakesink"])])
                          for name, values in rounds.items()}}


# ---- Report


def table(head, rows):
    lines = [head, ["---"] * len(head), *rows]
    return "\n".join("| " + " | ".join(map(str, row)) + " |" for row in lines) + "\n"


def short(value):
    return f"{value:.1f}" if value < 100 else f"{value:,.0f}"


def between(ratio):
    return f"**{ratio['median']:.2f}** ({ratio['p10']:.2f} to {ratio['p90']:.2f})"


def verdict(met):
    return "met" if met else "**not met**"


def report_copy(copy, out):
    grouped_bars(out / "buffer-copy.svg", "Speed of a write and of a read, memcpy = 1 (whisker: 90 % of the rounds are below)", "ratio",
                 [NAMES[size] for size in SIZES],
                 [(name, [copy[way][size]["ratio"]["median"] for size in SIZES], [copy[way][size]["ratio"]["p90"] for size in SIZES])
                  for name, way in (("write", "write"), ("write beside an awake reader", "awake"), ("read, copied out", "read"))], aim=0.9)
    rows = [[NAMES[size], *(text for way in WAYS for text in
                            (short(copy[way][size]["own_ns"]), short(copy[way][size]["memcpy_ns"]), between(copy[way][size]["ratio"])))]
            for size in SIZES]
    named = {"write": "write", "awake": "write beside an awake reader", "read": "read"}
    aims = [[f"{named[way]} of {NAMES[size]} at {aim} of memcpy", f"{copy[way][size]['ratio']['median']:.2f}",
             verdict(copy[way][size]["ratio"]["median"] >= aim)] for way, aim in AIMS.items() for size in SIZES if size >= 65536]
    rounds = copy["write"][SIZES[0]]["rounds"]
    text = (f"## Copying\n\nns per frame, medians of {rounds} rounds; the ratio is the speed in parts of memcpy's, taken within each round: median "
            "(10th to 90th percentile). Nobody waits for the frames. The reader that is awake copies out what it finds, on memcpy's side as well.\n\n"
            + table(["Frame", "write", "memcpy", "ratio", "write, reader awake", "memcpy, reader awake", "ratio", "read", "memcpy", "ratio"], rows) + "\n![Copying](buffer-copy.svg)\n")
    return text, aims


def report_wake(wake, out):
    us = wake["us"]
    grouped_bars(out / "buffer-wake.svg", "From the write to the message in another process: p50, whisker to p99", "µs",
                 [NAMES[size] for size in SIZES],
                 [(name, [values[size]["p50"] for size in SIZES], [values[size]["p99"] for size in SIZES]) for name, values in us.items()],
                 log=True)
    rows = [[name, *(" / ".join(short(us[name][size][part]) for part in PARTS) for size in SIZES)] for name in us]
    ways = [f"- {name}: {way}" for name, _, way in WAKE if name in us]
    left = [f"- {name}: left out, {reason}" for name, reason in wake["left_out"].items()]
    aims = []
    for rival, factor in (("shmsink/shmsrc", 5), ("iceoryx", 1)):
        for own in OWN:
            if rival in us and own in us:
                ratios = {part: [us[rival][size][part] / us[own][size][part] for size in SIZES] for part in ("p50", "p99")}
                wanted = f"{rival} takes {factor} times as long or more" if factor > 1 else f"no slower than {rival}"
                aims.append([f"{own}: {wanted} (ratios for {', '.join(NAMES.values())})",
                             "; ".join(f"{part}: " + ", ".join(f"{ratio:.1f}" for ratio in values) for part, values in ratios.items()),
                             verdict(all(ratio >= factor for values in ratios.values() for ratio in values))])
    text = (f"## Latency of a wake-up\n\nµs, p50 / p99 / p99.9 of {wake['messages']} messages a round, {wake['rounds']} rounds: p50 and p99 are the medians of the rounds', p99.9 is of all. "
            f"{wake['rate']} messages a second, so that the receiver sleeps before each; the time is taken when it has the whole message:\n\n"
            + "\n".join(ways + left) + "\n\n" + table(["", *(NAMES[size] for size in SIZES)], rows)
            + "\n![Latency](buffer-wake.svg)\n\n"
            + f"The same p50 in parts of {BARE}, which no transport that copies the message can fall below:\n\n"
            + table(["", *(NAMES[size] for size in SIZES)],
                    [[name, *(f"{us[name][size]['p50'] / us[BARE][size]['p50']:.1f}" for size in SIZES)] for name in us if name != BARE]))
    return text, aims


def report_readers(readers, out):
    seconds = readers["ms"] / 1000
    rows = []
    for case in readers["cases"]:
        offered = case["written"] * case["readers"]
        gigabytes = readers["bytes"] / case["ns_per_write"]
        pace = f"{case['rate']} a second" if case["rate"] else "as fast as it goes"
        rows.append([case["readers"], pace, f"{case['written'] / seconds:,.0f}", f"{case['ns_per_write'] / 1000:.2f}", f"{gigabytes:.1f}",
                     f"{case['delivered']:,.0f}", f"{case['lost']:,.0f} ({100 * case['lost'] / offered:.1f} %)"])
    unpaced = [case for case in readers["cases"] if not case["rate"]]
    grouped_bars(out / "buffer-readers.svg", f"One writer of frames of {NAMES[readers['bytes']]} as fast as it goes, and its readers on the same cores",
                 "GB/s", ["1 reader" if case["readers"] == 1 else f"{case['readers']} readers" for case in unpaced],
                 [(name, [case[key] * readers["bytes"] / seconds / 1e9 for case in unpaced], None)
                  for name, key in (("written", "written"), ("delivered to all readers together", "delivered"))])
    text = (f"## One writer, many readers\n\nFrames of {NAMES[readers['bytes']]} for {seconds:g} s; each reader is a process that copies each frame out and compares "
            "it byte for byte. Delivered and lost are sums over all readers, and add up to what was written for each of them.\n\n"
            + table(["Readers", "pace", "written per s", "µs per write", "GB/s while writing", "delivered", "lost"], rows)
            + "\n![Readers](buffer-readers.svg)\n"
            + f"\nThe same at {SLEEPERS_RATE} frames a second, so that all readers sleep before each frame. Per frame: the system calls of the writer in "
            "shb_writer_write, the readers that they woke, and how often the readers gave the processor away.\n\n"
            + table(["Readers", "calls of the writer", "readers woken", "switches of all readers", "of each"],
                    [[case["readers"], f"{case['calls_per_frame']:.2f}", f"{case['woken_per_frame']:.2f}", f"{case['slept_per_frame']:.2f}",
                      f"{case['slept_per_frame'] / case['readers']:.2f}"] for case in readers["sleepers"]]))
    return text, [[f"{case['readers']} sleeping readers: one system call of the writer per frame, one switch of each reader",
                   f"{case['calls_per_frame']:.2f}; {case['slept_per_frame'] / case['readers']:.2f}",
                   verdict(case["calls_per_frame"] <= 1 and case["slept_per_frame"] <= 1.1 * case["readers"])] for case in readers["sleepers"]]


def report_sink(sink, out):
    names = list(sink["ratio"])
    grouped_bars(out / "buffer-sink.svg", "CPU of one pipeline, by its sink; fakesink = 1", "ratio", names,
                 [("CPU, in parts of the same pipeline's with fakesink", [sink["ratio"][name]["median"] for name in names],
                   [sink["ratio"][name]["p90"] for name in names])], aim=1.05)
    rows = [[name, short(sink["cpu_ms"][name]), between(sink["ratio"][name])] for name in names]
    ratio = sink["ratio"]["shbsink"]["median"]
    text = (f"## CPU of the sink\n\n`filesrc ! tsdemux ! h264parse ! SINK` over {sink['seconds']} s of a 9 Mb/s stream, as fast as it goes: user + system time of "
            f"the process while it plays, ms, medians of {sink['rounds']} rounds.\n\n"
            + table(["Sink", "CPU", "parts of fakesink"], rows) + "\n![Sinks](buffer-sink.svg)\n")
    return text, [["CPU with shbsink at most 1.05 of fakesink", f"{ratio:.2f}", verdict(ratio <= 1.05)]]


def report(results, out):
    texts, aims = [], []
    for name, write in (("copy", report_copy), ("wake", report_wake), ("readers", report_readers), ("sink", report_sink)):
        if name in results:
            text, own = write(results[name], out)
            texts.append(text)
            aims += own
    load = ", ".join(f"{name} {before:.2f} to {after:.2f}" for name, (before, after) in results["load"].items())
    top = (f"# The shared buffer, measured\n\nWritten by `tests/bench/buffer.py` on {results['date']}; {results['machine']}. Load of the machine (1 min), before "
           f"and after each part: {load}.\n\nRead the ratios: both sides of each were measured in turns in one run.\n")
    if max(map(max, results["load"].values())) > os.cpu_count():
        top += "\n**The machine was busy with other things meanwhile: these figures stand until they are taken on an idle one.**\n"
    if aims:
        top += "\n" + table(["Aim", "measured", ""], aims)
    document = wrapped("\n".join([top, *texts]))
    (out / "buffer.md").write_text(document)
    return document


def wrapped(document, width=128):
    """Prose in lines that can be read in a terminal; tables and pictures as they are."""
    return "\n".join(line if line.startswith(("|", "!")) else
                     textwrap.fill(line, width, subsequent_indent="  " if line.startswith("- ") else "", break_on_hyphens=False)
                     for line in document.split("\n"))


def machine():
    cpu = Path("/proc/cpuinfo").read_text(encoding="utf-8")
    kind = "virtual machine" if " hypervisor" in cpu else "machine"
    return f"a {os.cpu_count()}-core {os.uname().machine} {kind}"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--out", type=Path, default=ROOT / "out/bench", help="folder for the results (default: out/bench)")
    parser.add_argument("--quick", action="store_true", help="everything once and short: shows that it works, and no figures to rely on")
    parser.add_argument("--only", choices=["copy", "wake", "readers", "sink"], help="one of the benchmarks")
    parser.add_argument("--build", type=Path, help="a build directory, taken as it is (default: build/bench, made and brought up to date)")
    arguments = parser.parse_args()
    build = arguments.build or prepare()
    arguments.out.mkdir(parents=True, exist_ok=True)
    results = {"date": datetime.date.today().isoformat(), "machine": machine(), "quick": arguments.quick, "load": {}}
    with tempfile.TemporaryDirectory() as folder:
        bench = Bench(build, Path(folder), arguments.quick)
        for name in [arguments.only] if arguments.only else ["copy", "wake", "readers", "sink"]:
            print(f"buffer.py: {name} ...", file=sys.stderr)
            before = os.getloadavg()[0]
            results[name] = getattr(bench, name)()
            results["load"][name] = (before, os.getloadavg()[0])
    (arguments.out / "results.json").write_text(json.dumps(results, indent=1) + "\n")
    print(report(results, arguments.out))


if __name__ == "__main__":
    main()
