"""Text actors: reading and writing their record."""
import pytest
import unreal as u


@pytest.fixture
def sign(ed):
    return ed.spawn("TextRenderActor", "Sign", text="Exit", world_size=26.12345,
                    text_render_color=u.Color(r=1, g=2, b=3, a=4))


def test_a_text_without_its_property_and_one_without_a_component(ed, K, sign):
    record = K._text_props(sign)
    ed.inject("Object.get_editor_property", when=lambda obj, key: key == "text_render", times=None)
    assert K._text_props(sign) == record and record["size"] == 26.123   # found by its class
    bare = ed.spawn("Actor")
    assert K._text_comp(bare) is None and K._text_props(bare) == {}
    K._apply_text(bare, {"body": "nowhere"})


def test_alignments_come_back_as_written(K, sign):
    for field, words in (("halign", K._HALIGN), ("valign", K._VALIGN)):
        for word, _ in reversed(words):
            K._apply_text(sign, {field: word})
            assert K._text_props(sign)[field] == word
        K._apply_text(sign, {field: words[-1][0]})
        K._apply_text(sign, {field: ""})
        K._apply_text(sign, {field: None})
        assert K._text_props(sign)[field] == words[-1][0]
        K._apply_text(sign, {field: "sideways"})
        assert K._text_props(sign)[field] == words[0][0]
    assert K._enum_key("<Align.EVRTA_QUAD_TOP: 3>".lower(), K._VALIGN) == "quad_top"
    assert K._enum_key(None, K._HALIGN) == "left"


def test_writing_touches_only_what_is_given(ed, K, sign):
    before = K._text_props(sign)
    for part, after in [({"color": [9, 8.7, 7]}, {"color": [9, 8, 7, 255]}),
                        ({"color": [9, 8, 7, 6]}, {"color": [9, 8, 7, 6]}),
                        ({"color": []}, {}), ({"size": 30}, {"size": 30.0}), ({"body": ""}, {}),
                        ({"size": "12.5", "body": "Größe\nzwei"}, {"size": 12.5}),
                        ({"body": None, "size": None, "color": None}, {})]:
        if part.get("body") is not None:
            after = after | {"body": part["body"]}
        K._apply_text(sign, part)
        before |= after
        assert K._text_props(sign) == before, part
    for bad, error in (({"color": [1, 2]}, IndexError), ({"color": [1, 2, 300]}, OverflowError),
                       ({"size": "big"}, ValueError), ({"size": "nan"}, RuntimeError),
                       ({"size": 1e39}, RuntimeError), ({"body": 5}, TypeError)):
        with pytest.raises(error):
            K._apply_text(sign, bad)
    assert K._text_props(sign) == before
