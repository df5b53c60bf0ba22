"""Materials on slots of meshes and actors."""
import pytest
import unreal as u
from unreal._editor import editor


@pytest.fixture
def stage(ed):
    """A crate of the link's with the slots Wood_001 and Iron, an actor with it, and materials."""
    mesh = ed.make_mesh("/Game/Verrin/Crate/Crate", slots=("Wood_001", "Iron"))
    actor = ed.spawn("StaticMeshActor", "Crate", mesh=mesh)
    new = {n: ed.make_material(f"/Game/Verrin/Materials/{n}/FBX/{n}") for n in ("Oak", "Steel")}
    ed.save()
    return mesh, actor, new


def on(mesh):
    return [slot.material_interface.get_name() for slot in mesh.static_materials]


def overriding(actor):
    return [m and m.get_name() for m in actor.static_mesh_component.get_editor_property("override_materials")]


def test_the_slot_is_found(K, stage):
    mesh, _, _ = stage
    for name, index, slot in (("wood", 1, 0), ("WOOD_002", 1, 0), ("M_Iron", 0, 1), ("none such", 1, 1), ("", 0, 0),
                              (None, 1, 1), ("", 2, None), ("", -1, None), ("x", 2**70, None), ("", 1.0, None)):
        assert K._slot_index(mesh, name, index) == slot
    assert K._slot_index(None, "wood", 0) is None
    mesh.set_editor_property("static_materials", [u.StaticMaterial(material_slot_name="A"),
                                                  u.StaticMaterial(material_slot_name="A")])
    assert K._slot_index(mesh, "a", 1) == 0


def test_a_mesh_of_the_link(ed, K, ask, stage):
    mesh, _, new = stage
    oak, steel = (m.get_path_name() for m in new.values())
    other = ed.make_mesh("/Game/Props/Crate")
    saved = []
    ed.inject("EditorAssetLibrary.save_loaded_asset", times=0, when=lambda a, *_: saved.append(a.get_name()))

    def assign(asset, *slots):
        saved.clear()
        assert ask("assign", asset=asset, slots=[list(s) for s in slots]) == []
        return on(mesh), saved
    path = mesh.get_path_name()
    assert assign(path, (0, "", oak), (5, "", steel), (1, "", ""), (1, "", None)) == (["Oak", "M_Iron"], ["Crate"])
    assert assign(path, (0, "wood", oak)) == (["Oak", "M_Iron"], [])
    assert assign(path, (1, "wood", steel), (0, "wood", "/Game/No.No")) == (["Steel", "M_Iron"], ["Crate"])
    assert assign(path, (0, "", oak), (0, "", steel)) == (["Steel", "M_Iron"], [])    # the last wins
    for asset in (other.get_path_name(), "/Game/VerrinX.VerrinX", new["Oak"].get_path_name(), "", None, 5):
        assert assign(asset, (0, "", oak)) == (["Steel", "M_Iron"], []) and on(other) == ["M_Mat"]


def test_an_actor(ed, K, stage, ask):
    mesh, actor, new = stage
    oak, steel = (m.get_path_name() for m in new.values())
    aid = actor.get_path_name()

    def assign(*slots, **how):
        steps, redraws = len(ed.history), editor.redraws
        assert ask("assign", id=aid, slots=[list(s) for s in slots], **how) == []
        assert editor.redraws > redraws
        info = K._S["known"][aid]["info"]
        assert info.get("mats", []) == K._overrides(actor.static_mesh_component, mesh)
        return overriding(actor), on(mesh), ed.history[steps:]
    title = ["Verrin: materials Crate"]
    plain = ["M_Wood_001", "M_Iron"]
    assert assign((0, "", oak)) == (["Oak"], plain, title)
    assert assign((0, "", oak)) == (["Oak"], plain, [])
    assert assign((1, "", mesh.get_material(1).get_path_name())) == (["Oak"], plain, [])
    assert assign((0, "", "/Game/No.No"), (7, "", steel)) == (["Oak"], plain, [])
    assert assign((0, "", steel), (0, "", oak)) == (["Oak"], plain, [])     # the last wins
    assert assign((1, "wood", mesh.get_material(0).get_path_name())) == ([None], plain, title)
    assert assign((1, "", steel)) == ([None, "Steel"], plain, title)
    assert assign((1, "", "")) == ([None, None], plain, title)
    ed.undo()
    assert overriding(actor) == [None, "Steel"]
    # On the asset, but for what stays an override.
    assert assign((0, "", oak), (1, "", oak), asset_level=True, ov_slots=[0]) == (["Oak", None], ["M_Wood_001", "Oak"], title)
    assert mesh._package() not in editor.dirty
    assert assign((0, "", ""), asset_level=True) == ([None, None], ["M_Wood_001", "Oak"], title)
    assert assign((0, "", oak), asset_level=True) == ([None, None], ["Oak", "Oak"], title)
    assert assign((0, "", oak), asset_level=True, ov_slots=[0]) == (["Oak", None], ["Oak", "Oak"], title)
    ed.undo()
    ed.undo()
    assert on(mesh) == ["M_Wood_001", "Oak"]
    # What can't be read counts as none; what isn't a material is an error and closes its undo step.
    ed.inject("Object.get_editor_property", times=1, when=lambda obj, name: name == "override_materials")
    assert assign((0, "", oak))[0][0] == "Oak"
    [error] = ask("assign", id=aid, slots=[[0, "", mesh.get_path_name()]])
    assert error["msg"].startswith("assign: ") and K._S.pop("last_error") and not editor.history._depth


def test_other_actors(ed, K, ask, stage):
    _, actor, new = stage
    oak = new["Oak"].get_path_name()
    lamp = ed.spawn("PointLight").get_path_name()
    bare = ed.spawn("StaticMeshActor").get_path_name()
    rig = ed.make_skeletal_mesh("/Game/Verrin/Hero/Hero")
    rig.set_editor_property("materials", [u.SkeletalMaterial(material_slot_name="Skin")])
    hero = ed.spawn("SkeletalMeshActor", skeletal_mesh_asset=rig).get_path_name()
    for aid in (lamp, bare, "/Game/No.No:PersistentLevel.A", hero):
        assert ask("assign", id=aid, slots=[[0, "", oak]]) == []
    assert rig.materials[0].material_interface is new["Oak"] and overriding(actor) == []
