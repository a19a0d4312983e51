"""The programs of docs/python.md run as they stand, beside a host that plays."""

import os
import re
import signal
import subprocess
import sys
import unittest

from support import SOURCE, STREAM, Case, end, eventually, free_udp_url, leftovers, sender, unique_name

import gst_source

PROGRAMS = re.findall(r"^```python\n(.*?)^```$", (SOURCE / "docs/python.md").read_text(), re.M | re.S)
# Who puts frames into a buffer, by what its program has in it.
HOSTS = [program for program in PROGRAMS if ".open(" in program]
WRITERS = [program for program in PROGRAMS if ".writer(" in program]
READERS = [program for program in PROGRAMS if program not in HOSTS + WRITERS]


class Documented(Case):
    def run_program(self, program, name, url="", **options):
        replaced, count = re.subn(r'"(camera|counter)"', f'"{name}"', program)
        self.assertGreater(count, 0, program)
        replaced = re.sub(r'"(rtsp|udp)://[^"]*"', f'"{url}"', replaced)
        return self.program([sys.executable, "-u", "-c", replaced], **options)

    def test_every_program_is_of_a_known_kind(self):
        self.assertEqual((len(HOSTS), len(WRITERS), len(READERS)), (2, 1, 7))

    def test_readers(self):
        name, url, folder = unique_name(), free_udp_url(), self.folder()
        with sender(url), gst_source.Buffer(name) as buffer, buffer.open(url):
            self.assertTrue(eventually(lambda: buffer.stats("video").key_frames > 0 and buffer.stats("audio").frames > 0))
            running = []
            for number, program in enumerate(READERS):
                out = folder / f"{number}"
                with out.open("w") as stdout, out.with_suffix(".err").open("w") as stderr:
                    running.append((program, out, self.run_program(program, name, stdout=stdout, stderr=stderr)))
            for program, out, child in running:
                # The one with a time-out says what the track carries and no more.
                wanted = 1 if "timeout=1.0" in program else 20
                self.assertTrue(
                    eventually(lambda: child.poll() is not None or out.read_text().count("\n") >= wanted), out.read_text()
                )
        for program, out, child in running:
            child.wait(30)
            self.assertEqual(child.returncode, 0, program + out.read_text() + out.with_suffix(".err").read_text())
        said = [out.read_text() for _, out, _ in running]
        self.assertRegex(said[0], r"^\d+ \d+ bytes key 0 lost\n")
        self.assertRegex(said[1], r"^AAC 48000 Hz 2 channels [0-9a-f]+\n")
        self.assertRegex(said[2], r"^\d+ \d+\n")
        self.assertRegex(said[3], r"^\d+ \(240, 320, 3\)\n")
        self.assertRegex(said[4], r"(?s)(?=.*video \d+\n)(?=.*audio \d+\n)")
        self.assertRegex(said[5], r"(?s)(?=.*video \d+\n)(?=.*audio \d+\n)")
        self.assertRegex(said[6], r"(?s)ATTACHED.*\n\d+ \d+\n.*GONE")

    def test_a_host_that_connects(self):
        name, folder = unique_name(), self.folder()
        subprocess.run(
            [
                "ffmpeg",
                "-nostdin",
                "-loglevel",
                "error",
                "-stream_loop",
                "20",
                "-i",
                STREAM,
                "-c",
                "copy",
                folder / "stream.mkv",
            ],
            check=True,
        )
        server = self.program(
            [os.environ["PEERS_RTSP_SERVER"], "--file", folder / "stream.mkv", "--video", "h264", "--audio", "aac"], stdout=-1
        )
        port = re.fullmatch(r"port (\d+)\n", server.stdout.readline())[1]
        out = folder / "out"
        with out.open("w") as stdout:
            child = self.run_program(HOSTS[0], name, f"rtsp://127.0.0.1:{port}/stream", stdout=stdout, stderr=-1)
        self.assertTrue(
            eventually(lambda: re.search(r"^connected H264 320x240 [1-9]\d* frames$", out.read_text(), re.M)), out.read_text()
        )
        child.send_signal(signal.SIGINT)
        self.assertIn("KeyboardInterrupt", child.communicate(timeout=30)[1])
        self.assertEqual(leftovers(name), [])
        end(server)

    def test_a_host_whose_log_goes_elsewhere(self):
        url, folder = free_udp_url(), self.folder()
        with sender(url):
            child = self.run_program(HOSTS[1], unique_name(), url, stdout=-1, stderr=-1, cwd=folder)
            out, err = child.communicate(timeout=60)
        self.assertEqual(child.returncode, 0, err)
        self.assertRegex(out, r"^connected [1-9]\d* frames\n$")
        self.assertIn("[CUDPSource] Open", (folder / "gst-source.log").read_text())

    def test_a_writer(self):
        name = unique_name()
        child = self.run_program(WRITERS[0], name, stderr=-1)
        numbers = []
        for frame, _ in gst_source.Follow(name):
            if frame is not None:
                numbers.append(int.from_bytes(frame.data, "big"))
                self.assertEqual((frame.description.code, frame.clock_pts, frame.key), ("COUNT", frame.pts, True))
            elif numbers:
                break
        _, err = child.communicate(timeout=30)
        self.assertEqual((child.returncode, err), (0, ""))
        self.assertEqual(numbers, list(range(50)))


if __name__ == "__main__":
    unittest.main()
