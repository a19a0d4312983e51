"""The programs that come with the package: a recorder and frame statistics, beside a host that plays."""

import json
import os
import re
import signal
import subprocess
import sys
import unittest
from pathlib import Path

from support import BUILD, SOURCE, LiveCase, eventually, unique_name, write_some

import gst_source
from gst_source import Description

STATISTICS = SOURCE / "examples/frame_statistics.py"


def probe(path):
    """What ffprobe has to say of a file."""
    run = subprocess.run(
        [
            "ffprobe",
            "-v",
            "error",
            "-of",
            "json",
            "-show_entries",
            "stream=codec_name,width,height,sample_rate,channels",
            "-show_entries",
            "packet=stream_index,pts_time,dts_time,flags,size",
            path,
        ],
        stdout=subprocess.PIPE,
        text=True,
        check=True,
    )
    return json.loads(run.stdout)


class Examples(LiveCase):
    def record(self, *arguments, **options):
        return self.program([sys.executable, "-m", "gst_source.record", *map(str, arguments)], stdout=-1, stderr=-1, **options)

    def ended(self, child, result=0):
        out, err = child.communicate(timeout=60)
        self.assertEqual((child.returncode, out), (result, ""), err)
        return err

    def test_recording_plays_in_every_container_with_the_seconds_from_before(self):
        folder = self.folder()
        running = {
            kind: self.record(self.live.name, folder / f"out.{kind}", "--before", 2, "--duration", 3)
            for kind in ("mkv", "mp4", "ts")
        }
        for kind, child in running.items():
            self.assertRegex(
                self.ended(child), rf"^record: .*out\.{kind}: \d+ video frames of H264, \d+ audio frames of AAC\n$"
            )
        for kind in running:
            found = probe(folder / f"out.{kind}")
            video, audio = found["streams"][:2]
            self.assertEqual((video["codec_name"], video["width"], video["height"]), ("h264", 320, 240))
            self.assertEqual((audio["codec_name"], audio["sample_rate"], audio["channels"]), ("aac", "48000", 2))
            for index, per_second in ((0, 25), (1, 46.875)):
                packets = [packet for packet in found["packets"] if packet["stream_index"] == index]
                self.assertAlmostEqual(len(packets), 3 * per_second, delta=3)
                times = [float(packet["pts_time"]) for packet in packets]
                self.assertEqual(times, sorted(times))
                self.assertLess(abs(times[-1] - 3), 0.1)
                self.assertTrue(packets[0]["flags"].startswith("K") or kind == "ts", packets[0])
            self.assertGreaterEqual(
                sum(packet["flags"].startswith("K") for packet in found["packets"] if packet["stream_index"] == 0), 6
            )
            # Every picture can be decoded.
            decoded = subprocess.run(
                ["ffmpeg", "-nostdin", "-v", "error", "-i", folder / f"out.{kind}", "-map", "0:v", "-f", "null", "-"],
                capture_output=True,
                text=True,
                check=True,
            )
            self.assertEqual(decoded.stderr, "")

    def test_recording_of_pictures_out_of_order_and_audio_of_other_codecs(self):
        """B frames, and what the buffer's own writer puts beside them."""
        import av

        for name, code in (("tone.mp3", "MP3"), ("tone.ac3", "AC3"), ("tone.mp2", "MP2")):
            with self.buffer() as buffer:
                video, audio = buffer.writer(), buffer.writer("audio")
                path = self.folder() / "out.mkv"
                with av.open(str(BUILD / "tests/opengop.h265"), format="hevc") as pictures:
                    video.describe(
                        Description(
                            "H265",
                            format="byte-stream",
                            width=320,
                            height=240,
                            codec_data=pictures.streams[0].codec_context.extradata,
                        )
                    )
                    packets = [packet for packet in pictures.demux() if packet.size]
                with av.open(str(BUILD / "tests" / name), format=name[-3:].replace("mp2", "mp3")) as sound:
                    audio.describe(Description(code, sample_rate=48000, channels=2))
                    sounds = [bytes(packet) for packet in sound.demux() if packet.size]
                for writer in (video, audio):
                    writer.set_clock(1_000_000_000)
                child = self.record(buffer.name, path, "--before", 60)
                for number, packet in enumerate(packets):
                    video.write(
                        bytes(packet), pts=number * 20_000_000 + 40_000_000, dts=number * 20_000_000, key=packet.is_keyframe
                    )
                for number, data in enumerate(sounds):
                    audio.write(data, pts=number * 24_000_000 + 40_000_000, key=True)
                self.assertTrue(eventually(path.exists))
            self.assertRegex(
                self.ended(child), rf"{len(packets)} video frames of H265, {len(sounds)} audio frames of {code}\n$"
            )
            codecs = [stream["codec_name"] for stream in probe(path)["streams"]]
            self.assertEqual(codecs, ["hevc", code.lower()])

    def test_recording_ends_by_a_signal_with_a_whole_file(self):
        folder = self.folder()
        for number in (signal.SIGINT, signal.SIGTERM):
            path = folder / f"{number}.ts"
            child = self.record(self.live.name, path)
            self.assertTrue(eventually(lambda: path.exists() and path.stat().st_size > 0))
            child.send_signal(number)
            self.assertIn("video frames of H264", self.ended(child))
            self.assertGreater(len(probe(path)["packets"]), 0)

    def test_recording_ends_when_the_stream_changes(self):
        with self.buffer() as buffer:
            buffer.set_presence("absent", "video")
            writer = buffer.writer("audio")
            raw = (BUILD / "tests/tone.ac3").read_bytes()
            frames = [raw[begin : begin + 768] for begin in range(0, 768 * 20, 768)]
            path = self.folder() / "out.mkv"
            for rate in (48000, 44100):
                writer.describe(Description("AC3", sample_rate=rate, channels=6))
                for data in frames:
                    writer.write(data, key=True)
            err = self.ended(self.record(buffer.name, path, "--before", 60))
            self.assertIn("audio: the stream has changed; the file ends here\n", err)
            self.assertRegex(err, "20 audio frames of AC3\n$")
            self.assertEqual(len(probe(path)["packets"]), 20)

    def test_recording_that_ends_while_a_track_is_waited_for_has_the_other(self):
        raw = (BUILD / "tests/tone.ac3").read_bytes()
        path = self.folder() / "out.mkv"
        with self.buffer() as buffer:
            writer = buffer.writer("audio")
            writer.describe(Description("AC3", sample_rate=48000, channels=6))
            for begin in range(0, 768 * 20, 768):
                writer.write(raw[begin : begin + 768])
            child = self.record(buffer.name, path, "--before", 60)
            # It has the buffer open once the file is among those that it has mapped.
            maps = Path(f"/proc/{child.pid}/maps")
            self.assertTrue(eventually(lambda: buffer.name in maps.read_text()))
        self.assertRegex(self.ended(child), "20 audio frames of AC3\n$")
        self.assertEqual(len(probe(path)["packets"]), 20)

    def test_recording_says_what_is_wrong_in_one_line(self):
        folder = self.folder()
        for wrong in ("0", "-1", "nan", "inf", "soon"):
            err = self.ended(self.record("any", folder / "out.mkv", f"--duration={wrong}"), 2)
            self.assertRegex(err, f"\ngst_source.record: error: argument --duration: [^\n]*{wrong}[^\n]*\n$")
        name = unique_name()
        self.assertEqual(self.ended(self.record(name, folder / "out.mkv"), 1), f"record: {name}: not found\n")
        with self.buffer() as buffer:
            writer = buffer.writer()
            self.assertIn("video and audio 3.0", self.ended(self.record(buffer.name, folder / "out.mkv", "--channel", 3), 1))
            writer.describe(Description("THEORA", width=320))
            write_some(writer, 5)
            buffer.set_presence("absent", "audio")
            self.assertEqual(
                self.ended(self.record(buffer.name, folder / "out.mkv"), 1), "record: video: THEORA  cannot be recorded\n"
            )
            writer.describe(Description("H264", format="byte-stream", width=320))
            write_some(writer, 5)
            err = self.ended(self.record(buffer.name, folder / "out.mkv"), 1)
            self.assertRegex(err, r"^record: .*out\.mkv: [^\n]*\n$")
            err = self.ended(self.record(buffer.name, folder / "none" / "out.mkv"), 1)
            self.assertEqual(err.count("\n"), 1)
        # Nothing half-made is left.
        self.assertEqual(list(folder.iterdir()), [])
        with self.buffer() as buffer:
            child = self.record(buffer.name, folder / "none.mkv")
            buffer.close()
            self.assertRegex(self.ended(child, 1), "^record: (nothing was recorded|.*: not found)\n$")
        self.assertEqual(list(folder.iterdir()), [])

    def test_recording_names_the_package_that_is_missing(self):
        folder = self.folder()
        (folder / "av.py").write_text("raise ImportError")
        child = self.record(
            "any", "out.mkv", env={**os.environ, "PYTHONPATH": f"{folder}:{Path(gst_source.__file__).parents[1]}"}
        )
        self.assertEqual(self.ended(child, 1), "record: PyAV is missing; on Debian: apt-get install python3-av\n")

    def statistics(self, *arguments, stdout=-1):
        return self.program([sys.executable, "-u", str(STATISTICS), *map(str, arguments)], stdout=stdout, stderr=-1)

    def test_statistics_are_right(self):
        with self.buffer() as buffer:
            writer = buffer.writer()
            writer.describe(Description("H264", width=320, height=240))
            # It begins with the next frame to come, and says what the track carries with the first.
            out = self.folder() / "out"
            with out.open("w") as stdout:
                child = self.statistics(buffer.name, "--interval", 600, stdout=stdout)
            self.assertTrue(eventually(lambda: (writer.write(b"x" * 500), "width=320" in out.read_text())[1]))
            write_some(writer, 21, size=1000, every=10)
            writer.write(b"x" * 2000)
        _, err = child.communicate(timeout=30)
        self.assertEqual((child.returncode, err), (0, ""))
        self.assertRegex(
            out.read_text().splitlines()[-1],
            r"^whole: \d+ frames  rate [\d.]+/s \d+ kb/s  size 500/\d+/2000  gop 10\.0  "
            r"jitter [\d.]+ ms  lost 0  left out 0$",
        )

    def test_statistics_of_a_real_stream(self):
        video = self.statistics(self.live.name, "--duration", 3)
        audio = self.statistics(self.live.name, "audio", "--interval", 0.5)
        out, _ = video.communicate(timeout=30)
        self.assertEqual(video.returncode, 0)
        found = re.search(r"whole: (\d+) frames  rate ([\d.]+)/s .* gop 1\d\.\d  jitter ([\d.]+) ms  lost 0", out)
        self.assertIsNotNone(found, out)
        self.assertAlmostEqual(float(found[2]), 25, delta=5)
        audio.send_signal(signal.SIGINT)
        out, err = audio.communicate(timeout=30)
        self.assertEqual((audio.returncode, err), (0, ""))
        self.assertGreater(out.count("frames  rate"), 3)

    def test_statistics_say_what_is_wrong_in_one_line(self):
        name = unique_name()
        for option in ("--interval", "--duration"):
            for wrong in ("0", "-1", "nan"):
                child = self.statistics(name, f"{option}={wrong}")
                _, err = child.communicate(timeout=30)
                self.assertEqual(child.returncode, 2)
                self.assertIn(f"error: argument {option}: {wrong} is not a number of seconds above 0\n", err)
        child = self.statistics(name)
        self.assertEqual((child.communicate(timeout=30), child.returncode), (("", f"{name}: not found\n"), 1))


if __name__ == "__main__":
    unittest.main()
