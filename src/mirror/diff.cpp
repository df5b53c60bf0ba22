#include "mirror/diff.h"

#include "mirror/info.h"

namespace kestrix {

namespace {

/// The fields of a mirror's record that a draft may lack: what never changes or isn't compared, and
/// settings().
std::span<const Name> not_read() {
  static const std::array fields{"id"_n, "kind"_n, "phys"_n, "light"_n, "cam"_n, "text"_n};
  return fields;
}

Record message_about(const char *type, py::handle aid) {
  return message(type).set("id"_n, aid);
}

/// What differs between two records in this field, a missing one counting as an empty list.
bool list_differs(py::handle now, py::handle before, Name field) {
  py::object a = given(now, field);
  py::object b = given(before, field);
  if (!a || !b) return (a && truth(a)) || (b && truth(b));
  return !equal(a, b);
}

bool differs(py::handle now, py::handle before, Name field) {
  return !equal(item(now, field), item(before, field));
}

void send_new(py::handle aid, py::handle actor) {
  py::dict info = _info(actor, aid, true, true);
  if (item(info, "kind"_n).is_none()) return;
  py::list infos;
  append(infos, info);
  _send_assets(_info_assets(infos));
  _send(message("add").set("actor"_n, info));
  _remember(aid, actor, info);
}

/// "props" if the record has the field and it differs.
void diff_props(py::handle aid, py::handle now, py::handle before, Name field) {
  py::object value = find(now, field);
  if (!value) return;
  py::object old = find(before, field);
  if (!old || !equal(value, old)) _send(message_about("props", aid).set(field, value));
}

void diff_mesh(py::handle aid, py::handle now, py::handle before) {
  py::object asset = item(now, "asset"_n);
  py::object old = find(before, "asset"_n);
  if (!old || !equal(asset, old)) {
    py::list paths;
    append(paths, asset);
    _send_assets(paths);
    _send(message_about("set_mesh", aid).set("asset"_n, asset));
  }
  if (list_differs(now, before, "mats"_n)) {
    _send(message_about("mats", aid).set("mats"_n, given_or(now, "mats"_n, py::list())));
  }
}

void diff_kind_fields(py::handle aid, py::handle now, py::handle before) {
  py::object kind = item(now, "kind"_n);
  if (is_kind(kind, "mesh")) {
    diff_mesh(aid, now, before);
  } else if (is_kind(kind, "light")) {
    diff_props(aid, now, before, "light"_n);
  } else if (is_kind(kind, "camera")) {
    diff_props(aid, now, before, "cam"_n);
  } else if (is_kind(kind, "text")) {
    diff_props(aid, now, before, "text"_n);
  }
}

/// Sends "xf" pairs later, all else at once, and keeps settings that weren't read. If what the kind
/// adds can't be sent, the rest is, and `now` keeps the old values, so that the next look at the
/// actor tries again.
std::optional<Failure> send_changes(py::handle aid, const py::dict &now, py::handle before) {
  if (differs(now, before, "xf"_n)) put(S_map(key::xf_out), aid, item(now, "xf"_n));
  auto failure = failure_of([&] { diff_kind_fields(aid, now, before); });
  if (failure) {
    for (const Name field : {"asset"_n, "mats"_n, "light"_n, "cam"_n, "text"_n}) {
      drop(now, field);
      if (py::object old = find(before, field)) put(now, field, old);
    }
  }
  for (const Name field : settings()) {
    py::object kept = find(before, field);
    if (kept && !find(now, field)) put(now, field, kept);
  }
  if (differs(now, before, "label"_n) || differs(now, before, "folder"_n)) {
    _send(message_about("rename", aid)
              .set("label"_n, item(now, "label"_n))
              .set("folder"_n, item(now, "folder"_n)));
  }
  if (list_differs(now, before, "tags"_n)) {
    _send(message_about("tags", aid).set("tags"_n, given_or(now, "tags"_n, py::list())));
  }
  return failure;
}

}  // namespace

std::span<const Name> settings() {
  return not_read().subspan(3);
}

void update_entry(py::handle entry, py::handle aid, const Draft &draft) {
  py::object before = item(entry, "info"_n);
  if (draft.same_as(before, not_read())) return;
  const py::dict now = record_of(aid, item(before, "kind"_n), draft);
  const auto failure = send_changes(aid, now, before);
  put(entry, "info"_n, now);
  if (failure) failure->raise();
}

void _diff_actor(py::handle aid, py::handle a, bool props) {
  py::object entry = find(S_map(key::known), aid);
  if (!entry) return send_new(aid, a);
  Draft draft;
  read_info(draft, a, item(item(entry, "info"_n), "kind"_n), props);
  put(entry, "actor"_n, a);
  update_entry(entry, aid, draft);
}

void bind_diff(py::module_ &m) {
  def(m, "_diff_actor", &_diff_actor, py::arg("aid"), py::arg("a"), py::arg("props") = true);
}

}  // namespace kestrix
