"""Landscapes: proxies with components, each a square of 16-bit heights and of 8-bit weights a layer.

A height v stands for (v - 32768) / 128 centimetres times the actor's z scale; vertices are 1 apart
before its x and y scale. Neighbouring components share their edge.
"""
import numpy as np

from ._actors import Actor
from ._components import PrimitiveComponent, SceneComponent
from ._math import Vector
from ._values import READ_ONLY, integer, string

MIDDLE, PER_UNIT = 32768, 128.0


class LandscapeComponent(PrimitiveComponent):
    __slots__ = ("_heights", "_weights")
    PROPS = {"section_base_x": (integer, 0, READ_ONLY), "section_base_y": (integer, 0, READ_ONLY)}

    def __init__(self, owner, name):
        super().__init__(owner, name)
        self._heights = b""
        self._weights = {}      # layer name -> bytes

    def _state(self):
        return super()._state(), self._heights, dict(self._weights)

    def _restore(self, state):
        above, self._heights, weights = state
        self._weights = dict(weights)
        super()._restore(above)

    def _grid(self):
        heights = np.frombuffer(self._heights, np.uint16)
        side = round(len(heights) ** 0.5)
        return heights.reshape(side, side)

    def _local_box(self):
        grid = self._grid()
        if not grid.size:
            return self._box
        x, y = self._p["section_base_x"], self._p["section_base_y"]
        low, high = ((float(v) - MIDDLE) / PER_UNIT for v in (grid.min(), grid.max()))
        size = float(len(grid) - 1)
        return Vector(x, y, low), Vector(x + size, y + size, high)


class LandscapeProxy(Actor):
    """A piece of landscape; the pieces of one landscape share its guid."""
    __slots__ = ()
    PROPS = {"landscape_guid": (string, "")}
    COMPONENTS = ((None, SceneComponent, "RootComponent0"),)

    def get_landscape_actor(self):
        self._check()
        guid = self._p["landscape_guid"]
        return next((a for a in self._level.actors.values()
                     if isinstance(a, Landscape) and a._p["landscape_guid"] == guid), None)


class Landscape(LandscapeProxy):
    __slots__ = ()


class LandscapeStreamingProxy(LandscapeProxy):
    __slots__ = ()


def grow(proxy, heights, quads, base=(0, 0)):
    """Give a proxy components of `quads` quads a side, cut from a grid of heights, first row at the
    lowest y; ValueError for a grid that they don't divide."""
    heights = np.asarray(heights, np.uint16)
    if any((n - 1) % quads or n < quads + 1 for n in heights.shape):
        raise ValueError(f"{heights.shape} vertices aren't whole components of {quads} quads")
    for y in range(0, heights.shape[0] - 1, quads):
        for x in range(0, heights.shape[1] - 1, quads):
            component = proxy._add(LandscapeComponent,
                                   f"LandscapeComponent_{base[0] + x}_{base[1] + y}")
            component._p |= {"section_base_x": base[0] + x, "section_base_y": base[1] + y}
            component._heights = heights[y:y + quads + 1, x:x + quads + 1].tobytes()


def heights_of(proxy):
    """The grid of a proxy's loaded components, and where it begins; gaps have the middle height."""
    parts = [c for c in proxy._components if isinstance(c, LandscapeComponent)]
    at = [(c._p["section_base_x"], c._p["section_base_y"], c._grid()) for c in parts]
    left, top = min(x for x, _, _ in at), min(y for _, y, _ in at)
    right = max(x + g.shape[1] for x, _, g in at)
    bottom = max(y + g.shape[0] for _, y, g in at)
    whole = np.full((bottom - top, right - left), MIDDLE, np.uint16)
    for x, y, grid in at:
        whole[y - top:y - top + len(grid), x - left:x - left + len(grid)] = grid
    return whole, (left, top)
