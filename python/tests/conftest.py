"""Fixtures: a tarvik-sim process per test module on a loopback address of its own."""

import os
import random
import signal
import subprocess
import sys
import time

import pytest

SIM = os.environ.get("TARVIK_SIM", "tarvik-sim")
START_TIMEOUT = 30.0


class SimProcess:
    """tarvik-sim listening on its own 127.x.y.z, so that the standard ports are free."""

    def __init__(self, devices, extra=()):
        self.host = "127.%d.%d.%d" % (random.randint(1, 254), random.randint(0, 255), random.randint(2, 254))
        self.args = [SIM, "--host", self.host, "--devices", devices] + list(extra)
        self.proc = subprocess.Popen(self.args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.listening = []
        expected = sum(int(d.split(":")[1]) if ":" in d else 1 for d in devices.split(","))
        deadline = time.monotonic() + START_TIMEOUT
        while len(self.listening) < expected:
            line = self.proc.stdout.readline()
            if not line:
                err = self.proc.stderr.read()
                raise RuntimeError("tarvik-sim ended: %s %s" % (self.args, err))
            if "listening on" in line:
                self.listening.append(line.strip())
            if time.monotonic() > deadline:
                self.stop()
                raise RuntimeError("tarvik-sim did not start: %s" % self.args)

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(timeout=30)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.proc.stdout.close()
        self.proc.stderr.close()


def start_sim(devices, extra=()):
    """Starts a simulator, trying another address if the first one happens to be taken."""
    last = None
    for _ in range(5):
        try:
            return SimProcess(devices, extra)
        except RuntimeError as error:
            last = error
    raise last


@pytest.fixture(scope="module")
def sim():
    """Every model once, no CANopen nodes on the bus unless a test asks for them."""
    proc = start_sim("can:2,spi,i2c,dio,ad,renesas,firmware,awire,tsio,tspwr,tscom,tsrelay", ["--can-nodes", ""])
    yield proc
    proc.stop()


@pytest.fixture(scope="module")
def canopen_sim():
    proc = start_sim("can", ["--can-nodes", "2,3"])
    yield proc
    proc.stop()


def wait_until(condition, timeout=20.0, step=0.01):
    """Polls condition until it is true or the time is up; returns its last value."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value or time.monotonic() > deadline:
            return value
        time.sleep(step)
