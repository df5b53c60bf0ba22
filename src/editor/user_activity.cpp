#include "editor/user_activity.h"

#include <cstdint>

#include "editor/window_focus.h"
#include "python/clock.h"

namespace kestrix {

namespace {

// Seconds for which an answer is good.
constexpr double ANSWER_AGE = 0.25;
// Milliseconds without input after which the user does something else.
constexpr std::uint32_t IDLE = 2000;

/// Windows' LASTINPUTINFO, as a ctypes class: made once per load of the module.
py::object last_input_class() {
  constexpr const char *name = "_LASTINPUTINFO";
  if (py::object made = get_if(this_module(), to_py(name))) return made;
  const py::object ctypes = module("ctypes"_n);
  const py::object number = get(ctypes, "c_uint32"_n);
  const py::list fields =
      list_of(py::make_tuple(py::make_tuple("cbSize", number), py::make_tuple("dwTime", number)));
  const py::object made =
      invoke(py::type::of(get(ctypes, "Structure"_n)), name + 1,
             py::make_tuple(get(ctypes, "Structure"_n)), Record().set("_fields_"_n, fields));
  this_module().attr(name) = made;
  return made;
}

/// Milliseconds since the last key or mouse event. The tick count begins anew every 49.7 days; the
/// difference of unsigned numbers is right all the same.
std::uint32_t idle_time() {
  const py::object ctypes = module("ctypes"_n);
  const py::object windll = get(ctypes, "windll"_n);
  const py::object info = invoke(last_input_class());
  check(PyObject_SetAttrString(info.ptr(), "cbSize", call(ctypes, "sizeof"_n, info).ptr()));
  call(get(windll, "user32"_n), "GetLastInputInfo"_n, call(ctypes, "byref"_n, info));
  const auto now =
      static_cast<std::uint32_t>(integer(call(get(windll, "kernel32"_n), "GetTickCount"_n)));
  return now - static_cast<std::uint32_t>(integer(get(info, "dwTime"_n)));
}

}  // namespace

bool _user_in_unreal() {
  const double now = perf_counter();
  if (now - S_real(key::fg_t) < ANSWER_AGE) return S_flag(key::fg);
  set_S(key::fg_t, now);
  const bool busy = attempt([] { return _foreground() && idle_time() < IDLE; }, false);
  set_S(key::fg, busy);
  return busy;
}

void bind_user_activity(py::module_ &m) {
  def(m, "_user_in_unreal", &_user_in_unreal);
}

}  // namespace kestrix
