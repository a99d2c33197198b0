"""Programs a memory image into an AWire target in the background and follows its progress."""

import os
import tempfile
import time

import tarvik
from _args import target

host, index = target()
image = tarvik.Hexfile()
image.add(0x0, bytes(range(256)) * 16)
path = os.path.join(tempfile.mkdtemp(), "image.hex")
image.save(path, "intel")
with tarvik.AWire(host, index) as awire:
    print("config", awire.get_config())
    awire.erase()
    awire.write_file(path)
    while True:
        step, percent = awire.write_file_status()
        if step in (3, -1):
            break
        time.sleep(0.05)
    print("file write", "done" if step == 3 else "failed")
    print("0x100:", awire.read(0x100, 8).hex(" "))
os.remove(path)
os.rmdir(os.path.dirname(path))
