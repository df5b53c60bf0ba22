"""Holds the stand-in's scripting interface against a table of the editor's reference.

What the stand-in has of the table must agree with it: parameters, defaults, what a call gives, types of
properties, attribute or none, read-only, base classes, enums. What it lacks is left out. The table's
head says how a line is written.
"""
import ast
import inspect
import re

import unreal as u

NUMBERS = {"float": float, "double": float, "int": int, "int32": int, "uint8": int, "bool": bool,
           "str": str}
ARGUMENTS = {"float": 1.0, "int": 0, "bool": False, "str": "tags", "Name": "x", "Name or str": "r", "Any": 1.0,
             "Text": "x", "Text or str": "x", "Class": u.StaticMeshActor, "object": ["x"],
             "Mapping[str, object]": {}}


def split(items, mark):
    """The parts of a list, but for marks inside of brackets."""
    return [part for part in re.split(mark + r"(?![^\[]*\])", items) if part]


def make(ed, kind):
    """Something of the class of that name, or None."""
    cls = getattr(u, kind, None)
    if cls is None or kind in ("World", "Object", "Class"):
        return None
    if issubclass(cls, u.Actor):
        return ed.spawn("StaticMeshActor" if cls is u.Actor else cls)
    if issubclass(cls, u.ActorComponent):
        return ed.spawn("StaticMeshActor")._add(cls, "Part")
    if issubclass(cls, u.EditorSubsystem):
        return u.get_editor_subsystem(cls)
    if hasattr(cls, "__members__"):
        return next(iter(cls))
    special = {"ToolMenus": u.ToolMenus.get, "AssetRegistry": u.AssetRegistryHelpers.get_asset_registry,
               "ToolMenu": lambda: u.ToolMenus.get().find_menu("LevelEditor.MainMenu"),
               "Exporter": lambda: None,
               "BodySetup": lambda: u.StaticMesh("/Game/Body").get_editor_property("body_setup"), "ScopedEditorTransaction": lambda: cls("x")}
    if kind in special:
        return special[kind]()
    for args in ((), (f"/Game/{kind}",)):
        try:
            return cls(*args)
        except TypeError:
            continue


def argument(ed, kind):
    return [] if kind.startswith(("Array", "Set")) else (
        ARGUMENTS[kind] if kind in ARGUMENTS else make(ed, kind))


def fits(value, kind):
    """Whether a value is of the kind that the table names."""
    if " or " in kind:
        return any(fits(value, k) for k in kind.split(" or "))
    name, _, inner = kind.partition("[")
    inner = inner.removesuffix("]")
    if kind == "None":
        return value is None
    if name == "Array":
        return type(value) is u.Array and all(fits(v, inner) for v in value)
    if name == "Tuple":
        return type(value) is tuple and all(map(fits, value, inner.split(", ")))
    if kind in NUMBERS:
        return type(value) is NUMBERS[kind]
    cls = getattr(u, name, None)
    if cls is None or kind == "Object":
        return True
    return isinstance(value, cls) or (value is None and issubclass(cls, u.Object))


def literal(text):
    """A default as a value; ... for what is no plain one (names, structs), of which none matters."""
    try:
        value = ast.literal_eval(text)
        return ... if isinstance(value, list) else value
    except (ValueError, SyntaxError):
        return ...


def check_signature(target, line):
    """What disagrees between a callable and "name: type=default, ..."."""
    params = [re.match(r"(\w+): ([^=]*)(?:=(.*))?", p).groups() for p in split(line, ", ")]
    found = [p for p in inspect.signature(target).parameters.values() if p.name != "self"]
    if [p.name for p in found] != [name for name, _, _ in params]:
        return f"has the parameters {[p.name for p in found]}"
    for p, (name, _, default) in zip(found, params):
        if (p.default is p.empty) != (default is None) or (
                default and literal(default) not in (..., p.default)):
            return f"{name} has the default {p.default}"


def check_call(ed, target, line):
    """As above, and of what it returns when it is called as scripts do."""
    params, _, kind = line.partition(") -> ")
    kinds = [p.partition(": ")[2] for p in split(params, ", ") if "=" not in p]
    wrong = check_signature(target, params)
    if wrong:
        return wrong
    try:
        got = target(*(argument(ed, k) for k in kinds))
    except Exception as error:
        return f"raises {error!r}"
    return None if fits(got, kind) else f"gives {got!r}"


def check_property(obj, item):
    name, kind = item.split(": ")
    kind, fixed, _ = kind.partition(" read-only")
    hidden, name = name.endswith("†"), name.rstrip("†")
    try:
        value = obj.get_editor_property(name)
    except Exception:
        return "isn't known by that name" if hasattr(obj, name) else None   # not there at all
    if not fits(value, kind):
        return f"is {value!r}"
    if hasattr(obj, name) == hidden:
        return "has an attribute" if hidden else "has no attribute"
    for put in [obj.set_editor_property] + [lambda n, v: setattr(obj, n, v)] * (not hidden):
        try:
            put(name, value)
        except Exception as error:
            if not fixed:
                return f"can't be set: {error!r}"
        else:
            if fixed:
                return "isn't read-only"


def check_member(ed, owner, obj, line):
    """What disagrees between a class, or something of it, and a line below its name."""
    mark, rest = line[:2], line[2:]
    if mark == "= ":
        told = {k: int(v) for k, v in (pair.split("=") for pair in rest.split())}
        return [f"{m} is {m.value}" for m in owner if told.get(m.name, m.value) != m.value]
    if mark == ": ":
        items = split(rest, "; ") if hasattr(obj, "get_editor_property") else ()
        return [f"{item} {wrong}" for item in items if (wrong := check_property(obj, item))]
    static, name, rest = re.match(r"(static )?(\w*)\((.*)", line).groups()
    if not name:
        return [check_signature(owner, rest[:-1])]
    if not hasattr(owner, name):
        return []
    if isinstance(inspect.getattr_static(owner, name), staticmethod) != bool(static):
        return ["is static" if not static else "isn't static"]
    return [check_call(ed, getattr(owner if static else obj, name), rest)]


def disagreements(ed, table):
    """(what disagrees, a text each; how many members were looked at). Fills the level of `ed`."""
    wrong, kind, owner, obj, checked = [], None, None, None, 0
    for line in table.splitlines():
        found = []
        if line.startswith("- "):
            found = [f"{name} is a type" for name in line[2:].split() if hasattr(u, name)]
        elif line.startswith("  ") and owner:
            found = check_member(ed, owner, obj, line[2:])
            checked += 1
        elif "(" in line and line[0] not in "# ":
            name, _, rest = line.partition("(")
            found = [check_call(ed, getattr(u, name), rest)]
        elif line[0] not in "# ":
            kind, _, base = line.partition(" < ")
            owner = getattr(u, {"Struct": "LinearColor", "Object": "Actor"}.get(kind, kind), None)
            obj = make(ed, owner.__name__) if owner else None
            found = [line] if owner and base and not issubclass(owner, getattr(u, base)) else []
        wrong += [f"{kind}: {line.strip()}: {what}" for what in found if what]
    return wrong, checked
