"""asyncio: frames by the file descriptor of a set of readers, without a thread."""

from __future__ import annotations

import asyncio
import os
from types import TracebackType
from typing import AsyncIterator, Generic, Protocol, TypeVar

from .errors import Error, Timeout

T = TypeVar("T")

# So many frames that are there at once, then the loop's other tasks have a turn.
_TURN = 16


class Takes(Protocol[T]):
    """Where a stream has its items from."""

    #: s after which to look also when the descriptor is not readable, None: never
    look_every: float | None

    def watch(self, stream: Stream[T]) -> None:
        """Calls `stream.wake` when the answer of `take` changes without a frame.

        Holds no reference that keeps the stream alive.
        """

    def fileno(self) -> int:
        ...

    def take(self) -> T:
        """What is there.

        Raises Timeout, after which the descriptor waits for what comes next; StopAsyncIteration.
        """

    def close(self) -> None:
        ...


class Stream(AsyncIterator[T], Generic[T]):
    """An asynchronous iterator over frames; made by the `stream` functions. It belongs to one task.

    Whoever breaks out of a loop over it closes it: `async with reader.stream() as stream:`. A stream that
    nobody refers to any more is closed as well. Cancelling the task loses no frame.
    """

    def __init__(self, source: Takes[T]) -> None:
        self._source: Takes[T] | None = source
        # Its own: the number must stay this file's until the loop has forgotten it, also when the set is
        # closed first.
        self._fd = os.dup(source.fileno())
        self._loop: asyncio.AbstractEventLoop | None = None
        self._waiting: asyncio.Future[None] | None = None
        self._at_once = 0
        source.watch(self)

    def __aiter__(self) -> Stream[T]:
        return self

    async def __anext__(self) -> T:
        while self._source is not None:
            if self._at_once >= _TURN:
                self._at_once = 0
                await asyncio.sleep(0)
                continue
            try:
                item = self._source.take()
            except Timeout:
                await self._readable(self._source.look_every)
                continue
            self._at_once += 1
            return item
        raise StopAsyncIteration

    async def _readable(self, longest: float | None) -> None:
        if self._waiting is not None:
            raise Error("another task waits for this stream")
        self._loop = asyncio.get_running_loop()
        self._waiting = waiting = self._loop.create_future()
        # Only while somebody waits: a descriptor that nobody reads would wake the loop again and again.
        self._loop.add_reader(self._fd, _finish, waiting)
        timer = None if longest is None else self._loop.call_later(longest, _finish, waiting)
        try:
            await waiting
        finally:
            if timer is not None:
                timer.cancel()
            self._stop_waiting()
        self._at_once = 0

    def _stop_waiting(self) -> None:
        waiting, self._waiting = self._waiting, None
        if waiting is not None and self._loop is not None:
            self._loop.remove_reader(self._fd)
            _finish(waiting)

    def wake(self) -> None:
        """Lets a task that waits look again. Any thread."""
        loop, waiting = self._loop, self._waiting
        if loop is not None and waiting is not None:
            try:
                loop.call_soon_threadsafe(_finish, waiting)
            except RuntimeError:
                pass  # the loop is closed, and nobody waits any more

    def close(self) -> None:
        """Ends it: a loop over it ends. Readers stay open. On the thread of the event loop."""
        self._stop_waiting()
        source, self._source = self._source, None
        if source is not None:
            source.close()
            os.close(self._fd)

    async def aclose(self) -> None:
        """The same as `close`."""
        self.close()

    async def __aenter__(self) -> Stream[T]:
        return self

    async def __aexit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()

    def __del__(self) -> None:
        if hasattr(self, "_at_once"):
            self.close()


def _finish(waiting: asyncio.Future[None]) -> None:
    if not waiting.done():
        waiting.set_result(None)
