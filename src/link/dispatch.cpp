#include "link/dispatch.h"

#include <unordered_map>

#include "link/host.h"

namespace kestrix {

namespace {

/// Filled while the module is loaded, and the same at each load.
std::unordered_map<std::string_view, Traits> &commands() {
  static std::unordered_map<std::string_view, Traits> table;
  return table;
}

struct Command {
  const char *type;
  Traits traits;
};

// Commands whose handlers are still to come: each line moves to its handler's bind_handler.
constexpr Command TO_COME[] = {
    {"inst", {.in_level = true}},
    {"inst_edit", {.in_level = true}},
    {"inst_src", {.busy = "updating a scatter"}},
    {"need_grass", {.read_only = true}},
    {"need_group", {.read_only = true}},
    {"need_terrain", {.read_only = true}},
    {"spline_edit", {.in_level = true}},
    {"terrain_heights", {.in_level = true, .busy = "applying your sculpt"}},
    {"terrain_weights", {.in_level = true, .busy = "applying your paint"}},
    {"update", {.busy = "downloading the update"}},
};

/// Enters a command in the table and in what the module shows of it.
void enter(const py::module_ &m, const char *type, const Traits &traits) {
  commands()[type] = traits;
  const auto add_to = [&](const char *set) { add(py::set(m.attr(set)), to_py(type)); };
  if (traits.adds) add_to("ADDS");
  if (traits.read_only) add_to("READ_ONLY");
  if (traits.barrier) add_to("MERGE_BARRIER");
  if (traits.merges) m.attr("MERGED")[type] = traits.merges;
  if (traits.busy) m.attr("BUSY")[type] = traits.busy;
  if (!traits.latest) return;
  m.attr("LATEST_ONLY")[type] = py::cpp_function(
      [field = traits.latest](py::handle message) {
        return *field ? given_or(message, to_py(field), nullptr) : py::none();
      },
      py::arg("m"), "The key among whose messages only the newest counts.");
}

/// Whether a message must wait until the peer has its copy of the level; tells the peer so.
bool refuse_early_add(std::string_view type, py::handle m) {
  if (!traits_of(type).adds || S_flag(key::client_ready, true)) return false;
  _warn("refused " + std::string(type) + " from Blender before its level copy was synced");
  refuse_add(type, m, "the link was still syncing - try again");
  return true;
}

/// What to tell the peer while this message is handled; empty for a quick one.
std::string busy_text(std::string_view type, py::handle m) {
  const char *words = traits_of(type).busy;
  if (!words) return {};
  std::string what = words;
  if (type == "mat") {
    py::object key = given(m, "key"_n);
    if (key && truth(key)) what += " " + text(key);
  }
  return what;
}

}  // namespace

void bind_handler(py::module_ &m, const char *type, Handler handler, const Traits &traits) {
  const std::string name = std::string("_h_") + type;
  def(m, name.c_str(), handler, py::arg("m"));
  m.attr("HANDLERS")[type] = m.attr(name.c_str());
  enter(m, type, traits);
}

const Traits &traits_of(std::string_view type) {
  static const Traits none;
  const auto row = commands().find(type);
  return row == commands().end() ? none : row->second;
}

std::string_view type_of(py::handle m) {
  py::object type = find(as_map(m, "a message"), "t"_n);
  if (!type || !PyUnicode_Check(type.ptr())) return {};
  // A lone surrogate can't be told as UTF-8, and no type has one.
  return attempt([&] { return view(type); }, std::string_view());
}

void refuse_add(std::string_view type, py::handle m, const char *why) {
  if (!traits_of(type).adds || type == "delete") return;
  _send(message("spawn_failed").set("tmp"_n, given_or(m, "tmp"_n, nullptr)).set("msg"_n, why));
}

void _handle(py::handle m) {
  const std::string type(type_of(m));
  py::object handler = find(get(this_module(), "HANDLERS"_n), to_py(type));
  if (!handler || refuse_early_add(type, m)) return;
  const std::string busy = busy_text(type, m);
  if (!busy.empty()) _busy(busy.c_str());
  Finally done([&] {
    if (!busy.empty()) _busy(nullptr);
  });
  py::object asker = S(key::conn);
  if (const auto failure = failure_of([&] { invoke(handler, m); })) {
    const std::string reason = failure->text();
    _warn(type + " failed: " + reason);
    set_S(key::last_error, failure->traceback());
    // To who asked, not to a peer that has come meanwhile.
    if (S(key::conn).is(asker)) _send(message("error").set("msg"_n, type + ": " + reason));
  }
}

void _busy(const char *what) {
  py::object conn = live_conn();
  if (!conn || peer_version() < 6) return;
  py::object told = what ? to_py(what) : py::none();
  if (equal(told, S(key::busy_what))) return;
  send_to(conn, message("busy").set("what"_n, told));
  set_S(key::busy_what, told);
  flush(conn);
}

void bind_dispatch(py::module_ &m) {
  for (const char *map : {"HANDLERS", "LATEST_ONLY", "MERGED", "BUSY"}) m.attr(map) = py::dict();
  for (const char *set : {"ADDS", "READ_ONLY", "MERGE_BARRIER"}) m.attr(set) = py::set();
  for (const Command &command : TO_COME) enter(m, command.type, command.traits);
  def(m, "_handle", &_handle, py::arg("m"));
  def(
      m, "_busy",
      [](py::handle what) { _busy(what.is_none() ? nullptr : std::string(view(what)).c_str()); },
      py::arg("what"));
}

}  // namespace kestrix
