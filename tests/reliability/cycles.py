#!/usr/bin/env python3
"""Opens and closes, and peers that are killed and started again, with the resources of the host looked at after every cycle.

    tests/reliability/cycles.py --build build/test [--long] [--only NAME] [--out FOLDER]

For each protocol, in a host process each and all at the same time:

playing   opens, waits for the first frame, closes and destroys; a peer plays
at once   opens, closes and destroys without waiting; a peer plays
no peer   the same with nobody at the other end
restarts  plays for a while, kills the peer, waits until the source has noticed (if its protocol ever does), starts the peer again and waits for the first frame; the
          recovery time is from that start to the frame, and holds what is left of the 3 s wait of a rebuild

Short form: 50 opens and 5 restarts; --long: 1,000 and 200 (about 40 minutes). Descriptors, threads and live objects (GStreamer's own tracer,
of every element, pad, buffer, event, ...) with nothing open must never exceed those of the first quarter of the cycles; the heap in use must
not grow by more than 8 KiB a cycle in the second half (32 in the short form, in which it wavers). Between restarts, when the sources are open, that holds for
descriptors and threads from 20 restarts on; when the source is closed at the end, for all.
"""

import argparse
import json
import os
import statistics
import sys
import tempfile
import threading
import time
from dataclasses import asdict
from pathlib import Path

import rig
import verdict

FRAME_BOUND = 60  # s until frames come; the machine may be busy
SETTLE_BOUND = 3  # s until threads and descriptors of what was closed are gone
LATENCY_MS = 125

PROTOCOLS = {
    "udp": lambda folder, material, build: rig.Udp(folder, material),
    "srt": lambda folder, material, build: rig.SrtListener(folder, material, LATENCY_MS),
    "srt-listener": lambda folder, material, build: rig.SrtCaller(folder, material, LATENCY_MS),
    "rtsp": lambda folder, material, build: rig.Rtsp(folder, material, build),
    "rtsp-udp": lambda folder, material, build: rig.Rtsp(folder, material, build, protocols=rig.RTSP_UDP),
    "rtmp": lambda folder, material, build: rig.Rtmp(folder, material),
    "rtmps": lambda folder, material, build: rig.Rtmp(folder, material, secure=True),
    "hls": lambda folder, material, build: rig.Hls(folder, material),
}
NEVER_NOTICED = {"srt"}  # srtsrc calls again by itself
MODES = ["playing", "at once", "no peer", "restarts"]
# Divides the number of cycles: these closes wait for a handshake.
SLOW = {("rtmps", "at once"): 5}
PLAYED = 40  # frames to be seen before the peer is killed


class Job(threading.Thread):
    def __init__(self, build, folder, protocol, mode, cycles, material, leak=""):
        super().__init__(daemon=True)
        self.build, self.protocol, self.mode, self.cycles, self.leak = build, protocol, mode, cycles, leak
        self.folder = Path(folder) / f"{protocol}-{mode}".replace(" ", "-")
        self.folder.mkdir()
        self.folder.chmod(0o755)
        self.material = material
        self.samples, self.closes, self.recoveries, self.failures = [], [], [], []
        self.seconds = 0.0

    def run(self):
        start = time.monotonic()
        self.peer = PROTOCOLS[self.protocol](self.folder, self.material, self.build)
        self.host = rig.Host(self.build, self.folder, 1, leak=self.leak)
        try:
            if self.mode != "no peer":
                self.peer.start()
                # Once through, so that everything that is made on first use is there.
                self.open()
                self.wait_frames(0)
                self.host.close(0)
            if self.mode == "restarts":
                self.restarts()
            else:
                self.opens()
        except Exception as error:  # whatever it is, the job has failed
            self.failures.append(f"{type(error).__name__}: {error}")
        finally:
            status = self.host.end()
            if status != 0:
                self.failures.append(f"the host ended with {status}")
            self.peer.end()
        self.seconds = time.monotonic() - start
        if self.failures:
            self.failures.append("log of the host:\n" + self.host.log_tail())

    def open(self):
        if not self.host.open(0, self.peer.url, self.peer.protocols, LATENCY_MS):
            raise RuntimeError("open was refused")

    def frames(self):
        return self.host.stats()[0].frames

    def wait_frames(self, above, epoch=-1):
        def more():
            self.peer.tend()
            now = self.host.stats()[0]
            return now.frames > above and now.epoch > epoch

        if not rig.wait_for(more, FRAME_BOUND, 0.01):
            raise RuntimeError(f"no frames within {FRAME_BOUND} s: {self.host.stats()}")

    def sample(self, objects):
        """With what was closed gone: the last threads and objects of a pipeline end behind its back."""
        high = {what: max((getattr(sample, what) for sample in self.samples), default=0) for what in verdict.COUNTS}
        taken = [self.host.sample(objects)]
        if len(self.samples) >= verdict.quarter(self.cycles):
            rig.wait_for(lambda: all(getattr(taken[-1], what) <= high[what] for what in high) or taken.append(self.host.sample(objects)),
                         SETTLE_BOUND)
        self.samples.append(taken[-1])

    def opens(self):
        for _ in range(self.cycles):
            self.open()
            if self.mode == "playing":
                # The channel's frames are counted over all cycles.
                self.wait_frames(self.frames())
            self.closes.append(self.host.close(0))
            self.sample(objects=True)
        self.failures += verdict.growing(self.samples)

    def restarts(self):
        self.sample(objects=True)
        before = self.samples.pop()
        self.open()
        for _ in range(self.cycles):
            self.wait_frames(self.frames() + PLAYED)
            epoch = self.host.stats()[0].epoch
            self.peer.kill()
            self.await_notice()
            frames, start = self.frames(), time.monotonic()
            self.peer.start_again()
            # The old pipeline lives on through the wait, and may bring frames again before the new one does.
            self.wait_frames(frames, epoch if self.protocol not in NEVER_NOTICED else -1)
            self.recoveries.append(time.monotonic() - start)
            self.sample(objects=False)
        if self.cycles >= 20:
            self.failures += verdict.growing(self.samples, heap=False)
        self.closes.append(self.host.close(0))
        rig.wait_for(lambda: self.host.sample().threads <= before.threads, 45, 0.1)
        after = self.host.sample(objects=True)
        self.failures += [f"{what}: {getattr(before, what)} before, {getattr(after, what)} after {self.cycles} restarts"
                          for what in verdict.COUNTS if getattr(after, what) > getattr(before, what)]
        self.growth = (after.heap_kib - before.heap_kib) / self.cycles

    def await_notice(self):
        """The source is in its wait before the next attempt, or nothing comes any more."""
        if self.protocol in NEVER_NOTICED:
            seen = [self.frames(), time.monotonic()]

            def silent():
                if self.frames() != seen[0]:
                    seen[:] = self.frames(), time.monotonic()
                return time.monotonic() - seen[1] > 1

            noticed = rig.wait_for(silent, FRAME_BOUND)
        else:
            noticed = rig.wait_for(lambda: self.host.stats()[0].state == "reconnect", FRAME_BOUND, 0.01)
        if not noticed:
            raise RuntimeError(f"nobody noticed within {FRAME_BOUND} s that the peer was gone")

    def row(self):
        def span(what):
            values = [getattr(sample, what) for sample in self.samples] or [0]
            return f"{values[0]} / {min(values)} / {max(values)} / {values[-1]}"

        def times(values, scale):
            return f"{statistics.median(values) * scale:.3g} / {rig.percentile(values, 0.99) * scale:.3g} / {max(values) * scale:.3g}" if values else "-"

        heap = f"{verdict.heap_slope(self.samples):.2f}" if len(self.samples) > 1 else "-"
        objects = span("objects") if self.mode != "restarts" else "-"
        verdict_text = "flat" if not self.failures else "FAILED"
        return (f"| {self.protocol} | {self.mode} | {len(self.samples)} | {heap} | {span('descriptors')} | {span('threads')} | {objects} | "
                f"{times(self.closes, 1000) if self.mode != 'restarts' else '-'} | {times(self.recoveries, 1)} | {verdict_text} |")


HEAD = """| Protocol | Mode | Cycles | Heap, KiB a cycle | Descriptors | Threads | Objects | Close, ms | Recovery, s | |
|---|---|---|---|---|---|---|---|---|---|
"""


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=Path("build/test"), help="build directory (default: build/test)")
    parser.add_argument("--only", action="append", choices=PROTOCOLS, help="one protocol; may be repeated (default: all)")
    parser.add_argument("--mode", action="append", choices=MODES, help="the same for the modes")
    parser.add_argument("--long", action="store_true", help="1,000 opens and 200 restarts instead of 50 and 5")
    parser.add_argument("--opens", type=int, help="another number of opens")
    parser.add_argument("--restarts", type=int, help="another number of restarts")
    parser.add_argument("--leak", default="", help="let the host lose something with every close: pipeline, memory, descriptors or threads")
    parser.add_argument("--out", type=Path, help="folder for cycles.md and the samples of every cycle")
    arguments = parser.parse_args()
    rig.end_on_signals()
    build = arguments.build.resolve()
    opens = arguments.opens or (1000 if arguments.long else 50)
    restarts = arguments.restarts or (200 if arguments.long else 5)
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        material = rig.materials(build, "h264_aac")["h264_aac"]
        jobs = [Job(build, folder, protocol, mode, restarts if mode == "restarts" else opens // SLOW.get((protocol, mode), 1), material, arguments.leak)
                for protocol in arguments.only or PROTOCOLS for mode in arguments.mode or MODES]
        for job in jobs:
            job.start()
        print(HEAD, end="", flush=True)
        for job in jobs:
            while job.is_alive():
                job.join(1)
            print(job.row(), flush=True)
    for job in jobs:
        for failure in job.failures:
            print(f"{job.protocol}, {job.mode}: {failure}")
    if arguments.out:
        arguments.out.mkdir(parents=True, exist_ok=True)
        (arguments.out / "cycles.md").write_text(HEAD + "\n".join(job.row() for job in jobs) + "\n")
        (arguments.out / "samples.json").write_text(json.dumps(
            {f"{job.protocol}, {job.mode}": {"samples": [asdict(sample) for sample in job.samples], "recoveries": job.recoveries,
                                             "closes": job.closes} for job in jobs}))
    return 1 if any(job.failures for job in jobs) else 0


if __name__ == "__main__":
    sys.exit(main())
