"""One track of whatever buffer has a name, through every restart of its host."""

from __future__ import annotations

import enum
import weakref
from typing import Any, Iterator

from ._handles import U32, Deadline, Handle, c_text, make, whole
from ._shb import ffi, lib
from .errors import NotFound, Timeout, check, error_of
from .reader import Catcher, info_of, stats_of
from .records import STARTS, BufferInfo, Frame, Kind, ReaderStats, Start, choice, track_name, track_of
from .stream import Stream


class FollowEvent(enum.Flag):
    """What has happened, any number of them at once."""

    ATTACHED = lib.SHB_FOLLOW_ATTACHED  #: a buffer of the name is there, the first or one more
    RESTARTED = lib.SHB_FOLLOW_RESTARTED  #: with ATTACHED: it is not the first one
    GONE = lib.SHB_FOLLOW_GONE  #: the host has gone, and everything that it wrote has been read
    EPOCH = lib.SHB_FOLLOW_EPOCH  #: with a frame: the first of another writer; the source has connected again
    MEDIA = lib.SHB_FOLLOW_MEDIA  #: with a frame: what the track carries is not what it was


_KNOWN = sum(event.value for event in FollowEvent)


class Follow(Handle):
    """Follows one track of the buffer `name`, which need not exist yet. Any thread, one at a time.

    `for frame, events in follow:` never ends by itself; `frame` is None when there are only events.
    """

    _what = "follow"

    def __init__(
        self,
        name: str,
        kind: Kind = "video",
        channel: int = 0,
        stream: int = 0,
        *,
        start: Start = "oldest",
        owner: int | None = None,
    ) -> None:
        """`start` holds in each buffer, as for `Map.reader`; `owner`: only buffers of the user of this id.

        Raises ArgumentError, SystemFailure.
        """
        options = make("shb_follow_options_t")
        options.channel, options.stream, options.kind = track_of(kind, channel, stream)
        options.start = choice("start", start, STARTS)
        if owner is not None:
            options.owner_given, options.owner = 1, whole("owner", owner, 0, U32)
        out = ffi.new("shb_follow_t **")
        check(lib.shb_follow_open(c_text("name", name), options, out), name)
        super().__init__(out[0], lib.shb_follow_close)
        self._name = f"{name}: {track_name(kind, channel, stream)}"
        self._catcher = Catcher()
        # What came with an error, for the next call.
        self._pending = FollowEvent(0)
        self._streams: weakref.WeakSet[Stream[Any]] = weakref.WeakSet()

    def next(self, timeout: float | None = None) -> tuple[Frame | None, FollowEvent]:
        """The next frame and what has happened since the last call, or None and what has happened.

        Waits up to `timeout` seconds, None: without end. Raises Timeout: neither; ArgumentError: the buffer
        has no such track; Corrupt: the buffer is damaged, and the next call looks for another one;
        SystemFailure. What has happened before one of the last three comes with the next call.
        """
        deadline, catcher, events = Deadline(timeout), self._catcher, ffi.new("uint32_t *")
        while True:
            with self._alone():
                result = lib.shb_follow_read(
                    self._use(), catcher.memory, len(catcher.memory), deadline.left_ms(), catcher.frame, events
                )
                if result == lib.SHB_ERR_TOO_BIG:
                    # They come again with the frame.
                    catcher.grow()
                    continue
                happened = self._pending | FollowEvent(events[0] & _KNOWN)
                if FollowEvent.ATTACHED in happened:
                    catcher.forget_description()
                if result not in (lib.SHB_OK, lib.SHB_ERR_TIMEOUT):
                    self._pending = happened
                    raise error_of(result, self._name)
                self._pending = FollowEvent(0)
                if result == lib.SHB_OK:
                    return catcher.copy(lib.shb_follow_reader(self._use())), happened
            if happened:
                return None, happened
            if deadline.over():
                raise error_of(result, self._name)
            self._give_way()

    def __iter__(self) -> Iterator[tuple[Frame | None, FollowEvent]]:
        return self

    def __next__(self) -> tuple[Frame | None, FollowEvent]:
        return self.next()

    def info(self) -> BufferInfo:
        """The buffer that is attached now. Raises NotFound while there is none."""
        with self._alone():
            return info_of(self._present(lib.shb_follow_map), self._name)

    def stats(self) -> ReaderStats:
        """Counters of the reader in use, which is another one in each buffer.

        Raises NotFound while there is no buffer.
        """
        with self._alone():
            return stats_of(self._present(lib.shb_follow_reader), self._name)

    def _present(self, get: Any) -> Any:
        pointer = get(self._use())
        if pointer == ffi.NULL:
            raise NotFound(f"{self._name}: no buffer now")
        return pointer

    def stream(self) -> Stream[tuple[Frame | None, FollowEvent]]:
        """For asyncio: `async for frame, events in follow.stream():`. Never ends by itself.

        Raises SystemFailure.
        """
        return Stream(_Following(self))

    def close(self) -> None:
        """Closes it.

        A call that another thread is in ends within 0.2 s, with UseAfterClose. Closing twice does nothing.
        """
        super().close()
        for stream in list(self._streams):
            stream.wake()


class _Following(Handle):
    """What a Stream asks while it follows: a set with the reader in use."""

    _what = "set of readers"

    #: A name that appears, and a host that goes without a word, have no descriptor. libshb looks as often by
    #: itself.
    look_every: float | None = 0.2

    def __init__(self, follow: Follow) -> None:
        out = ffi.new("shb_set_t **")
        check(lib.shb_set_open(out), "set of readers")
        super().__init__(out[0], lib.shb_set_close)
        self._follow = follow
        with follow._alone():
            self._take_in(lib.shb_follow_reader(follow._use()))

    def _take_in(self, reader: Any) -> None:
        if reader != ffi.NULL:
            check(lib.shb_set_add(self._use(), reader), self._follow._name)

    def watch(self, stream: Stream[Any]) -> None:
        self._follow._streams.add(stream)

    def fileno(self) -> int:
        return int(lib.shb_set_fd(self._use()))

    def take(self) -> tuple[Frame | None, FollowEvent]:
        out = ffi.new("shb_reader_t **")
        # The set closes and opens with the reader in use, so it is under the same lock.
        with self._follow._alone():
            while True:
                try:
                    item = self._follow.next(0)
                except Timeout:
                    # The descriptor waits for the next frame only after the set has found nothing.
                    if lib.shb_set_next(self._use(), 0, out) != lib.SHB_OK:
                        raise
                else:
                    # A reader that is gone has left the set by itself.
                    if FollowEvent.ATTACHED in item[1]:
                        self._take_in(lib.shb_follow_reader(self._follow._use()))
                    return item

    def close(self) -> None:
        if not self._is_inherited():
            with self._follow._at_once():
                super().close()
