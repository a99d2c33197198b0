"""A 24C256 on an I2C gateway: write a page, read it back."""

import tarvik
from _args import target

CHIP_TYPE = 0x0010     # two memory-address bytes
PAGE = 0x0100

host, index = target()
with tarvik.I2C(host, index) as i2c:
    i2c.write_eeprom(0, PAGE, CHIP_TYPE, b"tarvik page", poll_time=10)
    data = i2c.read_eeprom(0, PAGE, CHIP_TYPE, 11)
    print("page 0x%04X: %r" % (PAGE, data))
    try:
        i2c.write(0xB0, b"\x00")                           # nothing answers at 0xB0
    except tarvik.TarvikError as error:
        print("0xB0:", error)
