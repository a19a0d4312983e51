#!/usr/bin/env python3
"""Records video and audio of a source into a file, from seconds before now on. Nothing is decoded.

    python3 -m gst_source.record camera camera.mkv
    python3 -m gst_source.record camera event.mp4 --before 10 --duration 30

Needs PyAV (Debian: python3-av). An example of the package.
"""

from __future__ import annotations

import argparse
import importlib
import io
import os
import signal
import sys
from fractions import Fraction
from typing import Any, Iterable, Literal

import gst_source
from gst_source import Description, Frame, Reader

# How long a track is waited for that the source may have.
PATIENCE_NS = 5_000_000_000
SECOND = 1_000_000_000

# What FFmpeg calls the form of the frames, each by itself.
FORMATS = {
    ("H264", "byte-stream"): "h264",
    ("H265", "byte-stream"): "hevc",
    ("AAC", "adts"): "aac",
    ("MP1", ""): "mp3",
    ("MP2", ""): "mp3",
    ("MP3", ""): "mp3",
    ("AC3", ""): "ac3",
    ("EAC3", ""): "eac3",
    ("PCMA", ""): "alaw",
    ("PCMU", ""): "mulaw",
}


def seconds(text: str) -> float:
    """A length of time on the command line."""
    value = float(text)
    if not 0 < value < 2**33:
        raise argparse.ArgumentTypeError(f"{text} is not a number of seconds above 0")
    return value


class Failure(Exception):
    """What ends a recording with a line for people."""


def tell(text: str) -> None:
    print(f"record: {text}", file=sys.stderr, flush=True)


def what_matters(media: Description) -> tuple[Any, ...]:
    """What a file cannot change in its middle."""
    return media.code, media.format, media.width, media.height, media.sample_rate, media.channels, media.codec_data


def open_frame(av: Any, frame: Frame, media: Description) -> Any:
    """The frame as a file of its own: PyAV reads the codec's parameters there and cannot be given them."""
    pcm = {"sample_rate": str(media.sample_rate), "channels": str(media.channels)} if media.code.startswith("PCM") else {}
    if media.width:
        # Some senders send their parameter sets once, and not before each key frame.
        data = frame.data if media.codec_data is None or media.codec_data in frame.data else media.codec_data + frame.data
    else:
        # FFmpeg believes in a format when it has seen some frames of it.
        data = frame.data * 8
    return av.open(io.BytesIO(data), format=FORMATS[media.code, media.format], options=pcm)


class Track:
    """One track on its way into the file."""

    def __init__(self, reader: Reader, name: Literal["video", "audio"]) -> None:
        self.reader = reader
        self.name = name
        self.first: Frame | None = None
        self.media: Description | None = None
        self.stream: Any = None
        self.last_dts = -1
        self.frames = 0

    def begin(self, frame: Frame) -> bool:
        """Whether the track can begin with this frame, or has begun."""
        if frame.key and not frame.header and frame.description is not None:
            self.first, self.media = frame, frame.description
        return self.first is not None

    def add_to(self, av: Any, out: Any) -> None:
        assert self.first is not None and self.media is not None
        if (self.media.code, self.media.format) not in FORMATS:
            raise Failure(f"{self.name}: {self.media.code} {self.media.format} cannot be recorded")
        template = open_frame(av, self.first, self.media).streams[0]
        # PyAV 14 has a function of its own for it; opaque: without an encoder.
        add = getattr(out, "add_stream_from_template", None)
        self.stream = out.add_stream(template=template) if add is None else add(template, opaque=True)

    def has_changed(self, frame: Frame) -> bool:
        """Whether the frame is of something else than the file's head says."""
        return (
            frame.description is not None
            and self.media is not None
            and what_matters(frame.description) != what_matters(self.media)
        )

    def write(self, av: Any, out: Any, frame: Frame, begin_ns: int) -> None:
        """`begin_ns`: the moment that is 0 in the file."""
        assert self.media is not None
        if frame.lost:
            tell(f"{self.name}: {frame.lost} frames lost before frame {frame.sequence}")
        # A file wants decoding times that rise, also where a source has connected again.
        dts_ns, pts_ns = (time - begin_ns for time in times(frame))
        unit = self.stream.time_base
        dts = max(round(Fraction(dts_ns, SECOND) / unit), self.last_dts + 1)
        pts = max(round(Fraction(pts_ns, SECOND) / unit), dts)
        packet = av.Packet(frame.data)
        packet.time_base = unit
        try:
            packet.is_keyframe = frame.key
        except AttributeError:
            # PyAV before 12 marks none by itself.
            if frame.key and self.media.width:
                packet = next(open_frame(av, frame, self.media).demux())
        packet.stream = self.stream
        packet.dts, packet.pts = (round(time * unit / packet.time_base) for time in (dts, pts))
        out.mux_one(packet)
        self.last_dts = dts
        self.frames += 1


def times(frame: Frame) -> tuple[int, int]:
    """Decoding and presentation time on one axis for both tracks, ns."""
    pts, dts = frame.clock_pts, frame.clock_dts
    if pts is None:
        pts = frame.arrival_ns
    return pts if dts is None else dts, pts


def frames_of(tracks: list[Track]) -> Iterable[tuple[Track | None, Frame | None]]:
    """Frames of all tracks as they come, (None, None) after a second without; ends with the buffer."""
    by_reader = {track.reader: track for track in tracks}
    last = None
    while by_reader:
        try:
            last = gst_source.wait_any(by_reader, 1.0, after=last)
            yield by_reader[last], last.read(0)
        except gst_source.Timeout:
            yield None, None
        except gst_source.Closed:
            assert last is not None
            del by_reader[last]


def record(av: Any, tracks: list[Track], path: str, duration: float | None) -> list[Track]:
    """Until the buffer is closed, the time is over or Ctrl-C; the result: what was recorded."""
    held: list[tuple[Track, Frame]] = []
    out: Any = None
    begin_ns, begun = 0, False
    missing = set(tracks)

    def begin() -> None:
        """The file, with the tracks that have begun."""
        nonlocal out, begin_ns, begun, missing
        missing = {one for one in tracks if one.first is not None}
        begin_ns = min(times(kept)[0] for _, kept in held)
        # What has been recorded is in the file at once, whatever ends the process.
        out = av.open(path, "w", options={"flush_packets": "1"})
        for one in tracks:
            if one in missing:
                one.add_to(av, out)
        out.start_encoding()
        begun = True

    def write_held() -> bool:
        """Whether the recording goes on."""
        for one, kept in held:
            if one.has_changed(kept):
                tell(f"{one.name}: the stream has changed; the file ends here")
                return False
            late_ns = 0 if duration is None else times(kept)[0] - begin_ns - round(duration * SECOND)
            if duration is not None and late_ns >= 0:
                missing.discard(one)
                # The other track may never get there.
                if not missing or late_ns > PATIENCE_NS:
                    return False
            elif one in missing:
                one.write(av, out, kept, begin_ns)
        held.clear()
        return True

    try:
        try:
            for track, frame in frames_of(tracks):
                if track is not None and frame is not None and (track.first is not None or track.begin(frame)):
                    held.append((track, frame))
                if out is None:
                    # The head of a file lists its tracks, so each is waited for, but not for ever.
                    if not held or (
                        any(one.first is None for one in tracks)
                        and held[-1][1].arrival_ns - held[0][1].arrival_ns < PATIENCE_NS
                    ):
                        continue
                    begin()
                if not write_held():
                    return tracks
        except KeyboardInterrupt:
            pass
        # It has ended while a track was waited for.
        if out is None and held:
            begin()
            write_held()
    except KeyboardInterrupt:
        pass
    finally:
        if out is not None:
            out.close()
            # What is only a head, or not even that, is no recording.
            if not any(one.frames for one in tracks) and os.path.exists(path) and (begun or os.path.getsize(path) == 0):
                os.unlink(path)
    return tracks


def main() -> int:
    parser = argparse.ArgumentParser(prog="gst_source.record", description="Records a source of a shared buffer into a file.")
    parser.add_argument("name", help="name of the buffer")
    parser.add_argument("out", help="file; its ending says the format: .mkv, .mp4, .ts, ...")
    parser.add_argument(
        "--before", type=float, default=0.0, metavar="SECONDS", help="begin so long ago, as far as the buffer reaches (0)"
    )
    parser.add_argument("--duration", type=seconds, metavar="SECONDS", help="length of the recording; default: until Ctrl-C")
    parser.add_argument("--channel", type=int, default=0, metavar="N")
    parser.add_argument("--stream", type=int, default=0, metavar="N")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    try:
        av = importlib.import_module("av")
    except ImportError:
        tell("PyAV is missing; on Debian: apt-get install python3-av")
        return 1
    av.logging.set_level(av.logging.PANIC)
    try:
        with gst_source.Map(options.name) as map:
            video, audio = map.open_av(options.channel, options.stream, back=options.before)
            with video, audio:
                every = (Track(video, "video"), Track(audio, "audio"))
                presence = {one: map.stats(one.name, options.channel, options.stream).presence for one in every}
                recorded = record(av, [one for one in every if presence[one] != "absent"], options.out, options.duration)
    except KeyboardInterrupt:
        recorded = []
    except (gst_source.Error, Failure) as error:
        tell(str(error))
        return 1
    except av.error.FFmpegError as error:
        tell(f"{options.out}: {error.strerror}")
        return 1
    parts = [f"{track.frames} {track.name} frames of {track.media.code}" for track in recorded if track.frames and track.media]
    tell(f"{options.out}: {', '.join(parts)}" if parts else "nothing was recorded")
    return 0 if parts else 1


if __name__ == "__main__":
    sys.exit(main())
