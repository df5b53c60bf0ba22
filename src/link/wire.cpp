#include "link/wire.h"

#include <cstring>

#include "link/host.h"
#include "link/json.h"

namespace kestrix {

namespace {

// The most that one socket call is asked for or offered, bytes.
constexpr size_t CHUNK = 1048576;
// What waits for the socket keeps room for so many bytes when it has nearly all gone.
constexpr size_t KEPT_CAPACITY = 4 << 20;

bool is_blank(std::string_view line) {
  return line.find_first_not_of(" \t\n\r\v\f") == std::string_view::npos;
}

// What follows the target of an HTTP request.
constexpr std::string_view VERSION = " HTTP/1.";
// No method is longer; a page that makes one up has to ask with OPTIONS first.
constexpr size_t LONGEST_METHOD = 32;
// More empty lines in front are no request, and would be searched again with each piece.
constexpr size_t LONGEST_LEAD = 4096;

bool is_token(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         (c && std::strchr("!#$%&'*+-.^_`|~", c));
}

/// What a connection's first bytes begin. A web page may try any port of this machine, and the
/// lines of what it posts could pass for messages. `seen`: how many of the bytes left it open
/// before.
Opening opening_of(std::string_view bytes, size_t seen) {
  const size_t begin = bytes.find_first_not_of("\r\n");
  if (begin == std::string_view::npos) {
    return bytes.size() < LONGEST_LEAD ? Opening::unknown : Opening::other;
  }
  size_t blank = begin;
  while (blank < bytes.size() && blank - begin < LONGEST_METHOD && is_token(bytes[blank])) ++blank;
  if (blank == bytes.size()) return Opening::unknown;
  if (blank == begin || bytes[blank] != ' ') return Opening::other;
  // A target may be long and come in many pieces: only the new ones are looked at.
  const size_t target = blank + 1;
  const size_t from = std::max(target, seen - std::min(seen, VERSION.size()));
  const size_t end = bytes.find_first_of(" \t\r\n", from);
  if (end == std::string_view::npos) return Opening::unknown;
  const std::string_view version = bytes.substr(end, VERSION.size());
  if (end == target || !VERSION.starts_with(version)) return Opening::other;
  return version == VERSION ? Opening::http : Opening::unknown;
}

}  // namespace

bool would_block() {
  if (!PyErr_ExceptionMatches(PyExc_OSError)) throw py::error_already_set();
  const bool blocked = PyErr_ExceptionMatches(PyExc_BlockingIOError) ||
                       PyErr_ExceptionMatches(PyExc_InterruptedError);
  PyErr_Clear();
  return blocked;
}

Conn::Conn(py::object sock, py::object addr) : sock_(std::move(sock)), addr_(std::move(addr)) {
  call(sock_, "setblocking"_n, false);
  attempt([&] {
    py::object socket = module("socket"_n);
    call(sock_, "setsockopt"_n, get(socket, "IPPROTO_TCP"_n), get(socket, "TCP_NODELAY"_n), 1);
  });
}

void Conn::send(py::handle msg) {
  if (writing_) fail("a message is sent while another one is being written");
  writing_ = true;
  Finally done([&] { writing_ = false; });
  json_encode(wbuf_, msg);
  wbuf_ += '\n';
}

void Conn::flush() {
  // What is being written isn't whole yet, and what the socket is just being given isn't gone yet.
  if (writing_ || flushing_) return;
  flushing_ = true;
  Finally done([&] { flushing_ = false; });
  while (!closed_ && sent_ < wbuf_.size()) {
    const size_t offered = std::min(CHUNK, wbuf_.size() - sent_);
    py::object chunk =
        own(PyBytes_FromStringAndSize(wbuf_.data() + sent_, static_cast<Py_ssize_t>(offered)));
    py::object taken = try_call(sock_, "send"_n, chunk);
    if (!taken) {
      if (!would_block()) close();
      break;
    }
    const long long n = taken.cast<long long>();
    if (n <= 0) break;
    sent_ += std::min(offered, static_cast<size_t>(n));
  }
  // Moving the rest to the front costs its length, so it waits until half of the buffer is spent.
  if (sent_ * 2 >= wbuf_.size()) {
    wbuf_.erase(0, sent_);
    sent_ = 0;
    // What a large snapshot took is given back.
    if (wbuf_.capacity() > KEPT_CAPACITY && wbuf_.size() < wbuf_.capacity() / 4) {
      wbuf_.shrink_to_fit();
    }
  }
}

void Conn::receive() {
  py::object most = to_py(CHUNK);
  while (!closed_) {
    py::object data = try_call(sock_, "recv"_n, most);
    if (!data) {
      if (!would_block()) close();
      return;
    }
    char *bytes = nullptr;
    Py_ssize_t length = 0;
    check(PyBytes_AsStringAndSize(data.ptr(), &bytes, &length));
    if (length == 0) return close();
    rbuf_.append(bytes, static_cast<size_t>(length));
  }
}

std::string Conn::take_lines() {
  const size_t last = std::string_view(rbuf_).substr(searched_).rfind('\n');
  std::string lines;
  if (last != std::string_view::npos) {
    std::string tail = rbuf_.substr(searched_ + last + 1);
    lines = std::exchange(rbuf_, std::move(tail));
    lines.resize(lines.size() - rbuf_.size());
  }
  searched_ = rbuf_.size();
  return lines;
}

py::list Conn::read() {
  py::list messages;
  receive();
  if (opening_ == Opening::unknown) {
    opening_ = opening_of(rbuf_, searched_);
    if (opening_ == Opening::http) {
      // Before the warning, which may be interrupted.
      close();
      rbuf_ = std::string();
      searched_ = 0;
      _warn("closed a connection that speaks HTTP");
    }
  }
  // Out of the buffer before anything is decoded: Python code runs meanwhile, which may read again,
  // and may be interrupted.
  const std::string lines = take_lines();
  for (size_t begin = 0, end = 0; begin < lines.size(); begin = end + 1) {
    end = lines.find('\n', begin);
    const std::string_view line(lines.data() + begin, end - begin);
    if (is_blank(line)) continue;
    const auto bad = failure_of([&] { append(messages, json_decode(line)); });
    if (bad) _warn("bad message: " + bad->text());
  }
  return messages;
}

void Conn::close() {
  if (closed_) return;
  closed_ = true;
  attempt([&] { call(sock_, "close"_n); });
}

namespace {

// This library file's _Conn, which pybind11 keeps for the life of the process.
PyTypeObject *own_type = nullptr;

/// This library file's own connection, or null for one of another copy's, which is used by its
/// attributes.
Conn *own_conn(py::handle conn) {
  return Py_TYPE(conn.ptr()) == own_type ? py::cast<Conn *>(conn) : nullptr;
}

}  // namespace

bool is_closed(py::handle conn) {
  const Conn *own_one = own_conn(conn);
  return own_one ? own_one->closed() : truth(get(conn, "closed"_n));
}

py::list read_from(py::handle conn) {
  Conn *own_one = own_conn(conn);
  return own_one ? own_one->read() : list_of(call(conn, "read"_n));
}

void send_to(py::handle conn, py::handle msg) {
  if (Conn *own_one = own_conn(conn)) return own_one->send(msg);
  call(conn, "send"_n, msg);
}

void flush(py::handle conn) {
  if (Conn *own_one = own_conn(conn)) return own_one->flush();
  call(conn, "flush"_n);
}

bool has_output(py::handle conn) {
  if (const Conn *own_one = own_conn(conn)) return !own_one->wbuf().empty();
  return truth(get(conn, "wbuf"_n));
}

py::object live_conn() {
  py::object conn = S(key::conn);
  return conn.is_none() || is_closed(conn) ? py::object() : conn;
}

void _send(py::handle msg) {
  if (py::object conn = live_conn()) send_to(conn, msg);
}

void bind_wire(py::module_ &m) {
  // One type for the life of the process, however often the module is loaded. It is local to this
  // library file: another copy's connections are used through their attributes, as `_S` holds them.
  if (py::detail::get_local_type_info(typeid(Conn))) {
    m.attr("_Conn") = py::type::of<Conn>();
  } else {
    py::class_<Conn>(m, "_Conn", py::module_local(), py::is_final(),
                     "One connection: JSON objects, one per line, over a non-blocking socket.")
        .def(py::init<py::object, py::object>(), py::arg("sock"), py::arg("addr"))
        .def("send", &Conn::send, py::arg("msg"), "Queue a message; it goes out with flush().")
        .def("flush", &Conn::flush, "Hand the socket as much as it takes now.")
        .def("read", &Conn::read, "The messages received since the last call, oldest first.")
        .def("close", &Conn::close, "Close for good; a second call does nothing.")
        .def_property_readonly("sock", &Conn::sock, "The non-blocking socket.")
        .def_property_readonly("addr", &Conn::addr, "The peer's (host, port).")
        .def_property_readonly("closed", &Conn::closed, "True once the connection has ended.")
        .def_property_readonly("rbuf", &Conn::rbuf, "Received bytes behind the last line.")
        .def_property_readonly(
            "wbuf",
            [](const Conn &conn) {
              const std::string_view waiting = conn.wbuf();
              return py::bytearray(waiting.data(), waiting.size());
            },
            "A copy of the bytes that wait for the socket.")
        .def_static("__new__", [](const py::args &, const py::kwargs &) {
          fail_type("a connection is made by _Conn(sock, addr), not by __new__ alone");
        });
  }
  own_type = reinterpret_cast<PyTypeObject *>(get(m, "_Conn"_n).ptr());
  // Calling the class goes past its __new__, to make an object and initialise it at once: there is
  // none without a Conn inside.
  own_type->tp_new = [](PyTypeObject *type, PyObject *args, PyObject *kwargs) {
    return type->tp_base->tp_new(type, args, kwargs);
  };
  def(m, "_send", &_send, py::arg("msg"));
}

}  // namespace kestrix
