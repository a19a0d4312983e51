"""What the tests of the Python package have in common: names, waiting, children that always end, real streams."""

import contextlib
import itertools
import os
import socket
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

import gst_source

BUILD = Path(os.environ["GST_SOURCE_BUILD"])
SOURCE = Path(os.environ["GST_SOURCE_ROOT"])
STREAM = BUILD / "tests" / "stream.ts"  # H.264 320x240 at 25/s with a key frame every 12, AAC 48000 Hz

SMALL = gst_source.Geometry(video_frames=16, audio_frames=16, video_bytes=1 << 16, audio_bytes=1 << 16)
PICTURE = gst_source.Description(
    "H264", "high", "4.1", "byte-stream", 48, 1920, 1080, 30000, 1001, "interlaced", 3, 2, codec_data=b"sps pps"
)

_numbers = itertools.count()


def unique_name():
    """A name that no other test of this machine uses."""
    return f"python-{os.getpid()}-{next(_numbers)}"


def eventually(condition, bound=30.0):
    """Waits until it holds; what it answered last."""
    end = time.monotonic() + bound
    while not (answer := condition()) and time.monotonic() < end:
        time.sleep(0.01)
    return answer


def leftovers(name):
    """Files of the buffer in shared memory, its file of waiters included."""
    return sorted(path.name for path in Path("/dev/shm").glob(f"{name}*"))


def descriptors():
    return set(os.listdir("/proc/self/fd"))


class Case(unittest.TestCase):
    """Buffers that are gone when a test ends, however it ends."""

    def buffer(self, geometry=None, **options):
        buffer = gst_source.Buffer(unique_name(), geometry, **options)
        self.addCleanup(buffer.close)
        return buffer

    def map(self, buffer):
        name = buffer if isinstance(buffer, str) else buffer.name
        return self.enterContext(gst_source.Map(name))

    def folder(self):
        return Path(self.enterContext(tempfile.TemporaryDirectory()))

    def child(self, code, *arguments, **options):
        """A Python of its own that runs `code`."""
        return self.program([sys.executable, "-X", "dev", "-c", code, *arguments], **options)

    def program(self, command, **options):
        child = subprocess.Popen(command, stdin=subprocess.DEVNULL, text=True, **options)
        self.addCleanup(end, child)
        return child

    def run_code(self, code, *arguments):
        """Runs it to its end, which must be a good one; what it said."""
        child = self.child(code, *arguments, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        out, err = child.communicate(timeout=60)
        self.assertEqual(child.returncode, 0, err)
        return out, err


class LiveCase(Case):
    """A buffer into which a real stream has been playing for some seconds."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        url = free_udp_url()
        cls.enterClassContext(sender(url))
        cls.live = cls.enterClassContext(gst_source.Buffer(unique_name()))
        cls.live.open(url)
        if not eventually(lambda: cls.live.stats("video").frames > 60 and cls.live.stats("audio").frames > 0):
            raise AssertionError(f"no stream: {cls.live.stats()}")


def end(child):
    if child.poll() is None:
        child.kill()
    child.wait()
    for pipe in (child.stdout, child.stderr):
        if pipe is not None:
            pipe.close()


def free_udp_url():
    with socket.socket(type=socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return f"udp://127.0.0.1:{probe.getsockname()[1]}"


@contextlib.contextmanager
def sender(url, *options, path=STREAM):
    """Plays a file to the URL, again and again, as fast as it is meant."""
    child = subprocess.Popen(
        [
            "setpriv",
            "--pdeathsig",
            "KILL",
            "ffmpeg",
            "-nostdin",
            "-loglevel",
            "error",
            "-re",
            "-stream_loop",
            "-1",
            "-i",
            str(path),
            *options,
            "-c",
            "copy",
            "-f",
            "mpegts",
            f"{url}?pkt_size=1316",
        ],
        stdin=subprocess.DEVNULL,
    )
    try:
        yield child
    finally:
        end(child)


def write_some(writer, count, size=1000, first=0, every=5):
    """Frames number `first` and so on, each of its own content, with a key frame every so many."""
    for number in range(first, first + count):
        writer.write(
            pattern(number, size),
            pts=number * 40_000_000,
            dts=number * 40_000_000,
            duration=40_000_000,
            key=number % every == 0,
        )


def pattern(number, size=1000):
    return number.to_bytes(4, "big") * (size // 4)
