"""What builds leave behind: listed, tested against everything that may use it, told of or deleted."""
import pytest
import unreal as u
from conftest import logged
from hypothesis import HealthCheck, given, settings, strategies as st
from unreal._editor import editor

ROOT_FOLDER = "/Game/Verrin/Materials"
TOLD = ("%d material asset(s) no longer used - NOT deleted (AUTO_DELETE is off), delete them by hand if you "
        "like: %s")


def package(name):
    return f"{ROOT_FOLDER}/{name}"


def texture(name):
    made = u.Texture2D(package(name))
    made._save()
    return made


def instance(path, *textures, parent=None):
    made = u.MaterialInstanceConstant(path)
    made._set("parent", parent or u.load_asset("/InterchangeAssets/gltf/Substrate/M_GLTF"))
    made._set("texture_parameter_values", [u.TextureParameterValue(
        u.MaterialParameterInfo(f"T{i}"), t) for i, t in enumerate(textures)])
    made._save()
    return made


def gone(K, clock, *names, seconds=3.0):
    """What of these passes; the rest still waits."""
    K._trash_add([package(n) for n in names])
    clock.advance(seconds)
    K._trash_tick()
    return sorted(n for n in names if package(n) not in K._S["trash"])


def test_the_list(ed, K, clock, ask):
    for name in ("A/FBX/A", "A/Textures/t", "B/B"):
        ed.make_material(package(name))
    assert K._assets_under(package("A")) == [package("A/FBX/A"), package("A/Textures/t")]
    assert K._assets_under(package("None")) == []
    ask("mat_drop", name="A")
    ask("mat_drop")
    ask("mat_drop", name="")
    before = dict(K._S["trash"])
    assert list(before) == [package("A/FBX/A"), package("A/Textures/t")]
    clock.advance(1)
    K._trash_add([*before, "/Game/Props/Chair", "/Game/Verrin/MaterialsX/A", ROOT_FOLDER])
    assert K._S["trash"] == before


def test_when_an_entry_is_looked_at(ed, K, clock):
    ed.make_material(package("A"))
    assert gone(K, clock, "A", seconds=2.9) == [] and K._S.get("unused") is None
    clock.advance(0.1)
    assert gone(K, clock, "A", seconds=0) == ["A"] and K._S["unused"] == {package("A")}
    assert logged(ed)[-1] == TOLD % (1, package("A")) and package("A") in K.status()
    ed.clear_log()
    assert gone(K, clock, "A") == ["A"] and ed.log == []    # told once
    K._S["unused"].clear()
    used = ed.spawn("StaticMeshActor", mesh=ed.make_mesh("/Game/Props/Crate"))
    used.static_mesh_component.set_material(0, u.load_asset(package("A")))
    assert gone(K, clock, "A", seconds=120.0) == []         # blocked, and not too old yet
    clock.advance(0.5)
    K._trash_tick()
    assert K._S["trash"] == {} and ed.log == []             # forgotten untested
    K._S["trash"] = {package("A"): "soon", package("Gone"): clock.epoch - 5}
    K._trash_tick()
    assert K._S["trash"] == {} and ed.log == []


def test_who_protects(ed, K, clock):
    shown, mine, lonely, foreign, soft, other, live = (texture(f"T/{n}") for n in (
        "shown", "mine", "lonely", "foreign", "soft", "other", "live"))
    stale = instance(package("Old/MI"), lonely)
    on_screen = instance(package("Seen/MI"), shown)
    instance(package("New/MI"), mine)
    instance("/Game/User/MI", foreign)
    editor.soft_references["/Game/User/Sheet"] = [soft._package()]
    mesh = ed.make_mesh("/Game/Props/Crate")
    ed.new_level("/Game/Maps/Other")
    ed.spawn("StaticMeshActor", mesh=ed.make_mesh("/Game/Props/Box")).static_mesh_component.set_material(
        0, instance(package("Elsewhere/MI"), other))
    ed.open_level("/Game/Maps/Main")
    crate = ed.spawn("StaticMeshActor", mesh=mesh)
    crate.static_mesh_component.set_material(0, on_screen)
    ed.save()
    crate.static_mesh_component.set_material(0, None)
    lamp = ed.spawn("PointLight")
    ed.inject("Actor.get_components_by_class", times=None, when=lambda a, *_: a is lamp)    # passed over
    names = ["T/shown", "T/mine", "T/lonely", "T/foreign", "T/soft", "T/other", "T/live", "Old/MI", "Elsewhere/MI"]
    assert gone(K, clock, *names) == ["Old/MI", "T/live", "T/lonely"]
    crate.static_mesh_component.set_material(0, stale)      # unsaved, but seen
    assert gone(K, clock, *names) == ["T/live"]
    crate.static_mesh_component.set_material(0, None)
    # The level that is open names it on disk only: that doesn't count.
    assert gone(K, clock, "Seen/MI", "T/shown") == ["Seen/MI", "T/shown"] and live._valid


@settings(max_examples=60, deadline=None, suppress_health_check=list(HealthCheck))
@given(st.data())
def test_groups_go_together_or_not_at_all(ed, K, clock, monkeypatch, data):
    """Against the plain reading: what anything outside reaches, through any chain, stays."""
    names = [f"G/M{i}" for i in range(data.draw(st.integers(1, 7)))]
    outside = [f"/Game/User/U{i}" for i in range(2)]
    edges = data.draw(st.sets(st.tuples(st.sampled_from([*map(package, names), *outside]),
                                        st.sampled_from([package(n) for n in names])), max_size=9))
    due = data.draw(st.sets(st.sampled_from(names), min_size=1))
    for asset in [a for p, a in list(editor.assets.items()) if "/G/" in p or "/User/" in p]:
        ed.delete_asset(asset)
    made = {p: ed.make_material(p) for p in [*map(package, names), *outside]}
    monkeypatch.setattr(u.Material, "_references",
                        lambda self: [made[b] for a, b in edges if a == self._package() != b])
    for asset in made.values():
        asset._save()
    K._S["trash"], K._S["unused"] = {}, set()
    reached = {p for p in made if p not in map(package, due)}
    while more := {b for a, b in edges if a in reached} - reached:
        reached |= more
    K.AUTO_DELETE = auto = data.draw(st.booleans())
    try:
        assert {package(n) for n in gone(K, clock, *sorted(due))} == set(map(package, due)) - reached
    finally:
        K.AUTO_DELETE = False
    assert {p for p, a in made.items() if not a._valid} == (set(map(package, due)) - reached if auto else set())


def test_deleting(ed, K, clock, monkeypatch):
    monkeypatch.setattr(K, "AUTO_DELETE", True)
    first, second = (ed.make_material(package(n)) for n in ("A", "B"))
    assert gone(K, clock, "A", "B") == ["A", "B"] and not first._valid and not second._valid
    assert logged(ed)[-1] == "removed 2 replaced material asset(s)" and "unused" not in K._S
    locked = ed.make_material(package("C"))
    with monkeypatch.context() as disk:
        disk.setattr("os.remove", lambda file: (_ for _ in ()).throw(PermissionError("locked")))
        assert gone(K, clock, "C") == ["C"] and locked._valid
    assert logged(ed)[-1] == "removed 1 replaced material asset(s) (some could not be deleted)"
    # The registry knows what was saved: while the user has unsaved work nothing is deleted.
    picture = texture("D")
    draft = u.MaterialInstanceConstant("/Game/User/Draft")
    draft.set_editor_property("texture_parameter_values", [u.TextureParameterValue(
        u.MaterialParameterInfo("T"), picture)])
    assert gone(K, clock, "C", "D") == [] and picture._valid
    draft._save()
    assert gone(K, clock, "C", "D", seconds=0) == ["C"] and picture._valid and not locked._valid


def test_passes_are_spread_over_ticks(ed, K, peer, tick, clock, monkeypatch):
    mesh = ed.make_mesh("/Game/Props/Crate")
    for _ in range(30):
        ed.spawn("StaticMeshActor", mesh=mesh)
    for i in range(40):
        instance(package(f"M{i}/MI"), texture(f"M{i}/t"))
    monkeypatch.setattr("time.perf_counter", lambda: setattr(clock, "now", clock.now + 0.0002) or clock.now)
    K._trash_add([package(f"M{i}/MI") for i in range(40)])
    tick(3.1)
    whole = ed.inject("AssetRegistry.get_assets_by_path", times=0, when=lambda *_, **__: False)
    for _ in range(200):
        calls = whole.hits
        tick()
        assert whole.hits - calls <= 1
    assert K._S["unused"] == {package(f"M{i}/MI") for i in range(40)} and K._S["trash"] == {}
    # Another level, or a user who comes back, ends a pass half-way; stop and start forget it.
    K._trash_add([package("M1/t")])
    tick(3.1)
    K._S["trash_t"] = 0.0
    while "trash_pass" not in K._S:
        tick()
    K._S["fg"], K._S["fg_t"] = True, clock.now + 100
    tick()
    assert "trash_pass" not in K._S and package("M1/t") in K._S["trash"]
    K._S.update(fg=False, trash_t=0.0)
    while "trash_pass" not in K._S:
        tick()
    K._S["trash_pass"]["world"] = "/Game/Maps/Other.Other"
    tick()
    assert "trash_pass" not in K._S
    K._S["trash_pass"] = {"broken": 1}
    tick()
    assert "trash_pass" not in K._S and K._S.pop("errors") == 1 and K._S.pop("last_error")
