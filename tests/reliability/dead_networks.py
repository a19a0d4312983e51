#!/usr/bin/env python3
"""How each protocol takes a network that dies or is bad: when the source notices, and when frames come again.

    tests/reliability/dead_networks.py --build build/test [--only PROTOCOL] [--condition NAME] [--out FOLDER]

The source and its peer run in network namespaces of their own, and everything between them goes through a line that can be spoilt (link.py), so it
needs root and /dev/net/tun; without them it ends with 77. Each case plays a stream and then meets one condition:

stopped       the peer is stopped (SIGSTOP)
killed        the peer is killed (SIGKILL); its kernel answers for it
black hole    nothing passes any more, and nothing is answered
half open     the peer vanishes without a word and is there again at once, a machine that has started anew and knows of no connection
drip          400 bytes a second reach the source
loss          5 % of the packets are lost, in both directions
duplicates    5 % of them arrive twice
reordering    5 % of them come 30 ms late, behind others

It lasts until the source has noticed (state "reconnect"), but at least 20 s and at most 60 s (--least, --patience), so that a source that
notices early makes its attempts against the dead network. Then all is well again, and the time is taken from there until frames flow for good
(4 s). "half open" is over by itself: the peer is back, and only the source can do something.

Over TCP, loss, duplicates and reordering are the kernel's business: the streams come whole, at worst late.

Each case runs without the stall watch of the shared buffer and with it (--stall-watch, 3 s). With it, the run fails when the source has not noticed one
of the first five 12 s after the watch's time, and when frames do not come again within 120 s; in any case when a host ends or a
close does not return within 40 s. What the protocols do without it is told and not judged, except that frames must flow after the last three.
"""

import argparse
import concurrent.futures
import json
import os
import select
import shutil
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

import link
import rig

FPS = 25  # of the material
PLAY_BOUND = 90
BACK_BOUND = 120
CLOSE_BOUND = 40
NOTICE_SLACK = 12  # s on top of the stall watch: what had arrived before, segments of HLS above all, plays on for a while
STEADY = 4  # s of flow after which frames flow for good

PROTOCOLS = {
    "udp": lambda folder, material, build, at: rig.Udp(folder, material, at=at),
    "srt": lambda folder, material, build, at: rig.SrtListener(folder, material, at=at),
    "srt-listener": lambda folder, material, build, at: rig.SrtCaller(folder, material, at=at),
    "rtsp": lambda folder, material, build, at: rig.Rtsp(folder, material, build, at=at),
    "rtsp-udp": lambda folder, material, build, at: rig.Rtsp(folder, material, build, protocols=rig.RTSP_UDP, at=at),
    "rtmp": lambda folder, material, build, at: rig.Rtmp(folder, material, at=at),
    "rtmps": lambda folder, material, build, at: rig.Rtmp(folder, material, secure=True, at=at),
    "hls": lambda folder, material, build, at: rig.Hls(folder, material, at=at),
}
NAMES = {"udp": "UDP", "srt": "SRT caller", "srt-listener": "SRT listener", "rtsp": "RTSP over TCP", "rtsp-udp": "RTSP over UDP", "rtmp": "RTMP",
         "rtmps": "RTMPS", "hls": "HLS"}
LINES = {"black hole": ["dead"], "drip": ["drip", 400], "loss": ["loss", 5], "duplicates": ["duplicate", 5], "reordering": ["reorder", 5]}
DEAD = ["stopped", "killed", "black hole", "half open", "drip"]
BAD = ["loss", "duplicates", "reordering"]
NOT_ALLOWED = 77  # a test that did not run


class Between(rig.Here):
    """Two network namespaces, of the source and of the peer, that live as long as a process in each of them, and the line between them."""

    address, source = link.PEER_ADDRESS, link.SOURCE_ADDRESS

    def __init__(self, seed):
        self.children = []
        try:
            self.hosts, self.peers = self.keeper(), self.keeper()
            self.line = self.child(["unshare", "--net", sys.executable, link.__file__, self.hosts.pid, self.peers.pid, seed])
            self.done()
        except BaseException:
            self.end()
            raise

    def child(self, command):
        with rig.starting:
            child = subprocess.Popen([str(word) for word in command], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
            rig.running.add(child)
        self.children.append(child)
        return child

    def keeper(self):
        child = self.child(["unshare", "--net", "cat"])
        self.answer(child, b"there\n")  # it speaks from within
        return child

    @staticmethod
    def answer(child, text=b""):
        if text:
            child.stdin.write(text)
            child.stdin.flush()
        ready, _, _ = select.select([child.stdout], [], [], 30)
        line = child.stdout.readline() if ready else b""
        if not line:
            raise RuntimeError(f"{' '.join(child.args[:3])} does not answer")
        return line

    def done(self, text=""):
        self.answer(self.line, text.encode())

    def say(self, *words):
        self.done(" ".join(str(word) for word in words) + "\n")

    def other_peer(self):
        """The peer's machine starts anew. Nothing of it may run any more."""
        self.stop(self.peers)
        self.peers = self.keeper()
        self.say("peer", self.peers.pid)

    def stop(self, child):
        self.children.remove(child)
        child.kill()
        child.wait()
        child.stdin.close()
        child.stdout.close()
        rig.running.discard(child)

    def end(self):
        for child in reversed(list(self.children)):
            self.stop(child)

    @staticmethod
    def inside(keeper, words):
        return ["nsenter", "-t", str(keeper.pid), "-n", "--", *words]

    def command(self, words):
        return self.inside(self.peers, words)

    def host_command(self, words):
        return self.inside(self.hosts, words)

    def tcp_listening(self, port):
        lines = Path(f"/proc/{self.peers.pid}/net/tcp").read_text().splitlines()[1:]
        return any(line.split()[1].endswith(f":{port:04X}") and line.split()[3] == "0A" for line in lines)

    def udp_bound(self, port):
        return rig.udp_bound(port, f"/proc/{self.peers.pid}/net")


class Case:
    def __init__(self, options, folder, material, protocol, condition, watch_ms):
        self.options, self.material, self.protocol, self.condition, self.watch_ms = options, material, protocol, condition, watch_ms
        self.folder = Path(folder) / f"{protocol}-{condition}-{watch_ms}".replace(" ", "-")
        self.gap = 3.5 if protocol == "hls" else 1.0  # pauses of HLS are whole segments
        self.noticed = self.back = self.close_s = self.share = None
        self.measured = False  # to the end; what fails after that does not take the figures away
        self.by_itself = False  # frames came again before anybody had noticed anything
        self.rebuilds = 0
        self.problem, self.log = "", ""
        self.changing = threading.Event()
        self.frames, self.last, self.since, self.state = 0, 0.0, 0.0, ""

    def run(self):
        host = peer = at = None
        try:
            self.folder.mkdir()
            self.folder.chmod(0o755)
            at = Between(1)
            peer = PROTOCOLS[self.protocol](self.folder, self.material, self.options.build, at)
            self.at, self.peer = at, peer
            peer.start()
            self.host = host = rig.Host(self.options.build, self.folder, 1, self.watch_ms, at=at)
            if not host.open(0, peer.url, peer.protocols):
                raise RuntimeError("open was refused")
            if not rig.wait_for(lambda: self.look() and self.flowing() and self.state == "connected", PLAY_BOUND, 0.05):
                raise RuntimeError(f"does not play: {host.stats()}")
            self.meet()
            start = time.monotonic()
            host.ask("close", 0, bound=CLOSE_BOUND)
            self.close_s = time.monotonic() - start
        except Exception as error:  # whatever it is, the case has failed
            self.problem = f"{type(error).__name__}: {error}"
        finally:
            if host is not None:
                if self.problem:
                    host.process.kill()
                status = host.end()
                if status != 0 and not self.problem:
                    self.problem = f"the host ended with {status}"
                self.log = host.log_tail(400)
            if peer is not None:
                peer.end()
            if at is not None:
                at.end()

    def look(self):
        if not self.changing.is_set():
            self.peer.tend()
        status = self.host.stats()[0]
        now = time.monotonic()
        if status.frames != self.frames:
            if now - self.last > self.gap:
                self.since = now
            self.frames, self.last = status.frames, now
        self.state, self.rebuilds = status.state, status.rebuilds
        return True

    def flowing(self):
        now = time.monotonic()
        return now - self.last <= self.gap and now - self.since >= STEADY

    def meet(self):
        rebuilds, frames, start = self.rebuilds, self.frames, time.monotonic()
        over = self.spoil()

        def enough():
            self.look()
            now = time.monotonic()
            if self.noticed is None and (self.state == "reconnect" or self.rebuilds > rebuilds):
                self.noticed = now - start
            if self.condition == "half open":
                # Nothing more to do for anybody else: until it has noticed, or plays again.
                self.by_itself = over.is_set() and self.noticed is None and self.flowing() and now - max(self.since, over.at) >= STEADY
                return over.is_set() and (self.noticed is not None or self.by_itself)
            return self.noticed is not None and now - start >= self.options.least

        rig.wait_for(enough, self.options.patience, 0.05)
        self.share = (self.frames - frames) / FPS / (time.monotonic() - start)
        if self.condition != "half open":
            over = self.mend()
        # A peer that is starting up is on its own thread.
        while not over.wait(0.05):
            self.look()
        if over.problem:
            raise RuntimeError(over.problem)
        if rig.wait_for(lambda: self.look() and self.flowing() and self.last > over.at, BACK_BOUND, 0.05):
            self.back = max(0.0, self.since - over.at)
        self.rebuilds -= rebuilds
        self.measured = True

    def spoil(self):
        """Begins the condition; the event is that of a half-open peer that is back."""
        if self.condition == "half open":
            self.at.say("dead")
            return self.change(self.peer.end, self.at.other_peer, lambda: self.at.say("clear"), self.peer.start)
        if self.condition in LINES:
            self.at.say(*LINES[self.condition])
        else:
            self.changing.set()
            for name in self.peer.victims:
                process = self.peer.processes[name]
                process.pause() if self.condition == "stopped" else process.kill()
        return None

    def mend(self):
        if self.condition == "killed":
            return self.change(self.peer.start_again)
        if self.condition == "stopped":
            return self.change(*(self.peer.processes[name].resume for name in self.peer.victims))
        return self.change(lambda: self.at.say("clear"))

    def change(self, *steps):
        """Takes the steps while the source is looked at; the event knows when they were done."""
        done = threading.Event()
        done.problem, done.at = "", 0.0
        self.changing.set()

        def take():
            try:
                for step in steps:
                    step()
            except Exception as error:  # told by whoever waits
                done.problem = f"{type(error).__name__}: {error}"
            done.at = time.monotonic()
            self.changing.clear()
            done.set()

        threading.Thread(target=take, daemon=True).start()
        return done

    def judge(self):
        """Why the case has failed, or an empty text."""
        if self.problem:
            return self.problem
        if self.watch_ms and self.condition in DEAD and not self.by_itself:
            bound = self.watch_ms / 1e3 + NOTICE_SLACK
            if self.noticed is None or self.noticed > bound:
                return f"noticed {self.noticed_text()} s, and not within {bound:g} s"
        if self.back is None and (self.watch_ms or self.condition in BAD):
            return f"no frames again within {BACK_BOUND} s"
        return ""

    def noticed_text(self):
        if not self.measured:
            return "failed"
        if self.noticed is not None:
            return f"{self.noticed:.1f}"
        return "–" if self.by_itself or self.condition in BAD else f"> {self.options.patience:g}"

    def back_text(self):
        if not self.measured:
            return "failed"
        return f"> {BACK_BOUND}" if self.back is None else f"{self.back:.1f}"

    def share_text(self):
        if not self.measured:
            return "failed"
        # On a bad network nothing is to be noticed.
        return f"{self.share * 100:.0f}" + (", session ended" if self.condition in BAD and self.noticed is not None else "")

    def name(self):
        return f"{self.protocol}, {self.condition}, {'stall watch' if self.watch_ms else 'no stall watch'}"

    def row(self):
        return {"protocol": self.protocol, "condition": self.condition, "stall_watch_ms": self.watch_ms, "noticed_s": self.noticed, "back_s": self.back,
                "frames_meanwhile": self.share, "by_itself": self.by_itself, "rebuilds": self.rebuilds, "close_s": self.close_s, "failure": self.judge()}


def tables(cases):
    """A line for each protocol; without the stall watch / with it."""
    protocols = list(dict.fromkeys(case.protocol for case in cases))
    conditions = list(dict.fromkeys(case.condition for case in cases))
    found = {}
    for case in cases:
        found.setdefault((case.protocol, case.condition), []).append(case)

    def table(title, text, wanted):
        wanted = [condition for condition in conditions if condition in wanted]
        lines = [f"| {title} | {' | '.join(wanted)} |", "|---" * (len(wanted) + 1) + "|"]
        for protocol in protocols:
            cells = [" / ".join(text(case) for case in found.get((protocol, condition), [])) for condition in wanted]
            lines.append(f"| {NAMES[protocol]} | {' | '.join(cells)} |")
        return "\n".join(lines) + "\n" if wanted else ""

    parts = [table("Noticed after, s", Case.noticed_text, DEAD), table("Frames again after, s", Case.back_text, DEAD),
             table("Frames meanwhile, %", Case.share_text, BAD)]
    return "\n".join(part for part in parts if part)


def allowed():
    return (shutil.which("ip") is not None and os.access("/dev/net/tun", os.R_OK | os.W_OK)
            and subprocess.run(["unshare", "--net", "true"], capture_output=True).returncode == 0)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=Path("build/test"), help="build directory (default: build/test)")
    parser.add_argument("--only", action="append", choices=PROTOCOLS, help="one protocol; may be repeated (default: all)")
    parser.add_argument("--condition", action="append", choices=DEAD + BAD, help="the same for the conditions")
    parser.add_argument("--stall-watch", type=int, default=3000, help="ms without frames until the stall watch ends a session (default: 3000)")
    parser.add_argument("--least", type=float, default=20, help="s that a condition lasts at least (default: 20)")
    parser.add_argument("--patience", type=float, default=60, help="s to wait until it is noticed (default: 60)")
    parser.add_argument("--jobs", type=int, default=32, help="cases at the same time (default: 32)")
    parser.add_argument("--out", type=Path, help="folder for dead_networks.md, dead_networks.json and the logs of cases that failed")
    options = parser.parse_args()
    if not allowed():
        print("network namespaces with TUN interfaces are not allowed here, or there is no ip")
        return NOT_ALLOWED
    rig.end_on_signals()
    options.build = options.build.resolve()
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        material = rig.materials(options.build, "h264_aac")["h264_aac"]
        # The RTSP server plays its file once to each client: one that is longer than a case.
        looped = Path(folder) / "looped-h264_aac.mkv"
        subprocess.run(["ffmpeg", "-nostdin", "-loglevel", "error", "-stream_loop", "-1", "-i", material, "-map", "0", "-c", "copy", "-t", "900", looped],
                       check=True)
        cases = [Case(options, folder, looped, protocol, condition, watch_ms)
                 for protocol in options.only or PROTOCOLS for condition in options.condition or DEAD + BAD for watch_ms in (0, options.stall_watch)]
        with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
            waiting = {pool.submit(case.run): case for case in cases}
            for future in concurrent.futures.as_completed(waiting):
                case = waiting[future]
                future.result()
                print(f"{case.name()}: noticed {case.noticed_text()}, frames again {case.back_text()}, meanwhile {case.share_text()} %"
                      f"{', FAILED: ' + case.judge() if case.judge() else ''}", flush=True)
        failures = [f"{case.name()}: {case.judge()}" for case in cases if case.judge()]
        told = "\n".join([tables(cases), *failures, f"{len(cases) - len(failures)} of {len(cases)} cases held"])
        if options.out:
            options.out.mkdir(parents=True, exist_ok=True)
            (options.out / "dead_networks.md").write_text(told + "\n")
            (options.out / "dead_networks.json").write_text(json.dumps([case.row() for case in cases], indent=1) + "\n")
            for case in cases:
                if case.judge():
                    (options.out / f"{case.folder.name}.log").write_text(case.log)
    print("\n" + told)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
