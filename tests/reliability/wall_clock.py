#!/usr/bin/env python3
"""The wall clock steps back and forth under a host that plays: nothing may depend on it.

    tests/reliability/wall_clock.py --build build/test

A source of each protocol plays in one process, whose wall clock (not its monotonic one) is moved by libfaketime: an hour forth, a day back, ten years
forth, and right again. At each step the frames must go on without a pause, with no rebuild, and the stall watch of 3 s must keep quiet. Then
all peers are killed; the clock steps in the midst of the wait that follows, and all sources have to be back. Then all is closed, an hour
earlier than it was opened.
"""

import glob
import sys
import time

import rig

STEPS = ["+3600", "-86400", "+315360000", "+0"]  # s against the true time
PAUSE_BOUND = 2.5  # s; segments of HLS are one second long
STEADY = 4  # s that are looked at after each step
LOOK = 0.1  # s that one look takes at most
BOUND = 60  # s for what takes its time
STALL_WATCH_MS = 3000


class Clock:
    """The wall clock of the processes that are started with `environment`."""

    def __init__(self, folder):
        self.file = folder / "clock"
        self.set("+0")
        found = glob.glob("/usr/lib/*/faketime/libfaketimeMT.so.1")
        if not found:
            raise RuntimeError("no libfaketimeMT (Debian package libfaketime)")
        self.environment = {"LD_PRELOAD": found[0], "FAKETIME_TIMESTAMP_FILE": str(self.file), "FAKETIME_NO_CACHE": "1",
                            "FAKETIME_DONT_FAKE_MONOTONIC": "1", "DONT_FAKE_MONOTONIC": "1"}

    def set(self, offset):
        new = self.file.with_suffix(".new")
        new.write_text(offset + "\n")
        new.replace(self.file)


def stamp(log):
    """The year and hour that the host's last line of log says."""
    lines = [line for line in log.read_text(errors="replace").splitlines() if line.startswith("[2")]
    return lines[-1][1:14] if lines else ""


class Run:
    def __init__(self, build, folder, material):
        self.clock = Clock(folder)
        self.peers = [rig.Udp(folder, material), rig.SrtListener(folder, material), rig.SrtCaller(folder, material), rig.Rtsp(folder, material, build),
                      rig.Rtsp(folder, material, build, protocols=rig.RTSP_UDP), rig.Rtmp(folder, material), rig.Rtmp(folder, material, secure=True),
                      rig.Hls(folder, material)]
        self.host = rig.Host(build, folder, len(self.peers), STALL_WATCH_MS, environment=self.clock.environment)
        self.failures = []

    def wait(self, what, condition):
        def all_do():
            for peer in self.peers:
                peer.tend()
            return all(condition(channel, status) for channel, status in self.host.stats().items())

        if not rig.wait_for(all_do, BOUND, 0.05):
            raise RuntimeError(f"{what}: not within {BOUND} s: {self.host.stats()}")

    def flow(self, offset):
        """The longest pause of any source while the clock stands at `offset`."""
        before = after = self.host.stats()
        self.clock.set(offset)
        last = {channel: (status.frames, 0.0) for channel, status in before.items()}
        # A look counts for no more than it takes, so that a machine that stands still makes no pause.
        longest, spent, begun = 0.0, 0.0, time.monotonic()
        while spent < STEADY:
            time.sleep(0.02)
            after = self.host.stats()
            now = time.monotonic()
            spent, begun = spent + min(now - begun, LOOK), now
            for channel, status in after.items():
                longest = max(longest, spent - last[channel][1])
                if status.frames != last[channel][0]:
                    last[channel] = status.frames, spent
        rebuilt = [self.peers[channel].url for channel in before if (after[channel].epoch, after[channel].rebuilds) != (before[channel].epoch, before[channel].rebuilds)]
        print(f"clock {offset} s: longest pause {longest:.2f} s, rebuilt: {rebuilt or 'none'}")
        if longest > PAUSE_BOUND or rebuilt:
            raise RuntimeError(f"the step to {offset} s was noticed")

    def run(self):
        for peer in self.peers:
            peer.start()
        for channel, peer in enumerate(self.peers):
            if not self.host.open(channel, peer.url, peer.protocols):
                raise RuntimeError(f"{peer.url}: open was refused")
        self.wait("playing", lambda channel, status: status.frames > 50)
        for offset in STEPS:
            self.flow(offset)
        frames = self.host.stats()
        for peer in self.peers:
            peer.kill()
        # SRT as a caller calls again by itself; the stall watch then makes it a session that has ended.
        self.wait("noticed", lambda channel, status: status.state == "reconnect" or status.rebuilds > frames[channel].rebuilds)
        told = stamp(self.host.log)
        self.clock.set("-3600")
        for peer in self.peers:
            peer.start_again()
        self.wait("back", lambda channel, status: status.frames > frames[channel].frames + 25 and status.epoch > frames[channel].epoch)
        # The clock has been what this program says it was.
        if not told or stamp(self.host.log) >= told:
            raise RuntimeError(f"the host's clock did not go back: {told}, then {stamp(self.host.log)}")
        longest = max(self.host.close(channel) for channel in range(len(self.peers)))
        print(f"all back; longest close {longest:.2f} s")


if __name__ == "__main__":
    sys.exit(rig.run_with_one_host(__doc__.splitlines()[0], Run))
