"""What all handles have in common: one owner, an end, values that are checked before C sees them."""

from __future__ import annotations

import math
import operator
import os
import threading
import time
from contextlib import contextmanager
from types import TracebackType
from typing import Any, Callable, ContextManager, Iterator, SupportsIndex, TypeVar

from ._shb import ffi, lib
from .errors import ArgumentError, ForkError, UseAfterClose

# A wait in C is cut into pieces, between which Python handles signals and another thread's close. libshb
# wakes as often by itself.
SLICE_S = 0.2

U32 = 2**32 - 1
U64 = 2**64 - 1

_process = 0  # another number in each forked child


def _count_process() -> None:
    global _process
    _process += 1


os.register_at_fork(after_in_child=_count_process)

Self = TypeVar("Self", bound="Handle")


class Handle:
    """A pointer with an owner.

    Each call holds a reference to the pointer while C uses it. So it is released when it was closed *and* the
    last call has returned, whichever threads that happens on, and never twice.
    """

    _what = "handle"

    def __init__(self, pointer: Any, release: Callable[[Any], object]) -> None:
        own, valid = _process, [True]

        def in_own_process(released: Any) -> None:
            valid.clear()
            # A forked child has its parent's sockets and descriptors: what it released, its parent would
            # miss.
            if own == _process:
                release(released)

        self._process = own
        self._pointer = ffi.gc(pointer, in_own_process)
        # The collector of cycles may release the pointer before a __del__ that uses this object.
        self._valid = valid
        # What C allows to one thread at a time. A signal handler may come in between, hence the R.
        self._lock = threading.RLock()
        self._wanted = False

    def _use(self) -> Any:
        """The pointer, for one call: whoever keeps it delays the release. Raises UseAfterClose, ForkError."""
        pointer = self._pointer
        self._check_process()
        if pointer is None or not self._valid:
            raise UseAfterClose(f"this {self._what} is closed")
        return pointer

    def _alone(self) -> ContextManager[bool]:
        """The lock, for a call that C allows to one thread at a time. Raises ForkError."""
        # A forked child has the locks as they were, and nobody who opens them.
        self._check_process()
        return self._lock

    @contextmanager
    def _at_once(self) -> Iterator[None]:
        """The lock, also from a thread that waits with it slice after slice. Raises ForkError."""
        self._check_process()
        # A lock goes to whoever is awake, which is the one that has just given it back.
        self._wanted = True
        while not self._lock.acquire(timeout=SLICE_S):
            self._wanted = True
        try:
            yield
        finally:
            self._lock.release()

    def _give_way(self) -> None:
        """Between two slices, without the lock."""
        if self._wanted:
            self._wanted = False
            time.sleep(0.001)

    def _check_process(self) -> None:
        if self._is_inherited():
            raise ForkError(f"this {self._what} belongs to the parent process")

    def _is_inherited(self) -> bool:
        return self._process != _process

    @property
    def closed(self) -> bool:
        """Whether it was closed."""
        return self._pointer is None or not self._valid

    def close(self) -> None:
        """Closes it.

        A call that another thread is in ends within 0.2 s, with UseAfterClose. Closing twice does nothing.
        """
        if self._is_inherited():
            self._pointer = None
        else:
            with self._at_once():
                self._pointer = None

    def __enter__(self: Self) -> Self:
        self._use()
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<{type(self).__name__}{' closed' if self.closed else ''}>"


class Deadline:
    """The end of a wait of `timeout` seconds, None: without end."""

    def __init__(self, timeout: float | None) -> None:
        if timeout is not None and not timeout >= 0:
            raise ArgumentError(f"timeout: {timeout} is not a number of seconds from 0, or None")
        self._end = None if timeout is None else time.monotonic() + timeout

    def left(self) -> float:
        """Seconds of the next slice of the wait, 0 when it is over."""
        return SLICE_S if self._end is None else max(0.0, min(SLICE_S, self._end - time.monotonic()))

    def left_ms(self) -> int:
        """The same for C. Rounded up: a rest of less than a millisecond must not become a busy wait."""
        return math.ceil(self.left() * 1000)

    def over(self) -> bool:
        return self._end is not None and time.monotonic() >= self._end


def whole(what: str, value: SupportsIndex, lowest: int, highest: int) -> int:
    """`value` as a whole number of this range. Raises ArgumentError; TypeError when it is none."""
    number = operator.index(value)
    if not lowest <= number <= highest:
        raise ArgumentError(f"{what}: {number} is not a whole number from {lowest} to {highest}")
    return number


def c_text(what: str, value: str) -> bytes:
    """`value` for C, where a text ends at its first NUL.

    Raises ArgumentError; TypeError when it is no text.
    """
    if not isinstance(value, str):
        raise TypeError(f"{what}: a text is needed, not {type(value).__name__}")
    if "\0" in value:
        raise ArgumentError(f"{what}: the text has a NUL in it")
    return value.encode("utf-8", "surrogateescape")


def py_text(field: Any) -> str:
    """The text of a field, which is full when it has no NUL."""
    text: bytes = ffi.string(field)
    return text.decode("utf-8", "replace")


def make(name: str) -> Any:
    """A struct of libshb, which begins with its size."""
    struct = ffi.new(name + " *")
    struct.struct_size = ffi.sizeof(name)
    return struct


NAME_RULE = "not a name of 1 to 200 characters of [A-Za-z0-9._-]"


def none_if(value: int, unknown: int) -> int | None:
    return None if value == unknown else value


def known_time(value: int) -> int | None:
    return none_if(value, lib.SHB_TIME_NONE)
