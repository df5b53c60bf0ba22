"""Lights: photometry in every unit, the order in which a record is written, colours, bad input."""
import math
import types

import pytest
import unreal as u


def component(light):
    return light.get_component_by_class(u.LightComponent)


def light_of(ed, kind, units="CANDELAS", **props):
    return ed.spawn(kind, intensity_units=getattr(u.LightUnits, units), **props)


def close(value):
    return pytest.approx(value, rel=1e-6)  # the engine's floats have 32 bits


def test_transfer_functions_are_each_others_inverse(K):
    linear = [K._srgb_to_lin(c) for c in range(256)]
    assert [K._lin_to_srgb8(v) for v in linear] == list(range(256))
    assert (linear[0], linear[10], linear[188], linear[255]) == pytest.approx(
        (0.0, 10 / 255 / 12.92, 0.5028865, 1.0))
    assert [K._lin_to_srgb8(v) for v in (-3.0, 1.5, math.inf, math.nan)] == [0, 255, 255, 0]


@pytest.mark.parametrize("kind, props, lm_per_cd, area", [
    ("PointLight", {"source_radius": 50.0, "source_length": 100.0}, 4 * math.pi, 2 * math.pi),
    ("SpotLight", {"source_radius": 100.0, "outer_cone_angle": 60.0}, math.pi, 4 * math.pi),
    ("RectLight", {"source_width": 200.0, "source_height": 50.0}, math.pi, 1.0),
])
def test_intensity_in_every_unit(ed, K, kind, props, lm_per_cd, area):
    for unit, expected in {"CANDELAS": 250.0, "LUMENS": 250.0 * lm_per_cd, "EV": math.log2(250.0),
                           "NITS": 250.0 / area, "UNITLESS": 156250.0}.items():
        light = light_of(ed, kind, unit, **props)
        K._apply_light(light, {"cd": 250.0, "lux": 7.0, "angle": 7.0})
        assert component(light).intensity == close(expected)
        assert K._light_props(light)["cd"] == pytest.approx(250.0, rel=1e-5)
        lt, lc, units = K._light_type(light), component(light), getattr(u.LightUnits, unit)
        for cd in (1e-6, 0.3, 1e7):
            there = K._from_candela(lt=lt, lc=lc, cd=cd, units=units)
            assert K._to_candela(lt=lt, lc=lc, value=there, units=units) == pytest.approx(cd, 1e-12)


def test_limits_of_the_units(ed, K, monkeypatch):
    spot = light_of(ed, "SpotLight", "LUMENS", outer_cone_angle=0.0, intensity=2.0)
    assert K._light_props(spot)["cd"] == 2e9
    evs = [K._to_candela("point", None, ev, u.LightUnits.EV) for ev in (100.0, -100.0)]
    assert evs == [2.0 ** 60, 2.0 ** -60]
    assert K._from_candela("point", None, 0.0, u.LightUnits.EV) == math.log2(1e-9)
    point = light_of(ed, "PointLight", "NITS")
    K._apply_light(point, {"cd": 3.0})          # a source without size
    with pytest.raises(RuntimeError, match="intensity: .* beyond"):
        K._apply_light(point, {"cd": 1e30})
    assert component(point).intensity == close(3e9)
    ed.inject("Object.get_editor_property", when=lambda obj, name: name == "source_length")
    ed.set(point, source_radius=50.0, source_length=100.0)
    assert K._nits_area_m2("point", component(point)) == pytest.approx(math.pi)
    monkeypatch.setattr(u, "LightUnits", types.SimpleNamespace(CANDELAS=1))  # of an older engine
    assert [K._from_candela("point", None, 2.0, unit) for unit in (1, 0)] == [2.0, 1250.0]


@pytest.mark.parametrize("kind", ["DirectionalLight", "SpotLight", "PointLight", "RectLight"])
def test_what_is_read_of_a_light_makes_another_the_same(ed, K, kind):
    light, twin = (ed.spawn(kind, light_color=u.Color(r=255, g=188, b=0, a=255), cast_shadows=False,
                            use_temperature=True, temperature=4000.0, intensity=2812.5),
                   ed.spawn(kind))
    names = [name for name in ("light_source_angle", "attenuation_radius", "source_radius",
                               "outer_cone_angle", "inner_cone_angle", "source_width",
                               "source_height") if name in dir(component(light))]
    for i, name in enumerate(names):
        component(light).set_editor_property(name, 31.5 - i)
    record = K._light_props(light)
    K._apply_light(twin, {**record, "type": "sun"})
    assert K._light_props(twin) == record and record["color"] == [1.0, 0.5029, 0.0]
    for name in names:
        assert component(twin).get_editor_property(name) == component(light).get_editor_property(name)
    before = ed.state()
    K._apply_light(light, record)
    assert ed.state() == before


def test_cone_and_size_count_before_the_intensity_and_the_radius_after(ed, K):
    order = []
    ed.inject("Object.set_editor_property", times=None,
              when=lambda obj, name, *rest: order.append(name))
    spot = light_of(ed, "SpotLight", "LUMENS", outer_cone_angle=10.0)
    K._apply_light(spot, {"shadows": 0, "src": 5.0, "radius": 300.0, "cd": 100.0, "inner": 90.0,
                          "outer": 60.0, "temp": 3000.0, "color": [1.0, 0.0, 0.0]})
    assert order == ["light_color", "use_temperature", "temperature", "outer_cone_angle",
                     "inner_cone_angle", "intensity", "attenuation_radius", "source_radius",
                     "cast_shadows"]
    assert component(spot).intensity == close(100.0 * math.pi)
    assert component(spot).inner_cone_angle == 60.0
    K._apply_light(spot, {"inner": 120.0})      # the light's own outer cone doesn't count
    assert component(spot).inner_cone_angle == 90.0
    rect = light_of(ed, "RectLight", "NITS")
    K._apply_light(rect, {"cd": 100.0, "w": 200.0, "h": 100.0, "src": 9.0})
    assert component(rect).intensity == close(50.0)


@pytest.mark.parametrize("color, stored, gain", [
    ([2.0, 1.0, 0.5], [1.0, 0.5, 0.25], 2.0),
    ([1.0, 0.5, 0.25], [1.0, 0.5, 0.25], 1.0),
    ([0.02, 0.01, 0.0], [0.02, 0.01, 0.0], 1.0),
    ([0.01, 0.005, 0.0], [1.0, 0.5, 0.0], 0.01),
    ([0.0, 0.0, 0.0], [0.0, 0.0, 0.0], 1.0),
    ([-1.0, -2.0, -3.0], [0.0, 0.0, 0.0], 1.0),
    ([1.0019, 1.0, 0.9981], [1.0, 1.0, 1.0], 1.0),  # as good as the white that is there
    (None, [1.0, 1.0, 1.0], 1.0),
])
def test_brightness_beyond_eight_bits_moves_into_the_intensity(ed, K, color, stored, gain):
    lamp, sun = light_of(ed, "PointLight"), ed.spawn("DirectionalLight")
    for light, field in ((lamp, "cd"), (sun, "lux")):
        K._apply_light(light, {"color": color, field: 100.0})
        now = component(light).light_color
        assert [now.r, now.g, now.b, now.a] == [*map(K._lin_to_srgb8, stored), 255]
        assert component(light).intensity == close(100.0 * gain)


def test_temperature_changes_by_more_than_half_a_kelvin(ed, K):
    lamp = component(light := ed.spawn("PointLight", use_temperature=True, temperature=6500.5))
    for temp, kelvin in ((6500, 6500.5), (6499.9, 6499.9), (0, None), (-5.0, None), (2700, 2700),
                         (0.6, 0.6)):
        before = lamp.temperature
        K._apply_light(light, {"temp": temp})
        assert lamp.use_temperature is (kelvin is not None)
        assert lamp.temperature == close(before if kelvin is None else kelvin)


def test_a_bad_field_stops_the_rest_and_undo_takes_it_back(ed, K):
    spot = light_of(ed, "SpotLight", intensity=5.0)
    before = ed.state()
    good = {"color": [1.0, 0.0, 0.0], "outer": 30.0, "cd": 40.0, "src": 3.0, "shadows": False}
    for bad in ({"cd": "40"}, {"cd": math.nan}, {"src": -math.inf}, {"temp": {}}, {"color": 3},
                {"outer": 10 ** 400}, {"color": [1.0, 0.5]}, {"color": [math.nan, 0, 0]}):
        with pytest.raises((TypeError, RuntimeError, OverflowError)), \
                u.ScopedEditorTransaction("edit"):
            K._apply_light(spot, {**good, **bad})
        assert component(spot).cast_shadows and ed.history[-1] == "edit"
        ed.undo()
        assert ed.state() == before
    for args in ((spot, [1.0]), (spot, None), (ed.spawn("SkyLight"), {})):
        with pytest.raises((TypeError, RuntimeError)):
            K._apply_light(*args)
