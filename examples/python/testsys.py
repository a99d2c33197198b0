"""A test system: install a configuration, switch a relay, read a button and the IO words."""

import os
import tempfile

import tarvik
from _args import target

host, index = target()
with tempfile.NamedTemporaryFile("w", suffix=".cfg", delete=False) as cfg:
    cfg.write("station 4: flash, test, label\n")
try:
    with tarvik.TestSystemCOM(host, index) as com:
        com.install_config("station4", cfg.name)
        print("active configuration:", com.get_config())
        print("available, crc:", com.is_config_available("station4"))
finally:
    os.remove(cfg.name)
with tarvik.TestSystemRelay(host, index) as relay:
    relay.set_relay(2, True)
    print("button 0 pressed:", relay.get_button(0))
    relay.set_relay(2, False)
with tarvik.TestSystemIO(host, index) as io, tarvik.TestSystemPWR(host, index) as pwr:
    io.set_value([1, 2, 3])
    pwr.set_value([1200])
    print("IO words", io.get_value(3), "PWR word", pwr.get_value(1))
