#!/usr/bin/env python3
"""A small RTMP server that plays one FLV file to each caller, the first ones damaged.

rtmp-hostile.py FILE DAMAGE CALLERS: the first CALLERS sessions get the file with DAMAGE (see below), in about a third of its own time, and are then
ended; later ones get it as it is, in its own time. Prints "port N" when it listens and "session N" for each caller that plays. The seed is fixed.
"""

import random
import socket
import struct
import sys
import threading
import time

CHUNK = 4096


class Gone(Exception):
    """The caller has left."""


def tags(path):
    """(type, time stamp, payload) of each FLV tag."""
    with open(path, 'rb') as file:
        data = file.read()
    at = struct.unpack('>I', data[5:9])[0] + 4
    while at + 11 <= len(data):
        size = int.from_bytes(data[at + 1:at + 4], 'big')
        stamp = int.from_bytes(data[at + 4:at + 7], 'big') | data[at + 7] << 24
        yield data[at], stamp, data[at + 11:at + 11 + size]
        at += 11 + size + 4


def flip(payload, dice, rate, start=0):
    payload = bytearray(payload)
    for at in range(start, len(payload)):
        if dice.random() < rate:
            payload[at] ^= 1 << dice.randrange(8)
    return bytes(payload)


def amf(*values):
    out = b''
    for value in values:
        if isinstance(value, str):
            out += b'\2' + struct.pack('>H', len(value)) + value.encode()
        elif isinstance(value, dict):
            out += b'\3'
            for key, item in value.items():
                out += struct.pack('>H', len(key)) + key.encode() + amf(item)
            out += b'\0\0\x09'
        elif value is None:
            out += b'\5'
        else:
            out += b'\0' + struct.pack('>d', value)
    return out


def lying_script(dice):
    """An onMetaData whose lengths, types and values promise what is not there."""
    metadata = b'\2\0\x0aonMetaData' + b'\x08\xff\xff\xff\xff'
    for key in (b'duration', b'width', b'height', b'framerate', b'keyframes', b'videocodecid'):
        value = dice.choice((b'\0' + struct.pack('>d', dice.choice((float('nan'), float('inf'), -1e308, 1e308, 0.0))),
                             b'\x0a\xff\xff\xff\xff', b'\2\xff\xff', b'\3\0\5times\x0a\x7f\xff\xff\xff' + b'\0' * 20, b'\x0c\xff\xff\xff\xff',
                             dice.randbytes(9)))
        metadata += struct.pack('>H', len(key)) + key + value
    return metadata


def damaged(path, damage):
    """The tags as they go out."""
    dice = random.Random(damage)
    for kind, stamp, payload in tags(path):
        if damage == 'bit_errors':
            yield kind, stamp, flip(payload, dice, 0.01)
        elif damage == 'truncated':
            yield kind, stamp, payload[:dice.randrange(len(payload) + 1)] if dice.random() < 0.3 else payload
        elif damage == 'empty_and_huge':
            yield kind, stamp, payload
            yield dice.choice((8, 9, 18)), stamp, b''
            yield dice.choice((8, 9)), stamp, payload[:1 + dice.randrange(5)]
            if dice.random() < 0.01:
                yield 9, stamp, b'\x17\1\0\0\0' + dice.randbytes(1000000)
        elif damage == 'times_that_jump':
            yield kind, dice.choice((stamp, stamp, stamp, 0, 0xffffffff, 0x7fffffff, dice.randrange(1 << 32))), payload
        elif damage == 'codecs_that_change':
            first = dice.randrange(256) if dice.random() < 0.3 else payload[0]
            yield kind, stamp, bytes([first]) + payload[1:]
        elif damage == 'headers_that_lie':
            # Sequence headers for H.264 and AAC with noise in them, between good frames.
            yield kind, stamp, payload
            if kind == 9 and dice.random() < 0.2:
                yield 9, stamp, b'\x17\0\0\0\0' + dice.choice((dice.randbytes(dice.randrange(60)), b'\1\x64\0\x1f\xff\xff\xff\xff' + dice.randbytes(9)))
            if kind == 8 and dice.random() < 0.2:
                yield 8, stamp, b'\xaf\0' + dice.randbytes(dice.randrange(5))
        elif damage == 'scripts_that_lie':
            yield 18, stamp, lying_script(dice)
            yield kind, stamp, payload
        elif damage == 'noise':
            yield dice.choice((8, 9, 18, 22)), stamp, dice.randbytes(dice.randrange(2000))
        else:
            yield kind, stamp, payload


class Session:
    def __init__(self, connection):
        self.connection = connection
        self.chunk_in = 128
        self.streams = {}

    def read(self, size):
        data = b''
        while len(data) < size:
            got = self.connection.recv(size - len(data))
            if not got:
                raise Gone
            data += got
        return data

    def send(self, kind, payload, stamp=0, stream=0, channel=3):
        short = min(stamp, 0xffffff)
        extended = struct.pack('>I', stamp) if short == 0xffffff else b''
        out = bytes([channel]) + short.to_bytes(3, 'big') + len(payload).to_bytes(3, 'big') + bytes([kind]) + struct.pack('<I', stream) + extended
        out += payload[:CHUNK]
        for at in range(CHUNK, len(payload), CHUNK):
            out += bytes([0xc0 | channel]) + extended + payload[at:at + CHUNK]
        return out

    def message(self):
        """Type and payload of the next message of the caller."""
        while True:
            first = self.read(1)[0]
            channel = first & 63
            if channel == 0:
                channel = 64 + self.read(1)[0]
            header = self.read((11, 7, 3, 0)[first >> 6])
            stream = self.streams.setdefault(channel, {'kind': 0, 'size': 0, 'stamp': 0, 'data': b''})
            if len(header) >= 3:
                stream['stamp'] = int.from_bytes(header[:3], 'big')
            if len(header) >= 7:
                stream['size'] = int.from_bytes(header[3:6], 'big')
                stream['kind'] = header[6]
            if stream['stamp'] == 0xffffff:
                self.read(4)
            stream['data'] += self.read(min(self.chunk_in, stream['size'] - len(stream['data'])))
            if len(stream['data']) == stream['size']:
                data, stream['data'] = stream['data'], b''
                if stream['kind'] == 1:
                    self.chunk_in = struct.unpack('>I', data[:4])[0]
                return stream['kind'], data

    def begin(self):
        """Everything up to the caller's play command."""
        self.read(1)
        hello = self.read(1536)
        self.connection.sendall(b'\3' + bytes(1536) + hello)
        self.read(1536)
        self.connection.sendall(self.send(5, struct.pack('>I', 2500000), channel=2) + self.send(1, struct.pack('>I', CHUNK), channel=2))
        while True:
            kind, data = self.message()
            if kind != 20 or data[:1] != b'\2':
                continue
            length = struct.unpack('>H', data[1:3])[0]
            name = data[3:3 + length].decode()
            number = struct.unpack('>d', data[4 + length:12 + length])[0]
            if name == 'connect':
                told = {'level': 'status', 'code': 'NetConnection.Connect.Success', 'description': ''}
                self.connection.sendall(self.send(20, amf('_result', number, {'fmsVer': 'FMS/3,0,1,123'}, told)))
            elif name == 'createStream':
                self.connection.sendall(self.send(20, amf('_result', number, None, 1.0)))
            elif name == 'play':
                self.connection.sendall(self.send(4, b'\0\0\0\0\0\1', channel=2))
                told = {'level': 'status', 'code': 'NetStream.Play.Start', 'description': ''}
                self.connection.sendall(self.send(20, amf('onStatus', 0, None, told), stream=1, channel=5))
                return

    def drain(self):
        """Takes what the caller says while it is played to."""
        try:
            while self.connection.recv(65536):
                pass
        except OSError:
            pass

    def play(self, path, damage):
        threading.Thread(target=self.drain, daemon=True).start()
        source = damaged(path, damage) if damage else tags(path)
        dice = random.Random('chunks')
        pace = 3 if damage else 1
        begun = time.monotonic()
        for (kind, stamp, payload), (_, due, _) in zip(source, repeating_clock(path, damage)):
            ahead = due / 1000 / pace - (time.monotonic() - begun)
            if ahead > 0:
                time.sleep(ahead)  # a sender's own pace
            if damage and due > 6000:
                return
            out = self.send(kind, payload, stamp, 1, 4 if kind == 8 else 6)
            if damage == 'broken_chunks' and due > 1000:
                out = flip(out, dice, 0.001)
            self.connection.sendall(out)


def repeating_clock(path, damage):
    """Tags whose stamps tell when each outgoing tag is due; damage may make several of one."""
    for tag in tags(path):
        copies = {'empty_and_huge': 3, 'scripts_that_lie': 2, 'headers_that_lie': 1}.get(damage, 1)
        for _ in range(copies):
            yield tag


def serve(number, connection, path, damage):
    session = Session(connection)
    try:
        session.begin()
        print('session', number, flush=True)
        session.play(path, damage)
    except (Gone, OSError):
        pass
    finally:
        connection.close()


def main():
    path, damage, callers = sys.argv[1], sys.argv[2], int(sys.argv[3])
    with socket.create_server(('127.0.0.1', 0)) as listener:
        print('port', listener.getsockname()[1], flush=True)
        number = 0
        while True:
            connection, _ = listener.accept()
            number += 1
            threading.Thread(target=serve, args=(number, connection, path, damage if number <= callers else ''), daemon=True).start()


main()
