"""Skeletons and the sequences that move them.

Places are rows of ten float32: translation (centimetres), rotation (x, y, z, w) and scale, each within
the parent bone.
"""
import numpy as np

from ._packages import Asset
from ._values import HIDDEN, READ_ONLY, array_of, f32, integer, object_of, string


class Skeleton(Asset):
    """Bones in order, their parents (-1: none). Pieces: "pose", the reference pose, and "bind", a 4 x 4
    matrix a bone from a mesh's space into the bone's."""
    __slots__ = ()
    PROPS = {"bone_names": (array_of(string), (), HIDDEN), "bone_parents": (array_of(integer), (), HIDDEN)}

    def _set_bones(self, names, parents, pose, bind):
        self._set("bone_names", names)
        self._set("bone_parents", parents)
        self._pieces = {"pose": pose.astype(np.float32).tobytes(),
                        "bind": bind.astype(np.float32).tobytes()}
        self._dirtied()

    def _pose(self):
        return np.frombuffer(self._pieces["pose"], np.float32).reshape(-1, 10)

    def _bind(self):
        return np.frombuffer(self._pieces["bind"], np.float32).reshape(-1, 4, 4)


class AnimationAsset(Asset):
    __slots__ = ()
    PROPS = {"skeleton": (object_of(Skeleton), None, READ_ONLY)}


class AnimSequenceBase(AnimationAsset):
    __slots__ = ()
    PROPS = {"sequence_length": (f32, 0.0, READ_ONLY)}      # seconds


class AnimSequence(AnimSequenceBase):
    """A track a bone and kind ("translation", "rotation", "scale"), and one a morph target ("weight"):
    the pieces "times/<kind>/<name>" and "values/<kind>/<name>"."""
    __slots__ = ()

    def _set_tracks(self, skeleton, length, tracks):
        """`tracks`: (name, kind) -> times in seconds, a row of values each."""
        self._p["skeleton"] = skeleton
        self._set("sequence_length", float(length))
        self._pieces = {f"{what}/{kind}/{name}": np.ascontiguousarray(rows, np.float32).tobytes()
                        for (name, kind), track in tracks.items()
                        for what, rows in zip(("times", "values"), track)}
        self._dirtied()

    def _tracks(self):
        found = {}
        for key, piece in self._pieces.items():
            what, kind, name = key.split("/", 2)
            if what == "times":
                times = np.frombuffer(piece, np.float32)
                found[name, kind] = times, np.frombuffer(
                    self._pieces[f"values/{kind}/{name}"], np.float32).reshape(len(times), -1)
        return found
