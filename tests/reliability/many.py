#!/usr/bin/env python3
"""Sixty-four sources of all protocols at once in one process: opened together, all peers killed at the same moment, all back, all closed.

    tests/reliability/many.py --build build/test

Every source must deliver, and deliver again from a new pipeline once its peer is back (SRT callers from the old one: they call again by themselves). With everything
closed, descriptors, threads and live objects must be back to what they were after one source of each kind had been open.
"""

import sys
import threading
import time

import rig
import verdict

BOUND = 120  # s for all sources; the machine may be busy


def in_parallel(tasks):
    threads = [threading.Thread(target=task, daemon=True) for task in tasks]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()


class Many:
    def __init__(self, build, folder, material):
        # Peer and how many sources it serves; those with `urls` have a location for each.
        served = [(rig.Udp(folder, material, count=16), 16), (rig.SrtCaller(folder, material, count=7), 7), (rig.SrtListener(folder, material), 1),
                  (rig.Rtsp(folder, material, build), 12), (rig.Rtsp(folder, material, build, protocols=rig.RTSP_UDP), 4),
                  (rig.Rtmp(folder, material), 12), (rig.Rtmp(folder, material, secure=True), 4), (rig.Hls(folder, material), 8)]
        self.peers = [peer for peer, _ in served]
        self.locations = [(peer, url) for peer, count in served for url in getattr(peer, "urls", [peer.url] * count)]
        self.host = rig.Host(build, folder, len(self.locations))
        self.failures = []

    def open(self, channels):
        for channel in channels:
            peer, url = self.locations[channel]
            if not self.host.open(channel, url, peer.protocols):
                raise RuntimeError(f"{url}: open was refused")

    def close(self, channels):
        in_parallel([lambda channel=channel: self.host.close(channel) for channel in channels])

    def wait(self, what, condition):
        """Until the condition holds for every open source; seconds that it took."""
        start = time.monotonic()

        def all_do():
            for peer in self.peers:
                peer.tend()
            return all(condition(channel, status) for channel, status in self.host.stats().items())

        if not rig.wait_for(all_do, BOUND, 0.05):
            missing = {self.locations[channel][1]: status for channel, status in self.host.stats().items() if not condition(channel, status)}
            raise RuntimeError(f"{what}: not within {BOUND} s: {missing}")
        return time.monotonic() - start

    def settled(self, threads=0):
        rig.wait_for(lambda: self.host.sample().threads <= threads, 45 if threads else 2, 0.1)
        return self.host.sample(objects=True)

    def run(self):
        in_parallel([peer.start for peer in self.peers])
        # Of SRT the caller, which is the last: the sender to the listeners wants them all.
        first = {url.split(":")[0]: channel for channel, (_, url) in enumerate(self.locations)}.values()
        self.open(first)
        self.wait("one of each", lambda channel, status: status.frames > 0)
        self.close(first)
        before = self.settled()
        self.open(range(len(self.locations)))
        start = self.host.stats()
        opened = self.wait("all open", lambda channel, status: status.frames > start[channel].frames + 50)
        playing = self.host.sample()
        for peer in self.peers:
            peer.kill()
        # Those that notice at once are in their wait; the others have fallen silent.
        self.wait("all silent", self.silence())
        frames = self.host.stats()
        for peer in self.peers:
            peer.start_again()

        def is_back(channel, status):
            new = isinstance(self.locations[channel][0], rig.SrtListener) or status.epoch > frames[channel].epoch
            return status.frames > frames[channel].frames + 25 and new

        back = self.wait("all back", is_back)
        closing = time.monotonic()
        self.close(range(len(self.locations)))
        closing = time.monotonic() - closing
        after = self.settled(before.threads)
        print(f"{len(self.locations)} sources: all delivered after {opened:.1f} s, again {back:.1f} s after the peers' start, closed in {closing:.1f} s")
        print(f"before {before}\nopen   {playing}\nafter  {after}")
        self.failures += [f"{what}: {getattr(before, what)} before, {getattr(after, what)} after" for what in verdict.COUNTS
                          if getattr(after, what) > getattr(before, what)]

    def silence(self):
        """A condition: no frames came between two looks, half a second or more apart."""
        seen = {}

        def silent(channel, status):
            frames, when = seen.setdefault(channel, (status.frames, time.monotonic()))
            if status.frames != frames:
                seen[channel] = status.frames, time.monotonic()
            return status.frames == frames and time.monotonic() - when > 0.5

        return silent


if __name__ == "__main__":
    sys.exit(rig.run_with_one_host(__doc__.splitlines()[0], Many))
