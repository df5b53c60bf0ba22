"""Image files that come with meshes: PNG (see png.py) and JPEG (by Pillow).

Pixels are uint8 (or uint16, from PNG) arrays, first row on top. ValueError for what can't be read.
"""
import io

import numpy as np
from PIL import Image

from . import png

LARGEST = 1 << 26       # pixels


def kind_of(data):
    return ("image/png" if data.startswith(png.SIGNATURE) else
            "image/jpeg" if data.startswith(b"\xff\xd8\xff") else None)


def read(data):
    if kind_of(data) == "image/png":
        return png.read(data)
    if kind_of(data) is None:
        raise ValueError("neither a PNG nor a JPEG image")
    try:
        image = Image.open(io.BytesIO(data))
        if image.width * image.height > LARGEST:
            raise ValueError(f"{image.width} x {image.height} pixels can't be read")
        return np.array(image if image.mode in ("L", "RGB") else image.convert("RGB"))
    except (OSError, SyntaxError, Image.DecompressionBombError) as error:
        raise ValueError(f"the JPEG file is damaged: {error}") from None


def encoded(pixels, width, height, as_jpeg):
    """(the bytes of a file of at most this size, what kind it is); JPEG files have no alpha."""
    rows = (pixels >> 8 if pixels.dtype == np.uint16 else pixels).astype(np.uint8)
    if as_jpeg and rows.shape[2] in (2, 4):
        rows = rows[..., :-1]
    image = Image.fromarray(rows[..., 0] if rows.shape[2] == 1 else rows)
    image = image.resize((min(image.width, width), min(image.height, height)))
    if not as_jpeg:
        return png.write(np.asarray(image)), "image/png"
    out = io.BytesIO()
    image.save(out, "JPEG", quality=95)
    return out.getvalue(), "image/jpeg"
