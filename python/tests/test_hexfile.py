"""tarvik.Hexfile: loading, saving, the image operations, and its errors."""

import os

import pytest

import tarvik


def image_of(*blocks):
    image = tarvik.Hexfile()
    for address, data in blocks:
        image.add(address, data)
    return image


@pytest.mark.parametrize("fmt,suffix", [("intel", "hex"), ("motorola", "s19"), ("binary", "bin")])
def test_save_and_load_round_trip(tmp_path, fmt, suffix):
    blocks = [(0, bytes(range(200)))] if fmt == "binary" else [(0x100, b"\x01\x02\x03"), (0x8000, bytes(300))]
    path = str(tmp_path / ("image." + suffix))
    image_of(*blocks).save(path, fmt)
    loaded = tarvik.Hexfile(path, "binary" if fmt == "binary" else "detect")
    assert loaded.blocks() == blocks
    assert loaded.format == fmt
    assert loaded.filename == path


def test_bytes_bounds_and_edits():
    image = image_of((0x10, b"\xAA\xBB"), (0x20, b"\xCC"))
    assert (len(image), image.bounds()) == (3, (0x10, 0x20))
    assert (image[0x11], image[0x15]) == (0xBB, 0)
    image[0x11] = 0x01
    assert image[0x11] == 0x01
    assert image.crop(0x11, 0x20).blocks() == [(0x11, b"\x01"), (0x20, b"\xCC")]
    assert image.fill(0x10, 0x20, 0xFF).blocks() == [(0x10, b"\xAA\x01" + b"\xFF" * 14 + b"\xCC")]
    assert image.offset(0x100).bounds() == (0x110, 0x120)
    merged = tarvik.Hexfile.merge([image, image_of((0x20, b"\xDD"))])
    assert merged[0x20] == 0xDD
    assert merged.compare(image) == (1, [(0x20, 0xDD, 0xCC)])
    assert image.range_crc32(0x10, 0x20, 0xFF) == image.fill(0x10, 0x20, 0xFF).crc32()
    assert "00000010: AA 01" in image.dump(16)
    image.clear()
    assert image.bounds() is None and image.blocks() == []


def test_the_shipped_images_load():
    images = os.path.join(os.path.dirname(__file__), "..", "..", "examples", "images")
    boot = tarvik.Hexfile(os.path.join(images, "boot.hex"))
    app = tarvik.Hexfile(os.path.join(images, "app.s19"))
    assert (boot.format, app.format) == ("intel", "motorola")
    assert boot.compare(app)[0] > 0


@pytest.mark.parametrize("content,error,text", [
    (None, OSError, "bad.hex: cannot be opened: No such file"),
    (":1000\n", ValueError, "bad.hex:1: too short for a record"),
    (":0400000001020304F0\n:00000001FF\n", ValueError, "bad.hex:1: wrong checksum 0xF0"),
])
def test_load_errors_carry_the_library_text(tmp_path, content, error, text):
    path = tmp_path / "bad.hex"
    if content is not None:
        path.write_text(content)
    with pytest.raises(error) as caught:
        tarvik.Hexfile(str(path))
    assert text in str(caught.value)


def test_lenient_takes_a_damaged_image_with_warnings(tmp_path):
    path = tmp_path / "bad.hex"
    path.write_text(":0400000001020304F0\n:00000001FF\n")
    with pytest.warns(UserWarning, match="bad.hex:1: wrong checksum"):
        image = tarvik.Hexfile(str(path), lenient=True)
    assert image.blocks() == [(0, b"\x01\x02\x03\x04")]


def test_a_saved_srecord_file_reads_back_whole(tmp_path):
    path = str(tmp_path / "x.s19")
    image_of((0x12345, b"\x01\x02")).save(path, "motorola")
    assert open(path).read().splitlines()[-1] == "S804000000FB"
    assert tarvik.Hexfile(path).blocks() == [(0x12345, b"\x01\x02")]


def test_save_errors(tmp_path):
    with pytest.raises(ValueError):
        image_of((0x100, b"\x01")).save(str(tmp_path / "x.bin"), "binary")   # binary holds one block at 0
    with pytest.raises(OSError):
        image_of((0, b"\x01")).save(str(tmp_path / "missing" / "x.hex"), "intel")
    with pytest.raises(ValueError):
        image_of((0, b"\x01")).save(str(tmp_path / "x.hex"), "pdf")
    with pytest.raises(ValueError):
        image_of().add(0xFFFFFFFF, b"\x01\x02")
