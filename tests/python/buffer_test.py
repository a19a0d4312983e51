"""Buffers and writers: what the creator's side does, and what it refuses."""

import errno
import os
import stat
import sys
import threading
import unittest
from fractions import Fraction
from pathlib import Path

import numpy
from support import PICTURE, SMALL, Case, eventually, leftovers, pattern, unique_name

import gst_source
from gst_source import Description, Geometry, library_version


class Buffers(Case):
    def test_is_there_while_it_is_open_and_gone_after_that(self):
        name = unique_name()
        with gst_source.Buffer(name) as buffer:
            self.assertEqual(buffer.name, name)
            self.assertEqual(buffer.geometry, Geometry())
            self.assertEqual(len(buffer.files), 3)
            self.assertTrue(all(Path(path).exists() for path in buffer.files))
            files = buffer.files
            [info] = [info for info in gst_source.buffers() if info.name == name]
            self.assertEqual(
                (info.alive, info.creator_pid, info.pid_is_ours, info.owner, info.geometry),
                (True, os.getpid(), True, os.getuid(), Geometry()),
            )
            self.assertEqual(info.total_bytes, gst_source.room()[0])
            self.assertLess(info.heartbeat_age_ns, 10e9)
        self.assertFalse(any(Path(path).exists() for path in files))
        self.assertNotIn(name, [info.name for info in gst_source.buffers()])

    def test_has_the_geometry_that_was_asked_for(self):
        geometry = Geometry(3, 2, 64, 32, 1 << 17, 1 << 16)
        buffer = self.buffer(geometry)
        self.assertEqual(buffer.geometry, geometry)
        self.assertEqual(self.map(buffer).geometry, geometry)
        needed, available = gst_source.room(geometry)
        self.assertGreater(needed, 3 * 2 * ((1 << 17) + (1 << 16)))
        self.assertGreater(available, 0)
        self.assertEqual(gst_source.room()[0], gst_source.room(Geometry())[0])

    def test_refuses_a_geometry_out_of_range_by_name(self):
        for name, value in (
            ("channels", 0),
            ("channels", 1025),
            ("streams", 65),
            ("video_frames", 8),
            ("video_frames", 1 << 17),
            ("audio_frames", 100),
            ("video_bytes", 1 << 15),
            ("video_bytes", 1 << 31),
            ("audio_bytes", (1 << 16) + 1),
        ):
            with self.assertRaisesRegex(gst_source.ArgumentError, f"^{name}: {value} "):
                gst_source.Buffer(unique_name(), Geometry(**{name: value}))
            with self.assertRaises(gst_source.ArgumentError):
                gst_source.room(Geometry(**{name: value}))
        with self.assertRaises(TypeError):
            gst_source.Buffer(unique_name(), Geometry(channels=1.5))

    def test_says_how_much_memory_is_missing(self):
        # 64 TiB, which no machine has.
        huge = Geometry(1024, 64, video_bytes=1 << 30)
        needed, available = gst_source.room(huge)
        self.assertGreater(needed, available)
        with self.assertRaises(gst_source.NoSpace) as caught:
            gst_source.Buffer(unique_name(), huge)
        self.assertIn(caught.exception.errno, (errno.ENOSPC, errno.EFBIG, errno.ENOMEM))
        self.assertIsInstance(caught.exception, OSError)

    def test_lets_in_whom_the_mode_says(self):
        before = os.umask(0)
        self.addCleanup(os.umask, before)
        for mode in (0o600, 0o640, 0o604, 0o644):
            buffer = self.buffer(SMALL, mode=mode, group=os.getgid())
            self.assertEqual(stat.S_IMODE(Path(buffer.files[0]).stat().st_mode), mode)
            info = self.map(buffer).info()
            self.assertEqual((info.mode, info.group), (mode, os.getgid()))
        for mode in (0, 0o400, 0o666, 0o700, 0o4644):
            with self.assertRaisesRegex(gst_source.ArgumentError, "^mode: 0o"):
                gst_source.Buffer(unique_name(), mode=mode)
        with self.assertRaises(gst_source.ArgumentError):
            gst_source.Buffer(unique_name(), group=-1)

    def test_refuses_names_with_one_clear_line(self):
        for name in ("", "a/b", "..", "a b", "x" * 201, "\N{PARTY POPPER}"):
            with self.assertRaisesRegex(gst_source.ArgumentError, "not a name of 1 to 200 characters") as caught:
                gst_source.Buffer(name)
            self.assertEqual(str(caught.exception).count("\n"), 0)
            for call in (gst_source.Map, gst_source.remove):
                with self.assertRaises(gst_source.ArgumentError):
                    call(name)
        # C would see another name.
        with self.assertRaisesRegex(gst_source.ArgumentError, "NUL"):
            gst_source.Buffer("camera\0old")
        with self.assertRaises(TypeError):
            gst_source.Buffer(b"camera")

    def test_a_name_that_is_in_use_is_refused(self):
        buffer = self.buffer()
        with self.assertRaisesRegex(gst_source.Exists, f"^{buffer.name}: "):
            gst_source.Buffer(buffer.name)
        with self.assertRaises(gst_source.Exists):
            gst_source.remove(buffer.name)
        map = self.map(buffer)
        gst_source.remove(buffer.name, force=True)
        with self.assertRaises(gst_source.NotFound):
            gst_source.Map(buffer.name)
        self.assertTrue(map.alive)

    def test_what_a_killed_host_has_left_is_found_and_removed(self):
        name = unique_name()
        child = self.child(
            "import gst_source, os, sys, signal\nb = gst_source.Buffer(sys.argv[1])\nos.kill(os.getpid(), signal.SIGKILL)", name
        )
        self.assertEqual(child.wait(60), -9)
        self.assertTrue(leftovers(name))
        self.assertEqual([info.alive for info in gst_source.buffers() if info.name == name], [False])
        gst_source.remove(name)
        self.assertEqual(leftovers(name), [])
        with self.assertRaisesRegex(gst_source.NotFound, f"^{name}: not found$"):
            gst_source.remove(name)

    def test_what_is_no_buffer_is_left_alone(self):
        name = unique_name()
        path = Path("/dev/shm") / name
        path.write_bytes(b"x" * 8192)
        self.addCleanup(path.unlink)
        for call in (gst_source.Map, gst_source.remove):
            with self.assertRaises(gst_source.VersionMismatch):
                call(name)
        self.assertTrue(path.exists())

    def test_presence_is_what_the_host_says(self):
        buffer = self.buffer()
        map = self.map(buffer)
        self.assertEqual(map.stats("audio").presence, "unknown")
        for presence in ("absent", "expected", "unknown"):
            buffer.set_presence(presence, "audio")
            self.assertEqual(map.stats("audio").presence, presence)
        with self.assertRaisesRegex(gst_source.ArgumentError, "'gone' is not one of unknown, expected, absent"):
            buffer.set_presence("gone")
        buffer.writer("audio")
        self.assertEqual(buffer.stats("audio").presence, "expected")

    def test_version(self):
        major, minor, patch = library_version()
        self.assertEqual(major, 2)
        self.assertGreaterEqual(min(minor, patch), 0)


class Writers(Case):
    def test_what_is_written_is_read(self):
        buffer = self.buffer()
        writer = buffer.writer("video")
        self.assertIsNone(buffer.description())
        writer.describe(PICTURE)
        writer.set_clock(-5)
        frames = [
            b"first",
            bytearray(b"second"),
            memoryview(b"third"),
            numpy.arange(6, dtype=numpy.uint8),
            numpy.arange(3, dtype=numpy.uint32),
        ]
        for number, data in enumerate(frames):
            writer.write(data, pts=number, dts=None, duration=40, key=number == 0, discont=number == 1, header=number == 2)
        with self.map(buffer).reader(start="oldest") as reader:
            got = [reader.read(0) for _ in frames]
        self.assertEqual([frame.data for frame in got], [bytes(data) for data in frames])
        self.assertEqual([frame.size for frame in got], [5, 6, 5, 6, 12])
        self.assertEqual([(frame.pts, frame.dts, frame.duration) for frame in got], [(number, None, 40) for number in range(5)])
        self.assertEqual(
            [(frame.clock_offset, frame.clock_pts, frame.clock_dts) for frame in got], [(-5, n - 5, None) for n in range(5)]
        )
        self.assertEqual([frame.key for frame in got], [True, False, False, False, False])
        self.assertEqual([frame.discont for frame in got], [False, True, False, False, False])
        self.assertEqual([frame.header for frame in got], [False, False, True, False, False])
        self.assertEqual([frame.sequence for frame in got], list(range(5)))
        self.assertTrue(
            all(frame.arrival_ns <= later.arrival_ns and frame.wall_ns > 1.7e18 for frame, later in zip(got, got[1:]))
        )
        self.assertTrue(all(frame.description is got[0].description for frame in got))
        self.assertEqual(got[0].description, Description(**{**vars(PICTURE), "serial": 1}))
        self.assertEqual(got[0].description.fps, Fraction(30000, 1001))
        self.assertEqual(Description("AAC").fps, None)
        self.assertIn("1920", repr(got[0]))

    def test_description_changes_with_its_frame(self):
        buffer = self.buffer()
        writer = buffer.writer("audio")
        reader = self.map(buffer).reader("audio", start="oldest")
        writer.write(b"before it is known")
        self.assertIsNone(reader.read(0).description)
        for rate in (48000, 48000, 44100):
            writer.describe(Description("AAC", format="adts", sample_rate=rate, channels=2, codec_data=rate.to_bytes(4, "big")))
            writer.write(b"x")
            described = reader.read(0).description
            self.assertEqual((described.sample_rate, described.codec_data), (rate, rate.to_bytes(4, "big")))
        self.assertEqual(described.serial, 2)
        self.assertEqual(self.map(buffer).description("audio"), described)
        # Codec data is not asked for on this side.
        self.assertEqual((buffer.description("audio").sample_rate, buffer.description("audio").codec_data), (44100, None))

    def test_refuses_what_does_not_fit(self):
        writer = self.buffer(SMALL).writer("video")
        reader = self.map(writer._buffer).reader(start="oldest")
        for data, wrong in (
            (b"", gst_source.ArgumentError),
            ("text", TypeError),
            (5, TypeError),
            (bytes(1 << 17), gst_source.TooBig),
        ):
            with self.assertRaises(wrong):
                writer.write(data)
        with self.assertRaisesRegex(gst_source.ArgumentError, "empty"):
            writer.write(b"")
        for name in ("pts", "dts", "duration"):
            for value in (-1, 2**64 - 1, 2**64):
                with self.assertRaisesRegex(gst_source.ArgumentError, f"^{name}: "):
                    writer.write(b"x", **{name: value})
            with self.assertRaises(TypeError):
                writer.write(b"x", **{name: 0.5})
        with self.assertRaises(gst_source.ArgumentError):
            writer.set_clock(2**63)
        with self.assertRaises(gst_source.TooBig):
            writer.describe(Description("H264", codec_data=bytes(8193)))
        for description in (
            Description("x" * 16),
            Description("H264", profile="\0"),
            Description("H264", width=2**31),
            Description("H264", scan="wide"),
        ):
            with self.assertRaises(gst_source.ArgumentError):
                writer.describe(description)
        writer.write(b"good")
        frame = reader.read(0)
        self.assertEqual((frame.data, frame.left_out, frame.discont), (b"good", 1, True))

    def test_a_track_has_one_writer(self):
        buffer = self.buffer(Geometry(channels=2, streams=2))
        with buffer.writer("video", 1, 1):
            with self.assertRaisesRegex(gst_source.Busy, "^video 1.1: "):
                buffer.writer("video", 1, 1)
            buffer.writer("audio", 1, 1)
            buffer.writer("video", 0, 1)
        with buffer.writer("video", 1, 1) as again:
            again.write(b"x")
        self.assertEqual(buffer.stats("video", 1, 1).epoch, 2)
        for track in (("video", 2, 0), ("audio", 0, 2)):
            with self.assertRaises(gst_source.ArgumentError):
                buffer.writer(*track)
            with self.assertRaises(gst_source.ArgumentError):
                buffer.stats(*track)
        with self.assertRaisesRegex(gst_source.ArgumentError, "^kind: 'sound' is not one of video, audio$"):
            buffer.writer("sound")
        with self.assertRaises(gst_source.ArgumentError):
            buffer.stats("video", -1)

    def test_counters_of_both_sides_agree(self):
        buffer = self.buffer()
        writer = buffer.writer()
        empty = buffer.stats()
        self.assertEqual((empty.frames, empty.age_ns, empty.clock_offset), (0, None, None))
        for number in range(10):
            writer.write(pattern(number), key=number % 5 == 0)
        writer.set_rates(123456, 29.97)
        for stats in (buffer.stats(), self.map(buffer).stats()):
            self.assertEqual(
                (stats.writer_pid, stats.epoch, stats.frames, stats.bytes, stats.key_frames, stats.held, stats.total_frames),
                (os.getpid(), 1, 10, 10000, 2, 10, 10),
            )
            self.assertEqual((stats.bitrate, stats.fps), (123456, 29.97))
            self.assertLess(stats.age_ns, 60e9)
        with self.assertRaises(gst_source.ArgumentError):
            writer.set_rates(-1, 0)

    def test_closing_the_buffer_closes_its_writers(self):
        buffer = self.buffer()
        writer = buffer.writer()
        writer.write(b"last", key=True)
        reader = self.map(buffer).reader()
        buffer.close()
        buffer.close()
        self.assertTrue(writer.closed)
        writer.close()
        self.assertEqual([frame.data for frame in reader], [b"last"])
        with self.assertRaises(gst_source.Closed):
            reader.read(0)


    def test_audio_is_of_key_frames_unless_it_says_otherwise(self):
        buffer = self.buffer()
        video, audio = buffer.writer(), buffer.writer("audio")
        map = self.map(buffer)
        readers = map.reader(start="oldest"), map.reader("audio", start="oldest")
        for writer in (video, audio):
            for key in (None, True, False):
                writer.write(b"x", key=key)
        keys = [[reader.read(0).key for _ in range(3)] for reader in readers]
        self.assertEqual(keys, [[False, True, False], [True, True, False]])
        audio.write(b"y")
        self.assertEqual(map.reader("audio").read(0).data, b"y")

    def test_a_buffer_that_is_closed_has_no_open_writer(self):
        before = sys.getswitchinterval()
        self.addCleanup(sys.setswitchinterval, before)
        sys.setswitchinterval(1e-6)
        for _ in range(200):
            buffer = self.buffer(SMALL)
            writers, started = [], threading.Event()

            def open_again_and_again(buffer=buffer, writers=writers, started=started):
                try:
                    while True:
                        writers.append(buffer.writer())
                        started.set()
                        writers[-1].close()
                except gst_source.UseAfterClose:
                    pass

            thread = threading.Thread(target=open_again_and_again)
            thread.start()
            started.wait()
            buffer.close()
            self.assertEqual(buffer._children, [])
            thread.join(30)
            self.assertFalse(thread.is_alive())
            self.assertTrue(all(writer.closed for writer in writers))


class StallWatch(Case):
    def stalling(self, handler):
        buffer = self.buffer()
        writer = buffer.writer()
        writer.on_stall(handler)
        buffer.stall_watch_ms = 100
        self.assertEqual(buffer.stall_watch_ms, 100)
        writer.write(b"x")
        return buffer, writer

    def test_calls_once_for_each_silence(self):
        silences = []
        buffer, writer = self.stalling(silences.append)
        self.assertTrue(eventually(lambda: len(silences) == 1))
        writer.write(b"x")
        self.assertTrue(eventually(lambda: len(silences) == 2))
        self.assertTrue(all(100 <= ms < 60000 for ms in silences))
        writer.on_stall(None)
        with self.assertRaises(gst_source.ArgumentError):
            buffer.stall_watch_ms = -1

    def test_a_close_waits_for_the_handler_and_not_the_handler_for_the_close(self):
        said = []

        def handler(silent_ms):
            for forbidden in (writer.close, buffer.close, lambda: writer.on_stall(None)):
                try:
                    forbidden()
                except gst_source.Error as error:
                    said.append(str(error))
            # Not while the close holds what this needs.
            while not writer.closed:
                pass
            try:
                writer.write(b"y")
            except gst_source.UseAfterClose:
                said.append("closed")

        buffer, writer = self.stalling(handler)
        self.assertTrue(eventually(lambda: len(said) == 3))
        writer.close()
        self.assertEqual([text.split(":")[0] for text in said], ["Writer.close", "Buffer.close", "Writer.on_stall", "closed"])

    def test_what_a_handler_raises_goes_to_the_hook_of_threads(self):
        raised = []
        before, threading.excepthook = threading.excepthook, lambda what: raised.append(what.exc_type)
        self.addCleanup(setattr, threading, "excepthook", before)
        buffer, writer = self.stalling(lambda silent_ms: 1 / 0)
        self.assertTrue(eventually(lambda: raised == [ZeroDivisionError]))
        writer.close()


if __name__ == "__main__":
    unittest.main()
