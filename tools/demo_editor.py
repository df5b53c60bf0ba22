"""The editor's side of the demo: the steps that its program runs, and what its level then holds.

A step is a generator whose yields are seconds to wait; its docstring is its heading.
"""
import json
import queue
import sys
import threading

import unreal

# What the script's lines on the editor's output begin with: a step's heading, and its outcome.
HEADING, OUTCOME = "demo step: ", "demo outcome: "


def drag(ed):
    """The user selects a crate and drags it: every move goes out at once"""
    crate = ed.actor("Prop1")
    ed.select(crate)
    for i in range(20):
        ed.move(crate, (50.0 * i, 25.0 * i, 0.0), rotation=(0, 9 * i, 0))
        yield 0.05
    ed.select()


def shove(ed):
    """A script moves twenty actors that nobody has selected: the scan finds them"""
    for i in range(2, 22):
        ed.move(ed.actor(f"Prop{i}"), (100.0 * i, -4000.0, 0.125 * i), scale=(2, 1, 1))
    yield 0.1


def relabel(ed):
    """Actors get new names, folders and tags"""
    ed.rename(ed.actor("Sign1"), "South gate", "Signs/Gates")
    ed.rename(ed.actor("Prop5"), folder="")
    ed.retag(ed.actor("Prop6"), "keep", "wet")
    ed.retag(ed.actor("Prop7"))
    sign = ed.actor("South gate")
    ed.set(sign, text="South gate", world_size=60.0)
    ed.select(sign)             # selected, so that its settings go out at once
    yield 0.1
    ed.select()


def swap_meshes(ed):
    """Meshes and materials are swapped, one mesh is new"""
    barrel = ed.make_mesh("/Game/Props/NewBarrel", slots=("Base", "Trim"))
    for i in range(8, 12):
        ed.set(ed.actor(f"Prop{i}"), static_mesh=barrel)
    rust = barrel.get_material(1)
    ed.set(ed.actor("Prop12"), static_mesh=barrel, override_materials=[rust])
    ed.set(ed.actor("Prop13"), static_mesh=None)
    yield 0.1


def relight(ed):
    """A lamp gets brighter in lumens, another in EV, and a camera a longer lens"""
    ed.set(ed.actor("Lamp3"), intensity=2400.0, outer_cone_angle=30.0)
    ed.set(ed.actor("Lamp4"), intensity=9.5, cast_shadows=False)
    ed.set(ed.actor("Shot1"), current_focal_length=135.0)
    ed.set(ed.actor("Overview"), field_of_view=60.0)
    yield 0.1


def add_and_remove(ed):
    """Actors are added, duplicated and deleted; undo brings one back"""
    bench = ed.spawn("StaticMeshActor", "Bench", (0, 0, 40), "Props/New", ("new",),
                     mesh="/Engine/BasicShapes/Cube")
    ed.duplicate(bench, (300, 0, 0))
    ed.spawn("TextRenderActor", "Bench sign", (0, 0, 120), "Signs", text="Take a seat")
    ed.delete(ed.actor("Prop14"), ed.actor("Prop15"))
    ed.delete(ed.actor("Prop16"))
    yield 1.0
    ed.undo()


def play(ed):
    """The editor plays: nothing goes out, and what changed meanwhile follows at the end"""
    ed.play()
    yield 0.5
    ed.move(ed.actor("Prop17"), (0, 0, 5000))
    ed.spawn("StaticMeshActor", "Left by the game", mesh="/Engine/BasicShapes/Sphere")
    yield 0.5
    ed.stop_play()


def change_level(ed):
    """Another level is opened and filled, then the first one again; loading takes a while"""
    ed.new_level("/Game/Maps/Annex")
    for i in range(5):
        ed.spawn("StaticMeshActor", f"Shelf{i}", (0, 200 * i, 0), mesh="/Game/Props/Crate")
    yield 0.7
    ed.begin_level_change("/Game/Maps/Main")
    yield 0.5
    ed.end_level_change()


def last_touches(ed):
    """The peer that took over follows as the first one did"""
    ed.move(ed.actor("Prop1"), (1, 2, 3))
    ed.rename(ed.actor("Prop18"), "The last one")
    ed.delete(ed.actor("Prop19"))
    yield 0.1


def undo(ed):
    """The editor's user undoes what the peer has done, six steps back"""
    for _ in range(6):
        ed.undo()
        yield 0.1


def redo(ed):
    """... and does it again"""
    for _ in range(6):
        ed.redo()
        yield 0.1


def look(ed):
    """Nothing changes"""
    yield 0.0


# -- what there is

def light_of(actor):
    """A light's settings in the record's units; of the intensity only what needs no geometry."""
    value = actor.light_component.get_editor_property
    light = {"shadows": value("cast_shadows")}
    if isinstance(actor, unreal.DirectionalLight):
        return light | {"lux": value("intensity"), "angle": value("light_source_angle")}
    intensity, units = value("intensity"), value("intensity_units")
    candela = {unreal.LightUnits.CANDELAS: intensity, unreal.LightUnits.UNITLESS: intensity / 625,
               unreal.LightUnits.EV: 2.0 ** min(intensity, 60.0)}
    light |= {"cd": candela[units]} if units in candela else {}
    if isinstance(actor, unreal.SpotLight):
        light |= {"inner": value("inner_cone_angle"), "outer": value("outer_cone_angle")}
    return light | {"radius": value("attenuation_radius")}


def lens_of(actor):
    value = actor.camera_component.get_editor_property
    if not isinstance(actor, unreal.CineCameraActor):
        return {"fov": value("field_of_view")}
    sensor = value("filmback")
    return {"focal": value("current_focal_length"), "sw": sensor.sensor_width,
            "sh": sensor.sensor_height}


def record_of(actor):
    """What a peer should know of an actor; None if it is none of those that the link shows."""
    meshes = [c.static_mesh for c in actor.get_components_by_class(unreal.StaticMeshComponent)]
    xf = actor.get_actor_transform()
    record = {"label": actor.get_actor_label(), "tags": [str(tag) for tag in actor.tags],
              "folder": str(actor.get_folder_path()).replace("None", ""), "asset": "",
              "location": xf.translation.to_tuple(), "scale": xf.scale3d.to_tuple(),
              "forward": xf.rotation.rotator().get_forward_vector().to_tuple()}
    if isinstance(actor, unreal.StaticMeshActor):
        return record | {"asset": meshes[0].get_path_name() if meshes[0] else ""}
    if isinstance(actor, unreal.SkeletalMeshActor):
        return record | {"asset": actor.skeletal_mesh_component.skeletal_mesh_asset.get_path_name()}
    if isinstance(actor, unreal.Light):
        return record | {"light": light_of(actor)}
    if isinstance(actor, unreal.CameraActor):
        return record | {"cam": lens_of(actor)}
    if isinstance(actor, unreal.TextRenderActor):
        text = actor.text_render.get_editor_property
        return record | {"text": {"body": str(text("text")), "size": text("world_size")}}
    if isinstance(actor, unreal.Landscape):
        return record
    return record | {"comps": len(meshes)} if meshes else None


def exposure(ed):
    """The bias of the link's exposure volume, in stops; None if there is none in effect."""
    for volume in ed.actors():
        if isinstance(volume, unreal.PostProcessVolume) and "KestrixExposure" in volume.tags:
            if volume.get_editor_property("enabled"):
                return volume.get_editor_property("settings").auto_exposure_bias
    return None


def playing(ed):
    """The animations that run in the viewport."""
    parts = [(a, a.skeletal_mesh_component) for a in ed.actors()
             if isinstance(a, unreal.SkeletalMeshActor)]
    return [f"{actor.get_actor_label()}: {part.animation_data.anim_to_play.get_name()}"
            for actor, part in parts if part._p["_position"] > 0.0]


def backups():
    """The names of the assets that were backed up."""
    paths = unreal.EditorAssetLibrary.list_assets("/Game/Verrin/_Backups")
    return [path.rsplit(".", 1)[1].rsplit("_", 2)[0] for path in paths]


def materials():
    """The roughness of each material that the link has made and not found unused."""
    library = unreal.MaterialEditingLibrary
    found = [unreal.load_asset(path) for path in
             unreal.EditorAssetLibrary.list_assets("/Game/Verrin/Materials")]
    return {m.get_path_name(): round(library.get_material_instance_scalar_parameter_value(m, "RoughnessFactor"), 4)
            for m in found if isinstance(m, unreal.MaterialInstanceConstant)
            and m.get_name().lower() in ("floor", "car_paint")}


def users(ed):
    """The labels of the mesh actors that show each of those materials."""
    found = {path: [] for path in materials()}
    for actor in ed.actors():
        if isinstance(actor, unreal.StaticMeshActor):
            for material in actor.static_mesh_component.get_materials():
                if material and material.get_path_name() in found:
                    found[material.get_path_name()].append(actor.get_actor_label())
    return found


def unused():
    """The instances that the link has found unused."""
    state = sys.modules["kestrix"]._S
    return sorted(p for p in state.get("unused", ()) if "/FBX/Floor" in p)


def held(ed):
    """What the editor holds, straight from its objects: the truth that the peer has to know."""
    world = unreal.get_editor_subsystem(unreal.UnrealEditorSubsystem).get_editor_world()
    records = {actor.get_path_name(): record_of(actor) for actor in ed.actors()}
    return {"world": world.get_path_name(),
            "actors": {aid: record for aid, record in records.items() if record},
            "selection": [actor.get_actor_label() for actor in ed.selection()],
            "view": ed.panes[0].location.to_tuple(), "exposure": exposure(ed),
            "history": ed.history, "playing": playing(ed), "backups": backups(),
            "materials": materials(), "users": users(ed), "unused": unused()}


def _read_into(lines):
    for line in sys.stdin:
        lines.put(line)
    lines.put("")


def script(ed):
    """Run by the editor program: makes each step that the demo names, and says what there is."""
    lines = queue.Queue()       # Windows can't ask a pipe whether it has something to read
    threading.Thread(target=_read_into, args=(lines,), daemon=True).start()
    while True:
        while lines.empty():
            yield 0.02
        name = lines.get().strip()
        if not name:                                    # the demo has ended
            return
        step = globals()[name]
        print(HEADING + step.__doc__, flush=True)
        yield from step(ed)
        print(OUTCOME + json.dumps(held(ed)), flush=True)
