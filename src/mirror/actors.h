// What an actor is: its kind, its mesh, folder and tags, whether it lives, and how it is found.
//
// An actor's id (`aid`) is its path name, the only identity on the wire: "/Game/Maps/Main.Main:
// PersistentLevel.Chair_3". Up to the first "." it names the level's package, behind the last one
// the actor.
#pragma once

#include "link/host.h"

namespace kestrix {

/// "mesh", "skel", "light", "camera", "text", "terrain" or "group"; None for what isn't mirrored.
py::object _kind_of(py::handle actor);

/// _kind_of, remembered per id in "kinds".
py::object _kind(py::handle aid, py::handle actor);

/// Whether a kind, as _kind gives it, is this one.
bool is_kind(py::handle kind, std::string_view word);

/// The label that the outliner shows.
inline py::object label_of(py::handle actor) {
  return str(call<"get_actor_label">(actor));
}

/// The actor's static mesh component, None if it has none.
py::object mesh_component_of(py::handle actor);

/// The static mesh of a component, None where that can't be told.
py::object mesh_in(py::handle component);

/// The actor's static mesh, or None.
py::object _mesh_of(py::handle actor);

/// The actor's skeletal mesh, or None.
py::object _skel_of(py::handle actor);

/// The actor's outliner folder, "" at the top.
py::object _folder_of(py::handle actor);

/// Sets the actor's outliner folder: None leaves it, empty is the top. What the editor refuses
/// stays.
void set_folder(py::handle actor, py::handle folder);

/// The actor's tags as a list of texts, null if it has none.
py::object tags_or_null(py::handle actor);

/// The actor's tags as texts.
py::list _tags_of(py::handle actor);

/// Sets the actor's tags; None leaves them, empty ones are dropped.
void _set_tags(py::handle actor, py::handle tags);

/// Whether the actor exists and isn't being destroyed; None doesn't.
bool _is_alive(py::handle actor);

/// SystemLibrary, which tells what is valid; None on an engine without it.
py::object system_library();

/// The same as _is_alive, asked of system_library(), for many actors.
bool is_alive(py::handle library, py::handle actor);

/// The live actor with that id, whether the mirror holds it or not; None if there is none.
py::object _find_actor(py::handle aid);

/// The class and landscape tests of what is never moved, duplicated or deleted from the peer.
bool is_foliage_or_landscape(py::handle actor);

/// Reports an actor that can't be described, once per id.
void _bad_actor(py::handle aid, py::handle e);
void _bad_actor(py::handle aid, const std::string &reason);

/// The level package of an id or a world's path: the piece before the first ".".
std::string_view package_of(std::string_view path);

/// An object's short name: the piece behind the last ".".
std::string_view short_name_of(std::string_view path);

/// Redraws the level viewports, if the editor can.
void _invalidate_viewports();

void bind_actors(py::module_ &m);

}  // namespace kestrix
