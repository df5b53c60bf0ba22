"""Menus and toolbars: named menus with named sections of named entries."""
from ._editor import editor
from ._enums import (MultiBlockType, MultiBoxType, ToolMenuInsertType,
                     ToolMenuStringCommandType)
from ._object import Object
from ._values import Name, Struct, enum_of, name, text

STANDARD = ("LevelEditor.MainMenu", "LevelEditor.MainMenu.File", "LevelEditor.MainMenu.Edit",
            "LevelEditor.MainMenu.Window", "LevelEditor.MainMenu.Tools",
            "LevelEditor.MainMenu.Help", "LevelEditor.ActorContextMenu",
            "LevelEditor.LevelEditorToolBar.User")


class ToolMenuEntry(Struct):
    """One entry. A menu keeps its own copy of what is added.

    Label, tip, icon and command can be set, not read: they are no properties.
    """
    __slots__ = ("_shown",)
    PROPS = {"name": (name, Name()), "style_name_override": (name, Name()),
             "type": (enum_of(MultiBlockType), MultiBlockType.NONE)}

    def __init__(self, name="", owner=None, type=MultiBlockType.NONE,
                 user_interface_action_type=None, tutorial_highlight_name="", insert_position=None,
                 should_close_window_after_menu_selection=False, script_object=None,
                 style_name_override=""):
        super().__init__(name=name, type=type, style_name_override=style_name_override)
        self._shown = {"label": "", "tool_tip": "", "icon": "", "command": "",
                       "command_type": ToolMenuStringCommandType.COMMAND}

    def _copy(self):
        other = super()._copy()
        other._shown = dict(self._shown)
        return other

    def set_label(self, label):
        self._shown["label"] = str(text(label))

    def set_tool_tip(self, tool_tip):
        self._shown["tool_tip"] = str(text(tool_tip))

    def set_icon(self, style_set_name, style_name="", small_style_name=""):
        self._shown["icon"] = f"{name(style_set_name)}/{name(style_name)}"

    def set_string_command(self, type, custom_type, string):
        self._shown["command_type"] = enum_of(ToolMenuStringCommandType)(type)
        name(custom_type)
        self._shown["command"] = text(string)._s


class ToolMenu(Object):
    __slots__ = ("_sections",)

    def __init__(self, menu_name):
        super().__init__(f"/Engine/Transient.ToolMenus:{menu_name}")
        self._sections = {}     # section name -> [label, {entry name -> entry}]

    def _section(self, section_name):
        return self._sections.setdefault(str(section_name), ["", {}])

    def _menu_name(self):
        return self._path.split(":", 1)[1]

    def add_section(self, section_name, label="", insert_name="",
                    insert_type=ToolMenuInsertType.DEFAULT):
        self._section(section_name)[0] = str(label)

    def add_menu_entry(self, section_name, args):
        if not isinstance(args, ToolMenuEntry):
            raise TypeError("add_menu_entry takes a ToolMenuEntry")
        self._section(section_name)[1][str(args.name)] = args._copy()

    def add_sub_menu(self, owner, section_name, name, label, tool_tip=""):
        entry = ToolMenuEntry(name=name, type=MultiBlockType.MENU_ENTRY)
        entry.set_label(label)
        entry.set_tool_tip(tool_tip)
        self._section(section_name)[1][str(name)] = entry
        return editor.menus._register(f"{self._menu_name()}.{name}")


class ToolMenus(Object):
    __slots__ = ("_menus", "_refreshes")

    def __init__(self):
        super().__init__("/Engine/Transient.ToolMenus")
        self._menus = {}
        self._refreshes = 0
        for menu_name in STANDARD:
            self._register(menu_name)

    def _register(self, menu_name):
        if menu_name not in self._menus:
            self._menus[menu_name] = ToolMenu(menu_name)
        return self._menus[menu_name]

    @staticmethod
    def get():
        return editor.menus

    def find_menu(self, name):
        return self._menus.get(str(name))

    def register_menu(self, name, parent="", type=MultiBoxType.MENU,
                      warn_if_already_registered=True):
        return self._register(str(name))

    def remove_section(self, menu_name, section):
        if str(menu_name) in self._menus:
            self._menus[str(menu_name)]._sections.pop(str(section), None)

    def remove_entry(self, menu_name, section, name):
        menu = self._menus.get(str(menu_name))
        if menu and str(section) in menu._sections:
            menu._sections[str(section)][1].pop(str(name), None)

    def refresh_all_widgets(self):
        self._refreshes += 1
