"""tarvik.CAN against two simulated gateways on one bus: queue, callbacks, CANopen."""

import threading

import pytest

import tarvik
from conftest import wait_until


@pytest.fixture
def pair(sim):
    with tarvik.CAN(sim.host, 0, 5000) as a, tarvik.CAN(sim.host, 1, 5000, queue_size=100) as b:
        a.set_config(True, False)
        yield a, b


def test_frame_round_trip_through_the_queue(pair):
    a, b = pair
    sec, usec = a.write(0x123, b"\x01\x02\x03")
    assert isinstance(sec, int) and 0 <= usec < 1000000
    assert b.get_message(timeout=20) == (0x123, b"\x01\x02\x03", 0, 0, 0)
    assert b.get_message() is None


def test_extended_fd_frame_keeps_its_flags(pair):
    a, b = pair
    a.write(0x1ABCDEF, bytes(range(48)), tarvik.CAN_FLAG_EXTENDED | tarvik.CAN_FLAG_FD)
    ident, data, flags, _, _ = b.get_message(timeout=20)
    assert (ident, data, flags) == (0x1ABCDEF, bytes(range(48)), 0x09)


def test_gateway_time_stamp_when_asked_for(pair):
    a, b = pair
    b.set_config(False, True)
    b.set_time(1000, 0)
    a.write(0x55, b"x")
    ident, data, flags, sec, usec = b.get_message(timeout=20)
    assert flags & tarvik.CAN_FLAG_TIMESTAMP and data == b"x"
    assert sec >= 1000


@pytest.mark.filterwarnings("ignore::pytest.PytestUnraisableExceptionWarning")
def test_callback_exception_is_reported_and_reception_goes_on(pair):
    a, b = pair
    got = []
    done = threading.Event()

    def on_frame(ident, data, flags, sec, usec):
        got.append(ident)
        if ident == 1:
            raise ValueError("raised in a callback")
        if ident == 3:
            done.set()

    b.on_frame(on_frame)
    for ident in (1, 2, 3):
        a.write(ident, b"")
    assert done.wait(20)
    assert got == [1, 2, 3]
    b.on_frame(None)
    a.write(4, b"")
    assert b.get_message(timeout=20)[0] == 4


def test_close_while_callbacks_run_does_not_deadlock(sim):
    a = tarvik.CAN(sim.host, 0, 5000)
    a.connect()
    b = tarvik.CAN(sim.host, 1, 5000)
    b.connect()
    seen = threading.Event()
    b.on_frame(lambda *frame: seen.set())
    a.set_cyclic_message(0, True, 1, 0x7, b"\x01")
    assert seen.wait(20)
    b.close()          # the receive thread is inside Python meanwhile
    a.set_cyclic_message(0, False)
    a.close()


def test_errors_carry_the_code(pair):
    a, _ = pair
    with pytest.raises(tarvik.TarvikError) as caught:
        a.write(0x800, b"", 0)   # an 11-bit identifier cannot be 0x800
    assert caught.value.code & 0xFF == 0x21
    with pytest.raises(ValueError):
        a.write(1, bytes(65))


def test_settings_round_trip(pair):
    a, _ = pair
    a.set_filter([0] * 16)
    assert a.get_filter() == [0] * 16
    a.set_globals(250000)
    assert a.get_globals()["baudrate"] == 250000
    a.set_globals(500000)
    assert a.get_config() == (True, False)


# Values that a signed decode gets wrong, at each size, and one abort: node 2's entries
# (the C++, C and CLI tests read the same rows).
SDO_CASES = [
    ("u8 0xFF", 0x2000, 1, 0xFF, 0),
    ("u16 0xFFFF", 0x2001, 2, 0xFFFF, 0),
    ("u32 0x80808080", 0x2002, 4, 0x80808080, 0),
    ("no such object", 0x3000, 0, None, 0x06020000),
]


def test_canopen_services(canopen_sim):
    with tarvik.CAN(canopen_sim.host, 0, 5000, queue_size=1000) as can:
        with pytest.raises(tarvik.TarvikError) as caught:
            can.sdo_read(2, 0x1000, 0)
        assert caught.value.code == 0x02FE   # CANopen mode not switched on
        assert "canopen_set_config(1)" in str(caught.value)
        can.canopen_set_config(1)
        assert can.canopen_get_config() == 1
        for name, index, size, value, abort_code in SDO_CASES:
            if size:
                can.sdo_write(2, index, 0, value, size)
                assert can.sdo_read_sized(2, index, 0) == (value, size), name
            else:
                with pytest.raises(tarvik.SdoAbortError) as caught:
                    can.sdo_read(2, index, 0)
                error = caught.value
                assert (error.code, error.abort_code, error.abort_text, error.node) == \
                    (0x02FD, abort_code, "object does not exist", 2), name
                assert isinstance(error, tarvik.TarvikError)
        assert can.sdo_read(2, 0x2002, 0) == 0x80808080
        with pytest.raises(tarvik.TarvikError) as caught:
            can.sdo_read(9, 0x1000, 0)
        assert caught.value.code == 0x02FC and "node 9 does not answer" in str(caught.value)
        with pytest.raises(ValueError):
            can.sdo_write(2, 0x2000, 0, 0x100, 1)
        can.nmt(0, 1)
        can.sync()
        can.time(10, 1000)


def test_a_full_queue_counts_exactly_the_dropped_newest(pair):
    a, b = pair
    b.set_queue_size(2)
    for ident in range(5):
        a.write(ident, b"")
    assert wait_until(lambda: b.drop_counts()["can"]["queue_full"] == 3)
    assert [b.get_message(timeout=20)[0] for _ in range(2)] == [0, 1]
    assert b.get_message() is None
    # The batch fetch under the same rule: oldest first, at most max at a time.
    for ident in range(5):
        a.write(ident, bytes([ident]))
    assert wait_until(lambda: b.drop_counts()["can"]["queue_full"] == 6)
    assert b.get_messages(1, timeout=20) == [(0, b"\x00", 0, 0, 0)]
    assert b.get_messages(5) == [(1, b"\x01", 0, 0, 0)]
    assert b.get_messages() == []
    with pytest.raises(ValueError):
        b.get_messages(0)
    assert b.drop_counts()["sync"] == {"queues_off": 0, "queue_full": 0, "too_long": 0, "too_short": 0}
