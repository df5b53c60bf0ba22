"""PNG files of 8 and 16 bits: grey, grey and alpha, RGB, RGBA.

Arrays are (rows, columns) or (rows, columns, channels), first row on top, of uint8 or uint16. Pillow
reads 8 bits; 16 bits, which it would cut to 8 in colour, are read here, and so is all writing done.
"""
import io
import struct
import zlib

import numpy as np
from PIL import Image

SIGNATURE = b"\x89PNG\r\n\x1a\n"
CHANNELS = {0: 1, 2: 3, 4: 2, 6: 4}
LARGEST = 1 << 28       # bytes of pixels


def _chunks(data):
    at = len(SIGNATURE)
    while at + 12 <= len(data):
        size, kind = struct.unpack_from(">I4s", data, at)
        body = data[at + 8:at + 8 + size]
        if len(body) < size or zlib.crc32(kind + body) != struct.unpack_from(">I", data + b"\0" * 4,
                                                                             at + 8 + size)[0]:
            raise ValueError("a chunk of the PNG file is damaged")
        yield kind, body
        at += 12 + size


def read(data):
    """The pixels in these bytes; ValueError for what is no such file."""
    if not data.startswith(SIGNATURE):
        raise ValueError("no PNG file")
    chunks = list(_chunks(data))
    if not chunks or chunks[0][0] != b"IHDR":
        raise ValueError("the PNG file has no header")
    width, height, depth, colour, *_, interlaced = struct.unpack(">IIBBBBB", chunks[0][1])
    channels = CHANNELS.get(colour, 4)
    if not 0 < width * height * channels * max(1, depth // 8) <= LARGEST:
        raise ValueError(f"{width} x {height} pixels can't be read")
    if depth == 16 and colour in CHANNELS and not interlaced:
        packed = b"".join(body for kind, body in chunks if kind == b"IDAT")
        return _unfiltered(packed, width, height, channels)
    try:
        image = Image.open(io.BytesIO(data))
        if image.mode == "P":
            image = image.convert("RGBA" if "transparency" in image.info else "RGB")
        return np.array(image.convert("L") if image.mode == "1" else image)
    except (OSError, SyntaxError, struct.error) as error:
        raise ValueError(f"the PNG file is damaged: {error}") from None


def _unfiltered(packed, width, height, channels):
    stride, step = width * channels * 2, channels * 2
    inflate = zlib.decompressobj()
    try:
        raw = inflate.decompress(packed, (stride + 1) * height)
    except zlib.error as error:
        raise ValueError(f"the PNG file is damaged: {error}") from None
    if len(raw) < (stride + 1) * height:
        raise ValueError("the PNG file ends too early")
    rows = np.zeros((height + 1, stride + step), np.uint8)     # one row above, one pixel before
    for y in range(height):
        begin = y * (stride + 1)
        line = np.frombuffer(raw, np.uint8, stride, begin + 1)
        above, here = rows[y], rows[y + 1]
        match raw[begin]:
            case 0:
                here[step:] = line
            case 1:
                here[step:] = np.cumsum(line.reshape(-1, step), 0, dtype=np.uint8).reshape(-1)
            case 2:
                here[step:] = line + above[step:]
            case 3 | 4 as kind:
                for x in range(step, stride + step):
                    a, b, c = int(here[x - step]), int(above[x]), int(above[x - step])
                    guess = (a + b) // 2 if kind == 3 else _paeth(a, b, c)
                    here[x] = (int(line[x - step]) + guess) & 255
            case kind:
                raise ValueError(f"the PNG file has a filter {kind}")
    pixels = rows[1:, step:].copy().view(">u2").astype(np.uint16)
    return pixels if channels == 1 else pixels.reshape(height, width, channels)


def _paeth(a, b, c):
    p = a + b - c
    return min((abs(p - a), 0, a), (abs(p - b), 1, b), (abs(p - c), 2, c))[2]


def write(pixels):
    """The bytes of a file with these pixels; TypeError for arrays of another type."""
    pixels = np.asarray(pixels)
    channels = 1 if pixels.ndim == 2 else pixels.shape[2]
    colour = {count: kind for kind, count in CHANNELS.items()}.get(channels)
    if pixels.dtype not in (np.uint8, np.uint16) or colour is None or pixels.ndim not in (2, 3):
        raise TypeError(f"no image: {pixels.dtype} of the shape {pixels.shape}")
    depth = 8 * pixels.dtype.itemsize
    rows = pixels.astype(pixels.dtype.newbyteorder(">")).reshape(len(pixels), -1)
    raw = b"".join(b"\0" + row.tobytes() for row in rows)
    header = struct.pack(">IIBBBBB", pixels.shape[1], pixels.shape[0], depth, colour, 0, 0, 0)
    return SIGNATURE + b"".join(
        struct.pack(">I", len(body)) + kind + body + struct.pack(">I", zlib.crc32(kind + body))
        for kind, body in ((b"IHDR", header), (b"IDAT", zlib.compress(raw)), (b"IEND", b"")))
