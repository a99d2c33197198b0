"""tarvik.can.TarvikBus as python-can sees it: two simulated gateways on one bus."""

import os
import signal
import subprocess
import sys
import time

import can
import pytest

from conftest import wait_until


@pytest.fixture
def buses(sim):
    a = can.Bus(interface="tarvik", channel=sim.host)
    b = can.Bus(interface="tarvik", channel="%s:1" % sim.host)
    yield a, b
    a.shutdown()
    b.shutdown()


def drain(bus):
    while bus.recv(0) is not None:
        pass


def test_entry_point_and_send_recv(buses):
    a, b = buses
    a.send(can.Message(arbitration_id=0x321, data=b"\x11\x22", is_extended_id=False))
    msg = b.recv(timeout=20)
    assert msg is not None
    assert (msg.arbitration_id, bytes(msg.data), msg.is_extended_id) == (0x321, b"\x11\x22", False)
    assert abs(msg.timestamp - time.time()) < 60   # the gateway's clock, set from ours
    assert b.recv(timeout=0.05) is None


def test_extended_remote_and_fd(buses):
    a, b = buses
    a.send(can.Message(arbitration_id=0x12345, is_extended_id=True, is_remote_frame=True, dlc=0))
    a.send(can.Message(arbitration_id=0x10, is_extended_id=False, is_fd=True, data=bytes(range(24))))
    first, second = b.recv(20), b.recv(20)
    assert (first.arbitration_id, first.is_extended_id, first.is_remote_frame) == (0x12345, True, True)
    assert (second.is_fd, bytes(second.data)) == (True, bytes(range(24)))


def test_filters(buses):
    a, b = buses
    b.set_filters([{"can_id": 0x100, "can_mask": 0x7F0, "extended": False}])
    for ident in (0x050, 0x105, 0x200, 0x10F):
        a.send(can.Message(arbitration_id=ident, is_extended_id=False, data=b"\x00"))
    got = [b.recv(20).arbitration_id, b.recv(20).arbitration_id]
    assert got == [0x105, 0x10F]
    assert b.recv(0.1) is None


def test_bitrate_keeps_the_other_settings(sim):
    with can.Bus(interface="tarvik", channel=sim.host, bitrate=250000) as bus:
        settings = bus.client.get_globals()
        assert settings["baudrate"] == 250000
    with can.Bus(interface="tarvik", channel=sim.host, bitrate=500000):
        pass


def test_periodic_send_runs_on_the_gateway_and_stops(buses):
    a, b = buses
    task = a.send_periodic(can.Message(arbitration_id=0x77, data=b"\x01", is_extended_id=False), 0.005)
    count = [0]

    def three():
        msg = b.recv(0.2)
        if msg is not None and msg.arbitration_id == 0x77:
            count[0] += 1
        return count[0] >= 3

    assert wait_until(three, timeout=20, step=0)
    task.stop()
    # Frames sent before stop() may still be on their way; a marker sent after it
    # arrives behind them, and once stop() returned no frame of the task follows it.
    a.send(can.Message(arbitration_id=0x78, data=b"\x02", is_extended_id=False))
    ids = []
    while 0x78 not in ids:
        msg = b.recv(20)
        assert msg is not None
        ids.append(msg.arbitration_id)
    msg = b.recv(0.2)
    assert msg is None or msg.arbitration_id != 0x77


def test_logger_capture_replayed_by_player(sim, tmp_path):
    log = tmp_path / "capture.asc"
    env = dict(os.environ, PYTHONUNBUFFERED="1")
    logger = subprocess.Popen([sys.executable, "-m", "can.logger", "-i", "tarvik", "-c", "%s:1" % sim.host,
                               "-f", str(log)], env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True)
    try:
        # The logger prints its banner once its bus is open.
        banner = ""
        while "Can Logger" not in banner:
            line = logger.stdout.readline()
            assert line, banner
            banner += line
        with can.Bus(interface="tarvik", channel=sim.host) as a, \
                can.Bus(interface="tarvik", channel="%s:1" % sim.host) as witness:
            for i in range(5):
                a.send(can.Message(arbitration_id=0x400 + i, is_extended_id=False, data=bytes([i] * 3)))
            assert [witness.recv(20).arbitration_id for _ in range(5)] == [0x400 + i for i in range(5)]
        # The logger got them at the same moment; its writer flushes only when it stops, so
        # there is nothing to poll: give its loop a moment to take them from its queue.
        time.sleep(1.0)
    finally:
        logger.send_signal(signal.SIGINT)
        out, _ = logger.communicate(timeout=60)
    text = log.read_text()
    for i in range(5):
        assert "%X" % (0x400 + i) in text, out

    with can.Bus(interface="tarvik", channel=sim.host) as listener:
        drain(listener)
        player = subprocess.run([sys.executable, "-m", "can.player", "-i", "tarvik", "-c", "%s:1" % sim.host,
                                 str(log)], env=env, capture_output=True, text=True, timeout=120)
        assert player.returncode == 0, player.stderr
        seen = []
        while True:
            msg = listener.recv(2)
            if msg is None:
                break
            seen.append(msg.arbitration_id)
    assert [ident for ident in seen if 0x400 <= ident < 0x405] == [0x400 + i for i in range(5)]
