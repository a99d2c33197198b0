"""A 25xx serial EEPROM on an SPI gateway: write enable, write four bytes, read them back."""

import tarvik
from _args import target

host, index = target()
with tarvik.SPI(host, index) as spi:
    print("bus rate %d Hz" % spi.get_globals()[0])
    spi.transfer(b"\x06")                                  # write enable
    spi.transfer(b"\x02" + tarvik.SPI.to_offset(0x40, 2) + bytes.fromhex("CAFE1234"))
    answer = spi.transfer(b"\x03" + tarvik.SPI.to_offset(0x40, 2), 7)
    print("read at 0x0040:", answer[3:].hex(" "))
