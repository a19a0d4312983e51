#!/usr/bin/env python3
"""Frame statistics of one track of a shared buffer, a line each interval and one for the whole, until the
host closes the buffer or Ctrl-C.

    ./frame_statistics.py camera
    ./frame_statistics.py camera audio --interval 5 --duration 60

rate     frames and bits per second of arrival
size     smallest, mean and largest frame, bytes
gop      frames from key frame to key frame, mean
jitter   mean difference between the distance of two frames on arrival and by their time stamps, ms
lost     frames that this reader did not get; left out: larger than the track
"""

from __future__ import annotations

import argparse
import signal
import sys
import time

import gst_source


class Statistics:
    """Sums over frames."""

    def __init__(self) -> None:
        self.frames = self.bytes = self.smallest = self.largest = self.first_bytes = 0
        self.keys = 0
        self.first_key = self.last_key = 0  # frames before the first and the last key frame
        self.lost = self.left_out = 0
        self.first_ns = self.last_ns = 0
        self.jitter_ms = 0.0
        self.jitters = 0
        self._before: gst_source.Frame | None = None

    def add(self, frame: gst_source.Frame) -> None:
        if self.frames == 0:
            self.first_ns, self.first_bytes, self.smallest = frame.arrival_ns, frame.size, frame.size
        if frame.key:
            self.last_key = self.frames
            self.first_key = self.first_key if self.keys else self.frames
            self.keys += 1
        self.frames += 1
        self.bytes += frame.size
        self.smallest, self.largest = min(self.smallest, frame.size), max(self.largest, frame.size)
        self.lost += frame.lost
        self.left_out += frame.left_out
        self.last_ns = frame.arrival_ns
        self._add_jitter(frame)

    def _add_jitter(self, frame: gst_source.Frame) -> None:
        before, self._before = self._before, frame
        if before is None or frame.lost or frame.epoch != before.epoch:
            return
        now, then = (one.dts if one.dts is not None else one.pts for one in (frame, before))
        if now is not None and then is not None:
            self.jitter_ms += abs(frame.arrival_ns - before.arrival_ns - (now - then)) / 1e6
            self.jitters += 1

    def __str__(self) -> str:
        if self.frames == 0:
            return "no frames"
        seconds = (self.last_ns - self.first_ns) / 1e9
        # The first frame begins the time and is not part of it.
        rate = (self.frames - 1) / seconds if seconds else 0.0
        kilobits = (self.bytes - self.first_bytes) * 8 / seconds / 1000 if seconds else 0.0
        gop = f"{(self.last_key - self.first_key) / (self.keys - 1):.1f}" if self.keys > 1 else "-"
        jitter = f"{self.jitter_ms / self.jitters:.2f} ms" if self.jitters else "-"
        return (
            f"{self.frames} frames  rate {rate:.2f}/s {kilobits:.0f} kb/s  "
            f"size {self.smallest}/{self.bytes // self.frames}/{self.largest}  "
            f"gop {gop}  jitter {jitter}  lost {self.lost}  left out {self.left_out}"
        )


def watch(reader: gst_source.Reader, whole: Statistics, interval: float, end: float | None) -> None:
    """Adds up until the buffer is closed, or until the time `end` of time.monotonic()."""
    part = Statistics()
    media = None
    next_line = time.monotonic() + interval
    while end is None or time.monotonic() < end:
        try:
            frame = reader.read(timeout=max(0.0, min(next_line, end or next_line) - time.monotonic()))
        except gst_source.Closed:
            return
        except gst_source.Timeout:
            pass
        else:
            if frame.description is not media:
                media = frame.description
                print(media, flush=True)
            whole.add(frame)
            part.add(frame)
        if time.monotonic() >= next_line:
            print(part, flush=True)
            part = Statistics()
            next_line += interval


def seconds(text: str) -> float:
    """A length of time on the command line."""
    value = float(text)
    if not 0 < value < 2**33:
        raise argparse.ArgumentTypeError(f"{text} is not a number of seconds above 0")
    return value


def main() -> int:
    parser = argparse.ArgumentParser(description="Frame statistics of one track of a shared buffer.")
    parser.add_argument("name", help="name of the buffer")
    parser.add_argument("kind", nargs="?", choices=("video", "audio"), default="video")
    parser.add_argument("--channel", type=int, default=0, metavar="N")
    parser.add_argument("--stream", type=int, default=0, metavar="N")
    parser.add_argument("--interval", type=seconds, default=1.0, metavar="SECONDS", help="between two lines (1)")
    parser.add_argument("--duration", type=seconds, metavar="SECONDS", help="end after this time")
    options = parser.parse_args()
    # As usual in a pipe: nobody reads any more.
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    end = None if options.duration is None else time.monotonic() + options.duration
    whole = Statistics()
    try:
        with gst_source.Map(options.name) as map, map.reader(
            options.kind, options.channel, options.stream, start="newest"
        ) as reader:
            watch(reader, whole, options.interval, end)
    except gst_source.Error as error:
        print(error, file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        pass
    print("whole:", whole)
    return 0


if __name__ == "__main__":
    sys.exit(main())
