"""The reader's side: buffers seen from outside, readers of their tracks, sets of readers."""

from __future__ import annotations

import weakref
from contextlib import ExitStack
from types import TracebackType
from typing import Any, Iterable, Iterator, Literal

from ._handles import NAME_RULE, U32, U64, Deadline, Handle, c_text, known_time, make, none_if, whole
from ._shb import ffi, lib
from .errors import ArgumentError, Closed, Corrupt, Error, Overrun, Timeout, UseAfterClose, check, error_of
from .records import (
    STARTS,
    BufferInfo,
    Description,
    Frame,
    FrameFields,
    Geometry,
    Kind,
    ReaderStats,
    Start,
    Stats,
    choice,
    track_name,
    track_of,
)
from .stream import Stream

Where = Literal["oldest", "newest", "key"]
_WHERE: dict[str, int] = {"oldest": lib.SHB_SEEK_OLDEST, "newest": lib.SHB_SEEK_NEWEST, "key": lib.SHB_SEEK_KEY}


def _moment(where: str | None, back: float | None, monotonic_ns: int | None, wall_ns: int | None) -> tuple[int, int]:
    """One of the ways to name a moment, as C has it."""
    given = [value for value in (where, back, monotonic_ns, wall_ns) if value is not None]
    if len(given) != 1:
        raise ArgumentError("where: exactly one of where, back, monotonic_ns and wall_ns is needed")
    if where is not None:
        return choice("where", where, _WHERE), 0
    if back is not None:
        if not 0 <= back < 2**33:
            raise ArgumentError(f"back: {back} is not a number of seconds from 0")
        return lib.SHB_SEEK_BACK, round(back * 1e9)
    if monotonic_ns is not None:
        return lib.SHB_SEEK_MONOTONIC, whole("monotonic_ns", monotonic_ns, 0, U64)
    return lib.SHB_SEEK_WALL, whole("wall_ns", given[0], 0, U64)  # type: ignore[arg-type]


class Catcher:
    """Memory for frames on their way from C, and the description that the last one belongs to."""

    def __init__(self) -> None:
        self.memory = ffi.new("unsigned char[]", 1 << 16)
        self.frame = make("shb_frame_t")
        self._described: tuple[int, int] | None = None
        self._description: Description | None = None

    def grow(self) -> None:
        """After TOO_BIG."""
        self.memory = ffi.new("unsigned char[]", 1 << int(self.frame.size - 1).bit_length())

    def forget_description(self) -> None:
        self._described = None

    def fields(self, reader: Any) -> tuple[Any, ...]:
        """What FrameFields is made of. `reader` is what the frame came from."""
        f = self.frame
        if f.description == 0:
            described = None
        else:
            if self._described != (f.epoch, f.description):
                self._description = self._fetch_description(reader)
                self._described = (f.epoch, f.description)
            described = self._description
        return (
            f.size,
            f.flags,
            f.sequence,
            f.epoch,
            known_time(f.pts),
            known_time(f.dts),
            known_time(f.duration),
            f.lost,
            f.lost_before,
            f.left_out,
            f.arrival_ns,
            f.wall_ns,
            none_if(f.clock_offset, lib.SHB_OFFSET_NONE),
            described,
        )

    def copy(self, reader: Any) -> Frame:
        return Frame(*(*self.fields(reader), ffi.buffer(self.memory, self.frame.size)[:]))

    def _fetch_description(self, reader: Any) -> Description | None:
        struct, size = make("shb_description_t"), ffi.new("size_t *")
        if lib.shb_reader_description(reader, struct) != lib.SHB_OK:
            return None
        data = ffi.new("unsigned char[]", lib.SHB_CODEC_DATA_MAX)
        result = lib.shb_reader_codec_data(reader, data, len(data), size)
        return Description.from_c(struct, ffi.buffer(data, size[0])[:] if result == lib.SHB_OK else None)


class Map(Handle):
    """A buffer seen from a reader, mapped read-only. Any thread."""

    _what = "map"

    def __init__(self, name: str, *, owner: int | None = None) -> None:
        """Attaches the buffer `name`; `owner`: only when it belongs to the user of this id.

        Raises ArgumentError, NotFound, VersionMismatch, Corrupt, WrongOwner, SystemFailure (EACCES: it is not
        for this user).
        """
        options = make("shb_attach_options_t")
        if owner is not None:
            options.owner_given, options.owner = 1, whole("owner", owner, 0, U32)
        out = ffi.new("shb_map_t **")
        result = lib.shb_attach_with(c_text("name", name), options, out)
        check(result, name, NAME_RULE if result == lib.SHB_ERR_ARG else "")
        super().__init__(out[0], lib.shb_detach)
        self._name = name

    @property
    def alive(self) -> bool:
        """True while the creator has the buffer open.

        One that was killed counts as alive for up to 0.5 s, one in another PID namespace for up to 5 s.
        """
        return bool(lib.shb_map_alive(self._use()))

    @property
    def geometry(self) -> Geometry:
        """Its size."""
        struct = make("shb_geometry_t")
        check(lib.shb_map_geometry(self._use(), struct), self._name)
        return Geometry.from_c(struct)

    def info(self) -> BufferInfo:
        """Who made it, who may read it, whether the creator lives. Raises Corrupt."""
        return info_of(self._use(), self._name)

    def stats(self, kind: Kind = "video", channel: int = 0, stream: int = 0) -> Stats:
        """Counters of a track. Raises ArgumentError, Corrupt."""
        struct = make("shb_stats_t")
        check(lib.shb_map_stats(self._use(), *track_of(kind, channel, stream), struct), self._track(kind, channel, stream))
        return Stats.from_c(struct)

    def description(self, kind: Kind = "video", channel: int = 0, stream: int = 0) -> Description | None:
        """The newest description of a track, None while there is none. Raises ArgumentError, Corrupt."""
        struct, size = make("shb_description_t"), ffi.new("size_t *")
        data = ffi.new("unsigned char[]", lib.SHB_CODEC_DATA_MAX)
        result = lib.shb_map_codec_data(self._use(), *track_of(kind, channel, stream), struct, data, len(data), size)
        if result == lib.SHB_ERR_NOT_FOUND:
            return None
        check(result, self._track(kind, channel, stream))
        return Description.from_c(struct, ffi.buffer(data, size[0])[:])

    def reader(self, kind: Kind = "video", channel: int = 0, stream: int = 0, *, start: Start = "key") -> Reader:
        """Opens a reader on a track, which may not have a writer yet. It goes on when the map is closed.

        start   where it begins, and where it goes on after a loss:
                "key": at the newest key frame held, or the next one to come; the same after a loss
                "oldest": at the oldest frame held; the same after a loss
                "newest": at the next frame to be written; after a loss at the newest one held

        Raises ArgumentError, Corrupt, SystemFailure.
        """
        out = ffi.new("shb_reader_t **")
        track = self._track(kind, channel, stream)
        check(lib.shb_reader_open(self._use(), *track_of(kind, channel, stream), choice("start", start, STARTS), out), track)
        return Reader(out[0], track)

    def open_av(
        self,
        channel: int = 0,
        stream: int = 0,
        where: Where | None = None,
        *,
        back: float | None = None,
        monotonic_ns: int | None = None,
        wall_ns: int | None = None,
    ) -> tuple[Reader, Reader]:
        """Opens video and audio of a source at one moment, which is named as for `Reader.seek`.

        That is what a recording begins with. The audio begins at its first frame that is not before the picture.
        After a loss video goes on at a key frame, audio at the oldest frame held. Raises ArgumentError, Corrupt,
        SystemFailure.
        """
        seek, ns = _moment(where, back, monotonic_ns, wall_ns)
        video, audio = ffi.new("shb_reader_t **"), ffi.new("shb_reader_t **")
        channel, stream, _ = track_of("video", channel, stream)
        check(
            lib.shb_open_av(self._use(), channel, stream, seek, ns, video, audio),
            self._track("video and audio", channel, stream),
        )
        return Reader(video[0], self._track("video", channel, stream)), Reader(audio[0], self._track("audio", channel, stream))

    def _track(self, kind: str, channel: int, stream: int) -> str:
        return f"{self._name}: {track_name(kind, channel, stream)}"


def info_of(pointer: Any, name: str) -> BufferInfo:
    struct = make("shb_info_t")
    check(lib.shb_map_info(pointer, struct), name)
    return BufferInfo.from_c(struct)


def stats_of(pointer: Any, name: str) -> ReaderStats:
    struct = make("shb_reader_stats_t")
    check(lib.shb_reader_get_stats(pointer, struct), name)
    return ReaderStats.from_c(struct)


class BorrowedFrame(FrameFields):
    """A frame where it lies in the buffer, inside `with reader.borrow() as frame:`."""

    overrun: bool | None = None  #: after the block: whether the frame was overwritten meanwhile; None before

    _view: memoryview | None = None

    @property
    def data(self) -> memoryview:
        """The bytes, read-only, without a copy. Raises UseAfterClose after the block."""
        view = self._view
        if view is None:
            raise UseAfterClose("this frame was returned")
        return view


class Borrowing:
    """What `Reader.borrow` makes: a context manager whose block has the frame."""

    def __init__(self, reader: Reader, timeout: float | None, strict: bool) -> None:
        self._reader = reader
        self._timeout = timeout
        self._strict = strict
        self._frame: BorrowedFrame | None = None
        self._pointer: Any = None

    def __enter__(self) -> BorrowedFrame:
        if self._frame is not None:
            raise ArgumentError("this borrow has been used; call Reader.borrow again")
        self._frame, self._pointer = self._reader._borrow(self._timeout)
        return self._frame

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None) -> None:
        assert self._frame is not None
        result = self._reader._return(self._pointer)
        self._pointer = None
        self._frame.overrun = result == lib.SHB_ERR_OVERRUN
        view, self._frame._view = self._frame._view, None
        try:
            if view is not None:
                view.release()
        except BufferError:
            # An array or a slice of it is still about. The memory stays mapped as long as that.
            pass
        if kind is None and (self._strict or result != lib.SHB_ERR_OVERRUN):
            check(result, self._reader._name)


class Reader(Handle):
    """One reader of one track; made by `Map.reader` and `Map.open_av`. Any thread, one at a time.

    `for frame in reader:` reads frame after frame, waits for each, and ends when the host has closed the
    buffer or has died.
    """

    _what = "reader"

    def __init__(self, pointer: Any, name: str) -> None:
        super().__init__(pointer, lib.shb_reader_close)
        self._name = name
        self._catcher = Catcher()
        self._set: weakref.ref[ReaderSet] | None = None
        self._borrowed = False

    def read(self, timeout: float | None = None) -> Frame:
        """The next frame, with a copy of its bytes.

        Waits up to `timeout` seconds, None: without end, 0: not at all.

        Raises Timeout; Closed once the host is gone and everything held has been read; Corrupt; ArgumentError
        while a frame is borrowed.
        """
        deadline, catcher = Deadline(timeout), self._catcher
        while True:
            with self._alone():
                result = lib.shb_reader_read(
                    self._use_unborrowed(), catcher.memory, len(catcher.memory), deadline.left_ms(), catcher.frame
                )
                if result == lib.SHB_OK:
                    return catcher.copy(self._use())
                if result == lib.SHB_ERR_TOO_BIG:
                    catcher.grow()
                    continue
            if result != lib.SHB_ERR_TIMEOUT or deadline.over():
                raise error_of(result, self._name)
            self._give_way()

    def __iter__(self) -> Iterator[Frame]:
        return self

    def __next__(self) -> Frame:
        try:
            return self.read()
        except Closed:
            raise StopIteration from None

    def wait(self, timeout: float | None = None) -> None:
        """Waits until `read` has a frame or its end, as that does.

        Raises Timeout, Closed, Corrupt, ArgumentError.
        """
        deadline = Deadline(timeout)
        while True:
            with self._alone():
                result = lib.shb_reader_wait(self._use_unborrowed(), deadline.left_ms())
            if result != lib.SHB_ERR_TIMEOUT or deadline.over():
                return check(result, self._name)
            self._give_way()

    def borrow(self, timeout: float | None = None, *, strict: bool = True) -> Borrowing:
        """The next frame where it lies, without a copy: `with reader.borrow() as frame:`.

        Waits and fails as `read` does.

        The writer does not wait, so the bytes may change inside the block. Its end raises Overrun when they
        did: what was made of them does not count, and the frame is in the `lost` of the next one. With
        strict=False `frame.overrun` says it instead. One frame at a time.
        """
        return Borrowing(self, timeout, strict)

    def _borrow(self, timeout: float | None) -> tuple[BorrowedFrame, Any]:
        deadline, catcher, place = Deadline(timeout), self._catcher, ffi.new("void **")
        while True:
            with self._alone():
                pointer = self._use_unborrowed()
                try:
                    result = lib.shb_reader_borrow(pointer, deadline.left_ms(), place, catcher.frame)
                    if result == lib.SHB_OK:
                        self._borrowed = True
                        return self._borrowed_frame(pointer, place[0])
                except BaseException:
                    # Ctrl-C: nobody will return it.
                    self._return(pointer)
                    raise
                del pointer
            if result != lib.SHB_ERR_TIMEOUT or deadline.over():
                raise error_of(result, self._name)
            self._give_way()

    def _borrowed_frame(self, pointer: Any, place: Any) -> tuple[BorrowedFrame, Any]:
        frame = BorrowedFrame(*self._catcher.fields(pointer))
        # Whatever is made of the view holds the reader, and with it the mapping: no touch of it is a crash.
        bytes_of_it = ffi.gc(place, lambda _, held=pointer: None)
        frame._view = memoryview(ffi.buffer(bytes_of_it, frame.size)).toreadonly()
        return frame, pointer

    def _return(self, pointer: Any) -> int:
        if self._is_inherited():
            return int(lib.SHB_OK)
        with self._lock:
            self._borrowed = False
            return int(lib.shb_reader_return(pointer))

    def _use_unborrowed(self) -> Any:
        pointer = self._use()
        if self._borrowed:
            raise ArgumentError(f"{self._name}: a frame is borrowed; leave its with block first")
        return pointer

    def seek(
        self,
        where: Where | None = None,
        *,
        back: float | None = None,
        monotonic_ns: int | None = None,
        wall_ns: int | None = None,
    ) -> None:
        """Moves the reader, forward or back, as often as wanted. Exactly one of these says where:

        where         "oldest" frame held, "newest": the next to be written, "key": the newest key frame held,
                      or the next to come
        back          the newest key frame that arrived at least so many seconds ago
        monotonic_ns  the newest key frame that arrived at or before this time of CLOCK_MONOTONIC, ns
        wall_ns       the same with CLOCK_REALTIME, ns since 1970-01-01 UTC

        When no key frame is held from so long ago, it goes to the oldest one held; when there is none at all,
        to the next one to come. What is jumped over is not lost. Raises ArgumentError, also while a frame is
        borrowed; Corrupt.
        """
        seek, ns = _moment(where, back, monotonic_ns, wall_ns)
        with self._alone():
            check(lib.shb_reader_seek(self._use_unborrowed(), seek, ns), self._name)

    def stats(self) -> ReaderStats:
        """Its counters since it was opened."""
        with self._alone():
            return stats_of(self._use(), self._name)

    def stream(self) -> Stream[Frame]:
        """For asyncio: `async for frame in reader.stream():`. Ends as `for frame in reader:` does.

        Raises ArgumentError for a reader that is in a set or has another stream; SystemFailure.
        """
        return Stream(_FramesOf(self))

    def close(self) -> None:
        """Closes it, and takes it out of its set.

        A call that another thread is in ends within 0.2 s, with UseAfterClose.
        """
        readers = None if self._set is None else self._set()
        if readers is None or self._is_inherited():
            super().close()
            return
        with readers._at_once():
            readers._take_out(self)
            super().close()
        readers._wake()


def _lock_all(readers: Iterable[Reader]) -> ExitStack:
    """The readers for this thread alone.

    In one order everywhere, so that two threads never wait for each other.
    """
    stack = ExitStack()
    for reader in sorted(readers, key=id):
        stack.enter_context(reader._alone())
    return stack


def wait_any(readers: Iterable[Reader], timeout: float | None = None, *, after: Reader | None = None) -> Reader:
    """Waits until one of 1 to 1024 readers has a frame or its end; that one is the result.

    They may be of any tracks and buffers. A buffer that is closed or damaged is such an end. `after`: the one
    that was found last, which is looked at last. Any thread. Raises Timeout; ArgumentError, also while a
    frame is borrowed; SystemFailure.
    """
    every = list(readers)
    if not 1 <= len(every) <= 1024:
        raise ArgumentError(f"readers: {len(every)} of them are not 1 to 1024")
    deadline, index = Deadline(timeout), ffi.new("size_t *")
    index[0] = every.index(after) if after in every else len(every)
    while True:
        with _lock_all(set(every)):
            pointers = [reader._use_unborrowed() for reader in every]
            result = lib.shb_wait_any(pointers, len(pointers), deadline.left_ms(), index)
        if result == lib.SHB_OK:
            return every[int(index[0])]
        if result != lib.SHB_ERR_TIMEOUT or deadline.over():
            raise error_of(result, "readers")
        for reader in every:
            reader._give_way()


class ReaderSet(Handle):
    """Readers with one file descriptor, for an event loop (asyncio: `stream`; selectors, GLib, Qt: `fileno`).

    Any thread, one at a time.

    When `fileno` is readable, call `next(0)` and read from the reader that it finds, again and again until it
    raises Timeout: only then the descriptor waits for what comes next.
    """

    _what = "set of readers"

    def __init__(self, *readers: Reader) -> None:
        """Raises ArgumentError for a reader that is in a set; SystemFailure."""
        out = ffi.new("shb_set_t **")
        check(lib.shb_set_open(out), "set of readers")
        super().__init__(out[0], lib.shb_set_close)
        self._readers: dict[int, Reader] = {}
        self._streams: weakref.WeakSet[Stream[Any]] = weakref.WeakSet()
        try:
            for reader in readers:
                self.add(reader)
        except Error:
            self.close()
            raise

    def __len__(self) -> int:
        return len(self._readers)

    def add(self, reader: Reader) -> None:
        """Takes a reader in, which stays its owner's.

        Raises ArgumentError for one that is in a set; SystemFailure.
        """
        with self._at_once(), reader._at_once():
            pointer = reader._use()
            check(lib.shb_set_add(self._use(), pointer), reader._name, "the reader is in a set already")
            self._readers[_number(pointer)] = reader
            reader._set = weakref.ref(self)

    def remove(self, reader: Reader) -> None:
        """Takes a reader out. One that is not in this set is left alone."""
        with self._at_once():
            self._use()
            self._take_out(reader)
        self._wake()

    def _take_out(self, reader: Reader) -> None:
        """Under the set's lock."""
        with reader._at_once():
            if reader in self._readers.values():
                pointer = reader._use()
                check(lib.shb_set_remove(self._use(), pointer), reader._name)
                del self._readers[_number(pointer)]
                reader._set = None

    def fileno(self) -> int:
        """The descriptor, which stays the set's."""
        return int(lib.shb_set_fd(self._use()))

    def next(self, timeout: float | None = None) -> Reader:
        """A reader that has a frame or its end, in turns; waits as `Reader.read` does.

        Raises Timeout, SystemFailure.

        A reader whose buffer was closed is found again and again, until it is closed or taken out of the set.
        """
        deadline, out = Deadline(timeout), ffi.new("shb_reader_t **")
        while True:
            with self._alone(), _lock_all(self._readers.values()):
                result = lib.shb_set_next(self._use(), deadline.left_ms(), out)
                if result == lib.SHB_OK:
                    return self._readers[_number(out[0])]
            if result != lib.SHB_ERR_TIMEOUT or deadline.over():
                raise error_of(result, "set of readers")
            self._give_way()
            for reader in list(self._readers.values()):
                reader._give_way()

    def stream(self) -> Stream[tuple[Reader, Frame]]:
        """For asyncio: `async for reader, frame in readers.stream():`.

        A reader whose buffer is closed leaves the set once everything held has been read. The stream ends
        when the set is empty.
        """
        return Stream(_FramesOfAll(self))

    def close(self) -> None:
        """Closes the set. Its readers stay open."""
        if self._is_inherited() or self.closed:
            super().close()
            return
        with self._at_once():
            for reader in list(self._readers.values()):
                # One that was released has left the set by itself.
                if not reader.closed:
                    self._take_out(reader)
            super().close()
        self._wake()

    def _wake(self) -> None:
        for stream in list(self._streams):
            stream.wake()

    def __del__(self) -> None:
        # With the locks: a reader of it may be in use.
        if hasattr(self, "_streams"):
            self.close()


def _number(pointer: Any) -> int:
    return int(ffi.cast("uintptr_t", pointer))


class _FramesOfAll:
    """What a Stream asks for readers and their frames."""

    look_every: float | None = None

    def __init__(self, readers: ReaderSet) -> None:
        self.readers = readers

    def watch(self, stream: Stream[tuple[Reader, Frame]]) -> None:
        self.readers._streams.add(stream)

    def fileno(self) -> int:
        return self.readers.fileno()

    def take(self) -> tuple[Reader, Frame]:
        self.readers._use()
        while len(self.readers) > 0:
            reader = self.readers.next(0)
            try:
                return reader, reader.read(0)
            except Timeout:
                continue  # overwritten before it could be copied
            except Closed:
                self.readers.remove(reader)
            except Corrupt:
                self.readers.remove(reader)
                raise
        raise StopAsyncIteration

    def close(self) -> None:
        """The set stays its maker's."""


class _FramesOf:
    """The same for the frames of one reader."""

    look_every: float | None = None

    def __init__(self, reader: Reader) -> None:
        self._reader = reader
        self._set = ReaderSet(reader)

    def watch(self, stream: Stream[Frame]) -> None:
        self._set._streams.add(stream)

    def fileno(self) -> int:
        return self._set.fileno()

    def take(self) -> Frame:
        self._reader._use()
        return _FramesOfAll(self._set).take()[1]

    def close(self) -> None:
        self._set.close()


def guard(on: bool = True) -> None:
    """Corrupt instead of the signal SIGBUS, which ends the process, when an owner cuts his buffer short.

    Installs a handler of SIGBUS for the whole process; guard(False) puts back the one before. Call it before
    other threads attach buffers. Raises SystemFailure.
    """
    check(lib.shb_guard(on), "guard")
