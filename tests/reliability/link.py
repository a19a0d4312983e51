#!/usr/bin/env python3
"""A network between a source and its peer: two network namespaces, and a line between them that can be spoilt.

    unshare --net tests/reliability/link.py SOURCE_PID PEER_PID SEED

Run as a program, this is the line: it puts a TUN interface into the namespace of each of the two processes (10.77.0.1 for the source, 10.77.0.2 for
the peer) and carries every packet from one to the other. Lines on standard input tell how; each is answered by "done" on standard output:

    clear            everything passes
    dead             nothing passes, and nothing is answered
    drip BYTES       from the peer to the source so many bytes a second; 16 packets may wait, what comes on top of them is lost
    loss PERCENT     so many of the packets are lost, either way
    duplicate PERCENT  so many arrive twice
    reorder PERCENT  so many come 30 ms late, behind others
    peer PID         the peer is another one from now on: the first one's interface is gone, and with it all that was connected over it

Ends with its input.
"""

import fcntl
import heapq
import os
import random
import select
import struct
import subprocess
import sys
import time
from collections import deque

SOURCE_ADDRESS, PEER_ADDRESS = "10.77.0.1", "10.77.0.2"
QUEUE = 16
LATE = 0.03
TUNSETIFF, IFF_TUN, IFF_NO_PI = 0x400454CA, 1, 0x1000


def interface(pid, address, other):
    """Descriptor of a new interface in the namespace of the process."""
    device = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC)
    request = fcntl.ioctl(device, TUNSETIFF, struct.pack("16sH22x", b"line%d", IFF_TUN | IFF_NO_PI))
    name = request[:16].rstrip(b"\0").decode()
    subprocess.run(["ip", "link", "set", name, "netns", str(pid)], check=True)
    for words in (["addr", "add", address, "peer", other, "dev", name], ["link", "set", name, "up"], ["link", "set", "lo", "up"]):
        subprocess.run(["nsenter", "-t", str(pid), "-n", "--", "ip", *words], check=True)
    return device


class Line:
    def __init__(self, source_pid, peer_pid, seed):
        self.source = interface(source_pid, SOURCE_ADDRESS, PEER_ADDRESS)
        self.peer = interface(peer_pid, PEER_ADDRESS, SOURCE_ADDRESS)
        self.random = random.Random(seed)
        self.what, self.amount = "clear", 0.0
        self.queue, self.next = deque(), 0.0
        self.late, self.number = [], 0

    def command(self, words):
        if words[0] == "peer":
            os.close(self.peer)
            self.peer = interface(int(words[1]), PEER_ADDRESS, SOURCE_ADDRESS)
        else:
            self.what, self.amount = words[0], float(words[1]) if len(words) > 1 else 0.0
        self.late.clear()
        self.queue.clear()

    @staticmethod
    def put(device, packet):
        try:
            os.write(device, packet)
        except OSError:  # its queue is full, or the interface is going: the packet is lost, as on any network
            pass

    def take(self, device, other):
        try:
            packet = os.read(device, 65536)
        except OSError:
            return
        hit = self.random.random() * 100 < self.amount
        if self.what == "dead" or (self.what == "loss" and hit):
            return
        if self.what == "drip" and device == self.peer:
            if not self.queue:
                self.next = time.monotonic()
            if len(self.queue) < QUEUE:
                self.queue.append(packet)
            return
        if self.what == "reorder" and hit:
            self.number += 1
            heapq.heappush(self.late, (time.monotonic() + LATE, self.number, other, packet))
            return
        self.put(other, packet)
        if self.what == "duplicate" and hit:
            self.put(other, packet)

    def release(self):
        """Sends what is due; seconds until the next is, or None."""
        now = time.monotonic()
        while self.late and self.late[0][0] <= now:
            _, _, device, packet = heapq.heappop(self.late)
            self.put(device, packet)
        # A packet arrives when its last byte has passed.
        while self.queue and self.next + len(self.queue[0]) / self.amount <= now:
            packet = self.queue.popleft()
            self.next += len(packet) / self.amount
            self.put(self.source, packet)
        due = [self.late[0][0]] if self.late else []
        if self.queue:
            due.append(self.next + len(self.queue[0]) / self.amount)
        return max(0.0, min(due) - now) if due else None

    def run(self):
        buffered = b""
        while True:
            ready, _, _ = select.select([0, self.source, self.peer], [], [], self.release())
            if 0 in ready:
                got = os.read(0, 4096)
                if not got:
                    return
                *lines, buffered = (buffered + got).split(b"\n")
                for line in lines:
                    self.command(line.decode().split())
                    print("done", flush=True)
                continue
            for device, other in ((self.source, self.peer), (self.peer, self.source)):
                if device in ready:
                    self.take(device, other)


if __name__ == "__main__":
    line_between = Line(int(sys.argv[1]), int(sys.argv[2]), int(sys.argv[3]))
    print("done", flush=True)
    line_between.run()
