"""Module functions and static libraries: log, ticks, paths, objects by path, levels as assets."""
import os
import warnings

from ._editor import editor
from ._level import collect_garbage
from ._object import Object, Package
from ._packages import (AssetData, class_of, find_asset, package_of, referencers,
                        short_name)
from ._play import nothing, refused_in_play
from ._values import (HIDDEN, READ_ONLY, Array, Name, Struct, TopLevelAssetPath, boolean, f32,
                      name as name_of)


def log(arg):
    editor.log.append(("log", str(arg)))


def log_warning(arg):
    editor.log.append(("warning", str(arg)))


def log_error(arg):
    editor.log.append(("error", str(arg)))


class _TickHandle:
    """What stands for a registered tick callback."""


def register_slate_post_tick_callback(callable):
    handle = _TickHandle()
    editor.ticks[handle] = callable
    return handle


def unregister_slate_post_tick_callback(callback_handle):
    if not isinstance(callback_handle, _TickHandle):
        raise TypeError("not the handle of a tick callback")
    editor.ticks.pop(callback_handle, None)


class EditorPerformanceSettings(Object):
    """No type for scripts: only its default object is there, and only by native names."""
    __slots__ = ()
    PROPS = {"bThrottleCPUWhenNotForeground": (boolean, True, HIDDEN)}


class LandscapeEditorObject(Object):
    """The landscape mode's panel; it exists once the user has opened that mode. No type for
    scripts, native names only."""
    __slots__ = ()
    PROPS = {"PaintToolStrength": (f32, f32(0.3), HIDDEN),
             "PaintBrushRadius": (f32, 2048.0, HIDDEN), "PaintBrushFalloff": (f32, 0.5, HIDDEN),
             "bUseWeightTargetValue": (boolean, False, HIDDEN),
             "WeightTargetValue": (f32, 1.0, HIDDEN),
             "bApplyWithoutMovingPaint": (boolean, True, HIDDEN)}


def add_default_objects():
    path = "/Script/UnrealEd.Default__EditorPerformanceSettings"
    editor.objects[path] = EditorPerformanceSettings(path)


def _of_type(found, type):
    return found if isinstance(found, type) else None


def find_object(outer, name, type=Object, follow_redirectors=True):
    """The object at a path if it is in memory, else None."""
    name = str(name)
    if not name:
        raise Exception("find_object: an object has no empty name")
    level = editor.level
    if level:
        if name == level.path:
            return _of_type(level.world, type)
        found = level.actors.get(name)
        if found is None:
            actor = level.actors.get(name.rpartition(".")[0])
            parts = actor._components if actor else ()
            found = next((c for c in parts if c._path == name), None)
        if found:
            return _of_type(found, type)
    return _of_type(editor.objects.get(name) or (find_asset(name) if "." in name else None), type)


def load_object(outer, name, type=Object, follow_redirectors=True):
    return _of_type(editor.objects.get(str(name)) or find_asset(name), type)


def load_asset(name, type=Object, follow_redirectors=True):
    return _of_type(find_asset(name), type)


class EditorAssetLibrary:
    @staticmethod
    def does_asset_exist(asset_path):
        return find_asset(asset_path) is not None or package_of(asset_path) in editor.levels

    @staticmethod
    def does_directory_exist(directory_path):
        path = str(directory_path).rstrip("/") + "/"
        return any(p.startswith(path) for p in editor.assets) or (
            path.startswith("/Game/") and os.path.isdir(f"{editor.project_dir}Content{path[5:]}"))

    @staticmethod
    @refused_in_play(nothing)
    def duplicate_asset(source_asset_path, destination_asset_path):
        """The copy, unsaved; None, and an error in the log, without a source or for a path in use."""
        source = find_asset(source_asset_path)
        package = package_of(destination_asset_path)
        if source is None or package in editor.assets or package in editor.levels:
            log_error(f"LogEditorAssetSubsystem: {source_asset_path} was not duplicated as {package}")
            return None
        copy = type(source)(package)
        copy._take(source)
        return copy

    @staticmethod
    def load_asset(asset_path):
        return find_asset(asset_path)

    @staticmethod
    def list_assets(directory_path, recursive=True, include_folder=False):
        folder = str(directory_path).rstrip("/") + "/"
        return Array(f"{p}.{short_name(p)}" for p in sorted(editor.assets) if p.startswith(folder)
                     and (recursive or "/" not in p[len(folder):]))

    @staticmethod
    def save_asset(asset_to_save, only_if_is_dirty=True):
        asset = find_asset(asset_to_save)
        return asset is not None and EditorAssetLibrary.save_loaded_asset(asset, only_if_is_dirty)

    @staticmethod
    def save_loaded_asset(asset_to_save, only_if_is_dirty=True):
        if asset_to_save is None:
            return False
        if not only_if_is_dirty or asset_to_save._package() in editor.dirty:
            return asset_to_save._save()
        return True

    @staticmethod
    def get_metadata_tag(object, tag):
        return object._tags.get(str(tag), "") if object else ""

    @staticmethod
    def set_metadata_tag(object, tag, value):
        if object:
            object._tags = object._tags | {str(tag): str(value)}
            object._dirtied()


class EditorLevelLibrary:
    """The older way to what the subsystems do now."""

    @staticmethod
    def get_pie_worlds(include_dedicated_server):
        return Array([editor.level.world] if editor.playing and editor.level else ())

    @staticmethod
    def get_editor_world():
        _deprecated("get_editor_world")
        return editor.level.world if editor.level else None

    @staticmethod
    def editor_invalidate_viewports():
        _deprecated("editor_invalidate_viewports")
        editor.redraws += 1


def _deprecated(call):
    warnings.warn(f"{call}: use the subsystem instead", DeprecationWarning, stacklevel=3)


class SystemLibrary:
    @staticmethod
    def get_game_name():
        return editor.project_name

    @staticmethod
    def get_frame_count():
        return editor.frame

    @staticmethod
    def get_console_variable_int_value(variable_name):
        return int(editor.variables.get(str(variable_name), 0))

    @staticmethod
    def is_valid(object):
        return object is not None and object._valid

    @staticmethod
    def collect_garbage():
        collect_garbage()


class Paths:
    """Project folders come relative to the engine's binaries, with a slash at the end."""

    @staticmethod
    def project_dir():
        return _relative("")

    @staticmethod
    def project_content_dir():
        return _relative("Content/")

    @staticmethod
    def project_saved_dir():
        return _relative("Saved/")

    @staticmethod
    def convert_relative_path_to_full(path, base_path=""):
        path, base = str(path), _relative("")
        if path.startswith(base):
            return editor.project_dir + path[len(base):]
        return path if os.path.isabs(path) else os.path.join(editor.project_dir, path)


def _relative(sub):
    return f"../../../{editor.project_name}/{sub}"


class ActorDesc(Struct):
    """What World Partition knows of an actor, loaded or not."""
    __slots__ = ()
    PROPS = {"actor_path": (name_of, Name(), READ_ONLY)}


class WorldPartitionBlueprintLibrary:
    @staticmethod
    def get_actor_descs():
        """Records of all actors, loaded or not; None in a level without World Partition."""
        level = editor.level
        if level is None or not level.partitioned:
            return None
        return Array(ActorDesc(actor_path=a._path)
                     for a in (*level.actors.values(), *level.unloaded.values()))


def _data(package, kind):
    return AssetData(package_name=package, asset_name=short_name(package),
                     asset_class_path=TopLevelAssetPath("/Script/Engine", kind))


class AssetRegistry(Object):
    __slots__ = ()

    def get_assets_by_class(self, class_path_name, search_sub_classes=False):
        """Records of all assets of a class, levels among them, loaded or not."""
        if not isinstance(class_path_name, TopLevelAssetPath):
            raise TypeError("get_assets_by_class takes a TopLevelAssetPath")
        wanted = str(class_path_name.asset_name)
        if wanted == "None":
            return None
        found = [(p, "World") for p in editor.levels]
        found += [(p, class_of(p)) for p in editor.assets]
        return Array(_data(p, kind) for p, kind in found if kind == wanted)

    def get_assets_by_path(self, package_path, recursive=False, include_only_on_disk_assets=False):
        if Name(package_path).is_none():
            return None
        folder = str(package_path) + "/"
        return Array(_data(p, class_of(p)) for p in editor.assets if p.startswith(folder)
                     and (recursive or "/" not in p[len(folder):])) or None

    def get_referencers(self, package_name, reference_options):
        if package_of(package_name) not in editor.assets:
            return None
        options = reference_options._p
        if not options["include_hard_package_references"]:
            return Array()
        return Array(Name(p) for p in referencers(str(package_name),
                                                  options["include_soft_package_references"])) or None


class AssetRegistryHelpers:
    @staticmethod
    def get_asset_registry():
        return AssetRegistry("/Engine/Transient.AssetRegistry")


class EditorLoadingAndSavingUtils:
    @staticmethod
    def get_dirty_map_packages():
        level = editor.level
        return Array(Package(package_of(path)) for path in sorted(level.dirty if level else ()))

    @staticmethod
    def get_dirty_content_packages():
        return Array(Package(p) for p in editor.dirty)

    @staticmethod
    def save_dirty_packages(save_map_packages, save_content_packages):
        saved = []
        if save_map_packages and editor.level and editor.level.dirty:
            saved.append(editor.level.save())
        if save_content_packages:
            saved += [asset._save() for asset in list(editor.dirty.values())]
        return all(saved)
