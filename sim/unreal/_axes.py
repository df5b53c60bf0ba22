"""From a file's axes and metres to the editor's, and back.

Files have y up and a right hand, the editor z up and a left one: (x, y, z) there is (x, z, y) here, and
100 units are a metre. That mirrors, and so does the other hand: triangles keep their order. Swapping is
its own inverse, so each function goes both ways; `scale` is 100 into the editor, 0.01 out of it.
"""
import numpy as np


def swapped(rows):
    """Directions, scales or positions, one a row."""
    return rows[..., (0, 2, 1)]


def turned(rotations):
    """Quaternions (x, y, z, w); an axis is mirrored with the space, so its angle is the other way."""
    return rotations[..., (0, 2, 1, 3)] * (-1, -1, -1, 1)


def placed(places, scale):
    """Rows of translation, rotation and scale."""
    return np.hstack((swapped(places[:, :3]) * scale, turned(places[:, 3:7]), swapped(places[:, 7:])))


def moved(matrices, scale):
    """4 x 4 matrices for columns."""
    matrices = matrices[:, (0, 2, 1, 3)][:, :, (0, 2, 1, 3)].copy()
    matrices[:, :3, 3] *= scale
    return matrices
