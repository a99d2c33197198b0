#!/usr/bin/env python3
"""Frames per second received through tarvik.can.TarvikBus.recv (and tarvik.CAN.get_message, get_messages).

A gateway stand-in on a loopback address answers every request with result 0 and, when
told, floods the connection with 0x203 CAN frame indications (8 data bytes each).

    PYTHONPATH=BUILD/python python3 bench/bench_python_recv.py [FRAMES]
"""

import random
import socket
import struct
import sys
import threading
import time

import can  # noqa: F401  (python-can must be there for the bus)

import tarvik
from tarvik.can import TarvikBus

CHUNK = 256


def telegram(cmd, msg_id, data):
    head = struct.pack("<Hh", cmd, msg_id)
    check = 0
    for byte in head + data:
        check ^= byte
    return struct.pack("<H", len(data) + 5) + head + data + bytes([check])


class FloodGateway:
    def __init__(self, frames):
        self.host = "127.%d.%d.%d" % (random.randint(1, 254), random.randint(0, 255), random.randint(2, 254))
        self.listener = socket.create_server((self.host, 5001))
        self.frames = frames
        self.flood = threading.Event()
        self.lock = threading.Lock()
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while True:
            conn, _ = self.listener.accept()
            threading.Thread(target=self._answer, args=(conn,), daemon=True).start()
            threading.Thread(target=self._flood, args=(conn,), daemon=True).start()

    def _answer(self, conn):
        buf = b""
        while True:
            data = conn.recv(65536)
            if not data:
                return
            buf += data
            while len(buf) >= 2 and len(buf) >= 2 + struct.unpack_from("<H", buf)[0]:
                size = 2 + struct.unpack_from("<H", buf)[0]
                cmd, msg_id = struct.unpack_from("<Hh", buf, 2)
                buf = buf[size:]
                with self.lock:
                    conn.sendall(telegram(cmd | 0x8000, msg_id, b"\x00"))

    def _flood(self, conn):
        self.flood.wait()
        chunk = b"".join(telegram(0x0203, 0, struct.pack("<IB", i & 0x7FF, 0) + struct.pack("<Q", i))
                         for i in range(CHUNK))
        try:
            for _ in range(self.frames // CHUNK):
                with self.lock:
                    conn.sendall(chunk)
        except OSError:
            pass


def measure(frames, receive):
    start = time.perf_counter()
    got = 0
    while got < frames and receive():
        got += 1
    return got, time.perf_counter() - start


def main():
    frames = int(sys.argv[1]) if len(sys.argv) > 1 else 200000
    frames -= frames % CHUNK

    gateway = FloodGateway(frames)
    bus = TarvikBus("%s:0" % gateway.host, queue_size=frames, gateway_timestamps=False)
    gateway.flood.set()
    got, seconds = measure(frames, lambda: bus.recv(5.0) is not None)
    bus.shutdown()
    print("python TarvikBus.recv: %d frames/s (%d frames)" % (got / seconds, got))

    gateway = FloodGateway(frames)
    client = tarvik.CAN(gateway.host, 0, 5000, queue_size=frames)
    client.connect()
    gateway.flood.set()
    got, seconds = measure(frames, lambda: client.get_message(5.0) is not None)
    client.close()
    print("python CAN.get_message: %d frames/s (%d frames)" % (got / seconds, got))

    gateway = FloodGateway(frames)
    client = tarvik.CAN(gateway.host, 0, 5000, queue_size=frames)
    client.connect()
    gateway.flood.set()
    start = time.perf_counter()
    got = 0
    while got < frames:
        batch = client.get_messages(CHUNK, 5.0)
        if not batch:
            break
        got += len(batch)
    seconds = time.perf_counter() - start
    client.close()
    print("python CAN.get_messages: %d frames/s (%d frames)" % (got / seconds, got))


if __name__ == "__main__":
    main()
