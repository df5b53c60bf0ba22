// Files of the peer's into assets under LINK_ROOT, a folder for each mesh.
#pragma once

#include "link/host.h"

namespace kestrix {

/// `base`, or `base` with "_2", "_3" and so on behind it: the first folder under LINK_ROOT that
/// doesn't exist or holds no asset.
std::string _unique_folder(const std::string &base);

/// A slot's or material's name without what copies add (".001", "_001"), in lower case: what names
/// are compared by.
std::string _mat_key(py::handle name);

/// Puts the materials of another mesh on this one's slots: by the name of the slot's material, by
/// the slot's name, else slot by slot if there are as many. A slot that matches none stays.
void _copy_materials(py::handle sm, py::handle src_path);

/// Puts materials on slots: `slot_mats` maps names of slots or of their materials to paths.
/// Anything that doesn't load as a material leaves the slot as it is.
void _put_slot_mats(py::handle sm, py::handle slot_mats);

/// The folder under LINK_ROOT that an import goes to: that of `asset` if it lies there, else a new
/// one by `name`.
std::string import_folder(py::handle name, py::handle asset);

/// Copies the peer's file to a folder below the cache folder, made if missing; gives the copy's full
/// name. The peer may write its file anew while the editor still reads. OSError if it can't be.
std::string stage_import(py::handle fn, const std::string &folder, const std::string &name);

/// Copies the file to the cache folder as `base` + `ending` and has the editor import it to
/// `destination`; gives the paths of the assets made.
py::list import_copy(py::handle fn, const std::string &base, const std::string &ending,
                     const std::string &destination);

/// Adds what is in a folder of the project and isn't in the list yet, deep.
void append_listed(py::list &paths, const std::string &folder);

/// Imports a mesh file; gives the static mesh. `asset`: path of the one to replace, picks folder
/// and name; `mat_src`: path of a mesh whose materials to copy; `slot_mats` as for _put_slot_mats;
/// `coll`: a collision record, None for the one that the mesh has, False for none. None counts as
/// missing in all of them. RuntimeError if the file gives no static mesh, OSError if it can't be
/// copied.
py::object _import_file(py::handle fn, py::handle name, py::handle asset, py::handle mat_src,
                        py::handle slot_mats, py::handle coll);

void bind_importing(py::module_ &m);

}  // namespace kestrix
