"""Which levels there are, and opening one from Blender."""
import pytest


@pytest.fixture
def peer(ed, connect):
    """A peer in front of /Game/Main, with two other levels beside it."""
    for path in ("/Game/Maps/alpha", "/Game/Maps/Beta", "/Game/Main"):
        ed.new_level(path)
    return connect()


@pytest.fixture
def ask(peer, tick):
    def ask(path, **how):
        """The answer to "open_level", of which there is exactly one."""
        peer.send({"t": "open_level", "path": path, **how})
        tick()
        [answer] = [m for m in peer.take() if m["t"] in ("level_opened", "error")]
        return answer
    return ask


def said(path, ok, **more):
    return {"t": "level_opened", "path": path, "ok": ok, **more}


def test_only_the_projects_own_levels_are_listed(ed, K, peer, tick):
    def listed():
        K._h_need_levels({})
        K._S["conn"].flush()
        return peer.take()[-1]

    assert listed() == {"t": "levels", "current": "/Game/Main", "levels": [
        {"path": p, "name": p.rpartition("/")[2]}
        for p in ("/Game/Main", "/Game/Maps/alpha", "/Game/Maps/Beta", "/Game/Maps/Main")]}
    import unreal
    records = [unreal.AssetData(package_name=p, asset_name="L") for p in (
        "/Game/L", "/Engine/L", "/Plugin/L", "/Game/__ExternalActors__/L", "/Gamer/L")]
    ed.clear_log()
    ed.inject("AssetRegistry.get_assets_by_class", result=[*records, None])
    assert listed()["levels"] == [{"path": "/Game/L", "name": "L"}]     # up to the failure
    ed.inject("AssetRegistryHelpers.get_asset_registry")
    assert listed()["levels"] == []
    assert [text.startswith("[Verrin] level list: ") for _, text in ed.log] == [True, True]
    ed.begin_level_change("/Game/Main")
    assert listed()["current"] == "" == K._level_pkg()
    ed.inject("UnrealEditorSubsystem.get_editor_world", times=None)
    assert listed()["current"] == ""


def test_opening_a_level_brings_its_actors(ed, K, ask, peer):
    ed.open_level("/Game/Maps/Beta")
    ed.spawn("StaticMeshActor", "Tree")
    ed.open_level("/Game/Main")
    ed.clear_log()
    assert ask("/Game/Maps/Beta") == said("/Game/Maps/Beta", True)
    assert peer.world == "/Game/Maps/Beta.Beta"
    assert [rec["label"] for rec in peer.actors.values()] == ["Tree"]
    assert ("log", "[Verrin] opened /Game/Maps/Beta for Blender") in ed.log
    assert ask("/Game/No") == said("/Game/No", False, msg="Unreal could not open it")
    assert ask("") == ask(None) == said("", False)
    assert ask(7)["msg"].startswith("open_level: ") and K._S.pop("last_error")
    ed.play()                           # within the quarter second before the link notices
    assert ask("/Game/Main") == said(
        "/Game/Main", False, msg="Unreal is playing (PIE) - stop it first")
    assert ask("/Game/Maps/Beta") == said("/Game/Maps/Beta", True)      # is open already


def test_unsaved_changes_are_never_lost_silently(ed, K, ask):
    beta = "/Game/Maps/Beta"
    ed.spawn("StaticMeshActor", "Chair")
    before = ed.state()
    unsaved = said(beta, False, unsaved=1, level="/Game/Main")
    assert ask(beta) == unsaved == ask(beta, save=False, discard=None)
    assert ask("/Game/Main") == said("/Game/Main", True)    # is open: nothing is at stake
    ed.inject("EditorLoadingAndSavingUtils.save_dirty_packages", result=False)
    assert ask(beta, save=True) == said(
        beta, False, msg="Unreal could not save the open level - nothing was switched")
    for failing in ("EditorLoadingAndSavingUtils.save_dirty_packages",
                    "LevelEditorSubsystem.load_level"):
        ed.inject(failing)
        assert ask(beta, save=True) == {"t": "error", "msg": "open_level: injected"}
        assert K._S.pop("last_error") and ed.state() == before
    ed.spawn("StaticMeshActor", "Lamp")
    before = ed.state()
    mesh = ed.make_mesh("/Game/Chair")
    ed.edit_mesh(mesh, bounds=((0, 0, 0), (1, 1, 1)))
    assert ask(beta, save=True, discard=True)["ok"]
    import unreal                                           # assets are the user's to save
    assert len(unreal.EditorLoadingAndSavingUtils.get_dirty_content_packages()) == 1
    assert ("log", f"[Verrin] saved 1 packages before opening {beta}") in ed.log
    with ed.record() as called:                             # nothing to save: nothing is saved
        assert ask("/Game/Main", save=True)["ok"] and ed.state() == before
        ed.spawn("StaticMeshActor", "Second")
        assert ask(beta, discard=True)["ok"]
    assert "EditorLoadingAndSavingUtils.save_dirty_packages" not in called
    assert ask("/Game/Main")["ok"] and ed.state() == before
    ed.spawn("StaticMeshActor", "Third")
    ed.inject("EditorLoadingAndSavingUtils.get_dirty_map_packages")
    assert ask(beta)["ok"]                                  # it can't tell
