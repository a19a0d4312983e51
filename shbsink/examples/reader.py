#!/usr/bin/env python3
"""Reads one track of a shared buffer: from the newest key frame on, until the host closes the buffer or has died.

    ./reader.py NAME > stream.h264
    ./reader.py NAME audio > stream.aac

The frames go to standard output one behind the other; what happens to the stream is told on standard error. Needs nothing but the
standard library and libshb.so.2, which SHB_LIBRARY may name by its path.
"""

import ctypes as c
import os
import sys

OK, TOO_BIG, TIMEOUT, CLOSED = 0, -9, -10, -11
VIDEO, AUDIO = 0, 1
START_KEY = 2


class Sized(c.Structure):
    """Every struct of the library begins with its size."""

    def __init__(self):
        super().__init__(struct_size=c.sizeof(self))


class Frame(Sized):
    """shb_frame_t"""

    _fields_ = [(name, c.c_uint32) for name in ("struct_size", "size", "flags", "description")] + [
        (name, c.c_uint64) for name in ("sequence", "epoch", "pts", "dts", "duration", "lost", "lost_before", "left_out",
                                        "arrival_ns", "wall_ns")] + [("clock_offset", c.c_int64)]


class Description(Sized):
    """shb_description_t"""

    _fields_ = [("struct_size", c.c_uint32), ("serial", c.c_uint32), ("media", c.c_int32), ("codec_data_bytes", c.c_uint32),
                ("code", c.c_char * 16), ("profile", c.c_char * 24), ("level", c.c_char * 16), ("format", c.c_char * 16)] + [
        (name, c.c_int32) for name in ("width", "height", "fps_n", "fps_d", "scan_type", "ref_frames", "reorder_frames",
                                       "sample_rate", "channels", "samples_per_frame", "nominal_bitrate", "reserved")]


def load():
    """The library with the types of what is called here."""
    shb = c.CDLL(os.environ.get("SHB_LIBRARY", "libshb.so.2"))
    shb.shb_strerror.restype = c.c_char_p
    shb.shb_attach.argtypes = [c.c_char_p, c.POINTER(c.c_void_p)]
    shb.shb_detach.argtypes = [c.c_void_p]
    shb.shb_detach.restype = None
    shb.shb_reader_open.argtypes = [c.c_void_p, c.c_uint32, c.c_uint32, c.c_int, c.c_int, c.POINTER(c.c_void_p)]
    shb.shb_reader_close.argtypes = [c.c_void_p]
    shb.shb_reader_close.restype = None
    shb.shb_reader_read.argtypes = [c.c_void_p, c.c_char_p, c.c_size_t, c.c_int, c.POINTER(Frame)]
    shb.shb_reader_description.argtypes = [c.c_void_p, c.POINTER(Description)]
    return shb


def tell(text):
    print(text, file=sys.stderr, flush=True)


def tell_description(shb, reader, kind):
    media = Description()
    if shb.shb_reader_description(reader, media) != OK:
        return  # written before its writer knew what it carries
    if kind == VIDEO:
        tell(f"{media.code.decode()} {media.profile.decode()} {media.width}x{media.height}")
    else:
        tell(f"{media.code.decode()} {media.sample_rate} Hz, {media.channels} channels")


def read_track(shb, reader, kind, out):
    """Until the buffer is closed: CLOSED. Anything else is a failure."""
    data = c.create_string_buffer(256 * 1024)
    frame = Frame()
    known = None
    while True:
        result = shb.shb_reader_read(reader, data, len(data), 1000, frame)
        if result == TIMEOUT:
            continue  # nothing for a second: the source may be connecting again
        if result == TOO_BIG:
            data = c.create_string_buffer(frame.size)  # the frame is still there: come back with more memory
            continue
        if result != OK:
            return result
        if frame.lost > 0:
            tell(f"{frame.lost} frames lost before frame {frame.sequence}")
        if frame.left_out > 0:
            tell(f"{frame.left_out} frames were too large for the buffer")
        # A new epoch is a new writer: the source has connected again.
        if known != (frame.epoch, frame.description):
            known = (frame.epoch, frame.description)
            tell_description(shb, reader, kind)
        out.write(memoryview(data)[: frame.size])
        out.flush()


def main():
    if len(sys.argv) < 2:
        tell(f"usage: {sys.argv[0]} NAME [audio]")
        return 2
    name, kind = sys.argv[1], AUDIO if sys.argv[2:] == ["audio"] else VIDEO
    shb = load()
    map_, reader = c.c_void_p(), c.c_void_p()
    result = shb.shb_attach(name.encode(), map_)
    if result != OK:
        tell(f"{name}: {shb.shb_strerror(result).decode()}")
        return 1
    # Channel 0, stream 0.
    result = shb.shb_reader_open(map_, 0, 0, kind, START_KEY, reader)
    if result == OK:
        result = read_track(shb, reader, kind, sys.stdout.buffer)
        shb.shb_reader_close(reader)
    if result != CLOSED:
        tell(f"{name}: {shb.shb_strerror(result).decode()}")
    shb.shb_detach(map_)
    return 0 if result == CLOSED else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except BrokenPipeError:
        # Nobody reads any more. What is left in the stream must not be tried again at the end.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        sys.exit(1)
    except KeyboardInterrupt:
        sys.exit(130)
