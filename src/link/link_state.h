// The link's run-time state and its chief constants.
//
// All state is one Python dict, kept on the interpreter's builtins as _kestrix_state, so it
// outlives a reload of the module. Everything runs on the editor's main thread: no lock.
//
// What isn't in it, and why. Each is good for nothing once this copy of the library has gone, holds
// no fact about the link, and is never released: at the process's end no interpreter is left.
// - link_state.cpp: the dict itself, and the module object that this copy serves.
// - wire.cpp: this copy's _Conn type, which tells its connections from another copy's.
// - mirror/course.cpp: the last listing, and readings to compare with, as C++ numbers; without them
//   the next listing and the next pass ask anew.
// - link/dispatch.cpp: the table of commands, which the exported maps are made from.
// - mirror/draft.cpp, shapes: the sets of fields that readings have, each kept once.
// - python/object.h: interned names, and what a class has under a name while it stays as it is.
// - link/json_decode.cpp: texts and numbers that messages repeat.
// - tables made of names (settings() and the like), which can't be constants for that alone.
#pragma once

#include "link/state_keys.h"
#include "python/docs.h"
#include "python/errors.h"
#include "python/record.h"

namespace kestrix {

/// Protocol version announced in "hello".
constexpr int VERSION = 16;
/// Address that the server binds.
constexpr const char *HOST = "127.0.0.1";
/// First port tried; start tries this one and the next five.
constexpr int PORT = 9920;
/// Content folder that holds everything the link creates in a project.
constexpr const char *LINK_ROOT = "/Game/Verrin";

/// The state map _S: the same dict in every load of the module.
py::dict S();

/// A value of the state, None if the key is absent or holds something of another kind.
py::object S(StateKey key);

/// Sets a key of the state.
template <class T>
void set_S(StateKey key, const T &value) {
  put(S(), key.name(), value);
}

/// Takes a key out of the state.
void drop_S(StateKey key);

// For these an absent value, None and one of another kind are the same.

/// The truth of a state value, or the fallback.
bool S_flag(StateKey key, bool fallback = false);

/// A state value as a double, or 0.0.
double S_real(StateKey key);

/// A state value as an integer, or the fallback, for a float too.
long long S_int(StateKey key, long long fallback = 0);

/// The protocol version of the peer, 1 if it names none; 0 until it has said hello, while
/// "client_ver" still is the last peer's.
long long peer_version();

/// The map at that key, made empty if it is absent.
py::dict S_map(StateKey key);

/// The list at that key, made empty if it is absent.
py::list S_list(StateKey key);

/// The set at that key, made empty if it is absent.
py::set S_set(StateKey key);

/// Takes out what is of the wrong kind, and the times of an earlier run.
void heal_state();

/// The module object that Python code sees: what a user may set is read from it at each use.
py::module_ this_module();

/// Whether a path lies under LINK_ROOT, that is, whether the link itself made the asset.
bool is_ours(std::string_view path);

/// Adopts or makes the state map, remembers the module and exports the constants. Comes first when
/// the module is loaded.
void bind_link_state(py::module_ &m);

}  // namespace kestrix
