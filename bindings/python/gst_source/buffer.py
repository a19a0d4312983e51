"""The creator's side: buffers, and writers of their tracks."""

from __future__ import annotations

import atexit
import threading
from typing import TYPE_CHECKING, Any, Callable, Protocol

from ._handles import NAME_RULE, U32, U64, Handle, c_text, make, none_if, py_text, whole
from ._shb import ffi, lib
from .errors import ArgumentError, Busy, Error, check
from .records import PRESENCES, BufferInfo, Description, Geometry, Kind, Presence, Stats, choice, track_name, track_of

if TYPE_CHECKING:
    from .source import MediaChangeHandler, Source

# What ffi.from_buffer takes: bytes, bytearray, memoryview, numpy arrays, ...
Bytes = Any

StallHandler = Callable[[int], object]

_thread = threading.local()


class _Child(Protocol):
    #: channel and stream of a source, whose tracks may have no writer yet; None: not a source
    _place: tuple[int, int] | None

    def _refuse_in_handler(self) -> None:
        """Raises Error on a thread that a close would wait for."""

    def close(self) -> None:
        ...


def report_from_thread() -> None:
    """What went wrong in a handler goes where exceptions of threads go."""
    import sys

    threading.excepthook(threading.ExceptHookArgs((*sys.exc_info(), threading.current_thread())))


@ffi.def_extern()  # type: ignore[misc]
def gst_source_python_stalled(user: Any, silent_ms: int) -> None:
    _thread.in_stall_handler = True
    try:
        ffi.from_handle(user)(silent_ms)
    except BaseException:
        report_from_thread()
    finally:
        _thread.in_stall_handler = False


def _refuse_in_stall_handler(what: str) -> None:
    if getattr(_thread, "in_stall_handler", False):
        raise Error(f"{what}: not from a stall handler, for whose end it would wait")


class Buffer(Handle):
    """A shared buffer of this process: what sources and writers put frames into.

    It lives until it is closed or the interpreter ends, also when no variable holds it. Any thread.
    """

    _what = "buffer"

    def __init__(self, name: str, geometry: Geometry | None = None, *, mode: int = 0o600, group: int | None = None) -> None:
        """Makes the buffer `name` (1 to 200 characters of [A-Za-z0-9._-]).

        One whose creator has died is replaced.

        mode    permissions of its files: 0o600, and 0o040 and 0o004 for readers of the group and of all
                others; the umask is taken off
        group   id of the group of its files, of which the creator must be a member

        Raises ArgumentError, Exists, NoSpace, SystemFailure.
        """
        options = make("shb_create_options_t")
        if mode & ~0o644 or mode & 0o600 != 0o600:
            raise ArgumentError(f"mode: 0o{mode:o} is not 0o600, 0o640, 0o604 or 0o644")
        options.mode = mode
        if group is not None:
            options.group_given, options.group = 1, whole("group", group, 0, U32)
        out = ffi.new("shb_buffer_t **")
        struct = ffi.NULL if geometry is None else geometry.to_c()
        result = lib.shb_create_with(c_text("name", name), struct, options, out)
        # All else has been checked.
        check(result, name, NAME_RULE if result == lib.SHB_ERR_ARG else "")
        super().__init__(out[0], lib.shb_destroy)
        self._children: list[_Child] = []
        # A buffer that is not closed leaves its files behind.
        atexit.register(self.close)

    @property
    def name(self) -> str:
        """Its name, without a leading "/"."""
        return py_text(lib.shb_name(self._use())).removeprefix("/")

    @property
    def geometry(self) -> Geometry:
        """Its size, with the defaults filled in."""
        struct = make("shb_geometry_t")
        check(lib.shb_get_geometry(self._use(), struct), "buffer")
        return Geometry.from_c(struct)

    @property
    def files(self) -> tuple[str, ...]:
        """Paths of the files behind it, for a host that wants them gone when it crashes."""
        pointer = self._use()
        paths = (lib.shb_file(pointer, index) for index in range(3))
        return tuple(py_text(path) for path in paths if path)

    @property
    def stall_watch_ms(self) -> int:
        """ms without data after which a stall handler is called, and a source connects again; 0: never.

        Can be set, up to 2**31.
        """
        return int(lib.shb_get_stall_watch(self._use()))

    @stall_watch_ms.setter
    def stall_watch_ms(self, ms: int) -> None:
        check(lib.shb_set_stall_watch(self._use(), whole("stall_watch_ms", ms, 0, 2**31)), "buffer")

    def stats(self, kind: Kind = "video", channel: int = 0, stream: int = 0) -> Stats:
        """Counters of a track. Raises ArgumentError."""
        struct = make("shb_stats_t")
        check(lib.shb_buffer_stats(self._use(), *track_of(kind, channel, stream), struct), track_name(kind, channel, stream))
        return Stats.from_c(struct)

    def description(self, kind: Kind = "video", channel: int = 0, stream: int = 0) -> Description | None:
        """What a track carries, without its codec data; None while that is not known.

        Raises ArgumentError.
        """
        struct = make("shb_description_t")
        result = lib.shb_buffer_description(self._use(), *track_of(kind, channel, stream), struct)
        if result == lib.SHB_ERR_NOT_FOUND:
            return None
        check(result, track_name(kind, channel, stream))
        return Description.from_c(struct, None)

    def set_presence(self, presence: Presence, kind: Kind = "video", channel: int = 0, stream: int = 0) -> None:
        """Says whether the source has a stream for this track. A writer makes it "expected" by itself.

        Raises ArgumentError.
        """
        number = choice("presence", presence, {name: number for number, name in enumerate(PRESENCES)})
        check(lib.shb_set_presence(self._use(), *track_of(kind, channel, stream), number), track_name(kind, channel, stream))

    def _check_free(self, channel: int, stream: int) -> None:
        """Under the lock. Raises Busy when a source has these tracks."""
        if any(child._place == (channel, stream) for child in self._children):
            raise Busy(f"channel {channel}, stream {stream}: a source is open there")

    def writer(self, kind: Kind = "video", channel: int = 0, stream: int = 0) -> Writer:
        """Opens a track for writing, which begins a new epoch. Raises ArgumentError, Busy, SystemFailure."""
        return Writer(self, kind, channel, stream)

    def open(
        self, url: str, *, channel: int = 0, stream: int = 0, on_media_change: MediaChangeHandler | None = None, **options: Any
    ) -> Source:
        """Opens the live stream `url` into the tracks of `channel` and `stream`; see `open_source`."""
        from .source import open_source

        return open_source(self, url, channel=channel, stream=stream, on_media_change=on_media_change, **options)

    def close(self) -> None:
        """Closes its sources and writers, then removes it. Readers get what is held, then Closed.

        Raises Error in a handler of its own sources and writers, which stay open then.
        """
        _refuse_in_stall_handler("Buffer.close")
        if self._is_inherited():
            super().close()
        else:
            with self._lock:
                for child in self._children:
                    child._refuse_in_handler()
            while True:
                # Not held while a child closes: that waits for handlers, which may want it.
                with self._lock:
                    if not self._children:
                        # Closed before another thread can open one more.
                        self._pointer = None
                        break
                    newest = self._children[-1]
                newest.close()
        atexit.unregister(self.close)


class Writer(Handle):
    """One track, open for writing; made by `Buffer.writer`.

    It never waits for readers. Any thread, one at a time.
    """

    _what = "writer"
    _place: tuple[int, int] | None = None

    def __init__(self, buffer: Buffer, kind: Kind, channel: int, stream: int) -> None:
        self._buffer = buffer
        self._name = track_name(kind, channel, stream)
        self._is_audio = kind == "audio"
        out = ffi.new("shb_writer_t **")
        with buffer._alone():
            buffer._check_free(channel, stream)
            check(lib.shb_writer_open(buffer._use(), *track_of(kind, channel, stream), out), self._name)
            super().__init__(out[0], lib.shb_writer_close)
            self._handlers: list[Any] = []
            buffer._children.append(self)

    def describe(self, description: Description) -> None:
        """Sets what the frames written from now on belong to; its `serial` is of no account.

        What is the same as before is no change.

        Raises ArgumentError; TooBig: more than 8192 bytes of codec data.
        """
        struct, data = description.to_c(), description.codec_data or b""
        with self._alone():
            check(lib.shb_writer_describe(self._use(), struct, data, len(data)), self._name)

    def set_clock(self, offset: int | None) -> None:
        """Says how time stamps relate to the clock: pts + `offset` is a time of CLOCK_MONOTONIC, ns.

        None, as at first: that is not known. Raises ArgumentError.
        """
        number = lib.SHB_OFFSET_NONE if offset is None else whole("offset", offset, -(2**63) + 1, 2**63 - 1)
        with self._alone():
            check(lib.shb_writer_set_clock(self._use(), number), self._name)

    def write(
        self,
        data: Bytes,
        *,
        pts: int | None = None,
        dts: int | None = None,
        duration: int | None = None,
        key: bool | None = None,
        discont: bool = False,
        header: bool = False,
    ) -> None:
        """Writes one frame: an access unit of video or an audio frame.

        data                bytes, or anything that has a buffer of them
        pts, dts, duration  ns from 0; None: not known
        key                 decoding can start here; None: yes in an audio track, no in a video track. Readers
                            begin at a key frame unless they say otherwise
        discont             the stream has a gap right before this frame
        header              the frame holds headers only

        Raises ArgumentError, also for an empty frame; TooBig: it is larger than the track and was left out.
        """
        with ffi.from_buffer(data) as place, self._alone():
            key = self._is_audio if key is None else key
            flags = key * lib.SHB_FRAME_KEY | discont * lib.SHB_FRAME_DISCONT | header * lib.SHB_FRAME_HEADER
            times = (_c_time("pts", pts), _c_time("dts", dts), _c_time("duration", duration))
            result = lib.shb_writer_write(self._use(), place, len(place), *times, flags)
            check(result, self._name, "" if len(place) else "the frame is empty")

    def set_rates(self, bitrate: int, fps: float) -> None:
        """Publishes measured rates for `stats`: bits per second, frames per second. Raises ArgumentError."""
        with self._alone():
            lib.shb_writer_set_rates(self._use(), whole("bitrate", bitrate, 0, U32), whole("fps", round(fps * 1000), 0, U32))

    def on_stall(self, handler: StallHandler | None) -> None:
        """Sets what to call when the stall watch finds the track without data; None: nothing.

        `handler(silent_ms)`: for how long. It runs on a thread of its own. It must not call `Writer.close`,
        `Buffer.close` or `on_stall`, which raise Error there, nor wait for a thread that does. After this function
        has returned, the handler before is not running and will not be called.
        """
        _refuse_in_stall_handler("Writer.on_stall")
        pointer = self._use()
        if handler is None:
            check(lib.shb_writer_on_stall(pointer, ffi.NULL, ffi.NULL), self._name)
            return
        user = ffi.new_handle(handler)
        # The one before may be running, or be set at the same time by another thread: all of them stay.
        self._handlers.append(user)
        check(lib.shb_writer_on_stall(pointer, lib.gst_source_python_stalled, user), self._name)

    def _refuse_in_handler(self) -> None:
        _refuse_in_stall_handler("Writer.close")

    def close(self) -> None:
        """Closes the track; what was written stays readable. Waits for a stall handler that is running."""
        self._refuse_in_handler()
        if self._is_inherited():
            super().close()
            return
        with self._lock:
            pointer, self._pointer = self._pointer, None
        # Released here, without the lock, which the handler may want.
        del pointer
        with self._buffer._lock:
            if self in self._buffer._children:
                self._buffer._children.remove(self)


def _c_time(what: str, value: int | None) -> int:
    return int(lib.SHB_TIME_NONE) if value is None else whole(what, value, 0, U64 - 1)


def room(geometry: Geometry | None = None) -> tuple[int, int]:
    """How many bytes a buffer of this geometry takes, and how many are free.

    Raises ArgumentError, SystemFailure.
    """
    needed, available = ffi.new("uint64_t *"), ffi.new("uint64_t *")
    check(lib.shb_room(ffi.NULL if geometry is None else geometry.to_c(), needed, available), "shared memory")
    return needed[0], available[0]


def buffers() -> list[BufferInfo]:
    """The buffers of this machine that this user may read, sorted by name, those of dead creators included.

    Raises SystemFailure.
    """
    count = ffi.new("size_t *")
    capacity = 16
    while True:
        infos = ffi.new("shb_info_t[]", capacity)
        infos[0].struct_size = ffi.sizeof("shb_info_t")
        check(lib.shb_list(infos, capacity, count), "shared memory")
        if count[0] <= capacity:
            return [BufferInfo.from_c(infos[index]) for index in range(count[0])]
        capacity = 2 * count[0]


def remove(name: str, *, force: bool = False) -> None:
    """Removes the buffer that a creator has left behind.

    With `force` also the name of one whose creator lives.

    Raises ArgumentError, NotFound, Exists (the creator is alive), VersionMismatch (no shared buffer, left
    alone), SystemFailure.
    """
    result = lib.shb_remove(c_text("name", name), force)
    check(result, name, NAME_RULE if result == lib.SHB_ERR_ARG else "")
