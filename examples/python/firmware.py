"""The service port of a gateway: its extended information and the firmware flash."""

import tarvik
from _args import target

host, index = target()
with tarvik.Firmware(host, index) as firmware:
    info = firmware.get_info()
    print("software %s, hardware %s" % (info["sw_version_string"], info["hw_version_string"]))
    block = firmware.read_flash(0)
    print("flash block 0: %d bytes, starts %s" % (len(block), block[:8].hex(" ")))
