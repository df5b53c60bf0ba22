"""Textures: pixels as bytes, first row on top."""
import numpy as np

from ._enums import TextureAddress, TextureCompressionSettings, TextureFilter
from ._packages import Asset
from ._values import boolean, enum_of


class Texture(Asset):
    __slots__ = ()


class Texture2D(Texture):
    """Pixels are one piece, "pixels/<height>x<width>x<channels>/<dtype>"."""
    __slots__ = ()
    PROPS = {"srgb": (boolean, True), "never_stream": (boolean, False),
             "flip_green_channel": (boolean, False), "defer_compression": (boolean, False),
             "compression_settings": (enum_of(TextureCompressionSettings),
                                      TextureCompressionSettings.TC_DEFAULT),
             "filter": (enum_of(TextureFilter), TextureFilter.TF_DEFAULT),
             "address_x": (enum_of(TextureAddress), TextureAddress.TA_WRAP),
             "address_y": (enum_of(TextureAddress), TextureAddress.TA_WRAP)}

    def _set_pixels(self, pixels):
        rows = np.atleast_3d(pixels)
        key = "pixels/" + "x".join(map(str, rows.shape)) + f"/{rows.dtype.name}"
        self._pieces = {key: np.ascontiguousarray(rows).tobytes()}
        self._dirtied()

    def _pixels(self):
        """An array of rows, columns and channels."""
        for key, piece in self._pieces.items():
            _, shape, dtype = key.split("/")
            return np.frombuffer(piece, dtype).reshape([int(n) for n in shape.split("x")])
        return np.zeros((0, 0, 4), np.uint8)

    def blueprint_get_size_x(self):
        self._check()
        return self._pixels().shape[1]

    def blueprint_get_size_y(self):
        self._check()
        return self._pixels().shape[0]
