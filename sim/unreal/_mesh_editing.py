"""What scripts may do to static meshes, as in the mesh editor."""
from ._collision import convex_pieces, fitted
from ._meshes import StaticMesh
from ._play import nothing, refused_in_play
from ._subsystems import EditorSubsystem
from ._values import _refuse


def _living(mesh):
    if not isinstance(mesh, StaticMesh):
        _refuse(mesh, "StaticMesh")
    mesh._check()
    return mesh


class StaticMeshEditorSubsystem(EditorSubsystem):
    __slots__ = ()

    def get_number_verts(self, static_mesh, lod_index):
        return _living(static_mesh)._count("positions")

    @refused_in_play(bool)
    def remove_collisions(self, static_mesh):
        _living(static_mesh)._p["body_setup"]._replace()
        return True

    @refused_in_play(int)
    def add_simple_collisions(self, static_mesh, shape_type):
        key, element = fitted(shape_type, _living(static_mesh)._box)
        return static_mesh._p["body_setup"]._added(key, element)

    @refused_in_play(bool)
    def set_convex_decomposition_collisions(self, static_mesh, hull_count, max_hull_verts,
                                            hull_precision):
        pieces = convex_pieces(_living(static_mesh)._sections(), hull_count, max_hull_verts)
        static_mesh._p["body_setup"]._replace(convex_elems=pieces)
        return True

    @refused_in_play(nothing)
    def set_lod_from_static_mesh(self, destination_static_mesh, destination_lod_index,
                                 source_static_mesh, source_lod_index,
                                 reuse_existing_material_slots):
        """LOD 0 alone; -1 for another. The target's slots stay where they are to be reused: each
        section goes to one of the same material, or to one of its own behind them."""
        target, source = _living(destination_static_mesh), _living(source_static_mesh)
        if destination_lod_index or source_lod_index:
            return -1
        slots = list(target._p["static_materials"]) if reuse_existing_material_slots else []
        sections = [{"positions": (), "indices": ()} for _ in slots]
        free = list(range(len(slots)))
        for slot, section in zip(source._p["static_materials"], source._sections()):
            at = next((i for i in free if slots[i].material_interface is slot.material_interface), None)
            if at is None:
                slots.append(slot._copy())
                sections.append(section)
            else:
                free.remove(at)
                sections[at] = section
        target._set_sections(sections)
        target._set("static_materials", slots)
        return 0
