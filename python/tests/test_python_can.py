"""tarvik.can.TarvikBus as python-can sees it: two simulated gateways on one bus."""

import os
import signal
import subprocess
import sys
import time

import can
import pytest
import tarvik

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


def test_extended_remote_and_fd(sim, buses):
    a, b = buses
    a.send(can.Message(arbitration_id=0x12345, is_extended_id=True, is_remote_frame=True, dlc=5))
    a.send(can.Message(arbitration_id=0x10, is_extended_id=False, is_fd=True, data=bytes(range(24))))
    first, second = b.recv(20), b.recv(20)
    assert (first.arbitration_id, first.is_extended_id, first.is_remote_frame) == (0x12345, True, True)
    assert (first.dlc, bytes(first.data)) == (5, b"")   # the requested length, no data
    assert (second.is_fd, bytes(second.data)) == (True, bytes(range(24)))
    assert (b.channel_info, first.channel) == ("tarvik:%s:1" % sim.host,) * 2   # no blanks: logs carry it


@pytest.mark.parametrize("channel", ["nonsense", "host:x", "[::1", "127.0.0.1:1:2:x", "a b"])
def test_a_malformed_channel_names_the_form(channel):
    with pytest.raises(ValueError) as caught:
        can.Bus(interface="tarvik", channel=channel)
    assert "host[:index]" in str(caught.value)


def test_canopen_mode_is_said_to_hide_the_frames(sim):
    with tarvik.CAN(sim.host, 0, 5000) as gateway:
        gateway.canopen_set_config(1)
        try:
            with pytest.warns(RuntimeWarning, match="CANopen mode is on"):
                can.Bus(interface="tarvik", channel=sim.host).shutdown()
        finally:
            gateway.canopen_set_config(0)


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


def replayed(listener, idents):
    """The identifiers in idents that listener receives, in order, until it stays quiet."""
    seen = []
    while True:
        msg = listener.recv(2)
        if msg is None:
            return seen
        if msg.arbitration_id in idents:
            seen.append((msg.arbitration_id, msg.is_remote_frame, bytes(msg.data)))


def test_logger_capture_replays_with_can_player_and_tarvik_can_play(sim, tmp_path):
    log = tmp_path / "capture.log"
    env = dict(os.environ, PYTHONUNBUFFERED="1")
    # python-can's logger as it is, except that its log writer flushes every line: the
    # file then shows when the logger has taken every frame, and it can be stopped.
    flushing = ("import can.io.canutils as u, can.logger\n"
                "write = u.CanutilsLogWriter.on_message_received\n"
                "def flushed(self, msg):\n"
                "    write(self, msg)\n"
                "    self.file.flush()\n"
                "u.CanutilsLogWriter.on_message_received = flushed\n"
                "can.logger.main()\n")
    logger = subprocess.Popen([sys.executable, "-c", flushing, "-i", "tarvik", "-c", "%s:1" % sim.host,
                               "-f", str(log)], env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True)
    sent = [(0x400 + i, False, bytes([i] * 3)) for i in range(4)] + [(0x404, True, b"")]
    try:
        # The logger prints its banner once its bus is open.
        banner = ""
        while "Can Logger" not in banner:
            line = logger.stdout.readline()
            assert line, banner
            banner += line
        with can.Bus(interface="tarvik", channel=sim.host) as a, \
                can.Bus(interface="tarvik", channel="%s:1" % sim.host) as witness:
            for ident, remote, data in sent:
                a.send(can.Message(arbitration_id=ident, is_extended_id=False, is_remote_frame=remote,
                                   dlc=2 if remote else len(data), data=None if remote else data))
            assert [witness.recv(20).arbitration_id for _ in sent] == [ident for ident, _, _ in sent]
        assert wait_until(lambda: log.exists() and log.read_text().count("\n") >= len(sent), timeout=20)
    finally:
        logger.send_signal(signal.SIGINT)
        out, _ = logger.communicate(timeout=60)
    lines = log.read_text().splitlines()
    assert len(lines) == len(sent), out
    # "(time) channel frame R": a channel without blanks, so that readers split it right.
    assert all(len(line.split()) == 4 and line.split()[1].startswith("tarvik:") for line in lines), lines
    # A bus error as candump logs it: players skip it.
    log.write_text("\n".join(lines[:2] + ["(%s) tarvik0 20000080#0000000000000000" % lines[1][1:18]] + lines[2:]) + "\n")

    idents = {ident for ident, _, _ in sent}
    with can.Bus(interface="tarvik", channel=sim.host) as listener:
        drain(listener)
        player = subprocess.run([sys.executable, "-m", "can.player", "-i", "tarvik", "-c", "%s:1" % sim.host,
                                 str(log)], env=env, capture_output=True, text=True, timeout=120)
        assert player.returncode == 0, player.stderr
        assert replayed(listener, idents) == sent

        cli = os.environ.get("TARVIK_CLI")
        if cli:
            play = subprocess.run([cli, "--host", sim.host, "--port-index", "1", "can", "play", str(log)],
                                  capture_output=True, text=True, timeout=120)
            assert (play.returncode, play.stdout) == (0, "sent %d frames\n" % len(sent)), play.stderr
            assert play.stderr.count("skipped 1 error frame") == 1, play.stderr
            assert replayed(listener, idents) == sent
