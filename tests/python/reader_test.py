"""Readers: frames and losses, times, frames in place, waiting for several, several threads, damage."""

import gc
import os
import select
import signal
import threading
import time
import unittest
from pathlib import Path

import numpy
from support import PICTURE, SMALL, Case, descriptors, eventually, pattern, unique_name, write_some

import gst_source
from gst_source import Geometry


class Reading(Case):
    def test_starts_where_it_is_told(self):
        buffer = self.buffer()
        write_some(buffer.writer(), 8)
        map = self.map(buffer)
        self.assertEqual(map.reader(start="oldest").read(0).sequence, 0)
        self.assertEqual(map.reader(start="key").read(0).sequence, 5)
        self.assertEqual(map.reader().read(0).sequence, 5)
        with self.assertRaises(gst_source.Timeout):
            map.reader(start="newest").read(0)
        for bad in ("first", None, 1):
            with self.assertRaisesRegex(gst_source.ArgumentError, "^start: "):
                map.reader(start=bad)
        with self.assertRaisesRegex(gst_source.ArgumentError, f"^{buffer.name}: video 1.0: "):
            map.reader("video", 1)

    def test_takes_frames_of_any_size(self):
        buffer = self.buffer()
        writer = buffer.writer()
        reader = self.map(buffer).reader(start="oldest")
        for size in (1, 65536, 65537, 1_000_000, 3, 8 << 20):
            writer.write(bytes([size % 251]) * size)
            self.assertEqual(reader.read(0).data, bytes([size % 251]) * size)

    def test_losses_are_counted(self):
        buffer = self.buffer(SMALL)
        writer = buffer.writer()
        reader = self.map(buffer).reader(start="oldest")
        write_some(writer, 100)
        frame = reader.read(0)
        self.assertEqual((frame.sequence, frame.lost, frame.lost_before), (84, 84, 0))
        self.assertEqual(frame.data, pattern(84))
        writer.close()
        write_some(buffer.writer(), 20)
        frame = reader.read(0)
        self.assertEqual((frame.epoch, frame.sequence, frame.lost, frame.lost_before), (2, 4, 19, 15))
        stats = reader.stats()
        self.assertEqual(
            (stats.frames, stats.lost, stats.losses, stats.waiting, stats.offered, stats.epochs), (2, 103, 2, 15, 120, 2)
        )

    def test_waits_for_the_time_given(self):
        reader = self.map(self.buffer()).reader()
        for wait in (reader.read, reader.wait, lambda timeout: reader.borrow(timeout).__enter__()):
            for timeout in (0, 0.25):
                begin = time.monotonic()
                with self.assertRaisesRegex(gst_source.Timeout, "video 0.0: timed out$"):
                    wait(timeout)
                self.assertGreaterEqual(time.monotonic() - begin, timeout)
            for bad in (-1, float("nan")):
                with self.assertRaisesRegex(gst_source.ArgumentError, "^timeout: "):
                    wait(bad)
        self.assertTrue(issubclass(gst_source.Timeout, TimeoutError))

    def test_a_waiting_reader_leaves_the_interpreter_to_others(self):
        buffer = self.buffer()
        writer = buffer.writer()
        reader = self.map(buffer).reader(start="oldest")
        frames = []
        thread = threading.Thread(target=lambda: frames.extend(reader))
        thread.start()
        write_some(writer, 50)
        self.assertTrue(eventually(lambda: len(frames) == 50))
        buffer.close()
        thread.join(30)
        self.assertFalse(thread.is_alive())
        self.assertEqual([frame.data for frame in frames], [pattern(number) for number in range(50)])

    def test_a_signal_interrupts_a_wait_without_end(self):
        code = """
import gst_source, sys
buffer = gst_source.Buffer(sys.argv[1])
reader = gst_source.Map(sys.argv[1]).reader()
print(1, flush=True)
reader.read()
"""
        name = unique_name()
        child = self.child(code, name, stdout=-1, stderr=-1)
        self.assertEqual(child.stdout.readline(), "1\n")
        child.send_signal(signal.SIGINT)
        self.assertIn("KeyboardInterrupt", child.communicate(timeout=30)[1])
        self.assertEqual(list(Path("/dev/shm").glob(f"{name}*")), [])

    def test_ends_when_the_host_has_died(self):
        name = unique_name()
        host = self.child(
            "import gst_source, sys, time\nw = gst_source.Buffer(sys.argv[1]).writer()\n"
            "[w.write(b'x', key=True) for _ in range(3)]\nprint(1, flush=True)\ntime.sleep(600)",
            name,
            stdout=-1,
        )
        host.stdout.readline()
        map = self.map(name)
        reader = map.reader(start="oldest")
        self.assertEqual(map.info().creator_pid, host.pid)
        host.kill()
        self.assertEqual(len(list(reader)), 3)
        self.assertFalse(map.alive)
        gst_source.remove(name)

    def test_a_map_can_be_closed_before_its_readers(self):
        buffer = self.buffer()
        map = gst_source.Map(buffer.name)
        reader = map.reader(start="oldest")
        map.close()
        buffer.writer().write(b"x")
        self.assertEqual(reader.read(0).data, b"x")
        with self.assertRaisesRegex(gst_source.UseAfterClose, "^this map is closed$"):
            map.reader()

    def test_attaches_for_the_owner_that_is_demanded_only(self):
        buffer = self.buffer()
        self.assertTrue(gst_source.Map(buffer.name, owner=os.getuid()).alive)
        with self.assertRaises(gst_source.WrongOwner):
            gst_source.Map(buffer.name, owner=os.getuid() + 1)
        with self.assertRaisesRegex(gst_source.NotFound, "^none-of-this-name: not found$"):
            gst_source.Map("none-of-this-name")


class Seeking(Case):
    def setUp(self):
        self.made = self.buffer()
        self.writer = self.made.writer()
        write_some(self.writer, 23)
        self.reader = self.map(self.made).reader(start="oldest")

    def sequence(self, *where, **moment):
        self.reader.seek(*where, **moment)
        return self.reader.read(0).sequence

    def test_goes_where_it_is_told(self):
        frames = [self.reader.read(0) for _ in range(23)]
        self.assertEqual(self.sequence("oldest"), 0)
        self.assertEqual(self.sequence("key"), 20)
        self.assertEqual(self.sequence(back=3600), 0)
        self.assertEqual(self.sequence(back=0), 20)
        self.assertEqual(self.sequence(monotonic_ns=frames[12].arrival_ns), 10)
        self.assertEqual(self.sequence(wall_ns=frames[17].wall_ns), 15)
        self.assertEqual(self.sequence(wall_ns=0), 0)
        self.reader.seek("newest")
        with self.assertRaises(gst_source.Timeout):
            self.reader.read(0)
        self.assertEqual(self.reader.stats().lost, 0)

    def test_refuses_what_is_no_moment(self):
        for where, moment in (
            ((), {}),
            (("key",), {"back": 1}),
            (("middle",), {}),
            ((), {"back": -1}),
            ((), {"back": float("nan")}),
            ((), {"back": float("inf")}),
            ((), {"wall_ns": -1}),
            ((), {"monotonic_ns": 2**64}),
            ((), {"back": 1, "wall_ns": 1}),
        ):
            with self.assertRaises(gst_source.ArgumentError):
                self.reader.seek(*where, **moment)

    def test_opens_both_tracks_at_one_moment(self):
        audio = self.made.writer("audio")
        for number in range(40):
            audio.write(pattern(number, 100), pts=number * 24_000_000, key=True)
        for writer in (self.writer, audio):
            writer.set_clock(1_000_000_000)
        write_some(self.writer, 10, first=25)
        for number in range(40, 80):
            audio.write(pattern(number, 100), pts=number * 24_000_000, key=True)
        with self.map(self.made) as map:
            video, sound = map.open_av(where="key")
        picture, first = video.read(0), sound.read(0)
        self.assertTrue(picture.key)
        self.assertGreaterEqual(first.clock_pts, picture.clock_pts)
        self.assertLess(first.clock_pts - picture.clock_pts, 24_000_000)
        with self.assertRaises(gst_source.ArgumentError):
            self.map(self.made).open_av(1, back=1)
        with self.assertRaises(gst_source.ArgumentError):
            self.map(self.made).open_av(back=-1)


class Borrowing(Case):
    def setUp(self):
        self.made = self.buffer(SMALL)
        self.writer = self.made.writer()
        self.reader = self.map(self.made).reader(start="oldest")

    def test_shows_the_frame_without_a_copy(self):
        self.writer.describe(PICTURE)
        write_some(self.writer, 2)
        with self.reader.borrow() as frame:
            self.assertEqual((frame.data.readonly, frame.data.nbytes, frame.size), (True, 1000, 1000))
            self.assertEqual((frame.sequence, frame.key, frame.pts, frame.overrun), (0, True, 0, None))
            self.assertEqual(frame.description.width, 1920)
            array = numpy.frombuffer(frame.data, dtype=numpy.uint8)
            self.assertEqual(array.tobytes(), pattern(0))
            self.assertFalse(array.flags.owndata)
            with self.assertRaises(TypeError):
                frame.data[0] = 1
            with self.assertRaises(ValueError):
                array[0] = 1
        self.assertFalse(frame.overrun)
        self.assertEqual(self.reader.read(0).sequence, 1)
        self.assertEqual(self.reader.stats().frames, 2)

    def test_an_overrun_is_an_exception_or_a_flag(self):
        write_some(self.writer, 1)
        with self.assertRaisesRegex(gst_source.Overrun, "video 0.0: frame overwritten while in use$"):
            with self.reader.borrow() as frame:
                write_some(self.writer, 20, first=1)
        self.assertTrue(frame.overrun)
        with self.reader.borrow(strict=False) as frame:
            self.assertEqual(frame.lost, 5)
            write_some(self.writer, 20)
        self.assertTrue(frame.overrun)
        # What the block raises comes first.
        with self.assertRaises(ZeroDivisionError):
            with self.reader.borrow() as frame:
                write_some(self.writer, 20)
                _ = 1 / 0
        self.assertTrue(frame.overrun)
        with self.reader.borrow() as frame:
            pass
        self.assertFalse(frame.overrun)

    def test_one_frame_at_a_time(self):
        write_some(self.writer, 2)
        borrowing = self.reader.borrow()
        with borrowing:
            for call in (
                self.reader.read,
                self.reader.wait,
                lambda: self.reader.borrow().__enter__(),
                lambda: self.reader.seek("key"),
                lambda: gst_source.wait_any([self.reader]),
                lambda: next(self.reader),
            ):
                with self.assertRaisesRegex(gst_source.ArgumentError, "a frame is borrowed"):
                    call()
        with self.assertRaises(gst_source.ArgumentError):
            borrowing.__enter__()
        self.assertEqual(self.reader.read(0).sequence, 1)

    def test_the_bytes_are_not_to_be_had_after_the_block(self):
        write_some(self.writer, 1)
        with self.reader.borrow() as frame:
            data = frame.data
        with self.assertRaisesRegex(gst_source.UseAfterClose, "^this frame was returned$"):
            _ = frame.data
        with self.assertRaisesRegex(ValueError, "released"):
            data[0]

    def test_what_was_made_of_them_is_no_crash_after_everything_is_closed(self):
        write_some(self.writer, 1)
        with self.reader.borrow() as frame:
            array = numpy.frombuffer(frame.data, dtype=numpy.uint8)
            part = frame.data[10:20]
            self.reader.close()
        with self.assertRaises(gst_source.UseAfterClose):
            self.reader.read(0)
        name = self.made.name
        self.made.close()
        self.doCleanups()
        del frame, self.reader, self.writer
        gc.collect()
        self.assertIn(name, Path("/proc/self/maps").read_text())
        self.assertEqual((array.size, len(bytes(part))), (1000, 10))
        del array, part
        gc.collect()
        self.assertNotIn(name, Path("/proc/self/maps").read_text())


class Several(Case):
    def setUp(self):
        self.made = self.buffer(Geometry(channels=3))
        self.writers = [self.made.writer("video", channel) for channel in range(3)]
        map = self.map(self.made)
        self.readers = [map.reader("video", channel, start="oldest") for channel in range(3)]

    def test_wait_any_finds_them_in_turns(self):
        with self.assertRaises(gst_source.Timeout):
            gst_source.wait_any(self.readers, 0)
        with self.assertRaises(gst_source.Timeout):
            gst_source.wait_any(self.readers, 0.25)
        for writer in self.writers:
            write_some(writer, 2)
        last, found = None, []
        for _ in range(6):
            last = gst_source.wait_any(self.readers, 0, after=last)
            last.read(0)
            found.append(self.readers.index(last))
        self.assertEqual(found, [0, 1, 2, 0, 1, 2])
        for bad in ([], self.readers * 400):
            with self.assertRaises(gst_source.ArgumentError):
                gst_source.wait_any(bad)

    def test_wait_any_is_woken(self):
        timer = threading.Timer(0.05, write_some, (self.writers[1], 1))
        timer.start()
        self.addCleanup(timer.join)
        self.assertIs(gst_source.wait_any(self.readers, 30), self.readers[1])
        self.made.close()
        self.assertEqual(self.readers[1].read(0).sequence, 0)
        with self.assertRaises(gst_source.Closed):
            gst_source.wait_any(self.readers, 30).read(0)

    def test_a_set_has_one_descriptor_for_all(self):
        with gst_source.ReaderSet(*self.readers[:2]) as readers:
            readers.add(self.readers[2])
            self.assertEqual(len(readers), 3)
            with self.assertRaises(gst_source.Timeout):
                readers.next(0)
            poll = select.poll()
            poll.register(readers, select.POLLIN)
            for writer, reader in zip(self.writers, self.readers):
                timer = threading.Timer(0.05, write_some, (writer, 1))
                timer.start()
                self.addCleanup(timer.join)
                # It may become readable for nothing as well.
                while True:
                    self.assertTrue(poll.poll(30000))
                    try:
                        self.assertIs(readers.next(0), reader)
                    except gst_source.Timeout:
                        continue
                    break
                reader.read(0)
                with self.assertRaises(gst_source.Timeout):
                    readers.next(0)
            with self.assertRaisesRegex(gst_source.ArgumentError, "in a set already"):
                gst_source.ReaderSet(self.readers[0])
            readers.remove(self.readers[0])
            readers.remove(self.readers[0])
            with gst_source.ReaderSet(self.readers[0]):
                pass
        # They are their owner's.
        write_some(self.writers[0], 1)
        self.assertEqual(self.readers[0].read(0).size, 1000)
        with self.assertRaises(gst_source.UseAfterClose):
            readers.next(0)

    def test_a_reader_that_is_closed_leaves_its_set(self):
        readers = gst_source.ReaderSet(*self.readers)
        self.readers[0].close()
        self.assertEqual(len(readers), 2)
        write_some(self.writers[2], 1)
        self.assertIs(readers.next(30), self.readers[2])
        # A set that is forgotten frees its readers.
        del readers
        gc.collect()
        gst_source.ReaderSet(*self.readers[1:]).close()

    def test_readers_may_be_used_beside_their_set(self):
        readers = gst_source.ReaderSet(*self.readers)
        seen = []

        def read_all():
            while len(seen) < 300:
                try:
                    seen.append(readers.next(0.01).read(0).size)
                except gst_source.Timeout:
                    pass

        threads = [threading.Thread(target=read_all) for _ in range(3)]
        for thread in threads:
            thread.start()
        for _ in range(40):
            for writer in self.writers:
                write_some(writer, 5)
            for reader in self.readers:
                try:
                    seen.append(reader.read(0).size)
                except gst_source.Timeout:
                    pass
        for thread in threads:
            thread.join(60)
            self.assertFalse(thread.is_alive())
        self.assertEqual(set(seen), {1000})


class Closing(Case):
    def test_everything_that_is_closed_says_so(self):
        buffer = self.buffer()
        writer = buffer.writer()
        map = gst_source.Map(buffer.name)
        reader, other = map.reader(), map.reader()
        readers = gst_source.ReaderSet(other)
        follow = gst_source.Follow(buffer.name)
        for one in (readers, follow, reader, map, writer, buffer):
            one.close()
            one.close()
            self.assertTrue(one.closed)
            self.assertIn(" closed>", repr(one))
        calls = [
            lambda: reader.read(0),
            lambda: reader.wait(0),
            lambda: reader.borrow(0).__enter__(),
            lambda: reader.seek("key"),
            reader.stats,
            reader.stream,
            lambda: next(reader),
            lambda: gst_source.wait_any([reader], 0),
            lambda: gst_source.ReaderSet(reader),
            lambda: map.alive,
            lambda: map.geometry,
            map.info,
            map.stats,
            map.description,
            map.reader,
            lambda: map.open_av(where="key"),
            lambda: readers.next(0),
            readers.fileno,
            lambda: readers.add(other),
            readers.stream,
            lambda: readers.remove(other),
            lambda: follow.next(0),
            follow.info,
            follow.stats,
            follow.stream,
            lambda: next(follow),
            lambda: writer.write(b"x"),
            lambda: writer.describe(PICTURE),
            lambda: writer.set_clock(0),
            lambda: writer.set_rates(0, 0),
            lambda: writer.on_stall(None),
            lambda: buffer.name,
            lambda: buffer.geometry,
            lambda: buffer.files,
            buffer.stats,
            buffer.description,
            buffer.writer,
            lambda: buffer.set_presence("absent"),
            lambda: buffer.stall_watch_ms,
            lambda: buffer.open("udp://127.0.0.1:5000"),
            lambda: gst_source.UdpSource(buffer, "udp://127.0.0.1:5000"),
            reader.__enter__,
        ]
        for call in calls:
            with self.assertRaisesRegex(gst_source.UseAfterClose, "^this .* is closed$"):
                call()
        self.assertTrue(issubclass(gst_source.UseAfterClose, ValueError))

    def test_a_close_ends_the_waits_of_other_threads(self):
        buffer = self.buffer()
        map = self.map(buffer)
        several = [map.reader() for _ in range(5)]
        readers = gst_source.ReaderSet(several[3])
        follow = gst_source.Follow(unique_name())
        waits = [
            several[0].read,
            several[1].wait,
            lambda: several[2].borrow().__enter__(),
            readers.next,
            lambda: gst_source.wait_any([several[4]]),
            follow.next,
        ]
        raised = []

        def wait_and_note(wait):
            try:
                wait()
            except gst_source.Error as error:
                raised.append(type(error))

        threads = [threading.Thread(target=wait_and_note, args=(wait,)) for wait in waits]
        for thread in threads:
            thread.start()
        # Most of them wait by now. One that comes late finds it closed.
        for one in (*several[:3], readers, several[4], follow):
            one.close()
        for thread in threads:
            thread.join(30)
            self.assertFalse(thread.is_alive())
        self.assertEqual(raised, [gst_source.UseAfterClose] * len(waits))

    def test_opens_and_closes_in_many_threads_at_once(self):
        buffer = self.buffer()
        writer = buffer.writer()
        stop = threading.Event()

        def read_and_close():
            while not stop.is_set():
                with gst_source.Map(buffer.name) as map:
                    reader = map.reader(start="oldest")
                    closing = threading.Thread(target=reader.close)
                    closing.start()
                    try:
                        while True:
                            reader.read(0.001)
                    except (gst_source.Timeout, gst_source.UseAfterClose):
                        closing.join()

        threads = [threading.Thread(target=read_and_close) for _ in range(4)]
        for thread in threads:
            thread.start()
        for _ in range(200):
            write_some(writer, 5)
        stop.set()
        for thread in threads:
            thread.join(60)
            self.assertFalse(thread.is_alive())

    def test_a_cycle_is_collected_without_a_crash(self):
        """The collector may release the pointers before or after the objects that use them."""
        buffer = self.buffer()
        said = []

        class Cycle:
            def __init__(self):
                self.itself = self
                self.map = gst_source.Map(buffer.name)
                self.reader, self.in_set = self.map.reader(), self.map.reader()
                self.readers = gst_source.ReaderSet(self.in_set)
                self.follow = gst_source.Follow(buffer.name)

            def __del__(self):
                for call in (
                    self.map.stats,
                    lambda: self.reader.read(0),
                    lambda: self.readers.next(0),
                    lambda: self.follow.next(0),
                    self.reader.close,
                    self.in_set.close,
                    self.readers.close,
                    self.follow.close,
                ):
                    try:
                        call()
                    except gst_source.Error:
                        pass
                said.append(True)

        for _ in range(10):
            Cycle()
            gc.collect()
        self.assertEqual(len(said), 10)

    def test_nothing_is_left_open(self):
        def round_of_all():
            with gst_source.Buffer(unique_name(), SMALL) as buffer, gst_source.Map(buffer.name) as map:
                writer, reader = buffer.writer(), map.reader(start="oldest")
                writer.write(b"x", key=True)
                reader.read(0)
                with gst_source.ReaderSet(reader) as readers:
                    try:
                        readers.next(0)
                    except gst_source.Timeout:
                        pass
                gst_source.Follow(buffer.name).next(30)
                # Without a close: gone with the last reference.
                gst_source.Map(buffer.name).reader()

        round_of_all()
        before, maps = descriptors(), Path("/proc/self/maps").read_text().count("/dev/shm/")
        for _ in range(20):
            round_of_all()
        self.assertEqual(descriptors(), before)
        self.assertEqual(Path("/proc/self/maps").read_text().count("/dev/shm/"), maps)


class Damage(Case):
    def test_a_guarded_reader_survives_a_file_that_is_cut_short(self):
        code = """
import gst_source, os, sys
gst_source.guard()
map = gst_source.Map(sys.argv[1])
reader, borrower = map.reader(start="oldest"), map.reader(start="oldest")
try:
    with borrower.borrow() as frame:
        os.truncate(sys.argv[2], 4096)
        print(bytes(frame.data) == bytes(1000))
except gst_source.Corrupt as error:
    print(error)
for call in (lambda: reader.read(0), map.stats, map.info):
    try:
        call()
    except gst_source.Corrupt:
        print("corrupt")
"""
        buffer = self.buffer()
        # An open writer, which has no guard, would be cut as well.
        with buffer.writer() as writer:
            writer.write(b"x" * 1000, key=True)
        out, _ = self.run_code(code, buffer.name, buffer.files[0])
        self.assertEqual(
            out.splitlines(), ["True", f"{buffer.name}: video 0.0: shared buffer is damaged", "corrupt", "corrupt", "corrupt"]
        )


if __name__ == "__main__":
    unittest.main()
