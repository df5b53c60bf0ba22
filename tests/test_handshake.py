"""How the peer introduces itself, and what it wants to be told."""
import os

import pytest
from conftest import kinds
from link_peer import Peer


@pytest.fixture
def say(K, tick):
    """say(peer, type, **fields): what the editor answers, as types."""
    def send(peer, kind, **fields):
        peer.take()
        peer.send({"t": kind, **fields})
        tick()
        return kinds(peer)
    return send


def test_greeting(K, ed, connect, tick, say):
    chair = ed.spawn("StaticMeshActor", label="Chair", mesh=ed.make_mesh("/Game/Props/Chair"))
    gone = chair.get_path_name() + "_9"
    with Peer(ports=K.start()) as silent:
        tick(0.1)
        assert kinds(silent) == [] and K._S["known"] == {} and not K._S["client_ready"]
        silent.send({"t": "hello"})
        tick()
        assert kinds(silent) == ["hello", "assets", "snapshot"]
        told = {key: K._S[key] for key in
                ("client", "client_ver", "client_ready", "client_pid", "asking", "scope")}
        assert told == {"client": "?", "client_ver": 1, "client_ready": True, "client_pid": None,
                        "asking": None, "scope": {}}
    tick(0.1)
    peer = connect(synced=False, name="B", version=16, pid=77, have=[gone])
    assert {**peer.editor, "dev": None} == {
        "t": "hello", "version": 16, "project": "Demo", "cache": K.cache_dir(),
        "link_root": "/Game/Verrin", "pid": os.getpid(), "ov_slots": True, "coll": True,
        "expo": True, "rel": K._plugin_release(), "dev": None} and peer.editor["rel"]
    assert peer.gone == [gone] and (K._S["client"], K._S["client_pid"]) == ("B", 77)
    assert not K._S["client_ready"] and say(peer, "synced") == [] and K._S["client_ready"]
    K._S["asking"] = "really?"
    assert say(peer, "hello", version=2, client=None, scope=[1], have={"a": 1}) == [
        "hello", "assets", "snapshot"]
    assert not K._S["client_ready"] and K._S["client"] == "?" and K._S["asking"] is None
    assert K._S["scope"] == {} and peer.gone is None
    # What can't be a name or a process id is as good as missing.
    say(peer, "hello", version=16, client=["C"], pid="77")
    assert (K._S["client"], K._S["client_pid"]) == ("?", None)
    say(peer, "hello", version=2)
    # Nothing of a greeting that fails is taken over.
    for bad in ({"version": "16"}, {"version": 16, "scope": {"radius_m": "far"}},
                {"version": 16, "scope": {"radius_m": float("nan")}}):
        assert say(peer, "hello", client="C", **bad) == ["error"]
        assert K._S["client"] == "?" and K._S["client_ver"] == 2 and K._S.pop("last_error")


SCOPE = {"kinds": {}, "folders": [], "exclude": [], "radius": 0.0, "grass_max": 200000}


@pytest.mark.parametrize("fields, scope", [
    ({}, {}),
    (dict.fromkeys(("kinds", "folders", "exclude", "radius_m", "grass_max")), {}),
    ({"kinds": {}, "folders": "", "exclude": " ,, / , //", "radius_m": 0}, {}),
    ({"kinds": {"mesh": False}, "folders": "/A/B/, C ,a b", "exclude": "Ä"},
     {"kinds": {"mesh": False}, "folders": ["A/B", "C", "a b"], "exclude": ["Ä"]}),
    ({"radius_m": 12.5, "grass_max": 0}, {"radius": 1250.0, "grass_max": 0}),
    ({"grass_max": 7.9}, {"grass_max": 7}),
    ({"radius_m": "far"}, ValueError), ({"radius_m": [1]}, TypeError),
    ({"radius_m": float("nan")}, RuntimeError), ({"radius_m": 1e307}, RuntimeError),
    ({"grass_max": float("inf")}, OverflowError), ({"grass_max": {}}, TypeError),
    ({"kinds": ["mesh"]}, TypeError), ({"folders": ["A"]}, TypeError),
    ({"exclude": "A,\ud800"}, UnicodeEncodeError)])
def test_scope_fields(K, fields, scope):
    if isinstance(scope, dict):
        assert K._parse_scope(fields) == {**SCOPE, **scope}
        return
    with pytest.raises(scope):
        K._parse_scope(fields)



def test_a_scope_sends_the_level_only_if_it_changes_it(K, ed, connect, tick, say):
    ed.spawn("StaticMeshActor", label="In", mesh=ed.make_mesh("/Game/Chair"), folder="A/B")
    ed.spawn("StaticMeshActor", label="Out", mesh="/Game/Chair", location=(9000, 0, 0))
    peer = connect()

    def labels():
        return sorted(rec["label"] for rec in peer.actors.values())

    assert say(peer, "scope", folders="/A/", radius_m=50) == ["assets", "snapshot"]
    assert labels() == ["In"]
    tick(1.0)
    assert "center" in K._S["scope"]
    assert say(peer, "scope", folders="A", radius_m=50.0, kinds={}) == []
    assert say(peer, "scope", folders="A", radius_m=50, grass_max=5, kinds={"grass": False}) == []
    assert (K._S["scope"]["grass_max"], K._S["scope"]["kinds"]) == (5, {"grass": False})
    before = K._S["scope"]
    for radius in ("far", float("nan"), float("inf")):
        assert say(peer, "scope", radius_m=radius) == ["error"] and K._S["scope"] is before
        assert "Error: " in K._S.pop("last_error") and len(peer.actors) == 1
    ed.play()
    tick(0.3)
    assert say(peer, "scope") == [] and K._S["scope"] is before  # waits
    K._h_scope({"folders": "Z"})  # from a peer that took over meanwhile
    tick()
    assert K._S["scope"]["folders"] == ["Z"] and kinds(peer) == []
    ed.stop_play()
    tick(0.3)
    assert "snapshot" in kinds(peer) and labels() == ["In", "Out"]


def test_export_options(K, connect, say):
    peer = connect()
    for fields, stored in (
            ({"ue_format": "OBJ"}, (None, None)), ({"ue_format": "FBX"}, ("FBX", None)),
            ({"ue_textures": 0}, ("FBX", False)), ({"ue_format": 3}, ("FBX", False)),
            ({"ue_format": "GLB", "ue_textures": True}, ("GLB", True))):
        assert say(peer, "opts", **fields) == []
        assert (K._S.get("ue_format"), K._S.get("ue_textures")) == stored
