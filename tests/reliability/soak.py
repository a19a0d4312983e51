#!/usr/bin/env python3
"""A long run with faults: sixteen sources of all protocols in one process, whose peers are killed, stopped, changed and restarted.

    tests/reliability/soak.py --build build/test --minutes 60 --seed 1 --out out/soak

Thirteen peers on loopback serve sixteen sources. Each peer suffers, by itself and in an order that the seed decides, one fault after the other:
one of its programs killed and started again, stopped (SIGSTOP) and continued, its sender restarted with other codecs, or the sources
closed and opened again by the host. In between it is left alone. A second process reads all frames and compares each with the
material that the senders play over and over. The stall watch of the shared buffer is set to 8 s, without which nobody would notice
some of the stops.

A run fails when the host ends, a source does not deliver again within two minutes after its fault is over, a frame is not the next one of the
material (or not of the material at all), or a pipeline is rebuilt, with no fault to account for it; when descriptors, threads or
objects are not back to the start once all is closed; or when the heap in use grows by more than 16 KiB for each new pipeline.

Leaves report.md, the figures as CSV, and plots in the folder. Ends with exit code 0 only when nothing failed.
"""

import argparse
import csv
import dataclasses
import os
import random
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from collections import Counter
from pathlib import Path

import rig
from plots import over_time
from verdict import slope

STALL_WATCH_MS = 8000
RECOVERY_BOUND = 120
STEADY = 4  # s of flow after which a source is taken for recovered
GROWTH_BOUND_KIB = 16  # heap in use for each new pipeline


@dataclasses.dataclass
class Fault:
    group: str
    protocol: str
    kind: str
    at: float  # s of the monotonic clock
    down: float
    recovered: float | None = None  # s after the end of the fault until frames flow for good, by the slowest source


class Flow:
    """When the frames of one source have flowed without a pause longer than `gap`. Pauses of HLS are whole segments."""

    def __init__(self, gap):
        self.gap, self.frames, self.last, self.since = gap, 0, 0.0, 0.0

    def note(self, frames, now):
        if frames != self.frames:
            if now - self.last > self.gap:
                self.since = now
            self.frames, self.last = frames, now

    def steady(self, now):
        return now - self.last <= self.gap and now - self.since >= STEADY


class Group(threading.Thread):
    """A peer, the sources that play from it, and its faults."""

    def __init__(self, soak, name, protocol, peer, urls, others):
        super().__init__(daemon=True)
        self.soak, self.name_of_group, self.protocol, self.peer, self.others = soak, name, protocol, peer, others
        self.channels = [soak.take_channel(url) for url in urls]
        self.random = random.Random(f"{soak.seed}/{name}")
        hls = protocol == "HLS"
        self.settle = 14 if hls else 7
        self.flows = {channel: Flow(3.5 if hls else 1.0) for channel in self.channels}
        self.windows = []  # (start, end) in which breaks and rebuilds are accounted for
        self.problem = ""

    def open(self):
        for channel in self.channels:
            if not self.soak.host.open(channel, self.soak.urls[channel], self.peer.protocols):
                raise RuntimeError(f"{self.name_of_group}: open was refused")

    def close(self):
        for channel in self.channels:
            self.soak.host.close(channel)

    def flowing(self):
        now = time.monotonic()
        return all(flow.steady(now) for flow in self.flows.values())

    def wait_flowing(self, bound):
        return rig.wait_for(lambda: self.peer.tend() or self.flowing() or self.soak.broken, bound, 0.05) and not self.soak.broken

    def hold(self, span):
        rig.wait_for(lambda: self.peer.tend() or self.soak.broken, span, 0.05)

    def idle(self, span):
        """Lets time pass; True when the run is over."""
        return rig.wait_for(lambda: self.peer.tend() or self.soak.over.is_set(), span, 0.05)

    def faults(self):
        kinds = [(f"{name} {what}", what, name) for name in self.peer.processes for what in ("killed", "stopped")]
        return [*kinds, ("other codecs", "material", "sender"), ("host closes and opens", "host", "")]

    def run(self):
        try:
            while not self.idle(self.settle + self.random.uniform(*self.soak.calm)):
                self.one_fault(*self.random.choice(self.faults()))
        except Exception as error:  # the run has failed, and this peer is left alone from now on
            self.problem = f"{type(error).__name__}: {error}"
            self.windows.append((0, float("inf")))

    def one_fault(self, kind, what, name):
        down = self.random.choice([0.0, self.random.uniform(0.2, 4), self.random.uniform(4, self.soak.longest)])
        fault = Fault(self.name_of_group, self.protocol, kind, time.monotonic(), down)
        self.windows.append((fault.at, float("inf")))
        process = self.peer.processes.get(name)
        if what == "host":
            self.close()
            time.sleep(min(down, 2))
            self.open()
        elif what == "stopped":
            process.pause()
            time.sleep(down)
            process.resume()
        else:
            process.kill()
            if what == "material":
                self.others, current = self.peer.material, self.others
                self.peer.change_material(current)
            time.sleep(down)
            process.start()
        over = time.monotonic()
        # What is still on its way passes for a flow at first.
        self.hold(STEADY)
        if self.wait_flowing(RECOVERY_BOUND):
            fault.recovered = max(0.0, max(flow.since for flow in self.flows.values()) - over)
        # A sender that was stopped sends what it has missed in one burst, which a pipeline that began in its midst plays in its own time: the end
        # of a peer that was killed then shows as much later, if it has not shown at once.
        unseen = fault.recovered == 0 and what in ("killed", "material")
        self.windows[-1] = (fault.at, time.monotonic() + self.settle + (self.soak.longest if unseen else 0))
        self.soak.note(fault)
        if fault.recovered is None and not self.soak.broken:
            raise RuntimeError(f"{kind} for {down:.1f} s: no frames again within {RECOVERY_BOUND} s")


class Soak:
    def __init__(self, build, folder, out, minutes, seed):
        self.build, self.folder, self.out, self.minutes, self.seed = build, folder, out, minutes, seed
        self.calm, self.longest = ((5, 25), 15) if minutes > 5 else ((0, 3), 6)
        self.urls, self.groups, self.fault_list, self.samples, self.events, self.totals = [], [], [], [], [], []
        self.lock = threading.Lock()
        self.over = threading.Event()
        self.watching = threading.Event()
        self.broken = False
        self.failures = []

    def take_channel(self, url):
        self.urls.append(url)
        return len(self.urls) - 1

    def note(self, fault):
        with self.lock:
            self.fault_list.append(fault)
        recovered = "NOT RECOVERED" if fault.recovered is None else f"back after {fault.recovered:.1f} s"
        print(f"{time.monotonic() - self.start:7.1f} s  {fault.group:12} {fault.kind:24} {fault.down:4.1f} s, {recovered}", flush=True)

    def looped(self, path):
        """The RTSP server plays its file once to each client: one that is longer than the run."""
        target = self.folder / f"looped-{path.stem.split('-')[-1]}.mkv"
        subprocess.run(["ffmpeg", "-nostdin", "-loglevel", "error", "-stream_loop", "-1", "-i", path, "-map", "0", "-c", "copy",
                        "-t", str(self.minutes * 60 + 300), target], check=True)
        return target

    def build_groups(self):
        paths = rig.materials(self.build, *MATERIALS)
        h264, h265, mp3 = (paths[name] for name in MATERIALS)
        long264, long265 = self.looped(h264), self.looped(h265)
        folder = self.folder

        def add(name, protocol, peer, others, count=1):
            self.groups.append(Group(self, name, protocol, peer, [peer.url] * count, others))

        add("UDP 1", "UDP", rig.Udp(folder, h264), h265)
        add("UDP 2", "UDP", rig.Udp(folder, h265), h264)
        two = rig.Udp(folder, h264, count=2)
        self.groups.append(Group(self, "UDP 3", "UDP", two, two.urls, h265))
        add("SRT caller", "SRT", rig.SrtListener(folder, h264), h265)
        add("SRT listener", "SRT", rig.SrtCaller(folder, h264), h265)
        add("RTSP TCP", "RTSP", rig.Rtsp(folder, long264, self.build), long265, count=2)
        add("RTSP UDP", "RTSP", rig.Rtsp(folder, long265, self.build, protocols=rig.RTSP_UDP), long264)
        add("RTSP relay", "RTSP", rig.Rtsp(folder, long264, self.build, relay=True), long265)
        add("RTMP", "RTMP", rig.Rtmp(folder, h264), mp3, count=2)
        add("RTMP relay", "RTMP", rig.Rtmp(folder, h264, relay=True), mp3)
        add("RTMPS", "RTMPS", rig.Rtmp(folder, h264, secure=True), mp3)
        add("HLS", "HLS", rig.Hls(folder, h264), h265)
        add("HLS relay", "HLS", rig.Hls(folder, h264, relay=True), h265)

    # ---- Watching ---------------------------------------------------------------------------------------------------------------

    def monitor(self):
        flows = {channel: flow for group in self.groups for channel, flow in group.flows.items()}
        period = 5 if self.minutes > 5 else 1
        next_sample = time.monotonic()
        while not self.over_for_good:
            try:
                stats = self.host.stats()
                now = time.monotonic()
                for channel, status in stats.items():
                    flows[channel].note(status.frames, now)
                if self.watching.is_set() and now >= next_sample:
                    next_sample += period
                    rebuilds = sum(status.epoch for status in stats.values())
                    self.samples.append((now - self.start, self.host.sample(), rebuilds))
            except (rig.Gone, OSError) as error:
                self.failures.append(f"the host is gone: {error}")
                self.broken = True
                self.over.set()
                return
            time.sleep(0.05)

    def read_watch(self, watch):
        for line in watch.stdout:
            words = line.split()
            if words[0] == "total":
                self.totals.append((int(words[1]), words[2], int(words[3]), int(words[4])))
            elif words[0] != "watching":
                self.events.append((words[0], float(words[1]), int(words[2]), words[3], " ".join(words[4:])))

    # ---- The run ----------------------------------------------------------------------------------------------------------------

    def run(self):
        self.start = time.monotonic()
        end = self.start + self.minutes * 60
        self.build_groups()
        self.host = rig.Host(self.build, self.folder, len(self.urls), STALL_WATCH_MS)
        self.over_for_good = False
        monitor = threading.Thread(target=self.monitor, daemon=True)
        watch = None
        try:
            starters = [threading.Thread(target=group.peer.start) for group in self.groups]
            for starter in starters:
                starter.start()
            for starter in starters:
                starter.join()
            monitor.start()
            # Once through, so that everything that is made on first use is there.
            self.play_all()
            for group in self.groups:
                group.close()
            self.before = self.settled()
            watch = self.start_watch()
            for group in self.groups:
                group.windows.append((0, time.monotonic() + 20))
            self.play_all()
            for group in self.groups:
                group.windows[0] = (0, time.monotonic() + 1)
            self.watching.set()
            for group in self.groups:
                group.start()
            self.over.wait(max(0, end - time.monotonic()))
            self.over.set()
            for group in self.groups:
                group.join()
                if group.problem:
                    self.failures.append(f"{group.name_of_group}: {group.problem}")
            self.watching.clear()
            self.judge_growth()
            # A source that hangs would not be closed either.
            if not self.broken and not any(group.problem for group in self.groups):
                self.stopped = time.monotonic()
                for group in self.groups:
                    group.close()
                self.after = self.settled(self.before)
                self.judge_resources()
        except rig.Gone as error:
            self.failures.append(f"the host is gone: {error}")
        finally:
            self.over_for_good = True
            self.over.set()
            monitor.join(10)
            status = self.host.end()
            for group in self.groups:
                group.peer.end()
            if status != 0:
                self.failures.append(f"the host ended with {status}")
            if watch is not None:
                self.end_watch(watch)
            if self.failures:
                (self.out / "host.log").write_text(self.host.log_tail(20000))
        self.judge_events()

    def play_all(self):
        for group in self.groups:
            group.open()
        for group in self.groups:
            if not group.wait_flowing(RECOVERY_BOUND):
                raise RuntimeError(f"{group.name_of_group} does not play: {self.host.stats()}")

    def start_watch(self):
        environment = {"PEERS_MATERIALS": str(self.build / "tests/peers/materials"), **os.environ}
        watch = subprocess.Popen([self.build / "tests/reliability/reliability-watch", self.host.name, *MATERIALS], env=environment,
                                 stdout=subprocess.PIPE, text=True)
        if watch.stdout.readline().strip() != "watching":
            raise RuntimeError("nobody watches")
        self.watch_reader = threading.Thread(target=self.read_watch, args=(watch,), daemon=True)
        self.watch_reader.start()
        return watch

    def end_watch(self, watch):
        try:
            if watch.wait(30) != 0:
                self.failures.append("the watcher failed")
        except subprocess.TimeoutExpired:
            watch.kill()
            self.failures.append("the watcher did not end")
        self.watch_reader.join(10)

    def settled(self, goal=None):
        """Resources with nothing open. Threads that are kept for a while are waited for: until they are as few as in `goal` or, without one, do not
        get fewer any more."""
        if goal:
            rig.wait_for(lambda: self.host.sample().threads <= goal[0].threads, 45, 0.2)
        else:
            seen = [self.host.sample().threads] * 15
            rig.wait_for(lambda: seen.append(self.host.sample().threads) or len(set(seen[-15:])) == 1, 20, 0.2)
        return self.host.sample(), self.host.objects()

    # ---- Judging ----------------------------------------------------------------------------------------------------------------

    def judge_resources(self):
        (before, kinds_before), (after, kinds_after) = self.before, self.after
        for what in ("descriptors", "threads"):
            if getattr(after, what) > getattr(before, what):
                self.failures.append(f"{what}: {getattr(before, what)} at the start, {getattr(after, what)} at the end")
        # Templates of an element class stay from its first use on.
        lasting = {"GstCaps", "GstTypeFindFactory"}
        for kind in sorted(set(kinds_after) - lasting):
            if kinds_after[kind] > kinds_before.get(kind, 0):
                self.failures.append(f"objects: {kinds_after[kind]} of {kind} at the end, {kinds_before.get(kind, 0)} at the start")

    def judge_growth(self):
        half = self.samples[len(self.samples) // 2:]
        self.rebuilds_judged = half[-1][2] - half[0][2] if half else 0
        self.growth = None
        if self.rebuilds_judged >= 100:
            hours = [at / 3600 for at, _, _ in half]
            self.growth = slope(hours, [sample.heap_kib for _, sample, _ in half]) * (hours[-1] - hours[0]) / self.rebuilds_judged
            if self.growth > GROWTH_BOUND_KIB:
                self.failures.append(f"the heap in use grows by {self.growth:.1f} KiB for each new pipeline")

    def judge_events(self):
        """Everything that the watcher saw belongs to a fault of the source's peer."""
        group_of = {channel: group for group in self.groups for channel in group.channels}
        # What the closing at the end cuts off is nobody's fault either.
        closing = getattr(self, "stopped", float("inf"))
        self.accounted, self.unaccounted = Counter(), Counter()
        for what, at, channel, kind, text in self.events:
            group = group_of[channel]
            good = what != "lost" and (at >= closing or any(start <= at <= end for start, end in group.windows))
            (self.accounted if good else self.unaccounted)[what] += 1
            if not good:
                self.failures.append(f"{group.name_of_group}, {kind} of source {channel}, after {at - self.start:.1f} s: {what} {text}")
        silent = sorted(set(range(len(self.urls))) - {channel for channel, kind, frames, _ in self.totals if kind == "video" and frames > 0})
        if silent:
            self.failures.append(f"no frames were compared of the sources {silent}")

    # ---- Telling ----------------------------------------------------------------------------------------------------------------

    def report(self):
        with open(self.out / "samples.csv", "w", newline="") as file:
            table = csv.writer(file)
            table.writerow(["seconds", "memory_kib", "heap_kib", "descriptors", "threads", "pipelines"])
            table.writerows([f"{at:.1f}", sample.memory_kib, sample.heap_kib, sample.descriptors, sample.threads, rebuilds]
                            for at, sample, rebuilds in self.samples)
        with open(self.out / "faults.csv", "w", newline="") as file:
            table = csv.writer(file)
            table.writerow(["seconds", "peer", "fault", "down_s", "recovered_s"])
            for fault in self.fault_list:
                table.writerow([f"{fault.at - self.start:.1f}", fault.group, fault.kind, f"{fault.down:.1f}",
                                "" if fault.recovered is None else f"{fault.recovered:.2f}"])
        if self.samples:
            minutes = [(at / 60, sample) for at, sample, _ in self.samples]
            over_time(self.out / "memory.svg", "Private memory of the host, 16 sources", "MiB",
                      [("resident", [(at, s.memory_kib / 1024) for at, s in minutes]), ("heap in use", [(at, s.heap_kib / 1024) for at, s in minutes])])
            over_time(self.out / "descriptors.svg", "Descriptors and threads of the host, 16 sources", "",
                      [("descriptors", [(at, s.descriptors) for at, s in minutes]), ("threads", [(at, s.threads) for at, s in minutes])])
        protocols = list(dict.fromkeys(group.protocol for group in self.groups))
        healed = [fault for fault in self.fault_list if fault.recovered is not None]
        if healed:
            over_time(self.out / "recovery.svg", "From the end of a fault until frames flow for good", "s",
                      [(protocol, [((f.at - self.start) / 60, f.recovered) for f in healed if f.protocol == protocol]) for protocol in protocols],
                      points=True)
        frames = {kind: sum(total[2] for total in self.totals if total[1] == kind) for kind in ("video", "audio")}
        pipelines = sum(total[3] for total in self.totals if total[1] == "video")
        lines = ["# Soak", "",
                 f"{self.minutes:g} minutes, seed {self.seed}, {len(self.urls)} sources of {len(self.groups)} peers in one process; "
                 f"{len(self.fault_list)} faults, {pipelines} pipelines.", "",
                 f"{frames['video']} video and {frames['audio']} audio frames were compared one by one with what was sent. "
                 f"Breaks in their order: {self.accounted['break']} at faults, {self.unaccounted['break']} without one. "
                 f"New pipelines (each counts for video and for audio): {self.accounted['epoch']} accounted for, {self.unaccounted['epoch']} not.", "",
                 "| | start | end | least | most |", "|---|---|---|---|---|"]
        if self.samples:
            end = getattr(self, "after", (None, None))
            for what, name in (("memory_kib", "private memory, KiB"), ("heap_kib", "heap in use, KiB"), ("descriptors", "descriptors"), ("threads", "threads")):
                values = [getattr(sample, what) for _, sample, _ in self.samples]
                lines.append(f"| {name} | {getattr(self.before[0], what)} | {getattr(end[0], what, '-')} | {min(values)} | {max(values)} |")
            lines.append(f"| live objects | {sum(self.before[1].values())} | {sum(end[1].values()) if end[1] else '-'} | | |")
            lines += ["", "Start and end: nothing open. Least and most: all sources open."]
            if getattr(self, "growth", None) is not None:
                lines.append(f"Growth of the heap in use in the second half: {self.growth:.2f} KiB for each of {self.rebuilds_judged} new pipelines "
                             f"(bound {GROWTH_BOUND_KIB}).")
        lines += ["", "Recovery: from the end of the fault until the frames of all its sources flow for good.", "",
                  "| Protocol | Fault | Times | p50, s | p99, s | most, s |", "|---|---|---|---|---|---|"]
        for protocol in protocols:
            for kind in sorted({fault.kind for fault in healed if fault.protocol == protocol}):
                values = [fault.recovered for fault in healed if fault.protocol == protocol and fault.kind == kind]
                lines.append(f"| {protocol} | {kind} | {len(values)} | {statistics.median(values):.1f} | {rig.percentile(values, 0.99):.1f} | {max(values):.1f} |")
        lines += ["", "Failures: none." if not self.failures else "Failures:"]
        lines += [f"- {failure}" for failure in self.failures]
        (self.out / "report.md").write_text("\n".join(lines) + "\n")


MATERIALS = ["h264_aac", "h265_aac", "h264_mp3"]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=Path("build/test"), help="build directory (default: build/test)")
    parser.add_argument("--minutes", type=float, default=60, help="length of the run (default: 60)")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 31), help="order of the faults (default: a new one)")
    parser.add_argument("--out", type=Path, default=Path("out/soak"), help="folder of the report (default: out/soak)")
    arguments = parser.parse_args()
    rig.end_on_signals()
    print(f"seed {arguments.seed}", flush=True)
    out = arguments.out.resolve()
    out.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory() as folder:
        folder = Path(folder)
        folder.chmod(0o755)
        soak = Soak(arguments.build.resolve(), folder, out, arguments.minutes, arguments.seed)
        soak.run()
        soak.report()
    print((out / "report.md").read_text())
    sys.stdout.flush()
    # A host that hangs is killed by now; threads that asked it are of no use any more.
    os._exit(1 if soak.failures else 0)


if __name__ == "__main__":
    sys.exit(main())
