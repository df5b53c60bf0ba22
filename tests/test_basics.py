"""Rounding and transforms, safe names, the cache folder, questions to the editor, the catalogue."""
import hashlib
import json
import os
import pathlib
import random
from types import SimpleNamespace

import pytest
import unreal
from hypothesis import HealthCheck, example, given, settings
from hypothesis import strategies as st

fuzz = settings(deadline=None, database=None,
                suppress_health_check=[HealthCheck.function_scoped_fixture])


@fuzz
@given(st.floats() | st.integers(-10**7, 10**7).map(float) | st.builds(
    lambda whole, n: (2 * whole + 1) / (2 * 10**n), st.integers(-10**6, 10**6), st.integers(0, 7)),
    st.integers(-3, 25))
@example(0.0005, 3)
@example(2.675, 2)
@example(0.5, 0)
@example(-0.00000049, 6)
@example(4503599627370497.5, 1)
@example(1e300, 22)
@example(9.5e-7, 6)
def test_rounding_is_that_of_python(K, v, n):
    expected = round(v, n)
    assert repr(K._r(v, n)) == repr(0.0 if expected == 0 else expected)


def test_the_numbers_of_a_transform_are_rounded_one_by_one(K, ed):
    dice = random.Random(3)
    kinds = [lambda: dice.uniform(-1e4, 1e4), lambda: dice.randrange(-10**8, 10**8) / 2e6,
             lambda: dice.choice([0.0, -0.0, -4e-7, 1e300, float("inf"), float("nan"), 2.0**52])]
    for _ in range(500):
        some = dice.sample(kinds, dice.randint(1, 3))
        numbers = [dice.choice(some)() for _ in range(15)]
        places = [SimpleNamespace(x=x, y=y, z=z) for x, y, z in zip(*[iter(numbers)] * 3)]
        turn = {f"get_axis_{axis}": lambda place=place: place
                for axis, place in zip("xyz", places[1:4])}
        xf = K._xf_of_transform(SimpleNamespace(translation=places[0], scale3d=places[4],
                                                rotation=SimpleNamespace(**turn)))
        decimals = [3] * 3 + [6] * 9 + [5] * 3
        assert list(map(repr, xf)) == [repr(K._r(v, n)) for v, n in zip(numbers, decimals)]


def test_a_class_that_changes_is_looked_at_anew(K, ed):
    """What a class has under a name is remembered; a reload of the editor's Python may change it."""
    class Turn:
        get_axis_x = get_axis_y = get_axis_z = lambda self: place

    class Place:
        __slots__ = ("x", "y", "z")

    class Loose:
        pass

    class Answers(Place):
        __slots__ = ()
        __getattribute__ = lambda self, name: 8

    class Reading:
        __get__ = lambda self, obj, cls: 6
        __set__ = lambda self, obj, value: None

    def x_axis():
        return K._xf_of_transform(SimpleNamespace(translation=place, rotation=turn,
                                                  scale3d=place))[3:6]

    turn = Turn()
    for cls in (Place, Loose, Place):
        place = cls()
        place.x, place.y, place.z = 1, 2, 3
        assert x_axis() == [1.0, 2.0, 3.0]
    Place.y = property(lambda self: 7)
    assert x_axis() == [1.0, 7.0, 3.0]
    Turn.get_axis_x = lambda self: SimpleNamespace(x=4, y=5, z=6)
    assert x_axis() == [4.0, 5.0, 6.0]
    place, Turn.get_axis_x = Answers(), Turn.get_axis_y
    assert x_axis() == [8.0, 8.0, 8.0]
    Loose.y = Reading()
    place = Loose()
    vars(place).update(x=1, y=2, z=3)
    assert x_axis() == [1.0, 6.0, 3.0]
    del Reading.__set__  # what the object itself holds comes first now
    assert x_axis() == [1.0, 2.0, 3.0]
    place = Place()
    del Place.z, Turn.get_axis_y
    for _ in range(2):
        with pytest.raises(AttributeError):
            x_axis()


def test_transforms(K, ed):
    for rotation, scale in (((0, 0, 0), (1, 1, 1)), ((10, 20, 30), (1, -2, 0.5)),
                            ((-80, 170, -100), (3, 3, 3)), ((0, -90, 45), (0.00001, 1, 1))):
        actor = ed.spawn("PointLight", location=(1.23456, -0.0001, 1e6), rotation=rotation,
                         scale=scale)
        xf = K._xf_of(actor)
        assert len(xf) == 15 and "-0.0" not in map(repr, xf) and xf[:3] == [1.235, 0.0, 1e6]
        assert xf == [round(v, n) for v, n in zip(xf, [3] * 3 + [6] * 9 + [5] * 3)]
        assert K._xf_of_transform(K._transform_from_xf(xf)) == pytest.approx(xf, abs=2e-6)
        skewed = xf[:6] + [9, 9, 9] + xf[9:]  # the Y axis follows from the others
        assert K._xf_of_transform(K._transform_from_xf(skewed)) == pytest.approx(xf, abs=2e-6)
    for bad, error in ((xf[:14], IndexError), ([], IndexError), (None, TypeError), (5, TypeError),
                       ({}, TypeError), ("123456789012345", TypeError),
                       ([None] * 15, TypeError), ([float("nan"), *xf[1:]], RuntimeError),
                       ([*xf[:14], float("inf")], RuntimeError)):
        with pytest.raises(error):
            K._transform_from_xf(bad)


@pytest.mark.parametrize("name, n, safe", [
    ("Chair", 48, "Chair"), ("a.b-c d", 48, "a_b_c_d"), ("____", 48, "Mesh"), ("", 48, "Mesh"),
    ("日本", 48, "Mesh"), ("ä1", 48, "M_1"), ("__7up__", 48, "M_7up"),
    ("7" * 60, 48, "M_" + "7" * 46),
    ("x" * 60, 48, "x" * 48), ("ab_cd", 3, "ab_"), ("Stuhl\udc80ß😀x", 48, "Stuhl___x"),
    (unreal.Name("N-1"), 48, "N_1")])
def test_safe_names(K, name, n, safe):
    assert K._safe(name, n) == safe and (n != 48 or K._safe(name) == safe)


def test_cache_folder(K, ed, tmp_path, monkeypatch):
    root = K.cache_dir()
    assert root == os.path.join(os.path.normpath(ed.project_dir), "Saved", "Ondrel", "cache")
    os.rmdir(os.path.join(root, "ue"))
    monkeypatch.setenv("LOCALAPPDATA", str(tmp_path / "local"))
    monkeypatch.setenv("HOME", str(tmp_path / "home"))
    ed.inject("Paths.project_saved_dir", times=None)
    assert K.cache_dir() == root  # worked out once
    assert sorted(os.listdir(root)) == ["blender", "ue"]
    ed.inject("SystemLibrary.get_game_name", result="My Game-1.2/ö", times=None)
    for home in ("local", "home"):
        K._CACHE.clear()
        assert K.cache_dir() == str(tmp_path / home / "Hollim" / "cache" / "My_Game-1.2__")
        monkeypatch.delenv("LOCALAPPDATA", raising=False)
    ed.heal()
    assert K.cache_dir() == K._CACHE[0] != root
    ed.inject("Paths.convert_relative_path_to_full", result="")
    ed.inject("SystemLibrary.get_game_name")
    K._CACHE.clear()
    assert pathlib.Path(K.cache_dir()).name == "Project"
    K._CACHE[0] = str(tmp_path / "file")
    (tmp_path / "file").write_text("")
    with pytest.raises(OSError):
        K.cache_dir()


def test_questions_to_the_editor(K, ed, monkeypatch):
    ed.play()
    assert K._in_pie() is True
    fault = ed.inject("LevelEditorSubsystem.is_in_play_in_editor", times=None)
    assert K._in_pie() is True and fault.hits == 1
    ed.stop_play()
    assert K._in_pie() is False
    ed.play()
    ed.remove("EditorLevelLibrary")
    assert K._in_pie() is False
    assert K._world_name() == "/Game/Maps/Main.Main"
    ed.inject("UnrealEditorSubsystem.get_editor_world", result=None)
    assert K._world_name() == ""
    ed.inject("UnrealEditorSubsystem.get_editor_world")
    with pytest.raises(RuntimeError, match="injected"):
        K._world_name()
    monkeypatch.setattr(unreal, "KestrixFoliageLibrary", None, raising=False)
    monkeypatch.delattr(unreal, "OndrelFoliageLibrary", raising=False)
    assert K._foliage_lib() is None
    monkeypatch.setattr(unreal, "OndrelFoliageLibrary", 1, raising=False)
    assert K._foliage_lib() == 1
    monkeypatch.delattr(unreal, "KestrixFoliageLibrary")
    monkeypatch.setattr(unreal, "__getattr__", {"KestrixFoliageLibrary": 2}.get, raising=False)
    assert K._foliage_lib() == 2
    monkeypatch.delattr(unreal, "__getattr__")
    K._log("Ä\udc80")
    K._warn(ValueError("odd"))
    assert ed.log[-2:] == [("log", "[Verrin] Ä?"), ("warning", "[Verrin] odd")]
    ed.remove("log")
    ed.inject("log_warning")
    K._log("lost")
    K._warn("lost")


@pytest.mark.parametrize("swallows", [False, True])
def test_a_context_is_left_with_the_failure(K, ed, monkeypatch, swallows):
    calls = []

    class Transaction:
        def __init__(self, title):
            calls.append(title)

        def __enter__(self):
            calls.append("enter")

        def __exit__(self, kind, error, trace):
            calls.append((kind, str(error), trace is not None))
            return swallows

    chair = ed.spawn("StaticMeshActor", label="Chair").get_path_name()
    monkeypatch.setattr(unreal, "ScopedEditorTransaction", Transaction)
    rename = {"id": chair, "label": "Stool"}
    K._h_rename(rename)
    ed.inject("Actor.set_actor_label", ValueError("no"))
    if swallows:
        K._h_rename(rename)
    else:
        with pytest.raises(ValueError):
            K._h_rename(rename)
    begin = ["Verrin: rename", "enter"]
    assert calls == [*begin, (None, "None", False), *begin, (ValueError, "no", True)]
    del calls[:], Transaction.__exit__
    with pytest.raises(AttributeError):
        K._h_rename(rename)
    assert calls == begin[:1]  # never entered


def test_installed_release(K, tmp_path, monkeypatch):
    plugin = tmp_path / "Plug"
    plugin.mkdir()
    monkeypatch.setattr(K, "_PLUGIN_DIR", str(plugin))
    file = plugin / "Any.uplugin"
    for content, release in ((None, ""), ('\ufeff{"VersionName": "1.2"}', "1.2"), ("{}", ""),
                             ('{"VersionName": 3}', "3"), ("[]", ""), ("{", "")):
        if content is not None:
            file.write_text(content, "utf-8")
        assert K._plugin_release() == release
    (plugin / "Sub").mkdir()
    assert K._dev_install() == ""
    (tmp_path / "link").symlink_to(plugin)
    monkeypatch.setattr(K, "_PLUGIN_DIR", str(tmp_path / "link"))
    assert K._dev_install() == f"the plugin folder is a link to {plugin} - update it there"
    monkeypatch.setattr(K, "__file__", str(plugin / "kestrix.so"))
    (plugin / "kestrix.py").write_text("")
    assert K._dev_install().startswith("this is a development install")


def test_catalogue(K, ed):
    mesh = ed.make_mesh("/Game/Props/Chair", bounds=((-50, -0.00001, 0), (12.3456, 1.2346, 100)))
    path = mesh.get_path_name()
    file = K._package_file(path)
    assert file == os.path.join(ed.project_dir, "Content", "Props", "Chair.uasset")
    os.utime(file, (5.9, 5.9))
    stamp = f"5_{os.path.getsize(file)}"

    def key_of(revision, stamp=stamp):
        text = f"{path}|{stamp}|[-50.0, 0.0, 0.0]|[12.346, 1.235, 100.0]|{revision}"
        return hashlib.md5(text.encode()).hexdigest()[:12]

    entry = K._asset_entry(path)
    assert list(entry) == ["path", "bmin", "bmax", "key", "stamp"] and json.dumps(entry)
    assert entry["key"] == key_of(0) and entry["stamp"] == stamp
    K._S["asset_rev"] = {path: 2}
    assert K._asset_entry(path) is entry  # until whoever counts takes it out
    del K._S["assets"][path]
    assert K._asset_entry(path)["key"] == key_of(2)
    os.utime(file, (7, 7))
    assert K._asset_entry(path)["key"] == key_of(2, stamp.replace("5_", "7_", 1))
    os.remove(file)
    cube = "/Engine/BasicShapes/Cube.Cube"
    assert K._asset_entry(path)["stamp"] == K._file_stamp(cube) == "engine"
    assert K._package_file(cube) is None
    missing = {"path": "/Game/No.No", "bmin": [-50, -50, 0], "bmax": [50, 50, 100],
               "key": "missing", "stamp": "engine"}
    assert K._asset_entry("/Game/No.No") == missing == K._S["assets"]["/Game/No.No"]
    del K._S["assets"][path]
    ed.inject("StaticMesh.get_bounding_box")
    assert K._asset_entry(path)["key"] == "missing" and path not in K._S["assets"]
    assert K._asset_entry(path)["key"] == key_of(2, "engine")
