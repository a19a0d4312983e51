"""Values: what a track carries, its frames, its counters.

Times are nanoseconds (ns), sizes bytes, rates per second.
"""

from __future__ import annotations

from dataclasses import dataclass, field
from fractions import Fraction
from typing import Any, Literal

from ._handles import U32, known_time, make, none_if, py_text, whole
from ._shb import lib
from .errors import ArgumentError

Kind = Literal["video", "audio"]
Start = Literal["oldest", "newest", "key"]
Presence = Literal["unknown", "expected", "absent"]
Scan = Literal["progressive", "interlaced", "mixed"]

KINDS: dict[str, int] = {"video": lib.SHB_VIDEO, "audio": lib.SHB_AUDIO}
STARTS: dict[str, int] = {"oldest": lib.SHB_START_OLDEST, "newest": lib.SHB_START_NEWEST, "key": lib.SHB_START_KEY}
PRESENCES: tuple[Presence, ...] = ("unknown", "expected", "absent")
SCANS: tuple[Scan, ...] = ("progressive", "interlaced", "mixed")


def choice(what: str, value: str, known: dict[str, int]) -> int:
    """The number that C has for one of a few words."""
    if value not in known:
        raise ArgumentError(f"{what}: {value!r} is not one of {', '.join(known)}")
    return known[value]


@dataclass(frozen=True)
class Geometry:
    """Size of a buffer. The memory is reserved when the buffer is made."""

    channels: int = 1  #: 1 to 1024
    streams: int = 1  #: of each channel, 1 to 64
    video_frames: int = 1024  #: frames that a video track can hold: a power of two, 16 to 65536
    audio_frames: int = 1024  #: the same for an audio track
    video_bytes: int = 8 << 20  #: payload bytes of a video track: a power of two, 64 KiB to 1 GiB
    audio_bytes: int = 512 << 10  #: the same for an audio track

    def to_c(self) -> Any:
        """Raises ArgumentError."""
        struct = make("shb_geometry_t")
        struct.channels = whole("channels", self.channels, 1, 1024)
        struct.streams = whole("streams", self.streams, 1, 64)
        for name, lowest, highest in (
            ("video_frames", 16, 1 << 16),
            ("audio_frames", 16, 1 << 16),
            ("video_bytes", 1 << 16, 1 << 30),
            ("audio_bytes", 1 << 16, 1 << 30),
        ):
            value = whole(name, getattr(self, name), lowest, highest)
            if value & (value - 1):
                raise ArgumentError(f"{name}: {value} is not a power of two")
            setattr(struct, name, value)
        return struct

    @staticmethod
    def from_c(struct: Any) -> Geometry:
        return Geometry(
            struct.channels, struct.streams, struct.video_frames, struct.audio_frames, struct.video_bytes, struct.audio_bytes
        )


@dataclass(frozen=True)
class Description:
    """What a track carries, as its writer read it from the stream.

    0 and the empty text stand for what is not known.
    """

    code: str  #: encoding name: "H264", "H265", "AAC", "MP3", "AC3", "OPUS", "PCMA", ...
    profile: str = ""  #: "high", "main", ...
    level: str = ""  #: "4.1", ...
    format: str = ""  #: of the frames: "byte-stream", "adts", "raw", "loas"; empty where there is only one
    media: int = 0  #: number of the kind of media (48 H.264, 64 H.265, 21 AAC, ...; docs/shared-buffer.md)
    width: int = 0  #: video: pixels
    height: int = 0  #: video: pixels
    fps_n: int = 0  #: video: announced frame rate, numerator
    fps_d: int = 1  #: video: and its denominator
    scan: Scan = "progressive"  #: video
    ref_frames: int = 0  #: video: reference frames
    reorder_frames: int = -1  #: video: frames that can come before one that is shown earlier; -1: not known
    sample_rate: int = 0  #: audio: Hz
    channels: int = 0  #: audio
    samples_per_frame: int = 0  #: audio: of each channel
    nominal_bitrate: int = 0  #: audio: bits per second as announced
    #: What a decoder or a muxer needs before the first frame; empty: nothing; None: it has been overwritten
    #: since.
    codec_data: bytes | None = field(default=b"", repr=False)
    serial: int = 0  #: rises by one at every change within one epoch; of no account when it is written

    @property
    def fps(self) -> Fraction | None:
        """Announced frame rate in frames per second, None when the stream does not announce it."""
        return Fraction(self.fps_n, self.fps_d) if self.fps_n > 0 and self.fps_d > 0 else None

    def to_c(self) -> Any:
        """Raises ArgumentError for a text that is longer than its field."""
        struct = make("shb_description_t")
        for name, longest in (("code", 15), ("profile", 23), ("level", 15), ("format", 15)):
            text = getattr(self, name).encode()
            if len(text) > longest or b"\0" in text:
                raise ArgumentError(f"{name}: {getattr(self, name)!r} is not a text of at most {longest} bytes")
            setattr(struct, name, text)
        for name in (
            "media",
            "width",
            "height",
            "fps_n",
            "fps_d",
            "ref_frames",
            "reorder_frames",
            "sample_rate",
            "channels",
            "samples_per_frame",
            "nominal_bitrate",
        ):
            setattr(struct, name, whole(name, getattr(self, name), -(2**31), 2**31 - 1))
        struct.scan_type = choice("scan", self.scan, {name: number for number, name in enumerate(SCANS)})
        return struct

    @staticmethod
    def from_c(struct: Any, codec_data: bytes | None) -> Description:
        return Description(
            py_text(struct.code),
            py_text(struct.profile),
            py_text(struct.level),
            py_text(struct.format),
            struct.media,
            struct.width,
            struct.height,
            struct.fps_n,
            struct.fps_d,
            SCANS[min(max(struct.scan_type, 0), 2)],
            struct.ref_frames,
            struct.reorder_frames,
            struct.sample_rate,
            struct.channels,
            struct.samples_per_frame,
            struct.nominal_bitrate,
            codec_data,
            struct.serial,
        )


@dataclass(eq=False)
class FrameFields:
    """What is known of a frame beside its bytes."""

    size: int  #: bytes
    flags: int  #: SHB_FRAME_, see `key`, `discont`, `header`
    sequence: int  #: number of the frame within the epoch, from 0
    epoch: int  #: rises whenever a new writer opens the track; `sequence` starts again
    pts: int | None  #: presentation time stamp, ns of the host's pipeline, anew in each epoch; None: unknown
    dts: int | None  #: decoding time stamp, the same
    duration: int | None  #: ns, None when not known
    lost: int  #: frames that this reader did not get right before this one
    lost_before: int  #: how many of them belong to earlier epochs
    left_out: int  #: frames larger than the track, which were never written, since the frame before
    arrival_ns: int  #: when it was written, CLOCK_MONOTONIC of the host
    wall_ns: int  #: the same moment, ns since 1970-01-01 UTC
    clock_offset: int | None  #: `pts` plus this is a time of CLOCK_MONOTONIC, ns; None when not known
    description: Description | None  #: what the track carries: the same object until that changes

    @property
    def key(self) -> bool:
        """Decoding can start here. Every audio frame is a key frame."""
        return bool(self.flags & lib.SHB_FRAME_KEY)

    @property
    def discont(self) -> bool:
        """The stream has a gap right before this frame."""
        return bool(self.flags & lib.SHB_FRAME_DISCONT)

    @property
    def header(self) -> bool:
        """The frame holds headers only."""
        return bool(self.flags & lib.SHB_FRAME_HEADER)

    @property
    def clock_pts(self) -> int | None:
        """`pts` on CLOCK_MONOTONIC, the one axis of all tracks and epochs; None when not known."""
        return None if self.pts is None or self.clock_offset is None else self.pts + self.clock_offset

    @property
    def clock_dts(self) -> int | None:
        """`dts` on CLOCK_MONOTONIC; None when not known."""
        return None if self.dts is None or self.clock_offset is None else self.dts + self.clock_offset


@dataclass(eq=False)
class Frame(FrameFields):
    """One access unit of video or one audio frame, with a copy of its bytes."""

    data: bytes = field(repr=False)


@dataclass(frozen=True)
class Stats:
    """Counters of a track since its writer opened it, unless noted."""

    writer_pid: int  #: in the creator's PID namespace; 0 when no writer has the track open
    epoch: int  #: 0 when the track never had a writer
    frames: int
    bytes: int
    key_frames: int
    left_out: int  #: frames larger than the track, which were not written
    held: int  #: frames that a reader can have now
    total_frames: int  #: over all epochs of this buffer
    total_bytes: int  #: the same
    total_left_out: int  #: the same
    age_ns: int | None  #: age of the last frame, None when there is none
    bitrate: int  #: bits per second over the writer's last window of about one second, 0 before the first
    fps: float  #: frames per second over the same window
    clock_offset: int | None  #: as in a frame, for the next one
    presence: Presence  #: whether the source has such a stream

    @staticmethod
    def from_c(struct: Any) -> Stats:
        return Stats(
            struct.writer_pid,
            struct.epoch,
            struct.frames,
            struct.bytes,
            struct.key_frames,
            struct.left_out,
            struct.held,
            struct.total_frames,
            struct.total_bytes,
            struct.total_left_out,
            known_time(struct.age_ns),
            struct.bitrate,
            struct.fps_milli / 1000,
            none_if(struct.clock_offset, lib.SHB_OFFSET_NONE),
            PRESENCES[min(struct.presence, 2)],
        )


@dataclass(frozen=True)
class ReaderStats:
    """Counters of one reader. frames + lost + waiting = offered, at any time."""

    frames: int  #: delivered
    bytes: int
    key_frames: int
    lost: int  #: the sum of `lost` over all frames delivered
    losses: int  #: frames delivered with a `lost` above 0
    left_out: int  #: the sum of `left_out` over all frames delivered
    epochs: int  #: times that a frame came of another epoch than the one before, the first included
    waiting: int  #: frames written that this reader has not read yet, lost ones included
    offered: int  #: frames written from where the reader began

    @staticmethod
    def from_c(struct: Any) -> ReaderStats:
        return ReaderStats(
            struct.frames,
            struct.bytes,
            struct.key_frames,
            struct.lost,
            struct.losses,
            struct.left_out,
            struct.epochs,
            struct.waiting,
            struct.offered,
        )


@dataclass(frozen=True)
class BufferInfo:
    """A buffer of this machine."""

    name: str  #: without a leading "/"
    alive: bool  #: whether the creator has it open
    creator_pid: int  #: process that made it, in its own PID namespace
    pid_is_ours: bool  #: whether `creator_pid` means the same process here
    owner: int  #: user id
    group: int  #: group id of its files
    mode: int  #: permissions of its files
    version: int  #: layout version
    heartbeat_age_ns: int | None  #: since its last heartbeat (every 250 ms); None for other layout versions
    total_bytes: int  #: shared memory that it takes, 0 for other layout versions
    geometry: Geometry | None  #: None for other layout versions

    @staticmethod
    def from_c(struct: Any) -> BufferInfo:
        sound = struct.geometry.channels > 0
        return BufferInfo(
            py_text(struct.name).removeprefix("/"),
            bool(struct.alive),
            struct.creator_pid,
            bool(struct.pid_is_ours),
            struct.owner,
            struct.group,
            struct.mode,
            struct.version,
            struct.heartbeat_age_ns if sound else None,
            struct.total_bytes,
            Geometry.from_c(struct.geometry) if sound else None,
        )


def track_of(kind: str, channel: int, stream: int) -> tuple[int, int, int]:
    """A track as C names it. Raises ArgumentError."""
    return whole("channel", channel, 0, U32), whole("stream", stream, 0, U32), choice("kind", kind, KINDS)


def track_name(kind: str, channel: int, stream: int) -> str:
    return f"{kind} {channel}.{stream}"
