"""asyncio: streams of frames by a descriptor, their ends, cancelling, and that nothing is polled."""

import asyncio
import gc
import os
import threading
import time
import unittest

from support import SMALL, Case, descriptors, pattern, unique_name, write_some

import gst_source
from gst_source import FollowEvent, Geometry


def bounded(test):
    """A test that hangs is one that fails."""

    def run(self):
        async def in_time():
            await asyncio.wait_for(test(self), 60)

        asyncio.run(in_time(), debug=True)

    run.__name__ = test.__name__
    return run


async def take(stream, count):
    got = []
    async for item in stream:
        got.append(item)
        if len(got) == count:
            break
    return got


class Streams(Case):
    @bounded
    async def test_frames_come_as_they_are_written(self):
        buffer = self.buffer()
        writer = buffer.writer()
        write_some(writer, 3)
        reader = self.map(buffer).reader(start="oldest")

        async def write():
            for number in range(3, 40):
                await asyncio.sleep(0.001)
                write_some(writer, 1, first=number)
            buffer.close()

        writing = asyncio.create_task(write())
        got = [frame async for frame in reader.stream()]
        await writing
        self.assertEqual([frame.data for frame in got], [pattern(number) for number in range(40)])

    @bounded
    async def test_several_readers_share_a_stream(self):
        buffer = self.buffer(Geometry(channels=3))
        writers = [buffer.writer("video", channel) for channel in range(3)]
        map = self.map(buffer)
        readers = [map.reader("video", channel, start="oldest") for channel in range(3)]
        with gst_source.ReaderSet(*readers) as every:
            for writer in writers:
                write_some(writer, 4)
            got = [readers.index(reader) for reader, _ in await take(every.stream(), 12)]
            self.assertEqual(sorted(got), [0] * 4 + [1] * 4 + [2] * 4)
            # In turns.
            self.assertEqual(set(got[:3]), {0, 1, 2})
            write_some(writers[1], 1)
            buffer.close()
            self.assertEqual(len([item async for item in every.stream()]), 1)
            self.assertEqual(len(every), 0)

    @bounded
    async def test_what_is_there_leaves_other_tasks_their_turn(self):
        buffer = self.buffer()
        write_some(buffer.writer(), 1000, size=100)
        turns = 0

        async def count():
            nonlocal turns
            while True:
                turns += 1
                await asyncio.sleep(0)

        counting = asyncio.create_task(count())
        await take(self.map(buffer).reader(start="oldest").stream(), 1000)
        counting.cancel()
        self.assertGreater(turns, 50)

    @bounded
    async def test_cancelling_loses_no_frame(self):
        buffer = self.buffer()
        writer = buffer.writer()
        reader = self.map(buffer).reader(start="oldest")
        stream = reader.stream()
        sequences = []

        async def read():
            async for frame in stream:
                sequences.append(frame.sequence)

        for number in range(50):
            reading = asyncio.create_task(read())
            for _ in range(number % 7):
                await asyncio.sleep(0)
            write_some(writer, 20, first=number * 20)
            await asyncio.sleep(0)
            reading.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await reading
        with self.assertRaises(asyncio.TimeoutError):
            await asyncio.wait_for(read(), 0.05)
        self.assertEqual(sequences, list(range(1000)))
        self.assertEqual(reader.stats().lost, 0)

    @bounded
    async def test_an_idle_stream_is_not_polled(self):
        buffer = self.buffer()
        reader = self.map(buffer).reader()
        loop = asyncio.get_running_loop()
        waiting = asyncio.create_task(take(reader.stream(), 1))
        await asyncio.sleep(0)
        threads = set(os.listdir("/proc/self/task"))
        looks = 0
        select = loop._selector.select

        def count(timeout):
            nonlocal looks
            looks += 1
            return select(timeout)

        loop._selector.select = count
        before = time.process_time()
        await asyncio.sleep(1)
        # The library looks after the creator once a second.
        self.assertLess(looks, 8)
        self.assertLess(time.process_time() - before, 0.5)
        self.assertEqual(set(os.listdir("/proc/self/task")), threads)
        buffer.writer().write(b"x", key=True)
        self.assertEqual((await waiting)[0].data, b"x")

    @bounded
    async def test_ends_when_it_is_closed(self):
        buffer = self.buffer()
        for close in ("close", "aclose", "__aexit__"):
            reader = self.map(buffer).reader()
            stream = reader.stream()
            waiting = asyncio.create_task(take(stream, 1))
            await asyncio.sleep(0)
            if close == "close":
                stream.close()
            elif close == "aclose":
                await stream.aclose()
            else:
                async with stream:
                    pass
            self.assertEqual(await waiting, [])
            with self.assertRaises(StopAsyncIteration):
                await anext(stream)
            # The reader is free again.
            reader.stream().close()

    @bounded
    async def test_ends_with_its_reader_its_set_and_its_follow(self):
        buffer = self.buffer()
        map = self.map(buffer)
        reader, of_set = map.reader(), map.reader()
        every = gst_source.ReaderSet(of_set)
        follow = gst_source.Follow(unique_name())
        for closed, stream in ((reader, reader.stream()), (every, every.stream()), (follow, follow.stream())):
            for close in (lambda: None, closed.close):
                waiting = asyncio.create_task(take(stream, 1))
                await asyncio.sleep(0)
                # From another thread as well.
                thread = threading.Thread(target=close)
                thread.start()
                if close == closed.close:
                    with self.assertRaises(gst_source.UseAfterClose):
                        await waiting
                else:
                    waiting.cancel()
                thread.join()

    @bounded
    async def test_a_break_leaves_nothing_behind(self):
        buffer = self.buffer()
        writer = buffer.writer()
        write_some(writer, 1)
        map = self.map(buffer)
        reader = map.reader(start="oldest")
        before = descriptors()
        for _ in range(10):
            async for _frame in reader.stream():
                break
            reader.seek("oldest")
        gc.collect()
        self.assertEqual(descriptors(), before)

    @bounded
    async def test_two_tasks_cannot_share_a_stream(self):
        stream = self.map(self.buffer()).reader().stream()
        waiting = asyncio.create_task(take(stream, 1))
        await asyncio.sleep(0)
        with self.assertRaisesRegex(gst_source.Error, "another task waits"):
            await anext(stream)
        waiting.cancel()

    @bounded
    async def test_a_slow_reader_learns_of_its_losses(self):
        buffer = self.buffer(SMALL)
        writer = buffer.writer()
        stream = self.map(buffer).reader(start="oldest").stream()
        write_some(writer, 50)
        frame = await anext(stream)
        self.assertEqual((frame.sequence, frame.lost), (34, 34))


class Following(Case):
    @bounded
    async def test_goes_on_with_the_next_host(self):
        name = unique_name()
        stream = gst_source.Follow(name).stream()
        happened, data = FollowEvent(0), []

        async def read(until):
            nonlocal happened
            async for frame, events in stream:
                happened |= events
                if frame is not None:
                    data.append(frame.data)
                if until(frame, events):
                    return

        for number in range(3):
            reading = asyncio.create_task(read(lambda frame, events: frame is not None))
            await asyncio.sleep(0)
            with gst_source.Buffer(name) as buffer:
                writer = buffer.writer()
                writer.write(bytes([number]), key=True)
                await reading
                self.assertEqual(FollowEvent.RESTARTED in happened, number > 0)
                # By the descriptor.
                reading = asyncio.create_task(read(lambda frame, events: frame is not None))
                await asyncio.sleep(0)
                writer.write(bytes([number, number]))
                await reading
                reading = asyncio.create_task(read(lambda frame, events: FollowEvent.GONE in events))
            await reading
        self.assertEqual(data, [b"\0", b"\0\0", b"\1", b"\1\1", b"\2", b"\2\2"])


if __name__ == "__main__":
    unittest.main()
