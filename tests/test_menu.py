"""The submenu, the context menu's entry, and the toolbar button with its states and clicks."""
import os

import pytest

from sim.windows import Desktop

TOOLS = "LevelEditor.MainMenu.Tools"
LINK = TOOLS + ".Ondrel"
ACTOR = "LevelEditor.ActorContextMenu"
TOOLBAR = "LevelEditor.LevelEditorToolBar.User"


def logged(ed):
    return [text.removeprefix("[Verrin] ") for _, text in ed.log]


def entries(ed, menu):
    return [(e["name"], e["label"]) for e in ed.menu(menu).get("Ondrel", ())]


def label(ed):
    [(_, text)] = entries(ed, TOOLBAR)
    return text


def test_every_entry_does_what_it_says_and_none_comes_twice(ed, K, connect):
    for n in (1, 2):
        K.register_menu()
        assert ed.menu_refreshes == n and ed.log == []
    assert entries(ed, TOOLS) == [("Ondrel", "Kestrix")]
    assert [len(rows) for rows in ed.menu(LINK).values()] == [1, 2, 1]
    ed.run_menu(LINK, "Start")
    chair = ed.spawn("StaticMeshActor", "Chair")
    ed.select(chair)
    peer = connect()
    for menu, name in ((LINK, "Show"), (ACTOR, "OndrelShow"), (TOOLBAR, "OndrelStatus")):
        ed.run_menu(menu, name)
        assert peer.take() == [{"t": "show", "ids": [chair.get_path_name()]}]
    ed.clear_log()
    ed.run_menu(LINK, "Status")
    ed.run_menu(LINK, "Stop")
    assert "Blender connected (1 actors linked)" in logged(ed)[0] and logged(ed)[1:] == ["stopped"]


def test_the_button_follows_the_links_state_and_so_does_its_click(ed, K, connect, tick):
    desktop = Desktop()
    desktop.add(os.getpid(), (0, 0, 800, 600))

    def clicked():
        """What a click asks of Blender at once."""
        peer.take()
        desktop.granted.clear()
        with desktop.installed():
            ed.run_menu(TOOLBAR, "OndrelStatus")
        shown = [m["ids"] for m in peer.take() if m["t"] == "show"]
        assert desktop.granted == ({4321} if shown else set())
        return shown

    chair = ed.spawn("StaticMeshActor", "Chair")
    K.register_menu()
    assert label(ed) == "Blender: off"
    ed.run_menu(TOOLBAR, "OndrelStatus")
    port = K._S["port"]
    assert label(ed) == "Blender: not connected" and f" port {port} " in K._toolbar_state()[1]
    ed.clear_log()
    ed.run_menu(TOOLBAR, "OndrelStatus")
    assert logged(ed) == [f"listening on {port}"]

    peer = connect(pid=4321)
    assert label(ed) == "Blender: linked" and clicked() == [[]]
    ed.select(chair)
    assert clicked() == [[chair.get_path_name()]]
    with ed.record() as called:
        ed.duplicate(chair)
        tick(2.0)                       # another tip, but the same label: the button is left alone
    assert not any("Menu" in name for name in called)
    assert K._toolbar_state()[1].startswith("Linked to Blender (2 actors)")
    refreshes = ed.menu_refreshes
    ed.play()
    tick(0.6)
    assert label(ed) == "Blender: paused (Play)" and clicked() == [[]]
    peer.send({"t": "asking", "what": "level"})
    tick()
    assert label(ed) == "Blender: choose in Blender" and clicked() == [[]]
    assert ed.menu_refreshes == refreshes + 2

    K._S["asking"] = None
    ed.stop_play()
    ed.clear_log()
    ed.inject("EditorActorSubsystem.get_selected_level_actors")
    assert clicked() == []
    K._S["client_ver"] = 5              # knows no "show"
    assert clicked() == []
    assert logged(ed)[0] == "toolbar: injected" and logged(ed)[1].startswith("listening on")
    peer.close()
    tick(0.1)
    K.stop(quiet=True)                  # as a part of a restart
    assert label(ed) == "Blender: not connected"
    K._toolbar_update()
    assert label(ed) == "Blender: off"


@pytest.mark.parametrize("lacks, built", [
    ("ToolMenus", (0, 0, 0)), ("ToolMenus.get", (0, 0, 0)), (TOOLS, (0, 0, 1)),
    (TOOLBAR, (1, 1, 0)), (ACTOR, (1, 0, 1))])
def test_what_the_editor_lacks_is_left_out_silently(ed, K, lacks, built):
    if lacks == "ToolMenus":
        ed.remove(lacks)
    elif lacks == "ToolMenus.get":
        ed.inject(lacks, result=None, times=None)
    else:
        ed.inject("ToolMenus.find_menu", result=None, times=None, when=lambda _, n: n == lacks)
    K.register_menu()
    K._toolbar_update()
    assert tuple(len(entries(ed, menu)) for menu in (TOOLS, ACTOR, TOOLBAR)) == built
    assert ed.log == [] and K._S["tb_label"] == "Blender: off"  # tried again with the next label


def test_failures_in_the_menus_end_in_the_log(ed, K):
    for harmless in ("ToolMenus.remove_section", "ToolMenus.remove_entry", "ToolMenu.add_section",
                     "ToolMenuEntry.set_editor_property"):
        ed.inject(harmless, times=None)
    K.register_menu()
    assert ed.log == [] and label(ed) == "Blender: off" and len(ed.menu(LINK)) == 3
    for failing in ("ToolMenus.get", "ToolMenu.add_sub_menu", "ToolMenus.refresh_all_widgets"):
        ed.inject(failing)
        K.register_menu()
    ed.inject("ToolMenuEntry.set_icon")
    K._toolbar_update(force=True)
    assert logged(ed) == ["menu: injected"] * 3 + ["toolbar: injected"]
