#include "editor/window_focus.h"

namespace kestrix {

namespace {

// GetWindow: the window that owns this one, as a main window owns its dialogs.
constexpr int GW_OWNER = 4;
// ShowWindow: back from minimised.
constexpr int SW_RESTORE = 9;

py::object ctypes(Name name) {
  return get(module("ctypes"_n), name);
}

py::object wintypes(Name name) {
  return get(module("ctypes.wintypes"_n), name);
}

template <class... Args>
py::object user32(Name function, const Args &...args) {
  return invoke(get(get(ctypes("windll"_n), "user32"_n), function), args...);
}

/// A window handle as an argument. ctypes would cut a plain integer to 32 bits; types set on the
/// shared user32 functions would bind every other script of the editor.
py::object handle_arg(py::handle hwnd) {
  return invoke(ctypes("c_void_p"_n), hwnd);
}

/// The id of the process that owns the window; 0 if there is no such window.
py::object process_of(py::handle hwnd) {
  py::object pid = invoke(wintypes("DWORD"_n));
  user32("GetWindowThreadProcessId"_n, handle_arg(hwnd), invoke(ctypes("byref"_n), pid));
  return get(pid, "value"_n);
}

py::object own_process() {
  return call(module("os"_n), "getpid"_n);
}

py::object search() {
  return get(this_module(), "_WIN"_n);
}

bool is_main_window(py::handle hwnd) {
  return equal(process_of(hwnd), item(search(), "pid"_n)) &&
         truth(user32("IsWindowVisible"_n, handle_arg(hwnd))) &&
         !truth(user32("GetWindow"_n, handle_arg(hwnd), GW_OWNER));
}

/// The window's area in pixels; 0 if its rectangle can't be read.
long long area_of(py::handle hwnd) {
  return attempt(
      [&] {
        py::object rect = invoke(wintypes("RECT"_n));
        user32("GetWindowRect"_n, handle_arg(hwnd), invoke(ctypes("byref"_n), rect));
        const auto side = [&](Name name) { return integer(get(rect, name)); };
        return (side("right"_n) - side("left"_n)) * (side("bottom"_n) - side("top"_n));
      },
      0LL);
}

}  // namespace

bool _win_cb(py::handle hwnd, py::handle) {
  attempt([&] {
    if (is_main_window(hwnd)) call(item(search(), "found"_n), "append"_n, hwnd);
  });
  return true;
}

py::object _win_of(py::handle pid) {
  py::object largest = to_py(0);
  attempt([&] {
    py::object window_search = search();
    put(window_search, "found"_n, py::list());
    put(window_search, "pid"_n, pid);
    // The callback has to live until the enumeration is over.
    py::object callback = invoke(invoke(ctypes("WINFUNCTYPE"_n), wintypes("BOOL"_n),
                                        wintypes("HWND"_n), wintypes("LPARAM"_n)),
                                 get(this_module(), "_win_cb"_n));
    user32("EnumWindows"_n, callback, 0);
    long long largest_area = 0;
    each(item(window_search, "found"_n), [&](const py::object &hwnd) {
      const long long area = area_of(hwnd);
      if (area <= largest_area) return;
      largest_area = area;
      largest = hwnd;
    });
  });
  return largest;
}

void _to_front() {
  attempt([] {
    py::object hwnd = _win_of(own_process());
    if (!truth(hwnd)) return;
    if (truth(user32("IsIconic"_n, handle_arg(hwnd)))) {
      user32("ShowWindow"_n, handle_arg(hwnd), SW_RESTORE);
    }
    user32("SetForegroundWindow"_n, handle_arg(hwnd));
  });
}

void _allow_front(py::handle pid) {
  attempt([&] {
    if (truth(pid)) user32("AllowSetForegroundWindow"_n, py::int_(to_py(pid)));
  });
}

bool _foreground() {
  return attempt([] { return equal(process_of(user32("GetForegroundWindow"_n)), own_process()); },
                 false);
}

void bind_window_focus(py::module_ &m) {
  m.attr("_WIN") = Record().set("found"_n, py::list()).set("pid"_n, 0);
  def(m, "_win_of", &_win_of, py::arg("pid"));
  def(m, "_win_cb", &_win_cb, py::arg("hwnd"), py::arg("_lp"));
  def(m, "_to_front", &_to_front);
  def(m, "_allow_front", &_allow_front, py::arg("pid").none(true));
  def(m, "_foreground", &_foreground);
}

}  // namespace kestrix
