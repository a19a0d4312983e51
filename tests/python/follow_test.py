"""Following a name through restarts of its host."""

import threading
import unittest

from support import PICTURE, SMALL, Case, leftovers, unique_name

import gst_source
from gst_source import Description, FollowEvent


class Following(Case):
    def test_waits_for_the_first_host(self):
        name = unique_name()
        with gst_source.Follow(name) as follow:
            with self.assertRaises(gst_source.Timeout):
                follow.next(0)
            with self.assertRaises(gst_source.Timeout):
                follow.next(0.25)
            for call in (follow.info, follow.stats):
                with self.assertRaisesRegex(gst_source.NotFound, "no buffer now"):
                    call()
            made = []

            def host():
                made.append(gst_source.Buffer(name))
                made[0].writer().write(b"x", key=True)

            thread = threading.Thread(target=host)
            thread.start()
            events, frame = FollowEvent(0), None
            while frame is None:
                frame, more = follow.next(30)
                events |= more
            thread.join()
            self.addCleanup(made[0].close)
            self.assertEqual((frame.data, events), (b"x", FollowEvent.ATTACHED))
            self.assertEqual(follow.info().name, name)
            self.assertEqual(follow.stats().frames, 1)

    def test_goes_on_with_the_next_writer_and_the_next_host(self):
        name = unique_name()
        seen = []
        with gst_source.Follow(name, "audio") as follow:
            for host in range(2):
                with gst_source.Buffer(name) as buffer:
                    for epoch in range(2):
                        with buffer.writer("audio") as writer:
                            # What it carries changes with the host alone, and in the next host its serial is
                            # the same.
                            writer.describe(Description("AAC", sample_rate=44100 + host))
                            writer.write(b"x" * 200_000)
                            writer.write(b"y")
                    for _ in range(4):
                        frame, events = follow.next(30)
                        self.assertEqual(frame.description.sample_rate, 44100 + host)
                        seen.append((frame.size, events))
                frame, events = follow.next(30)
                self.assertIsNone(frame)
                seen.append((0, events))
        first = FollowEvent.ATTACHED | FollowEvent.MEDIA
        part = [(200_000, first), (1, FollowEvent(0)), (200_000, FollowEvent.EPOCH), (1, FollowEvent(0)), (0, FollowEvent.GONE)]
        self.assertEqual(seen, part + [(200_000, first | FollowEvent.RESTARTED)] + part[1:])
        self.assertEqual(leftovers(name), [])

    def test_iterates_over_frames_and_events(self):
        buffer = self.buffer()
        writer = buffer.writer()
        writer.describe(PICTURE)
        writer.write(b"1", key=True)
        writer.write(b"2")
        got = []
        for frame, events in gst_source.Follow(buffer.name, start="key"):
            got.append((frame and frame.data, events))
            if frame is None:
                break
            if frame.data == b"2":
                buffer.close()
        self.assertEqual(
            got, [(b"1", FollowEvent.ATTACHED | FollowEvent.MEDIA), (b"2", FollowEvent(0)), (None, FollowEvent.GONE)]
        )

    def test_what_happened_before_an_error_comes_with_the_next_call(self):
        name, pts = unique_name(), 0x1122334455667788
        with gst_source.Follow(name) as follow:
            with gst_source.Buffer(name, SMALL) as buffer:
                buffer.writer().write(b"x", pts=pts, key=True)
                # Behind the times stand the place and the size of the frame, which now is larger than its track.
                with open(buffer.files[0], "r+b") as file:
                    file.seek(file.read().index(pts.to_bytes(8, "little")) + 32)
                    file.write(b"\xff" * 4)
                with self.assertRaises(gst_source.Corrupt):
                    follow.next(30)
            self.assertEqual(follow.next(0), (None, FollowEvent.ATTACHED))
            with self.assertRaises(gst_source.Timeout):
                follow.next(0)

    def test_refuses_a_track_that_the_buffer_does_not_have(self):
        buffer = self.buffer()
        with self.assertRaisesRegex(gst_source.ArgumentError, f"^{buffer.name}: video 5.0: "):
            gst_source.Follow(buffer.name, "video", 5).next(30)
        for bad in ({"kind": "sound"}, {"start": "now"}, {"channel": -1}, {"owner": -1}):
            with self.assertRaises(gst_source.ArgumentError):
                gst_source.Follow(buffer.name, **bad)
        with self.assertRaises(gst_source.ArgumentError):
            gst_source.Follow("a/b")


if __name__ == "__main__":
    unittest.main()
