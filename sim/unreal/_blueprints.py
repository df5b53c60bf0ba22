"""Blueprints: classes whose actors get their components from a construction script.

The script runs again whenever its actor is edited: the components that it made die, and others of the
same names take their places. What a script added to the actor itself stays.
"""
from ._components import StaticMeshComponent
from ._math import Vector


def part_of(mesh, location, index, kind=StaticMeshComponent):
    return kind, f"{kind.__name__}{index}", mesh, Vector(*location)


def construct(actor, parts=None):
    """Run the construction script, with these parts from now on: what the last run made goes."""
    for component in [c for c in actor._components if c in actor._constructed]:
        actor._components.remove(component)
        component._valid = False
    actor._script = actor._script if parts is None else tuple(parts)
    actor._constructed = []
    for kind, name, mesh, location in actor._script:
        component = actor._add(kind, name)
        component._place(location)
        if mesh is not None:
            component._set("static_mesh", mesh)
        actor._constructed.append(component)
