"""The editor stand-in: what the other tests rely on it to do as the editor does."""
import pathlib
import resource
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

import sim  # noqa: E402
from sim import reference  # noqa: E402
import unreal as u  # noqa: E402 - importable once `sim` is


@pytest.fixture
def ed(tmp_path):
    return sim.Editor(tmp_path)


def near(vector, expected):
    assert vector.to_tuple() == pytest.approx(expected, abs=1e-9)


def test_rotations_are_left_handed_with_z_up(ed):
    for r, *axes in (((0, 0, 90), (0, 1, 0), (-1, 0, 0), (0, 0, 1)),
                     ((0, 90, 0), (0, 0, 1), (0, 1, 0), (-1, 0, 0)),
                     ((90, 0, 0), (1, 0, 0), (0, 0, -1), (0, 1, 0))):
        q = u.Transform(rotation=u.Rotator(*r)).rotation
        for got, expected in zip((q.get_axis_x(), q.get_axis_y(), q.get_axis_z()), axes):
            near(got, expected)
    near(u.Rotator(0, 30, 45).get_forward_vector(), (0.6123724357, 0.6123724357, 0.5))
    for r in ((10, 20, 30), (-170, -80, 100), (35, 90, 0), (0, -90, 50)):
        q = u.Rotator(*r).quaternion()
        for other in (q.rotator(), u.MathLibrary.make_rot_from_xz(q.get_axis_x(), q.get_axis_z())):
            near(other.get_forward_vector(), q.get_axis_x().to_tuple())
            near(other.get_up_vector(), q.get_axis_z().to_tuple())
    house = ed.spawn_blueprint("BP_House_C", None, [("/Engine/BasicShapes/Cube", (1, 2, 3))],
                               location=(10, 0, 0), rotation=(0, 90, 0), scale=(2, 2, 2))
    part = house.get_components_by_class(u.StaticMeshComponent)[0].get_world_transform()
    near(part.translation, (6, 2, 6))
    near(house.get_actor_bounds(False)[0], (6, 2, 6))


def test_structs_are_copies_and_properties_are_typed(ed):
    shot = ed.spawn("CineCameraActor").get_cine_camera_component()
    filmback = shot.get_editor_property("filmback")
    filmback.set_editor_property("sensor_width", 36)
    assert shot.filmback.sensor_width == pytest.approx(24.89)
    shot.set_editor_property("filmback", filmback)
    filmback.set_editor_property("sensor_width", 1)
    assert shot.filmback.sensor_width == 36
    with pytest.raises(TypeError):
        shot.set_editor_property("current_focal_length", "18")
    for wrong in (lambda: u.Name("\ud800"), lambda: ed.actors()[0].set_actor_label("\ud800")):
        with pytest.raises(TypeError):      # texts go to the engine as UTF-8
            wrong()
    with pytest.raises(Exception, match="Failed to find property"):
        shot.get_editor_property("focal")
    light = ed.spawn("SpotLight", intensity=0.1).get_component_by_class(u.LightComponent)
    assert light.intensity != 0.1 and light.intensity == pytest.approx(0.1)
    assert str(light.get_editor_property("intensity_units")) == "<LightUnits.UNITLESS: 0>"


def test_destroyed_actors_answer_until_they_are_collected_and_their_names_come_back(ed):
    eas = u.get_editor_subsystem(u.EditorActorSubsystem)
    lamp = eas.spawn_actor_from_class(u.PointLight, u.Vector())
    path = lamp.get_path_name()
    ed.delete(lamp)
    assert lamp.get_path_name() == path and lamp.is_actor_being_destroyed()
    assert not u.SystemLibrary.is_valid(lamp) and u.find_object(None, path) is None
    assert ed.spawn("PointLight").get_path_name() != path       # undo still holds that name
    u.SystemLibrary.collect_garbage()
    assert lamp.get_actor_label() == "PointLight"
    ed.undo(), ed.undo()
    ed.delete(lamp)
    ed.clear_history()
    heir = ed.spawn("PointLight")
    assert heir is not lamp and heir.get_path_name() == path
    ed.collect_garbage()
    with pytest.raises(Exception, match="null"):
        lamp.get_actor_label()
    with pytest.raises(Exception, match="empty"):
        u.find_object(None, "")


def test_selection_is_part_of_undo_and_cancel_forgets_the_step(ed):
    eas = u.get_editor_subsystem(u.EditorActorSubsystem)
    rock = ed.spawn("StaticMeshActor", "Rock", mesh=ed.make_mesh("/Game/A/Rock"))
    ed.select(rock)
    with u.ScopedEditorTransaction("add"):
        lamp = eas.spawn_actor_from_class(u.PointLight, u.Vector())
    assert ed.selection() == [lamp] == eas.get_selected_level_actors()
    ed.undo()
    assert ed.selection() == [rock]
    ed.redo()
    assert ed.selection() == [lamp]
    steps = ed.history
    with u.ScopedEditorTransaction("nothing") as step:
        rock.set_actor_label("Stone")
        step.cancel()
    assert ed.history == steps and ed.actor("Stone") is rock
    rock_mesh = rock.static_mesh_component.static_mesh
    ed.edit_mesh(rock_mesh, bounds=((0, 0, 0), (9, 9, 0)))
    assert rock_mesh.get_num_triangles(0) == 2
    ed.undo()
    assert rock_mesh.get_bounding_box().min.x == -50 and rock_mesh.get_num_triangles(0) == 12


def test_children_move_with_what_they_hang_on(ed):
    cart = ed.spawn("StaticMeshActor", "Cart", (100, 0, 0), rotation=(0, 90, 0))
    box, lid = (ed.spawn("StaticMeshActor", n, (100, 50, z)) for n, z in (("Box", 0), ("Lid", 9)))
    ed.attach(box, cart)
    ed.attach(lid, box)
    before = ed.state()
    near(lid.get_actor_location(), (100, 50, 9))
    near(box.static_mesh_component.relative_location, (50, 0, 0))
    ed.move(cart, (0, 0, 10), rotation=(0, 0, 0))
    near(lid.get_actor_location(), (50, 0, 19))
    assert cart.get_attached_actors(True, True) == [box, lid]
    assert not cart.attach_to_actor(lid, "", *[u.AttachmentRule.KEEP_WORLD] * 3)
    ed.delete(cart)
    assert box.get_attach_parent_actor() is None and lid.get_attach_parent_actor() is box
    near(lid.get_actor_location(), (50, 0, 19))
    ed.undo(), ed.undo()
    assert ed.state() == before and box.get_attach_parent_actor() is cart
    ed.save()
    ed.open_level("/Game/Maps/Main")
    assert ed.state() == before
    assert ed.actor("Lid").get_attach_parent_actor() is ed.actor("Box")


def test_a_restart_finds_the_project_as_it_was_saved(ed, tmp_path):
    wood = u.Color(r=1, g=2, b=3, a=4)
    ed.spawn("TextRenderActor", "Sign", tags=("x",), folder="A/B", text="Hi", text_render_color=wood,
             rotation=(0, 33, 0), horizontal_alignment=u.HorizTextAligment.EHTA_CENTER)
    ed.spawn("CineCameraActor", "Shot", filmback=u.CameraFilmbackSettings(sensor_width=36.0))
    ed.save()
    ed.add_sublevel("/Game/Maps/Cellar")
    barrel = ed.spawn("StaticMeshActor", "Barrel", mesh="/Engine/BasicShapes/Cylinder")
    assert barrel.get_path_name().startswith("/Game/Maps/Cellar.Cellar:PersistentLevel.")
    assert len(u.EditorLoadingAndSavingUtils.get_dirty_map_packages()) == 2
    ed.save()
    saved = ed.state()
    ed.spawn("PointLight", "Unsaved")
    again = sim.Editor(tmp_path)
    assert again.state() == saved and again.actor("Barrel").get_actor_bounds(False)[1].z > 0


def test_a_full_disk_keeps_the_old_files(ed, tmp_path):
    saving = u.EditorLoadingAndSavingUtils
    rock = ed.make_mesh("/Game/Rock")
    ed.save()
    ed.edit_mesh(rock, bounds=((0, 0, 0), (9, 9, 9)))
    ed.spawn("StaticMeshActor", "New", mesh=rock)
    files = {f: f.read_bytes() for f in (tmp_path / "Content").rglob("*") if f.is_file()}
    limits = resource.getrlimit(resource.RLIMIT_FSIZE)
    resource.setrlimit(resource.RLIMIT_FSIZE, (500, limits[1]))     # writes fail half-way
    try:
        done = (u.EditorAssetLibrary.save_asset("/Game/Rock"), saving.save_dirty_packages(True, False),
                saving.save_dirty_packages(False, True))
    finally:
        resource.setrlimit(resource.RLIMIT_FSIZE, limits)
    assert done == (False, False, False) and [level for level, _ in ed.log] == ["error"] * 3
    assert {f: f.read_bytes() for f in (tmp_path / "Content").rglob("*") if f.is_file()} == files
    assert [p.get_name() for p in saving.get_dirty_content_packages()] == ["/Game/Rock"]
    assert [p.get_name() for p in saving.get_dirty_map_packages()] == ["/Game/Maps/Main"]
    assert saving.save_dirty_packages(True, True) and not saving.get_dirty_content_packages()
    assert not saving.get_dirty_map_packages() and len(ed.log) == 3


def test_a_reimport_is_told_with_the_asset_or_none(ed, tmp_path):
    told = []
    u.get_editor_subsystem(u.ImportSubsystem).on_asset_reimport.add_callable(told.append)
    glb = pathlib.Path(__file__).parent / "data" / "glb"
    rock = ed.make_mesh("/Game/Props/Rock")
    ed.save()
    dirty = u.EditorLoadingAndSavingUtils.get_dirty_content_packages
    ed.reimport(rock)
    assert told.pop() is rock and dirty()[0].get_name() == "/Game/Props/Rock"
    ed.save()
    ed.reimport(rock, glb / "chair.glb")
    assert told.pop() is rock and rock.get_num_triangles(0) == 108
    assert "/Game/Props/Rock" in {p.get_name() for p in dirty()}
    (tmp_path / "Bad.glb").write_bytes(b"glTF")
    for file in ("Bad.glb", "Missing.glb", "Missing.fbx"):
        ed.reimport(rock, tmp_path / file)
        assert told == [None] and ed.log.pop()[0] == "error" and rock.get_num_triangles(0) == 108
        told.clear()


def test_the_scripting_interface_agrees_with_the_table(ed):
    table = pathlib.Path(__file__).parent / "data" / "unreal_api.txt"
    wrong, checked = reference.disagreements(ed, table.read_text(encoding="utf-8"))
    assert not wrong, "\n".join(wrong)
    assert checked > 150
