#include "mirror/new_actor.h"

namespace kestrix {

void keep_selection(const std::function<void()> &f) {
  const auto selected = [] { return call(_eas(), "get_selected_level_actors"_n); };
  const py::object before = attempt(selected, py::object(py::none()));
  const Finally put_back([&] {
    if (before.is_none()) return;
    attempt([&] { call(_eas(), "set_selected_level_actors"_n, before); });
  });
  f();
}

py::object add_actor(Name method, py::handle source, py::handle location, const char *failure) {
  py::object actor;
  keep_selection([&] {
    actor = call(_eas(), method, source, location, invoke(unreal("Rotator"_n), 0, 0, 0));
  });
  if (!exists(actor)) fail(failure);
  return actor;
}

py::object copy_actor(py::handle source) {
  py::object copy;
  keep_selection([&] {
    py::object offset = invoke(unreal("Vector"_n), 0, 0, 0);
    copy = call(_eas(), "duplicate_actor"_n, source, nullptr, offset);
  });
  if (!exists(copy)) fail("duplicate failed");
  return copy;
}

void take_away(py::handle actor) {
  attempt([&] { drop(S_map(key::known), str(path_of(actor))); });
  attempt([&] { call(_eas(), "destroy_actor"_n, actor); });
}

}  // namespace kestrix
