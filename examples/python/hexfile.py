"""Memory images: join the boot block and the application, fill the gap, save as S-records."""

import os
import tempfile

import tarvik

images = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "images")
boot = tarvik.Hexfile(os.path.join(images, "boot.hex"))
app = tarvik.Hexfile(os.path.join(images, "app.s19"))
for name, image in (("boot", boot), ("app", app)):
    print("%s: %s, %d bytes in %d blocks, bounds %s" % (name, image.format, len(image), len(image.blocks()),
                                                        ["0x%X" % a for a in image.bounds()]))
merged = tarvik.Hexfile.merge([boot, app])
low, high = merged.bounds()
filled = merged.fill(low, high, 0xFF)
print("merged and filled: crc32 0x%08X" % filled.crc32())
out = os.path.join(tempfile.mkdtemp(), "firmware.s19")
filled.save(out, "motorola")
print(tarvik.Hexfile(out).dump(16).splitlines()[0])
os.remove(out)
os.rmdir(os.path.dirname(out))
