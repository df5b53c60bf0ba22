"""The mesh and light parts of the scan in plain Python, for comparison only."""

import json
import time

import unreal


def rounded(v, n):
    return round(float(v), n) or 0.0


def xf_of(actor):
    t = actor.get_actor_transform()
    at, turn, scale = t.translation, t.rotation, t.scale3d
    x, y, z = turn.get_axis_x(), turn.get_axis_y(), turn.get_axis_z()
    r = rounded
    return [r(at.x, 3), r(at.y, 3), r(at.z, 3), r(x.x, 6), r(x.y, 6), r(x.z, 6), r(y.x, 6),
            r(y.y, 6), r(y.z, 6), r(z.x, 6), r(z.y, 6), r(z.z, 6), r(scale.x, 5), r(scale.y, 5),
            r(scale.z, 5)]


def folder_of(actor):
    try:
        folder = str(actor.get_folder_path())
    except Exception:
        return ""
    return "" if folder == "None" else folder


def tags_of(actor):
    try:
        tags = [str(t) for t in actor.get_editor_property("tags")]
    except Exception:
        return []
    return [t for t in tags if t and t != "None"]


def mesh_of(actor):
    try:
        return actor.static_mesh_component.get_editor_property("static_mesh")
    except Exception:
        return None


def overrides(component, mesh):
    try:
        materials = list(component.get_editor_property("override_materials") or [])
    except Exception:
        return []
    if not any(m is not None for m in materials):
        return []
    raise NotImplementedError("the bench has no overrides")


def srgb_to_lin(c):
    x = c / 255.0
    return x / 12.92 if x <= 0.04045 else ((x + 0.055) / 1.055) ** 2.4


def light_type(actor):
    if isinstance(actor, unreal.DirectionalLight):
        return "sun"
    if isinstance(actor, unreal.SpotLight):
        return "spot"
    return "rect" if isinstance(actor, unreal.RectLight) else "point"


def light_props(actor):
    light = actor.get_component_by_class(unreal.LightComponent)
    kind = light_type(actor)
    get = light.get_editor_property
    color = get("light_color")
    props = {
        "type": kind,
        "color": [rounded(srgb_to_lin(c), 4) for c in (color.r, color.g, color.b)],
        "shadows": bool(get("cast_shadows")),
        "temp": rounded(get("temperature"), 1) if get("use_temperature") else 0.0,
    }
    units = get("intensity_units")
    if units != unreal.LightUnits.CANDELAS:
        raise NotImplementedError("the bench has candelas")
    props["cd"] = rounded(get("intensity"), 4)
    props["radius"] = rounded(get("attenuation_radius"), 2)
    props["src"] = rounded(get("source_radius"), 3)
    props["inner"] = rounded(get("inner_cone_angle"), 3)
    props["outer"] = rounded(get("outer_cone_angle"), 3)
    return props


def info_of(actor, aid, kind, props):
    info = {"id": aid, "kind": kind, "label": actor.get_actor_label(),
            "folder": folder_of(actor), "xf": xf_of(actor)}
    tags = tags_of(actor)
    if tags:
        info["tags"] = tags
    if kind == "mesh":
        mesh = mesh_of(actor)
        info["asset"] = mesh.get_path_name() if mesh else ""
        rows = overrides(actor.static_mesh_component, mesh)
        if rows:
            info["mats"] = rows
    elif kind == "light" and props:
        info["light"] = light_props(actor)
    return info


PHYSICS = {"sim": False, "mass": 0.0, "friction": 0.7, "bounce": 0.3, "ldamp": 0.01, "adamp": 0.0}


def phys_of(component):
    try:
        get = component.get_editor_property("body_instance").get_editor_property
        surface = get("phys_material_override")
        surface = surface and surface.get_editor_property
        found = {"sim": bool(get("simulate_physics")),
                 "mass": rounded(get("mass_in_kg_override"), 3) if get("override_mass") else 0.0,
                 "friction": rounded(surface("friction"), 3) if surface else 0.7,
                 "bounce": rounded(surface("restitution"), 3) if surface else 0.3,
                 "ldamp": rounded(get("linear_damping"), 4),
                 "adamp": rounded(get("angular_damping"), 4)}
    except Exception:
        return {}
    return {} if all(abs(found[k] - v) < 0.001 for k, v in PHYSICS.items()) else found


def full_info_of(actor, aid, kind):
    info = info_of(actor, aid, kind, True)
    if kind == "mesh":
        phys = phys_of(actor.static_mesh_component)
        if phys:
            info["phys"] = phys
    return info


def is_alive(actor):
    try:
        return unreal.SystemLibrary.is_valid(actor) and not actor.is_actor_being_destroyed()
    except Exception:
        return False


def kind_of(actor):
    for cls, kind in ((unreal.StaticMeshActor, "mesh"), (unreal.SkeletalMeshActor, "skel"),
                      (unreal.Light, "light")):
        if isinstance(actor, cls):
            return kind
    return None


class Mirror:
    """`known` and what the scan has to send."""

    def __init__(self):
        self.known = {}
        self.kinds = {}
        self.xf_out = {}
        self.touched = {}
        self.sent = []

    def diff(self, aid, actor, props):
        entry = self.known[aid]
        info = info_of(actor, aid, self.kinds[aid], props)
        old = entry["info"]
        entry["actor"] = actor
        if info["xf"] != old["xf"]:
            self.xf_out[aid] = info["xf"]
        kind = info["kind"]
        if kind == "mesh":
            if info["asset"] != old.get("asset"):
                self.sent.append({"t": "set_mesh", "id": aid, "asset": info["asset"]})
            if info.get("mats", []) != old.get("mats", []):
                self.sent.append({"t": "mats", "id": aid, "mats": info.get("mats", [])})
        elif kind == "light" and "light" in info and info["light"] != old.get("light"):
            self.sent.append({"t": "props", "id": aid, "light": info["light"]})
        for key in ("light", "cam", "text"):
            if key in old and key not in info:
                info[key] = old[key]
        if info["label"] != old["label"] or info["folder"] != old["folder"]:
            self.sent.append({"t": "rename", "id": aid, "label": info["label"],
                              "folder": info["folder"]})
        if info.get("tags", []) != old.get("tags", []):
            self.sent.append({"t": "tags", "id": aid, "tags": info.get("tags", [])})
        entry["info"] = info

    def list_level(self, actors):
        live = {}
        for actor in actors:
            aid = actor.get_path_name()
            kind = self.kinds.get(aid, "?")
            if kind == "?":
                kind = self.kinds[aid] = kind_of(actor)
            if kind is not None:
                live[aid] = actor
        for aid in [aid for aid in self.known if aid not in live]:
            del self.known[aid]
        for aid, actor in live.items():
            if aid in self.known:
                self.known[aid]["actor"] = actor
            else:
                info = full_info_of(actor, aid, self.kinds[aid])
                self.known[aid] = {"actor": actor, "info": info}
        self.ids = list(live)

    def snapshot(self, actors):
        """The message's bytes; the mirror holds its records."""
        infos = []
        for actor in actors:
            aid = actor.get_path_name()
            kind = self.kinds[aid] = kind_of(actor)
            info = full_info_of(actor, aid, kind)
            infos.append(info)
            self.known[aid] = {"actor": actor, "info": dict(info)}
        message = {"t": "snapshot", "level": "Main", "world": "/Game/Maps/Main.Main",
                   "actors": infos}
        return json.dumps(message, separators=(",", ":")).encode()

    def apply_xf(self, message):
        def depth(item):
            actor, n = self.known[item[0]]["actor"], 0
            while (actor := actor.get_attach_parent_actor()) is not None:
                n += 1
            return n

        for aid, xf in sorted(message["items"], key=depth):
            entry = self.known[aid]
            actor = entry["actor"]
            if not is_alive(actor):
                continue
            if isinstance(actor, (unreal.InstancedFoliageActor, unreal.LandscapeProxy)):
                continue
            start = self.touched[aid][0] if aid in self.touched else actor.get_actor_transform()
            self.touched[aid] = [start, time.perf_counter()]
            turn = unreal.MathLibrary.make_rot_from_xz(unreal.Vector(*xf[3:6]),
                                                       unreal.Vector(*xf[9:12]))
            place = unreal.Transform(unreal.Vector(*xf[:3]), turn, unreal.Vector(*xf[12:]))
            actor.set_actor_transform(place, False, True)
            entry["info"]["xf"] = xf_of(actor)

    def scan(self, clock, props):
        for aid in list(self.known):
            clock()
            actor = self.known[aid]["actor"]
            if is_alive(actor):
                self.diff(aid, actor, props)
