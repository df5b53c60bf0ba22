"""Instances: many meshes in one component, and the actor that holds painted foliage.

An instance is ten numbers: location, quaternion x y z w, scale, relative to its component. All of a
component are one piece of bytes.
"""
import numpy as np

from ._actors import Actor
from ._components import StaticMeshComponent
from ._math import Quat, Transform, Vector, combine, transform_of
from ._values import Array


def _row(t):
    return (*t.translation.to_tuple(), *t.rotation.to_tuple(), *t.scale3d.to_tuple())


def _transform(row):
    n = [float(v) for v in row]
    return transform_of(Vector(*n[:3]), Quat(*n[3:7]), Vector(*n[7:]))


class InstancedStaticMeshComponent(StaticMeshComponent):
    __slots__ = ("_instances",)

    def __init__(self, owner, name):
        super().__init__(owner, name)
        self._instances = b""

    def _state(self):
        return super()._state(), self._instances

    def _restore(self, state):
        above, self._instances = state
        super()._restore(above)

    def _rows(self):
        return np.frombuffer(self._instances).reshape(-1, 10)

    def _store(self, rows):
        self._instances = np.asarray(rows, float).tobytes()
        self._dirtied()

    def _relative(self, transform, world_space):
        if not isinstance(transform, Transform):
            raise TypeError(f"Cannot nativize '{type(transform).__name__}' as 'Transform'")
        return _row(transform.make_relative(self._world()) if world_space else transform)

    def get_instance_count(self):
        self._check()
        return len(self._instances) // 80

    def get_instance_transform(self, instance_index, world_space=False):
        self._check()
        if not 0 <= instance_index < self.get_instance_count():
            return None
        found = _transform(self._rows()[instance_index])
        return combine(found, self._world()) if world_space else found

    def add_instances(self, instance_transforms, should_return_indices, world_space=False,
                      update_navigation=True):
        self._check()
        first = self.get_instance_count()
        fresh = [self._relative(t, world_space) for t in instance_transforms]
        if fresh:
            self._store(np.concatenate((self._rows(), np.array(fresh))))
        return Array(range(first, first + len(fresh)) if should_return_indices else ())

    def remove_instances(self, instances_to_remove):
        self._check()
        gone = set(instances_to_remove)
        if not gone <= set(range(self.get_instance_count())):
            return False
        self._store(np.delete(self._rows(), sorted(gone), 0))
        return True

    def update_instance_transform(self, instance_index, new_instance_transform, world_space=False,
                                  mark_render_state_dirty=False, teleport=False):
        self._check()
        if not 0 <= instance_index < self.get_instance_count():
            return False
        rows = self._rows().copy()
        rows[instance_index] = self._relative(new_instance_transform, world_space)
        self._store(rows)
        return True

    def clear_instances(self):
        self._check()
        self._store(np.zeros((0, 10)))


class InstancedFoliageActor(Actor):
    __slots__ = ()
