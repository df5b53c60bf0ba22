// The connection: one JSON object per line over a non-blocking socket.
//
// Framing, both ways: UTF-8, ended by one line feed, the message type under "t". Bulky data never
// goes through here: messages name files in the cache folder. Nothing here blocks: what the socket
// doesn't take now waits in `wbuf`, however large that grows.
#pragma once

#include "link/link_state.h"

namespace kestrix {

/// What a connection begins with; unknown until enough of it has come.
enum class Opening { unknown, http, other };

/// One TCP connection, `_Conn` in Python. It is driven through its socket's recv, send and close.
class Conn {
 public:
  /// Makes the socket non-blocking, and sends small messages without delay where it can.
  Conn(py::object sock, py::object addr);

  /// Encodes a message behind what waits already. Touches no socket; TypeError or ValueError for
  /// what JSON can't hold, RuntimeError from within another send (a dict's class may have an
  /// items() that does anything), and then nothing was appended.
  void send(py::handle msg);

  /// Hands the socket as much as it takes now; from within a send, nothing.
  void flush();

  /// The complete messages that have come since the last call, oldest first. A malformed line costs
  /// a warning and only itself. Lines that came before the peer's end are still given. A connection
  /// whose first bytes are an HTTP request line is closed with one warning as soon as that can be
  /// told, and nothing of it given.
  py::list read();

  /// Closes for good; a second call does nothing. What waits isn't sent any more.
  void close();

  const py::object &sock() const { return sock_; }
  const py::object &addr() const { return addr_; }
  bool closed() const { return closed_; }
  /// Bytes behind the last complete line.
  py::bytes rbuf() const { return rbuf_; }
  /// Encoded messages that wait for the socket.
  std::string_view wbuf() const { return std::string_view(wbuf_).substr(sent_); }

 private:
  void receive();
  /// Takes the complete lines out of rbuf_, each with its line feed.
  std::string take_lines();

  py::object sock_;
  py::object addr_;
  std::string rbuf_;
  size_t searched_ = 0;  // bytes at the front of rbuf_ known to hold no line feed
  std::string wbuf_;
  size_t sent_ = 0;  // bytes at the front of wbuf_ that the socket has taken
  Opening opening_ = Opening::unknown;
  bool closed_ = false;
  bool writing_ = false;   // within send()
  bool flushing_ = false;  // within flush()
};

/// After a failed socket call: clears its error, and gives true if it only would have blocked,
/// false for any other OSError. What isn't an OSError is thrown.
bool would_block();

// What the tick does with a connection: directly with this library file's own, by its attributes
// with one that another copy of the library made.
bool is_closed(py::handle conn);
py::list read_from(py::handle conn);
void send_to(py::handle conn, py::handle msg);
void flush(py::handle conn);
/// Whether messages wait for the socket.
bool has_output(py::handle conn);

/// The beginning of a message of that type.
inline Record message(const char *type) {
  return Record().set("t"_n, type);
}

/// The peer's connection, or null if there is none or it is closed.
py::object live_conn();

/// Queues a message for the peer; without a live connection it is lost.
void _send(py::handle msg);

void bind_wire(py::module_ &m);

}  // namespace kestrix
