"""One real round trip per gateway family against tarvik-sim, and how failures surface."""

import threading
import time

import pytest

import tarvik
from conftest import start_sim, wait_until


def spi_round_trip(spi):
    # The simulated 25xx EEPROM: write enable, write four bytes, read them back.
    spi.transfer(b"\x06")
    spi.transfer(bytes.fromhex("020040CAFE1234"))
    answer = spi.transfer(bytes.fromhex("030040"), 7)
    assert answer[3:] == bytes.fromhex("CAFE1234")
    spi.set_globals(500000, 1, 0, 0)
    assert spi.get_globals() == (500000, 1, 0, 0)


def i2c_round_trip(i2c):
    # The 24C256 at select 0 (type word 0x0010): a page write with acknowledge polling.
    i2c.write_eeprom(0, 0x0100, 0x0010, b"tarvik", poll_time=10)
    assert i2c.read_eeprom(0, 0x0100, 0x0010, 6) == b"tarvik"
    i2c.write(0xA0, b"\x01\x02")   # sets the chip's address pointer to 0x0102
    assert i2c.read(0xA0, 4) == b"rvik"
    assert i2c.sequence([(0xA0, b"\x01\x00"), (0xA1, 3)]) == [b"tar"]


def ad_round_trip(ad):
    values = ad.read()
    assert len(values) > 0 and all(isinstance(v, int) for v in values)
    assert len(ad.read_digital_input()) == 3


def renesas_round_trip(renesas):
    renesas.init()
    renesas.check_id(b"RENESAS")
    renesas.erase_all()
    renesas.write_page(3, b"\x5A" * 256)
    assert renesas.read_page(3) == b"\x5A" * 256
    assert renesas.verify_check(3, 3) == 0x5A * 256
    assert renesas.get_version()
    renesas.complete()


def firmware_round_trip(firmware):
    info = firmware.get_info()
    assert info["layout_version"] in (1, 2)
    assert info["sw_version_string"].count(".") == 2
    firmware.write_eeprom(0x80, b"\x01\x02\x03")
    assert firmware.read_eeprom(0x80, 3) == b"\x01\x02\x03"
    assert len(firmware.read_flash(0)) == tarvik.Firmware.BLOCK_SIZE


def awire_round_trip(awire):
    awire.set_config(0, 0, 256, 0, "target")
    assert awire.get_config()[2] == 256
    awire.erase()
    handle = awire.write_block(0x200, b"\xA5" * 256)
    assert wait_until(lambda: awire.write_block_status(handle)[0] == 0)
    assert awire.read(0x200, 4) == b"\xA5" * 4
    assert awire.verify(0x200, b"\xA5" * 256)
    assert not awire.verify(0x200, b"\xA4" * 256)


def tsio_round_trip(io):
    io.set_value([1, 2, 0xFFFF])
    assert io.get_value(3) == [1, 2, 0xFFFF]
    io.set_power([7])
    assert io.get_power(1) == [7]


def tspwr_round_trip(pwr):
    pwr.set_value([0x1234, 5])
    assert pwr.get_value(2) == [0x1234, 5]


def tsrelay_round_trip(relay):
    relay.set_relay(2, True)
    assert relay.get_button(0) in (False, True)
    relay.set_power([3, 4])
    assert relay.get_power(2) == [3, 4]


FAMILIES = [
    (tarvik.SPI, spi_round_trip),
    (tarvik.I2C, i2c_round_trip),
    (tarvik.AD, ad_round_trip),
    (tarvik.Renesas, renesas_round_trip),
    (tarvik.Firmware, firmware_round_trip),
    (tarvik.AWire, awire_round_trip),
    (tarvik.TestSystemIO, tsio_round_trip),
    (tarvik.TestSystemPWR, tspwr_round_trip),
    (tarvik.TestSystemRelay, tsrelay_round_trip),
]


@pytest.mark.parametrize("cls,round_trip", FAMILIES, ids=[cls.__name__ for cls, _ in FAMILIES])
def test_round_trip(sim, cls, round_trip):
    with cls(sim.host) as client:
        round_trip(client)
        assert len(client.info()["raw"]) == 20


def test_testsystem_com_installs_a_configuration(sim, tmp_path):
    path = tmp_path / "station4.cfg"
    path.write_bytes(b"station 4: flash, test, label\n")
    with tarvik.TestSystemCOM(sim.host) as com:
        com.install_config("station4", str(path))
        assert com.get_config() == "station4"
        assert com.is_config_available("station4") == (True, tarvik.TestSystemCOM.crc32(str(path)))
        with pytest.raises(tarvik.TarvikError) as caught:
            com.send_file(str(tmp_path / "missing.cfg"))
        assert caught.value.code == 0x0D20


def test_awire_write_file_runs_in_the_background(sim, tmp_path):
    image = tarvik.Hexfile()
    image.add(0x1000, bytes(range(256)) * 4)
    path = str(tmp_path / "image.hex")
    image.save(path, "intel")
    with tarvik.AWire(sim.host) as awire:
        awire.set_config(0, 0, 256, 0, "")
        awire.erase()
        awire.write_file(path)
        status = []
        wait_until(lambda: status.append(awire.write_file_status()) or status[-1][0] in (3, -1))
        assert status[-1] == (3, 100)
        # The end is reported once; then there is no file write.
        with pytest.raises(tarvik.TarvikError) as caught:
            awire.write_file_status()
        assert caught.value.code == 255
        assert awire.read(0x1000, 256) == bytes(range(256))


def test_awire_write_file_refuses_a_damaged_file_before_sending(sim, tmp_path):
    path = tmp_path / "bad.hex"
    path.write_text(":0400000001020304F0\n:00000001FF\n")
    with tarvik.AWire(sim.host) as awire:
        awire.set_config(0, 0, 256, 0, "")
        awire.erase()
        with pytest.raises(ValueError, match="bad.hex:1: wrong checksum"):
            awire.write_file(str(path))
        # Nothing was started, and the flash is still erased.
        with pytest.raises(tarvik.TarvikError):
            awire.write_file_status()
        assert awire.read(0, 4) == b"\xFF" * 4


@pytest.mark.parametrize("call,code", [
    (lambda r: r.read_page(0), 0x0920),          # outside a programming sequence: the target does not listen
    (lambda r: (r.init(), r.check_id(b"WRONGID")), 0x0921),
])
def test_renesas_errors_carry_the_gateway_code(sim, call, code):
    with tarvik.Renesas(sim.host) as renesas:
        with pytest.raises(tarvik.TarvikError) as caught:
            call(renesas)
    assert caught.value.code == code
    assert caught.value.message == tarvik.error_message(code)


def test_i2c_nack_carries_the_error_position(sim):
    with tarvik.I2C(sim.host) as i2c:
        with pytest.raises(tarvik.TarvikError) as caught:
            i2c.write(0xB0, b"\x00")   # nobody at 0xB0
    assert caught.value.code == 0x0120
    assert isinstance(caught.value.error_pos, int)


@pytest.mark.parametrize("call", [
    lambda: tarvik.Firmware().write_flash(0, b"short"),
    lambda: tarvik.SPI().transfer(b"", 70000),
    lambda: tarvik.TestSystemIO().set_value([0] * 256),
    lambda: tarvik.SPI.to_offset(0, 5),
])
def test_bad_arguments_raise_value_error_before_sending(call):
    with pytest.raises(ValueError):
        call()


def test_blocking_calls_release_the_gil():
    # The gateway answers 300 ms late; a Python thread must run meanwhile, not only around the call.
    slow = start_sim("ad", ["--delay", "300"])
    stamps = []
    stop = threading.Event()

    def tick():
        while not stop.is_set():
            stamps.append(time.monotonic())
            time.sleep(0.005)

    worker = threading.Thread(target=tick)
    try:
        with tarvik.AD(slow.host, timeout_ms=3000) as ad:
            worker.start()
            begin = time.monotonic()
            ad.read()
            end = time.monotonic()
    finally:
        stop.set()
        if worker.is_alive():
            worker.join()
        slow.stop()
    assert end - begin > 0.25
    assert any(begin + 0.1 < stamp < end - 0.1 for stamp in stamps)
