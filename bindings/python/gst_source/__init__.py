"""Live streams in shared memory: sources that keep them coming, buffers, and readers of their frames.

    import gst_source

    with gst_source.Map("camera") as map, map.reader("video") as reader:
        for frame in reader:
            print(frame.sequence, frame.size, frame.key)

docs/python.md shows what there is by task. Everything that is opened is a context manager, and closing it is
its end at once: what is used after that raises UseAfterClose. Buffers, writers and sources live until they are
closed or the interpreter ends; readers and maps go with their last reference as well. In a forked child
everything of its parent raises ForkError, and closing it there does nothing.
"""

from ._shb import lib as _lib
from .buffer import Buffer, Writer, buffers, remove, room
from .errors import (
    ArgumentError,
    Busy,
    Closed,
    Corrupt,
    Error,
    Exists,
    ForkError,
    NoSpace,
    NotFound,
    OpenFailed,
    Overrun,
    SystemFailure,
    Timeout,
    TooBig,
    UseAfterClose,
    VersionMismatch,
    WrongOwner,
)
from .follow import Follow, FollowEvent
from .reader import BorrowedFrame, Map, Reader, ReaderSet, guard, wait_any
from .records import BufferInfo, Description, Frame, Geometry, ReaderStats, Stats
from .source import (
    AudioInfo,
    HlsSource,
    MediaInfo,
    RtmpSource,
    RtspSource,
    Source,
    SourceStatus,
    SrtSource,
    UdpSource,
    VideoInfo,
    open_source,
)
from .stream import Stream

# Of this package, and of the library that it comes with.
__version__ = "1.0.0"

__all__ = [
    "ArgumentError",
    "AudioInfo",
    "BorrowedFrame",
    "Buffer",
    "BufferInfo",
    "Busy",
    "Closed",
    "Corrupt",
    "Description",
    "Error",
    "Exists",
    "Follow",
    "FollowEvent",
    "ForkError",
    "Frame",
    "Geometry",
    "HlsSource",
    "Map",
    "MediaInfo",
    "NoSpace",
    "NotFound",
    "OpenFailed",
    "Overrun",
    "Reader",
    "ReaderSet",
    "ReaderStats",
    "RtmpSource",
    "RtspSource",
    "Source",
    "SourceStatus",
    "SrtSource",
    "Stats",
    "Stream",
    "SystemFailure",
    "Timeout",
    "TooBig",
    "UdpSource",
    "UseAfterClose",
    "VersionMismatch",
    "VideoInfo",
    "Writer",
    "WrongOwner",
    "buffers",
    "guard",
    "library_version",
    "open_source",
    "remove",
    "room",
    "wait_any",
]


def library_version() -> tuple[int, int, int]:
    """Version of libshb: major, minor, patch."""
    number = _lib.shb_version()
    return number >> 16, number >> 8 & 0xFF, number & 0xFF
