"""What can go wrong. Every exception of the package is an `Error`, and its text is one line."""

from __future__ import annotations

import os

from ._shb import ffi, lib

__all__ = [
    "ArgumentError",
    "Busy",
    "Closed",
    "Corrupt",
    "Error",
    "Exists",
    "ForkError",
    "NoSpace",
    "NotFound",
    "OpenFailed",
    "Overrun",
    "SystemFailure",
    "Timeout",
    "TooBig",
    "UseAfterClose",
    "VersionMismatch",
    "WrongOwner",
]


class Error(Exception):
    """Base of all exceptions of this package."""


class ArgumentError(Error, ValueError):
    """A value is outside its range, or two do not go together. Nothing was changed."""


class UseAfterClose(Error, ValueError):
    """The object was closed before, by whichever thread."""


class ForkError(Error):
    """The object belongs to the parent of this process. A forked child opens its own."""


class OpenFailed(Error):
    """A source could not be opened. The library has written the reason to standard output."""


class NotFound(Error):
    """There is no buffer of this name."""


class Exists(Error):
    """A buffer of this name exists, and its creator is alive."""


class Busy(Error):
    """The track has a live writer, or a source, already."""


class Closed(Error):
    """The host has closed the buffer or has died, and everything that was held has been read."""


class Timeout(Error, TimeoutError):
    """Nothing came within the time given."""


class Overrun(Error):
    """A borrowed frame was overwritten while it was in use: what was made of it does not count."""


class TooBig(Error):
    """Writing: the frame is larger than the track, or the codec data larger than 8192 bytes.

    It was left out.
    """


class Corrupt(Error):
    """The buffer contradicts itself, or a part of its file is gone (see `guard`)."""


class VersionMismatch(Error):
    """The buffer has another layout version, or the name leads to something that is no shared buffer."""


class WrongOwner(Error):
    """The buffer belongs to another user than the one demanded."""


class SystemFailure(Error, OSError):
    """A system call failed; `errno` holds the reason (EACCES: the buffer is not for this user)."""


class NoSpace(SystemFailure):
    """There is not enough shared memory for this geometry; `room` has the figures."""


_CLASSES: dict[int, type[Error]] = {
    lib.SHB_ERR_ARG: ArgumentError,
    lib.SHB_ERR_EXISTS: Exists,
    lib.SHB_ERR_NOT_FOUND: NotFound,
    lib.SHB_ERR_VERSION: VersionMismatch,
    lib.SHB_ERR_CORRUPT: Corrupt,
    lib.SHB_ERR_BUSY: Busy,
    lib.SHB_ERR_TOO_BIG: TooBig,
    lib.SHB_ERR_TIMEOUT: Timeout,
    lib.SHB_ERR_CLOSED: Closed,
    lib.SHB_ERR_OVERRUN: Overrun,
    lib.SHB_ERR_OWNER: WrongOwner,
}


def error_of(result: int, subject: str, why: str = "") -> Error:
    """The exception for a result of libshb, read right after the call.

    `why` stands in the place of the library's text.
    """
    if result in (lib.SHB_ERR_SYSTEM, lib.SHB_ERR_NO_SPACE):
        number: int = ffi.errno
        kind = NoSpace if result == lib.SHB_ERR_NO_SPACE else SystemFailure
        return kind(number, f"{subject}: {why or os.strerror(number)}")
    text: str = why or ffi.string(lib.shb_strerror(result)).decode()
    return _CLASSES.get(result, Error)(f"{subject}: {text}")


def check(result: int, subject: str, why: str = "") -> None:
    """Raises what `result` stands for, unless that is success."""
    if result != lib.SHB_OK:
        raise error_of(result, subject, why)
