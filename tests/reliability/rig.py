"""What the reliability programs have in common: the host, the watcher of its frames, and the peers from which it plays."""

import argparse
import dataclasses
import itertools
import os
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "bench"))

from noticed import LOOPBACK, ffmpeg, free_port, nginx  # noqa: E402

UDP, TCP = socket.SOCK_DGRAM, socket.SOCK_STREAM
PAGE_KIB = os.sysconf("SC_PAGESIZE") // 1024
RTSP_UDP, RTSP_TCP = 1, 4
SRT_LATENCY_MS = 1000  # on a machine that is busy, 125 lose packets


def wait_for(condition, bound, step=0.02):
    """True as soon as the condition holds, False when it still does not after `bound` seconds, in which standstills of the machine do not count:
    one look at the condition counts for a second at most."""
    spent, begun = 0.0, time.monotonic()
    while not condition():
        if spent > bound:
            return False
        time.sleep(step)
        now = time.monotonic()
        spent, begun = spent + min(now - begun, 1), now
    return True


running = set()  # children that have been started and not been waited for
starting = threading.RLock()  # whoever starts one holds it until the child is in there


def end_on_signals():
    """Children end with the program, also when a signal ends it in the midst of its threads."""
    def leave(number, _):
        print(f"ended by signal {number}", flush=True)
        # For good: what is killed now would be started again by the threads that tend it.
        starting.acquire()
        for child in list(running):
            child.kill()
        for file in Path("/dev/shm").glob(f"reliability-{os.getpid()}-*"):
            file.unlink(missing_ok=True)
        os._exit(128 + number)

    signal.signal(signal.SIGINT, leave)
    signal.signal(signal.SIGTERM, leave)
    signal.signal(signal.SIGHUP, leave)


def run_with_one_host(description, make):
    """The command line and the end of a program. make(build, folder, material) gives what it runs: with run(), its host, its peers, and
    failures. Returns the exit code."""
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--build", type=Path, default=Path("build/test"), help="build directory (default: build/test)")
    build = parser.parse_args().build.resolve()
    end_on_signals()
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        program = make(build, Path(folder), materials(build, "h264_aac")["h264_aac"])
        try:
            program.run()
        except Exception as error:  # whatever it is, the run has failed
            program.failures.append(f"{type(error).__name__}: {error}")
        finally:
            status = program.host.end()
            for peer in program.peers:
                peer.end()
        if status != 0:
            program.failures.append(f"the host ended with {status}")
        if program.failures:
            print("\n".join(program.failures))
            print("log of the host:\n" + program.host.log_tail())
    return 1 if program.failures else 0


def percentile(values, part):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(part * len(ordered)))] if ordered else None


# ---- Places ---------------------------------------------------------------------------------------------------------------------


class Here:
    """Where a peer and its source run: this one is loopback. `address` is the peer's, `source` the source's; `command` puts a program to the peer,
    `host_command` one to the source."""

    address = source = LOOPBACK

    def command(self, words):
        return words

    def host_command(self, words):
        return words

    def tcp_listening(self, port):
        return tcp_listening(port)

    def udp_bound(self, port):
        return udp_bound(port)


HERE = Here()


# ---- The host -------------------------------------------------------------------------------------------------------------------


@dataclasses.dataclass
class Sample:
    """Resources of the host; memory without what it shares with others, which leaves out the shared buffer, and how much of its heap is in use."""
    memory_kib: int
    heap_kib: int
    descriptors: int
    threads: int
    objects: int = 0


@dataclasses.dataclass
class Status:
    state: str
    frames: int
    epoch: int
    rebuilds: int


class Gone(Exception):
    """The host has ended although nobody asked it to."""


class Host:
    numbers = itertools.count()

    def __init__(self, build, folder, channels, stall_watch_ms=0, leak="", at=HERE, environment=None):
        self.name = f"reliability-{os.getpid()}-{next(Host.numbers)}"
        self.log = Path(folder) / f"{self.name}.log"
        # The suite's own registry and search path when it runs from there.
        environment = {"GST_PLUGIN_PATH": str(build / "shbsink"), **os.environ, "GST_TRACERS": "leaks", "RELIABILITY_LEAK": leak, **(environment or {})}
        with open(self.log, "wb") as log, starting:
            command = at.host_command([build / "tests/reliability/reliability-host", self.name, str(channels), str(stall_watch_ms)])
            self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=log, env=environment)
            running.add(self.process)
        self.asked = itertools.count()
        self.answers = {}
        self.arrived = threading.Condition()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.process.stdout:
            number, _, text = line.decode().rstrip("\n").partition(" ")
            with self.arrived:
                self.answers[int(number)] = text
                self.arrived.notify_all()
        with self.arrived:
            self.answers = None
            self.arrived.notify_all()

    def ask(self, *words, bound=180):
        with self.arrived:
            number = next(self.asked)
            try:
                self.process.stdin.write((" ".join(str(word) for word in (number, *words)) + "\n").encode())
                self.process.stdin.flush()
            except BrokenPipeError:
                raise Gone(f"host ended with {self.process.wait(10)}") from None
            self.arrived.wait_for(lambda: self.answers is None or number in self.answers, bound)
            if self.answers is None:
                raise Gone(f"host ended with {self.process.wait(10)}")
            if number not in self.answers:
                raise Gone(f"no answer to '{' '.join(map(str, words))}' within {bound} s")
            return self.answers.pop(number)

    def open(self, channel, url, protocols=RTSP_TCP, srt_latency_ms=SRT_LATENCY_MS):
        return self.ask("open", channel, url, protocols, srt_latency_ms) == "ok"

    def close(self, channel):
        """Closes and destroys; seconds that it took."""
        return float(self.ask("close", channel)) / 1e3

    def stats(self):
        found = {}
        for entry in self.ask("stats").split():
            channel, state, frames, epoch, rebuilds = entry.split(",")
            found[int(channel)] = Status(state, int(frames), int(epoch), int(rebuilds))
        return found

    def objects(self):
        """Live objects by type. Only while no source is open: the tracer may stumble over an object that is just being freed."""
        return {kind: int(count) for kind, count in (entry.split("=") for entry in self.ask("objects").split())}

    def sample(self, objects=False):
        folder = Path(f"/proc/{self.process.pid}")
        resident, shared = (folder / "statm").read_text().split()[1:3]
        return Sample((int(resident) - int(shared)) * PAGE_KIB, int(self.ask("heap")), len(os.listdir(folder / "fd")), len(os.listdir(folder / "task")),
                      sum(self.objects().values()) if objects else 0)

    def end(self):
        """Exit status; the host closes what is open."""
        if self.process.poll() is None:
            self.process.stdin.close()
            try:
                self.process.wait(180)
            except subprocess.TimeoutExpired:
                self.process.kill()
        status = self.process.wait()
        running.discard(self.process)
        self.reader.join(10)
        if status != 0:  # its buffer is still there
            for file in Path("/dev/shm").glob(f"{self.name}*"):
                if file.name == self.name or file.name.startswith(f"{self.name}+"):
                    file.unlink(missing_ok=True)
        return status

    def log_tail(self, lines=40):
        return "\n".join(self.log.read_text(errors="replace").splitlines()[-lines:])


def materials(build, *names):
    """Paths of the materials, made on first use."""
    environment = {"PEERS_MATERIALS": str(build / "tests/peers/materials"), **os.environ}
    made = subprocess.run([build / "tests/reliability/reliability-watch", "material", *names], env=environment, check=True,
                          capture_output=True, text=True)
    return {name: Path(path) for name, path in (line.split(" ", 1) for line in made.stdout.splitlines())}


# ---- Peers ----------------------------------------------------------------------------------------------------------------------


def tcp_listening(port):
    with socket.socket() as probe:
        return probe.connect_ex((LOOPBACK, port)) == 0


def udp_bound(port, net="/proc/net"):
    return any(line.split()[1].endswith(f":{port:04X}") for line in Path(net, "udp").read_text().splitlines()[1:])


class Process:
    """One program of a peer. `ready` tells when it can be used. Once started it is meant to run: tend() starts it again when it has ended by itself,
    as a sender does that finds nobody."""

    def __init__(self, name, command, output, ready=None, at=HERE):
        self.name, self.command, self.output, self.ready, self.at = name, command, output, ready, at
        self.child = None

    def start(self):
        with open(self.output, "ab") as output, starting:
            self.child = subprocess.Popen(self.at.command([str(word) for word in self.command]), stdin=subprocess.DEVNULL, stdout=output, stderr=output)
            running.add(self.child)
        if self.ready is not None and not wait_for(self.ready, 20):
            raise RuntimeError(f"{self.name} is not ready: {Path(self.output).read_text(errors='replace')[-2000:]}")

    def tend(self):
        if self.child is not None and self.child.poll() is not None:
            running.discard(self.child)
            self.start()

    def kill(self):
        if self.child is not None:
            self.child.kill()
            self.child.wait()
            running.discard(self.child)
            self.child = None

    def pause(self):
        self.child.send_signal(signal.SIGSTOP)

    def resume(self):
        self.child.send_signal(signal.SIGCONT)


class Peer:
    """What stands at the other end of one location: its programs in the order in which they start, and who of them is killed for a restart."""

    def __init__(self, folder, material, victims, at=HERE):
        self.folder, self.material, self.victims, self.at = Path(folder), material, victims, at
        self.processes = {}
        self.url = ""
        self.protocols = RTSP_TCP

    def add(self, name, command, ready=None):
        self.processes[name] = Process(name, command, self.folder / f"{type(self).__name__}-{id(self):x}-{name}.out", ready, self.at)

    def start(self):
        for process in self.processes.values():
            process.start()

    def tend(self):
        for process in self.processes.values():
            process.tend()

    def kill(self):
        for name in self.victims:
            self.processes[name].kill()

    def start_again(self):
        for name in self.victims:
            self.processes[name].start()

    def end(self):
        for process in reversed(self.processes.values()):
            process.kill()

    def change_material(self, material):
        """Takes effect at the sender's next start."""
        sender = self.processes["sender"]
        sender.command = [str(material) if str(word) == str(self.material) else word for word in sender.command]
        self.material = material


class Udp(Peer):
    """One sender; `count` locations on as many ports."""

    def __init__(self, folder, material, count=1, at=HERE):
        super().__init__(folder, material, ["sender"], at)
        self.urls = [f"udp://{at.source}:{free_port(UDP)}" for _ in range(count)]
        self.url = self.urls[0]
        outputs = [word for url in self.urls for word in ("-map", "0", "-c", "copy", "-f", "mpegts", f"{url}?pkt_size=1316")]
        self.add("sender", ffmpeg(material)[:-4] + outputs)


class SrtListener(Peer):
    """The peer listens: srt-live-transmit, which outlives its callers, fed over UDP."""

    def __init__(self, folder, material, latency_ms=SRT_LATENCY_MS, at=HERE):
        super().__init__(folder, material, ["listener"], at)
        port, feed = free_port(UDP), free_port(UDP)
        self.url = f"srt://{at.address}:{port}"
        self.add("listener", ["srt-live-transmit", "-q", f"udp://{LOOPBACK}:{feed}", f"{self.url}?mode=listener&latency={latency_ms}"],
                 lambda: at.udp_bound(feed) and at.udp_bound(port))
        self.add("sender", ffmpeg(material, "-f", "mpegts", f"udp://{LOOPBACK}:{feed}?pkt_size=1316"))


class SrtCaller(Peer):
    """The peer calls: one sender that ends, and is started again, when nobody listens."""

    def __init__(self, folder, material, latency_ms=SRT_LATENCY_MS, count=1, at=HERE):
        super().__init__(folder, material, ["sender"], at)
        ports = [free_port(UDP) for _ in range(count)]
        self.urls = [f"srt://:{port}" for port in ports]
        self.url = self.urls[0]
        outputs = [word for port in ports
                   for word in ("-map", "0", "-c", "copy", "-f", "mpegts", f"srt://{at.source}:{port}?mode=caller&latency={latency_ms}000")]
        self.add("sender", ffmpeg(material)[:-4] + outputs)


class Relay:
    """A TCP relay in front of a port, which a stop (SIGSTOP) holds."""

    def __init__(self, peer, target):
        self.port = free_port()
        command = nginx(peer.folder / f"relay{self.port}",
                        f"stream {{ server {{ listen {LOOPBACK}:{self.port}; proxy_pass {LOOPBACK}:{target}; }} }}", modules=["stream"])
        peer.add("relay", command, lambda: tcp_listening(self.port))


class Rtsp(Peer):
    def __init__(self, folder, material, build, protocols=RTSP_TCP, relay=False, at=HERE):
        super().__init__(folder, material, ["sender"], at)
        port = free_port()
        self.protocols = protocols
        self.add("sender", [build / "tests/peers/peers-rtsp-server", "--address", at.address, "--port", port, "--file", material, *self.codecs(material)],
                 lambda: at.tcp_listening(port))
        self.url = f"rtsp://{at.address}:{Relay(self, port).port if relay else port}/stream"


    @staticmethod
    def codecs(material):
        """By the names of the materials: "...-h264_aac.mkv"."""
        video, audio = material.stem.split("-")[-1].split("_")
        return ["--video", video, "--audio", audio]

    def change_material(self, material):
        super().change_material(material)
        self.processes["sender"].command[-4:] = self.codecs(material)


class Rtmp(Peer):
    def __init__(self, folder, material, secure=False, relay=False, at=HERE):
        super().__init__(folder, material, ["server", "sender"], at)
        port, tls = free_port(), free_port()
        front = ""
        if secure:
            make_certificate(self.folder)
            # TLS 1.2: librtmp takes the session tickets of TLS 1.3 for an error.
            front = (f"stream {{ server {{ listen {at.address}:{tls} ssl; ssl_protocols TLSv1.2; ssl_certificate {folder}/certificate.pem; "
                     f"ssl_certificate_key {folder}/key.pem; proxy_pass {at.address}:{port}; }} }}")
        body = f"rtmp {{ access_log off; server {{ listen {at.address}:{port}; application live {{ live on; }} }} }} {front}"
        self.add("server", nginx(self.folder / f"rtmp{port}", body, modules=["rtmp", "stream"]), lambda: at.tcp_listening(tls if secure else port))
        self.add("sender", ffmpeg(material, "-f", "flv", "-flvflags", "no_duration_filesize", f"rtmp://{at.address}:{port}/live/a"))
        entry = Relay(self, port).port if relay else port
        self.url = f"rtmps://{at.address}:{tls}/live/a" if secure else f"rtmp://{at.address}:{entry}/live/a"


class Hls(Peer):
    def __init__(self, folder, material, relay=False, at=HERE):
        super().__init__(folder, material, ["server"], at)
        port = free_port()
        root = self.folder / f"hls{port}"
        playlist = root / "www/live.m3u8"
        playlist.parent.mkdir(parents=True)
        temporary = " ".join(f"{use}_temp_path {use};" for use in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        # A writer that comes back goes on with the playlist of the one before.
        self.add("sender", ffmpeg(material, "-f", "hls", "-hls_time", "1", "-hls_list_size", "8", "-hls_delete_threshold", "8",
                                  "-hls_flags", "delete_segments+append_list+omit_endlist", playlist),
                 lambda: playlist.exists() and playlist.read_text().count("#EXTINF") >= 3)
        self.add("server", nginx(root, f"http {{ access_log off; {temporary} server {{ listen {at.address}:{port}; root {root}/www; }} }}"),
                 lambda: at.tcp_listening(port))
        self.url = f"http://{at.address}:{Relay(self, port).port if relay else port}/live.m3u8"


def make_certificate(folder):
    if not (folder / "certificate.pem").exists():
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", f"/CN={LOOPBACK}", "-addext",
                        f"subjectAltName=IP:{LOOPBACK}", "-keyout", folder / "key.pem", "-out", folder / "certificate.pem"],
                       check=True, capture_output=True)
