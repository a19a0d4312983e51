#!/usr/bin/env python3
"""A long run of the service: a hundred sources in one gst-source, which is reloaded, restarted, looked at and read all the time.

    tests/reliability/fleet_soak.py --build build/test --minutes 60 --sources 100 --out docs/reports/reliability

Most sources are UDP, fed by one cheap sender. Of RTSP, RTMP, SRT and HLS there is one for each fifty sources, with a peer of
its own that is killed and started again at random moments. Every minute the file of sources is changed and reloaded: some
sources go, some come, some get another option, one another size of its buffer. Every ten seconds a source is restarted over
the API. Every second /metrics, /api/sources and / are asked for, and pictures of some sources. Ten readers check the number
of each frame; an eleventh is too slow.

What has to hold, else the exit code is 1:

- every request is answered as it must be, every reload does what the file says and nothing else
- a source that nobody has touched is never rebuilt; one that was touched, or its peer, is live again within 30 s;
  one that was not is live, but for standstills of the machine
- frames read + frames reported as lost are the frames written, without a hole; only the slow reader loses any, and the API
  says so
- private memory, threads, descriptors and CPU are flat after the warm-up (bounds: see the report); only judged in runs of
  5 minutes or more
- SIGTERM ends the tool in time (--end-within), with exit code 0, and nothing is left in /dev/shm nor of the control socket

Leaves fleet-soak.md, its plots and fleet-soak.json in the folder.
"""

import argparse
import http.client
import json
import os
import random
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from collections import Counter
from datetime import date
from pathlib import Path

import rig
from plots import over_time
from verdict import slope

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "bench"))

from buffer import machine, wrapped  # noqa: E402
from constant_rate import transport_stream  # noqa: E402
from plot import grouped_bars  # noqa: E402

RATE = 300_000  # bit/s of a UDP source on the wire
PART_S = 60  # of the material, before it is repeated
RECOVERY_BOUND = 30  # s until a source that was touched is live again
PATHS = ["/metrics", "/api/sources", "/"]
READERS = 10
SLOW_PAUSE_MS = 1000
SLOW_BYTES = "64K"  # ring of the slow reader's source: some two seconds
SAMPLE_S = 5
JUDGED_MINUTES = 5  # shorter runs are all warm-up
BLOCKS = 10  # whose means are fitted, since samples that follow each other are not independent
# Growth over the judged time, as part of the mean. Private memory has what the allocator keeps after a busy moment; to it
# comes what each new pipeline may cost, as in soak.py. One lost pipeline is 160 KiB.
KIB_A_PIPELINE = 16
PARTS = {"private_kib": 0.1, "threads": 0.03, "descriptors": 0.03, "shared_files": 0.0, "cpu": 0.25}
LEAST = {"private_kib": 0, "threads": 4, "descriptors": 4, "shared_files": 0, "cpu": 0.05}
EDGES_MS = [1, 2, 5, 10, 20, 50, 100, 200, 500, 1000]


class Source:
    """One source of the file; `touched` is when something last happened to it or its peer, `live` when it was last seen so."""

    def __init__(self, name, protocol, url, peer=None):
        self.name, self.protocol, self.url, self.peer = name, protocol, url, peer
        self.options = {}
        self.live = 0.0
        self.touch()

    def touch(self):
        self.touched = time.monotonic()

    def text(self):
        options = "".join(f"{key} = {value}\n" for key, value in self.options.items())
        return f'[[source]]\nname = "{self.name}"\nurl = "{self.url}"\n{options}'


class Soak:
    def __init__(self, arguments, folder):
        self.arguments, self.folder = arguments, folder
        self.build = arguments.build.resolve()
        self.random = random.Random(arguments.seed)
        self.prefix = f"reliability-{os.getpid()}"
        self.environment = {
            "GST_PLUGIN_PATH": str(self.build / "shbsink"),
            **os.environ,
            "XDG_RUNTIME_DIR": str(folder / "run"),
            "RUNTIME_DIRECTORY": "",
        }
        (folder / "run").mkdir(mode=0o700)
        self.file = folder / "sources.toml"
        self.lock = threading.RLock()  # of sources and their times
        self.failures = []
        self.counts = Counter()
        self.latencies = {path: [] for path in PATHS}
        self.pictures = Counter()
        self.samples = []
        self.peers, self.sources, self.spare, self.readers = [], [], [], []
        self.rebuilds = {}
        self.over = threading.Event()
        self.end_s = None

    def fail(self, text):
        with self.lock:
            if len(self.failures) < 100:
                self.failures.append(f"after {time.monotonic() - self.start:.0f} s: {text}")

    # ---- What runs -------------------------------------------------------------------------------------------------

    def start_child(self, command, **more):
        with rig.starting:
            child = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL, env=self.environment, **more)
            rig.running.add(child)
        return child

    def make_sources(self):
        count = self.arguments.sources
        each = max(1, round(count / 50))
        h264 = rig.materials(self.build, "h264_aac")["h264_aac"]
        # The RTSP server plays its file once to each client.
        long = self.folder / "looped-h264_aac.mkv"
        subprocess.run(
            [
                "ffmpeg",
                "-nostdin",
                "-loglevel",
                "error",
                "-stream_loop",
                "-1",
                "-i",
                h264,
                "-map",
                "0",
                "-c",
                "copy",
                "-t",
                str(self.arguments.minutes * 60 + 300),
                long,
            ],
            check=True,
        )
        makers = {
            "rtsp": lambda: rig.Rtsp(self.folder, long, self.build),
            "rtmp": lambda: rig.Rtmp(self.folder, h264),
            "srt": lambda: rig.SrtListener(self.folder, h264),
            "hls": lambda: rig.Hls(self.folder, h264),
        }
        for protocol, make in makers.items():
            for number in range(each):
                peer = make()
                self.peers.append(peer)
                source = Source(f"{self.prefix}-{protocol}-{number}", protocol, peer.url, peer)
                if protocol == "srt":
                    source.options["latency"] = rig.SRT_LATENCY_MS
                self.sources.append(source)
        udp = count - len(self.sources)
        spare = max(2, udp // 10)
        ports = [rig.free_port(rig.UDP) for _ in range(udp + spare)]
        every = [Source(f"{self.prefix}-udp-{number}", "udp", f"udp://127.0.0.1:{port}") for number, port in enumerate(ports)]
        self.sources += every[:udp]
        self.spare = every[udp:]
        # The first eighth of them is never touched; of the others all but those with readers may go.
        self.calm = every[: max(4, udp // 8)]
        self.slow = self.calm[-1]
        self.slow.options["video_bytes"] = f'"{SLOW_BYTES}"'
        self.read = (
            self.calm[:3]
            + [source for source in self.sources if source.peer is not None and source.name.endswith("-0")]
            + every[len(self.calm) : len(self.calm) + 2]
        )
        self.ports = ports

    def write_file(self):
        self.file.write_text(
            '[service]\nhttp = "127.0.0.1:0"\nclose_timeout = 10\n\n[defaults]\nvideo_bytes = "1M"\naudio_bytes = "128K"\n\n'
            + "\n".join(source.text() for source in self.sources)
        )

    def start_tool(self):
        self.log = self.folder / "tool.log"
        self.out = open(self.folder / "tool.out", "wb")
        with open(self.log, "wb") as log:
            command = [
                self.build / "tools/gst-source/gst-source",
                "--config",
                self.file,
                "--json",
                "--interval",
                "86400",
                "--log-level",
                "warning",
            ]
            self.tool = self.start_child(command, stdout=self.out, stderr=log)
        marker = "metrics and API at http://"

        def address():
            found = [
                line.split(marker)[1].split("/")[0]
                for line in self.log.read_text(errors="replace").splitlines()
                if marker in line
            ]
            return found[0] if found else None

        if not rig.wait_for(lambda: address() or self.tool.poll() is not None, 60) or self.tool.poll() is not None:
            raise RuntimeError(f"the tool does not answer: {self.log.read_text(errors='replace')[-2000:]}")
        self.host, port = address().rsplit(":", 1)
        self.port = int(port)

    def start_readers(self):
        kinds = [(source, "video", 0) for source in self.read] + [
            (self.calm[0], "audio", 0),
            (self.slow, "video", SLOW_PAUSE_MS),
        ]
        for source, kind, pause in kinds:
            child = self.start_child(
                [self.build / "tests/reliability/fleet-reader", source.name, kind, pause], stdout=subprocess.PIPE, text=True
            )
            if child.stdout.readline() != "reading\n":
                raise RuntimeError(f"nobody reads {source.name}")
            self.readers.append((source, kind, pause, child))

    # ---- HTTP ------------------------------------------------------------------------------------------------------

    def ask(self, path, method="GET", headers=None, patience=30):
        """Status, body and seconds, with a connection of its own."""
        begin = time.monotonic()
        connection = http.client.HTTPConnection(self.host, self.port, timeout=patience)
        try:
            connection.request(method, path, headers=headers or {})
            answer = connection.getresponse()
            body = answer.read()
            return answer.status, body, time.monotonic() - begin
        finally:
            connection.close()

    def scrape(self):
        while not self.over.wait(1):
            for path in PATHS:
                try:
                    status, body, seconds = self.ask(path)
                except OSError as error:
                    self.fail(f"{path}: {error}")
                    continue
                self.latencies[path].append(seconds * 1e3)
                if status != 200:
                    self.fail(f"{path}: {status}")
                elif path == "/api/sources":
                    self.look(json.loads(body))
                elif path == "/metrics" and not body.endswith(b"\n"):
                    self.fail("/metrics is not whole")

    def look(self, records):
        """Every source of the file is live, or was until a short time ago.

        A machine that stands still for seconds makes all of them silent.
        """
        now = time.monotonic()
        found = {record["name"]: record for record in records}
        with self.lock:
            for source in self.sources:
                record = found.get(source.name)
                if record is not None and record["flow"] == "live":
                    source.live = now
                elif now - max(source.touched, source.live) > RECOVERY_BOUND:
                    self.fail(
                        f"{source.name} is not live: "
                        + (f"{record['state']}, {record['flow']}, {record['last_error']}" if record else "not there")
                    )
                    source.touch()
                if record is not None:
                    self.rebuilds[source.name] = record["rebuilds"]
            self.newest = found

    def ask_pictures(self):
        names = [source.name for source in self.calm[:3]]
        while not self.over.wait(3):
            for name in names:
                try:
                    status, body, _ = self.ask(f"/api/sources/{name}/picture")
                except OSError as error:
                    self.fail(f"picture of {name}: {error}")
                    continue
                self.pictures[status] += 1
                if status not in (200, 404) or (status == 200 and not body.startswith(b"\xff\xd8")):
                    self.fail(f"picture of {name}: {status}")

    # ---- What is done to it ----------------------------------------------------------------------------------------

    def restart_sources(self):
        while not self.over.wait(10 if self.arguments.minutes >= JUDGED_MINUTES else 4):
            with self.lock:
                source = self.random.choice([source for source in self.sources if source not in self.calm])
                source.touch()
            try:
                status, _, _ = self.ask(f"/api/sources/{source.name}/restart", "POST", {"X-Requested-With": "soak"})
            except OSError as error:
                self.fail(f"restart of {source.name}: {error}")
                continue
            self.counts["restarts"] += 1
            if status != 202:
                self.fail(f"restart of {source.name}: {status}")

    def restart_peers(self):
        victims = [source for source in self.sources if source.peer is not None]
        long = self.arguments.minutes >= JUDGED_MINUTES
        while not self.tending(self.random.uniform(10, 40) if long else 4):
            source = self.random.choice(victims)
            with self.lock:
                source.touch()
            source.peer.kill()
            self.tending(self.random.uniform(0, 8) if long else 1)
            # Also when the run is over by now: at the end everything has to play.
            source.peer.start_again()
            self.counts["peers"] += 1
            with self.lock:
                source.touch()

    def tending(self, seconds):
        """Lets time pass, in which senders that have ended by themselves are started again; True when the run is over."""
        end = time.monotonic() + seconds
        while not self.over.wait(0.2):
            for peer in self.peers:
                for process in peer.processes.values():
                    process.tend()
            if time.monotonic() >= end:
                return False
        return True

    def reload(self):
        while not self.over.wait(60 if self.arguments.minutes >= JUDGED_MINUTES else 15):
            self.reload_once()

    def reload_once(self):
        with self.lock:
            movable = [
                source
                for source in self.sources
                if source.protocol == "udp" and source not in self.calm and source not in self.read
            ]
            few = max(1, min(len(movable) // 8, len(self.spare) - 1))
            gone = self.random.sample(movable, few)
            kept = [source for source in movable if source not in gone]
            come = self.spare[:few]
            changed = self.random.sample([*kept, *self.read[-2:]], few)
            resized = self.random.choice([source for source in kept if source not in changed] or kept)
            for source in changed:
                source.options["mtu"] = 1400 if source.options.get("mtu") != 1400 else 1450
            resized.options["video_bytes"] = '"2M"' if resized.options.get("video_bytes") != '"2M"' else '"1M"'
            untouched = len(self.sources) - len(gone) - len({*changed, resized})
            self.sources = [source for source in self.sources if source not in gone] + come
            self.spare = self.spare[few:] + gone
            for source in {*come, *changed, resized}:
                source.touch()
            self.write_file()
            expected = f"{len(come)} added, {len(gone)} removed, {len({*changed, resized})} changed, {untouched} untouched"
        done = subprocess.run(
            [self.build / "tools/gst-source/gst-source", "reload", self.file],
            env=self.environment,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )
        self.counts["reloads"] += 1
        self.counts["opened by reloads"] += len(come) + len({*changed, resized})
        if done.returncode != 0 or expected not in done.stdout:
            self.fail(f"reload: {done.returncode}, {done.stdout.strip()!r} in the place of {expected!r}")

    # ---- Measuring -------------------------------------------------------------------------------------------------

    def shared_files(self):
        return [entry for entry in os.listdir("/dev/shm") if entry.startswith(self.prefix + "-")]

    def sample(self):
        folder = Path(f"/proc/{self.tool.pid}")
        kib = {}
        for line in (folder / "smaps_rollup").read_text().splitlines()[1:]:
            name, size = line.split()[:2]
            kib[name] = int(size)
        fields = (folder / "stat").read_text().rsplit(")", 1)[1].split()
        return {
            "at": time.monotonic() - self.start,
            "rss_kib": kib["Rss:"],
            "pss_kib": kib["Pss:"],
            "private_kib": kib["Pss:"] - kib["Pss_Shmem:"],
            "threads": int(fields[17]),
            "descriptors": len(os.listdir(folder / "fd")),
            "shared_files": len(self.shared_files()),
            "cpu_s": (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK"),
            "pipelines": sum(self.rebuilds.values()) + self.counts["opened by reloads"],
            "load": os.getloadavg()[0],
        }

    def take_samples(self):
        while not self.over.wait(SAMPLE_S):
            try:
                sample = self.sample()
            except OSError as error:
                self.fail(f"the tool is gone: {error}")
                self.over.set()
                return
            if self.samples:
                last = self.samples[-1]
                sample["cpu"] = (sample["cpu_s"] - last["cpu_s"]) / (sample["at"] - last["at"])
            self.samples.append(sample)

    # ---- The run ---------------------------------------------------------------------------------------------------

    def run(self):
        self.start = time.monotonic()
        self.load = [os.getloadavg()[0]]
        before = set(os.listdir("/dev/shm"))
        ended = False
        try:
            self.make_sources()
            # Longer than the run, since the sender does not make time stamps anew.
            self.sender_file = transport_stream(
                self.folder / "fleet.ts", RATE, "160x120", 25, 150, 48, 1, PART_S, int(self.arguments.minutes) + 4
            )
            for peer in self.peers:
                peer.start()
            sender = self.start_child(
                [self.build / "tests/reliability/fleet-send", self.sender_file, RATE, *self.ports], stdout=subprocess.DEVNULL
            )
            self.write_file()
            for source in self.sources:
                source.touch()
            self.start = time.monotonic()
            self.start_tool()
            if not rig.wait_for(lambda: self.ask("/readyz")[0] == 200, 60):
                raise RuntimeError("the service is not ready after a minute")
            self.ready_s = time.monotonic() - self.start
            self.start_readers()
            threads = [
                threading.Thread(target=self.guarded, args=(task,), daemon=True)
                for task in (
                    self.scrape,
                    self.ask_pictures,
                    self.restart_sources,
                    self.restart_peers,
                    self.reload,
                    self.take_samples,
                )
            ]
            for thread in threads:
                thread.start()
            # What is touched last has the time to come back.
            self.over.wait(max(0, self.arguments.minutes * 60 - (time.monotonic() - self.start)))
            self.over.set()
            for thread in threads:
                thread.join(60)
            if sender.poll() is not None:
                self.fail(f"the sender ended with {sender.returncode}")
            if self.tool.poll() is None:
                self.settle()
            self.end_tool(before)
            ended = True
            self.judge_readers()
        except Exception as error:  # whatever it is, the run has failed
            self.fail(f"{type(error).__name__}: {error}")
        finally:
            self.over.set()
            for peer in self.peers:
                peer.end()
            with rig.starting:
                for child in list(rig.running):
                    child.kill()
                    child.wait()
                    rig.running.discard(child)
            if not ended:
                for name in self.shared_files():
                    Path("/dev/shm", name).unlink(missing_ok=True)
        self.load.append(os.getloadavg()[0])
        self.judge()

    def guarded(self, task):
        try:
            task()
        except Exception as error:  # the run has failed
            self.fail(f"{task.__name__}: {type(error).__name__}: {error}")

    def settle(self):
        """Every source of the file plays at the end, whatever was done to it."""

        def all_live():
            for peer in self.peers:
                peer.tend()
            records = {record["name"]: record for record in json.loads(self.ask("/api/sources")[1])}
            self.look(list(records.values()))
            return {source.name for source in self.sources} == set(records) and all(
                record["flow"] == "live" for record in records.values()
            )

        if not rig.wait_for(all_live, RECOVERY_BOUND, 0.5):
            quiet = {name: record["last_error"] for name, record in self.newest.items() if record["flow"] != "live"}
            self.fail(f"not live at the end: {quiet}")
        for source in self.calm:
            if self.rebuilds.get(source.name) != 0:
                self.fail(
                    f"{source.name} was left alone and rebuilt {self.rebuilds.get(source.name)} times: "
                    f"{self.newest[source.name]['last_error']}"
                )
        stated = [
            reader
            for reader in self.newest[self.slow.name]["readers"]
            if reader["kind"] == "video" and reader["lost_frames"] > 0
        ]
        if not stated:
            self.fail(f"the API does not report what the slow reader loses: {self.newest[self.slow.name]['readers']}")

    def end_tool(self, before):
        begin = time.monotonic()
        self.tool.terminate()
        try:
            status = self.tool.wait(60)
        except subprocess.TimeoutExpired:
            status = "nothing within 60 s"
        self.end_s = time.monotonic() - begin
        rig.running.discard(self.tool)
        if status != 0:
            self.fail(f"the tool ended with {status}: {self.log.read_text(errors='replace')[-2000:]}")
        if self.end_s > self.arguments.end_within:
            self.fail(f"the tool took {self.end_s:.1f} s to end, more than {self.arguments.end_within:g}")
        left = [name for name in set(os.listdir("/dev/shm")) - before if name.startswith(self.prefix)]
        if left:
            self.fail(f"left in /dev/shm: {left}")
        control = [str(path) for path in (self.folder / "run/gst-source").rglob("*")]
        if control:
            self.fail(f"left of the control socket: {control}")
        self.out.close()
        self.summaries = {}
        for line in (self.folder / "tool.out").read_text().splitlines():
            record = json.loads(line)
            if record["type"] == "summary":
                self.summaries[record["name"]] = record

    def judge_readers(self):
        self.reads = []
        for source, kind, pause, child in self.readers:
            try:
                said = child.communicate(timeout=120)[0]
            except subprocess.TimeoutExpired:
                self.fail(f"the reader of {source.name} did not end")
                continue
            rig.running.discard(child)
            count = {key: int(value) for key, value in (word.split("=") for word in said.split())}
            count.update(source=source.name.removeprefix(self.prefix + "-"), kind=kind, slow=pause > 0)
            self.reads.append(count)
            who = f"reader of {kind} of {source.name}"
            if child.returncode != 0 or count["holes"] or count["unknown"] or count["waiting"]:
                self.fail(f"{who}: {count}")
            if count["before"] + count["frames"] + count["lost"] != count["written"]:
                self.fail(f"{who}: its frames and losses are not what was written: {count}")
            if (count["lost"] > 0) != count["slow"]:
                self.fail(f"{who}: lost {count['lost']} frames")
            if source in self.calm and count["epochs"] != 1:
                self.fail(f"{who}: {count['epochs']} epochs of a source that was left alone")
            stated = self.summaries.get(source.name, {}).get(f"{kind}_frames")
            if stated != count["written"]:
                self.fail(f"{who}: the tool's summary says {stated} frames, the buffer {count['written']}")

    # ---- Judging ---------------------------------------------------------------------------------------------------

    def judge(self):
        """Fits lines through the means of blocks of the second half; the uncertainty is two standard errors of the slope."""
        self.fits = {}
        if not self.pictures[200]:
            self.fail(f"no picture was made: {dict(self.pictures)}")
        half = [sample for sample in self.samples if sample["at"] >= self.arguments.minutes * 30 and "cpu" in sample]
        if len(half) < 3 * BLOCKS:
            return
        pipelines = half[-1]["pipelines"] - half[0]["pipelines"]
        size = len(half) / BLOCKS
        blocks = [half[int(i * size) : int((i + 1) * size)] for i in range(BLOCKS)]
        hours = [statistics.mean(sample["at"] for sample in block) / 3600 for block in blocks]
        length = (half[-1]["at"] - half[0]["at"]) / 3600
        for what in ("private_kib", "threads", "descriptors", "shared_files", "cpu"):
            values = [statistics.mean(sample[what] for sample in block) for block in blocks]
            rise = slope(hours, values)
            mean, middle = statistics.mean(values), statistics.mean(hours)
            rest = sum((y - mean - rise * (x - middle)) ** 2 for x, y in zip(hours, values))
            error = 2 * (rest / (BLOCKS - 2) / sum((x - middle) ** 2 for x in hours)) ** 0.5
            bound = max(LEAST[what], PARTS[what] * mean) + (KIB_A_PIPELINE * pipelines if what == "private_kib" else 0)
            self.fits[what] = {
                "mean": mean,
                "per_hour": rise,
                "uncertainty": error,
                "growth": rise * length,
                "growth_uncertainty": error * length,
                "bound": bound,
                "hours": length,
                "pipelines": pipelines,
            }
            if self.arguments.minutes >= JUDGED_MINUTES and rise * length - error * length > bound:
                self.fail(
                    f"{what} grows by {rise * length:.3g} +- {error * length:.2g} in {length * 60:.0f} minutes, bound {bound:.3g}"
                )

    # ---- Telling ---------------------------------------------------------------------------------------------------

    def closing_line(self):
        state = "all held" if not self.failures else f"{len(self.failures)} failures"
        end = "did not end" if self.end_s is None else f"ended in {self.end_s:.2f} s"
        return (
            f"fleet soak: {self.arguments.sources} sources, {self.arguments.minutes:g} minutes, {self.counts['reloads']} "
            "reloads, "
            f"{self.counts['restarts']} restarts, {self.counts['peers']} peers restarted, {end}: {state}"
        )

    def report(self, out):
        result = {
            "date": date.today().isoformat(),
            "machine": machine(),
            "load": self.load,
            "seed": self.arguments.seed,
            "sources": self.arguments.sources,
            "minutes": self.arguments.minutes,
            "counts": dict(self.counts),
            "latencies_ms": self.latencies,
            "pictures": dict(self.pictures),
            "samples": self.samples,
            "fits": self.fits,
            "reads": getattr(self, "reads", []),
            "end_s": self.end_s,
            "failures": self.failures,
        }
        (out / "fleet-soak.json").write_text(json.dumps(result) + "\n")
        lines = [
            "# Soak of the service",
            "",
            f"Written by `tests/reliability/fleet_soak.py --minutes {self.arguments.minutes:g} --sources "
            f"{self.arguments.sources} --seed "
            f"{self.arguments.seed}` on {result['date']}; {result['machine']}.",
            f"Load of the machine (1 min): {self.load[0]:.1f} at the start, " f"{self.load[-1]:.1f} at the end.",
            "",
            f"{self.arguments.sources} sources, {len(self.peers)} of them with a peer of their own, the others UDP at "
            f"{RATE // 1000} kb/s. "
            f"{self.counts['reloads']} reloads, {self.counts['restarts']} restarts over the API, {self.counts['peers']} "
            "restarts of peers. "
            f"Ready after {getattr(self, 'ready_s', float('nan')):.1f} s.",
            "",
            f"**{self.closing_line()}**",
            "",
        ]
        if self.end_s is not None:
            lines += [
                f"From SIGTERM to the end of the process: {self.end_s:.2f} s (bound: {self.arguments.end_within:g} s).",
                "",
            ]
        lines += self.report_resources(out) + self.report_latencies(out) + self.report_readers()
        lines += ["## Failures", "", *([f"- {failure}" for failure in self.failures] or ["None."])]
        (out / "fleet-soak.md").write_text(wrapped("\n".join(lines) + "\n"))

    def report_resources(self, out):
        series = [(sample["at"] / 60, sample) for sample in self.samples if "cpu" in sample]
        if not series:
            return []
        names = {
            "private_kib": "private memory, KiB",
            "threads": "threads",
            "descriptors": "descriptors",
            "shared_files": "files in /dev/shm",
            "cpu": "CPU, cores",
        }
        over_time(
            out / "fleet-soak-memory.svg",
            "Memory of the service",
            "MiB",
            [
                (name, [(at, sample[key] / 1024) for at, sample in series])
                for name, key in (
                    ("resident", "rss_kib"),
                    ("PSS", "pss_kib"),
                    ("PSS without the shared buffers", "private_kib"),
                )
            ],
        )
        over_time(
            out / "fleet-soak-counts.svg",
            "Threads, descriptors and files in /dev/shm of the service",
            "",
            [(names[key], [(at, sample[key]) for at, sample in series]) for key in ("threads", "descriptors", "shared_files")],
        )
        over_time(
            out / "fleet-soak-cpu.svg", "CPU of the service", "cores", [("CPU", [(at, sample["cpu"]) for at, sample in series])]
        )
        lines = ["## Resources", ""]
        if self.fits:
            one = self.fits["private_kib"]
            judged = "" if self.arguments.minutes >= JUDGED_MINUTES else " Too short a run: shown, not judged."
            lines += [
                f"A line fitted through the means of {BLOCKS} blocks of the second half ({one['hours'] * 60:.0f} minutes, "
                f"{one['pipelines']} new "
                "pipelines), and its growth over that time with two standard errors. Growth less its uncertainty must not be "
                "above the bound: "
                f"{PARTS['private_kib']:.0%} of the mean and {KIB_A_PIPELINE} KiB for each new pipeline, a part of the mean "
                f"elsewhere.{judged}",
                "",
                "| | mean | growth | uncertainty | bound | a new pipeline |",
                "|---|---:|---:|---:|---:|---:|",
            ]
            for what, fit in self.fits.items():
                each = f"{fit['growth'] / fit['pipelines']:.2f}" if what == "private_kib" and fit["pipelines"] else ""
                lines.append(
                    f"| {names[what]} | {fit['mean']:.4g} | {fit['growth']:.3g} | {fit['growth_uncertainty']:.2g} | "
                    f"{fit['bound']:.3g} | {each} |"
                )
            lines.append("")
        return lines + [
            "![Memory](fleet-soak-memory.svg)",
            "![Threads and descriptors](fleet-soak-counts.svg)",
            "![CPU](fleet-soak-cpu.svg)",
            "",
        ]

    def report_latencies(self, out):
        measured = {path: values for path, values in self.latencies.items() if values}
        if not measured:
            return []
        groups = [f"< {edge}" for edge in EDGES_MS] + [f"{EDGES_MS[-1]} +"]

        def spread(values):
            places = Counter(next((i for i, edge in enumerate(EDGES_MS) if value < edge), len(EDGES_MS)) for value in values)
            return [100 * places[i] / len(values) for i in range(len(groups))]

        grouped_bars(
            out / "fleet-soak-http.svg",
            "Answers of the HTTP side by their latency, ms",
            "%",
            groups,
            [(path, spread(values), None) for path, values in measured.items()],
        )
        lines = [
            "## HTTP",
            "",
            "One client, a new connection for each request, once a second each.",
            "",
            "| Path | requests | p50, ms | p99, ms | most, ms |",
            "|---|---:|---:|---:|---:|",
        ]
        lines += [
            f"| `{path}` | {len(values)} | {statistics.median(values):.1f} | {rig.percentile(values, 0.99):.1f} | "
            f"{max(values):.1f} |"
            for path, values in measured.items()
        ]
        return lines + [
            "",
            f"Pictures: {self.pictures[200]} answers with one, {self.pictures[404]} before the first was made.",
            "",
            "![Latencies](fleet-soak-http.svg)",
            "",
        ]

    def report_readers(self):
        lines = [
            "## Readers",
            "",
            "Before: frames that were written before the reader came. Before + read + lost = written, for each.",
            "",
            "| Source | Track | before | read | lost | written | holes | epochs |",
            "|---|---|---:|---:|---:|---:|---:|---:|",
        ]
        lines += [
            f"| {one['source']}{', slow reader' if one['slow'] else ''} | {one['kind']} | {one['before']} | {one['frames']} "
            f"| {one['lost']} | "
            f"{one['written']} | {one['holes']} | {one['epochs']} |"
            for one in getattr(self, "reads", [])
        ]
        return [*lines, ""]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=Path("build/test"), help="build directory (default: build/test)")
    parser.add_argument("--minutes", type=float, default=60, help="length of the run (default: 60)")
    parser.add_argument("--sources", type=int, default=100, help="sources, 12 or more (default: 100)")
    parser.add_argument(
        "--seed", type=int, default=random.SystemRandom().randrange(1 << 31), help="order of what is done (default: a new one)"
    )
    parser.add_argument("--end-within", type=float, default=2, help="s from SIGTERM to the end of the process (default: 2)")
    parser.add_argument(
        "--out", type=Path, default=Path("out/fleet-soak"), help="folder of the report (default: out/fleet-soak)"
    )
    arguments = parser.parse_args()
    if arguments.sources < 12:
        parser.error("--sources: 12 or more")
    rig.end_on_signals()
    print(f"seed {arguments.seed}", flush=True)
    out = arguments.out.resolve()
    out.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        soak = Soak(arguments, Path(folder))
        soak.run()
        soak.report(out)
        if soak.failures and hasattr(soak, "log"):
            (out / "fleet-soak.log").write_text("\n".join(soak.log.read_text(errors="replace").splitlines()[-5000:]) + "\n")
    print("\n".join(soak.failures + [soak.closing_line()]), flush=True)
    os._exit(1 if soak.failures else 0)


if __name__ == "__main__":
    main()
