"""Places: a row of translation, rotation (x, y, z, w) and scale; and 4 x 4 matrices, for columns."""
import numpy as np


def matrix_of(place):
    x, y, z, w = place[3:7]
    turn = np.array([[1 - 2 * (y * y + z * z), 2 * (x * y - w * z), 2 * (x * z + w * y)],
                     [2 * (x * y + w * z), 1 - 2 * (x * x + z * z), 2 * (y * z - w * x)],
                     [2 * (x * z - w * y), 2 * (y * z + w * x), 1 - 2 * (x * x + y * y)]])
    matrix = np.eye(4)
    matrix[:3, :3] = turn * place[7:]
    matrix[:3, 3] = place[:3]
    return matrix


def place_of(matrix):
    """Without shear; a mirrored one has all its scales negative."""
    scale = np.linalg.norm(matrix[:3, :3], axis=0)
    scale *= 1 if np.linalg.det(matrix[:3, :3]) >= 0 else -1
    m = matrix[:3, :3] / np.where(scale == 0, 1, scale)
    values, vectors = np.linalg.eigh(np.array(      # the quaternion that fits best, after Bar-Itzhack
        [[m[0, 0] - m[1, 1] - m[2, 2], m[1, 0] + m[0, 1], m[2, 0] + m[0, 2], m[2, 1] - m[1, 2]],
         [m[1, 0] + m[0, 1], m[1, 1] - m[0, 0] - m[2, 2], m[2, 1] + m[1, 2], m[0, 2] - m[2, 0]],
         [m[2, 0] + m[0, 2], m[2, 1] + m[1, 2], m[2, 2] - m[0, 0] - m[1, 1], m[1, 0] - m[0, 1]],
         [m[2, 1] - m[1, 2], m[0, 2] - m[2, 0], m[1, 0] - m[0, 1], m[0, 0] + m[1, 1] + m[2, 2]]]))
    return np.concatenate((matrix[:3, 3], vectors[:, values.argmax()], scale))


def product(a, b):
    """The quaternions `b`, one a row, turned by `a`."""
    (x, y, z, w), (bx, by, bz, bw) = a, np.moveaxis(b, -1, 0)
    return np.stack((w * bx + x * bw + y * bz - z * by, w * by - x * bz + y * bw + z * bx,
                     w * bz + x * by - y * bx + z * bw, w * bw - x * bx - y * by - z * bz), -1)


def below(place, path, rows):
    """Values of one kind (translation, rotation, scale), a row each, of what hangs on a place."""
    if path == "translation":
        return rows @ matrix_of(place)[:3, :3].T + place[:3]
    return product(place[3:7], rows) if path == "rotation" else rows * place[7:]
