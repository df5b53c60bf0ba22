"""The connection: framing, JSON as the standard module has it, and sockets that misbehave."""
import collections
import copy
import enum
import json
import random
import struct
import types

import pytest
import unreal as u
from conftest import warnings
from hypothesis import HealthCheck, example, given, settings
from hypothesis import strategies as st

CHUNK = 1 << 20
fuzz = settings(deadline=None, database=None,
                suppress_health_check=[HealthCheck.function_scoped_fixture])

any_text = st.text(st.characters(blacklist_categories=()), max_size=12)  # lone surrogates too
scalars = (st.none() | st.booleans() | st.integers() | st.integers(-(2**70), 2**70) | st.floats()
           | any_text)
values = st.recursive(
    scalars, lambda inner: st.lists(inner, max_size=4)
    | st.dictionaries(any_text, inner, max_size=4), max_leaves=12)
# What only the writing side takes: tuples, and keys that aren't strings.
writable = st.recursive(
    scalars, lambda inner: st.lists(inner, max_size=4) | st.tuples(inner, inner)
    | st.dictionaries(scalars, inner, max_size=4), max_leaves=12)


class Sock:
    """Gives the chunks of `incoming`, then blocks; each send takes as much as `takes` says."""

    def __init__(self, *incoming, takes=()):
        self.incoming, self.takes = list(incoming), list(takes)
        self.sent, self.offers, self.closed = bytearray(), [], 0

    def setblocking(self, on):
        assert not on

    def setsockopt(self, *option):
        raise OSError("no such option")

    def recv(self, most):
        assert most == CHUNK
        data = self.incoming.pop(0) if self.incoming else BlockingIOError
        if not isinstance(data, bytes):
            raise data
        return data

    def send(self, data):
        self.offers.append(len(data))
        takes = self.takes.pop(0) if self.takes else len(data)
        if not isinstance(takes, int):
            raise takes
        self.sent += data[:max(takes, 0)]
        return min(takes, len(data))

    def close(self):
        self.closed += 1
        raise OSError("closing failed")


def conn_of(K, *incoming, takes=()):
    sock = Sock(*incoming, takes=takes)
    return K._Conn(sock, ("127.0.0.1", 1)), sock


def line_of(msg):
    return json.dumps(msg, separators=(",", ":")).encode() + b"\n"


@fuzz
@given(st.lists(st.dictionaries(any_text, values, max_size=3)
                | st.sampled_from([b"", b" \t\r\v\f", b"{", b"\xff", b"{'t':1}"]), max_size=8),
       st.lists(st.integers(0, 300)), any_text)
def test_any_cut_of_the_stream_gives_the_same_messages(K, ed, lines, cuts, rest):
    ed.clear_log()
    tail = json.dumps(rest).encode()  # a line whose end hasn't come
    stream = b"".join(x + b"\n" if isinstance(x, bytes) else line_of(x) for x in lines) + tail
    at = sorted({min(cut, len(stream)) for cut in cuts} | {0, len(stream)})
    chunks = [stream[a:b] for a, b in zip(at, at[1:])]
    conn, sock = conn_of(K)
    got = []
    for chunk in chunks:
        sock.incoming.append(chunk)
        got += conn.read()
    assert repr(got) == repr([x for x in lines if not isinstance(x, bytes)])
    assert conn.rbuf == tail
    assert len(warnings(ed)) == sum(isinstance(x, bytes) and x.strip() != b"" for x in lines)


@fuzz
@given(writable)
@example({True: 1e16, None: 1e-5, 1.5: -0.0, 10**30: 5e-324, "\x7f\x1f/": 123456789012345680.0})
def test_what_is_written_is_what_json_writes(K, value):
    conn, _ = conn_of(K)
    conn.send(value)
    assert conn.wbuf == line_of(value)


def read_as_json(K, ed, line):
    """Reads one line, and compares what comes of it with the standard module's verdict."""
    ed.clear_log()
    conn, _ = conn_of(K, line + b"\n")
    got = conn.read()
    try:
        expected, said = [json.loads(line.decode())], []
    except (ValueError, RecursionError) as error:
        expected, said = [], [f"[Verrin] bad message: {error}"] if line.strip() else []
    try:
        same = repr(got) == repr(expected)
    except RecursionError:
        same = len(got) == len(expected)
    assert same and warnings(ed) == said


@fuzz
@given(values, st.booleans(), st.lists(st.tuples(
    st.integers(0, 99), st.sampled_from([0, 1, 2, 400]), st.integers(0, 255)
    | st.sampled_from(b'"\\{}[],:0129-+.eEuntf \r\0\x7f\xc3\xed')), max_size=3))
def test_what_is_read_is_what_json_reads(K, ed, value, ascii_only, mutations):
    line = bytearray(json.dumps(value, ensure_ascii=ascii_only).encode("utf-8", "surrogatepass"))
    for at, cut, byte in mutations:
        line[at:at + cut] = bytes([byte])
    read_as_json(K, ed, bytes(line).replace(b"\n", b" "))


@pytest.mark.parametrize("line", [
    b"-0", b"-0.0", b"1e400", b"-1E-400", b"9223372036854775808", b"1" * 5000, b"01", b"1.", b"+1",
    b"NaN", b"-Infinity", b'{"a":1,"b":2,"a":3}', b'"\\ud83d\\ude00\\ud800"', b'{"\\udc00":1}',
    b'"\\/\\u0000"', b'"\x7f"', b'"\t"', b'{"a":1}\0', b"[1]\0[2]", b"[1] [2]", b"[1,]", b"{1:2}",
    b"\xef\xbb\xbf{}", b'"\xed\xa0\x80"', b'"\xc0\xaf"', b'"\xf4\x90\x80\x80"', b"\x85",
    b"[" * 600 + b"]" * 600, b"[" * 100_000, b'{"a":' * 100_000])
def test_lines_that_parsers_differ_about(K, ed, line):
    read_as_json(K, ed, line)


def both_ways(K, ed, value):
    """Writes a value as json does, and reads that line, and one with spaces, as json does."""
    conn, _ = conn_of(K)
    conn.send(value)
    assert conn.wbuf == line_of(value)
    read_as_json(K, ed, bytes(conn.wbuf[:-1]))
    read_as_json(K, ed, json.dumps(value, ensure_ascii=False).encode("utf-8", "surrogatepass"))


def test_numbers_of_every_shape(K, ed):
    dice = random.Random(1)
    halves = (dice.randrange(10**dice.randrange(1, 18)) / 2 for _ in range(300))
    rounded = (round(dice.uniform(-1, 1) * 10**dice.randrange(-6, 18), dice.randrange(9))
               for _ in range(3000))
    any_bits = (struct.unpack("d", dice.randbytes(8))[0] for _ in range(300))
    limits = [m * 10.0**e + d for e in range(-8, 19) for m in (1, -1, 9.999999, 2.5)
              for d in (0, 1e-6, -1e-7, 0.5)]
    near = [struct.unpack("q", struct.pack("d", x))[0] for x in (1e8, 1e-4, 1e16, 0.000002, 0.3)]
    neighbours = [struct.unpack("d", struct.pack("q", n + d))[0] for n in near for d in (-1, 0, 1)]
    floats = [*halves, *rounded, *any_bits, *limits, *neighbours, -0.0, 5e-324, 2.3e-308, 1.8e308]
    ints = [dice.randrange(10**n) * dice.choice((1, -1)) for n in range(1, 26) for _ in range(4)]
    both_ways(K, ed, {"xf": [floats], "n": [ints], "named": {str(i): v for i, v in
                                                            enumerate(floats + ints)}})
    # As no writer spells them, but a reader may meet them; the last ones at the end of the line.
    for text in ("00.5", "-.5", "1.e5", "12345678.1234567", "123456789.1", "1.12345678", "0.10",
                 "99999999.99999999", "900719925.4740993", "1234567890123456789.5", "1.5E3",
                 "-01.5", "--1.5", "1.5.5", "1.5x", "1.5 ", "000", "1/2", ".5", "-", "2.5e", "2e+"):
        for line in (f"[{text},1.5,2.5,3.5,4.5,5.5,6.5,7.5]", f'{{"a":{text}}}', f"[{text}]", text):
            read_as_json(K, ed, line.encode())


def test_what_a_peer_writes_is_read_at_once(K, monkeypatch):
    """The standard module is for what no peer writes: asking it costs five times as much."""
    value = [1.5, -2e-3, 1e-7, 1e22, 7, False, None, True, {"a": {"b": [], "c": {}}, "key" * 9: "x" * 40},
             "\U0001f400 \U0010fc00 \U0010ffff \ud7ff \ue000 \n", "é" * 9, "", "q" * 8, "q" * 17]
    lines = [json.dumps(value, ensure_ascii=how, separators=form).encode()
             for how in (True, False) for form in ((",", ":"), (", ", ": "))]
    monkeypatch.setattr(json, "loads", lambda *_: pytest.fail("the standard module was asked"))
    assert conn_of(K, b"\n".join(lines) + b"\n")[0].read() == [value] * 4


def test_special_characters_at_every_place(K, ed):
    for special in '"\\/\b\f\n\r\t\0\x1f\x7f\x80\xe9\u2028\ud800\U0001f600':
        both_ways(K, ed, [{"k" * at + special + "k" * (n - at): "v" * at + special + "v" * (n - at)}
                          for n in (*range(9), *range(14, 19), 33) for at in range(n + 1)])
    # Where the writer's own buffer is full.
    both_ways(K, ed, ["x" * n + end for n in range(8080, 8200, 3)
                      for end in ("", "\0" * 20, "\U0001f600")])
    for escape in ("\\u00e9", "\\uD83D\\uDE00", "\\ud83dx", "\\ud83d\\u0041", "\\ud83d\\ue000",
                   "\\ude00", "\\u12", "\\u-123", "\\u 123", "\\x41", "\\"):
        for line in (f'["{escape}"]', f'{{"abcdefghijklmno{escape}":"{"x" * 20}"}}', f'"{escape}'):
            read_as_json(K, ed, line.encode())



def test_strings_that_look_alike_stay_apart(K, ed):
    alike = [f"{'a' * 8}{i:0{n}}{'b' * 8}" for n in range(4, 17, 4) for i in range(300)]
    short = [c * n for n in range(1, 9) for c in "abcdef\0"] + [str(i) for i in range(3000)]
    both_ways(K, ed, [{key: key for key in alike + short}, short, alike] * 2)


def test_classes_of_ones_own_are_written_as_what_they_hold(K):
    class Real(float):
        __repr__ = __str__ = lambda self: "real"

    class Text(str):
        __slots__ = ()

    class Backwards(list):
        def __iter__(self):
            return reversed(self)

    kinds = enum.IntEnum("Kinds", {"MESH": 3, "HUGE": 10**30})
    moved = collections.OrderedDict([("a", 1), ("b", [2])])
    moved.move_to_end("a")
    point = collections.namedtuple("Point", "x y")(1.5, Text("\xe9"))
    conn, _ = conn_of(K)
    value = {Text("key"): [*kinds, Real(0.1), Text("text" * 9)], kinds.MESH: moved,
             Real(2.5): point, "d": collections.defaultdict(list, a=(True, None)),
             "e": collections.OrderedDict(), "l": Backwards([1, 2.5, "x"])}
    conn.send(value)
    assert conn.wbuf == line_of(value)


def test_what_json_cannot_hold_leaves_the_buffer_alone(K):
    conn, _ = conn_of(K)
    conn.send({"t": "first"})
    loop = []
    loop.append(loop)
    for bad, error in (({"t": "x", "v": {1, 2}}, TypeError), ([1, b"bytes"], TypeError),
                       ({(1, 2): 3}, TypeError), (loop, RecursionError)):
        with pytest.raises(error):
            conn.send(bad)
    assert conn.wbuf == b'{"t":"first"}\n'


@fuzz
@given(st.lists(st.integers(0, 40) | st.tuples(st.integers(-1, 30))
                | st.sampled_from([BlockingIOError, InterruptedError])))
def test_whatever_the_socket_takes_the_stream_stays_whole(K, actions):
    conn, sock = conn_of(K)
    expected = b""
    for n, action in enumerate(actions):
        if isinstance(action, int):
            conn.send([n, "x" * action])
            expected += line_of([n, "x" * action])
        else:  # the next flush stops at this
            sock.takes = [*action, 0] if isinstance(action, tuple) else [action]
            conn.flush()
        assert sock.sent + conn.wbuf == expected
    sock.takes.clear()
    conn.flush()
    assert sock.sent == expected and conn.wbuf == b"" and not conn.closed


def test_flush_and_close(K):
    conn, sock = conn_of(K, takes=[CHUNK, 5, ConnectionResetError])
    conn.send("x" * 2 * CHUNK)
    conn.flush()
    assert sock.offers == [CHUNK, CHUNK, CHUNK - 2] and conn.closed
    waits = conn.wbuf
    assert sock.sent + waits == line_of("x" * 2 * CHUNK)
    conn.send("more")
    conn.flush()
    conn.close()
    assert conn.wbuf == waits + b'"more"\n' and len(sock.offers) == 3 and sock.closed == 1
    assert conn.read() == []
    with pytest.raises(ZeroDivisionError):  # not the socket's failure
        conn_of(K, ZeroDivisionError)[0].read()


@pytest.mark.parametrize("end", [b"", ConnectionResetError, OSError])
def test_lines_before_the_end_still_count(K, end):
    conn, sock = conn_of(K, b'{"t":"a"}\n{"t"', b':"b"}\n{"t":"c"', end, b"never read")
    assert conn.read() == [{"t": "a"}, {"t": "b"}]
    assert conn.closed and sock.closed == 1 and conn.read() == []


POSTED = b'POST /x HTTP/1.1\r\nHost: localhost:9920\r\n\r\n{"t":"synced"}\n'


@pytest.mark.parametrize("page", [
    POSTED, b"\r\n\n" + POSTED, b"M-SEARCH * HTTP/1.0\n{}\n", b"get \xff HTTP/1.1 and more\n{}\n",
    b"GET /" + b"HTTP/1." * 9000 + b" HTTP/1.1\r\n{}\n"])
@pytest.mark.parametrize("piece", [1, 7, CHUNK])
def test_a_web_page_is_shown_the_door(K, ed, page, piece):
    conn, sock = conn_of(K)
    told = page.rindex(b" HTTP/1.") + len(b" HTTP/1.")
    for at in range(0, told, piece):
        assert not conn.closed
        sock.incoming.append(page[at:at + piece])
        assert conn.read() == []
    assert conn.closed and conn.rbuf == b"" and sock.closed == 1
    sock.incoming.append(b'{"t":"x"}\n')
    assert conn.read() == []
    assert warnings(ed) == ["[Verrin] closed a connection that speaks HTTP"]


@pytest.mark.parametrize("line", [
    b'{"t":"x","v":"GET / HTTP/1.1"}\nGET / HTTP/1.1', b" GET / HTTP/1.1", b"GET / HTTP/2",
    b"GET  / HTTP/1.1", b"GET / x HTTP/1.1", b"GET / http/1.1", b"GET / HTTP/1", b"GET HTTP/1.1",
    b"[GET / HTTP/1.1", b"x" * 33 + b" / HTTP/1.1", b"GET\n/ HTTP/1.1", b"GET /\n HTTP/1.1"])
@pytest.mark.parametrize("piece", [1, CHUNK])
def test_what_only_looks_like_a_web_page_is_a_bad_line(K, ed, line, piece):
    stream = line + b'\n{"t":"y"}\n'
    conn, sock = conn_of(K)
    got = []
    for at in range(0, len(stream), piece):
        sock.incoming.append(stream[at:at + piece])
        got += [m["t"] for m in conn.read()]
    assert got == ["x"] * (line[0] == ord("{")) + ["y"]
    assert not conn.closed
    assert warnings(ed) and all("bad message: " in text for text in warnings(ed))


def fail(why):
    raise RuntimeError(why)


def test_code_that_runs_within_a_call_cannot_break_the_stream(K, ed, monkeypatch):
    conn, sock = conn_of(K)

    class Meddler(dict):
        def __init__(self, then):
            super().__init__(a=1)
            self.then = then

        def items(self):
            conn.flush()
            self.then()
            return super().items()

    conn.send({"t": "first"})
    for then in (lambda: conn.send({"t": "inner"}), lambda: fail("its own fault")):
        with pytest.raises(RuntimeError):
            conn.send({"pad": "x" * 20000, "v": Meddler(then)})
    conn.send({"v": Meddler(list)})
    conn.flush()
    assert sock.sent == line_of({"t": "first"}) + line_of({"v": {"a": 1}})

    def send(data):
        conn.flush()
        if len(sock.offers) < 10:
            conn.send("late")
        return Sock.send(sock, data)

    sock.sent, sock.offers, sock.takes = bytearray(), [], [3] * 9
    conn.send("early")
    sock.send = send
    conn.flush()
    assert sock.sent == line_of("early") + line_of("late") * 10 and conn.wbuf == b""

    inner = []

    def warned(text):
        if not inner:
            sock.incoming.append(b'"in"}\n' + b'{"t":"in"}\n' * 999 + b'{"t":"d')
            inner.extend(conn.read())

    monkeypatch.setattr(u, "log_warning", warned)
    sock.incoming.append(b'{"t":"a"}\nbad\n{"t":"b"}\nbad\n{"t":"c"}\n{"t":')
    assert [m["t"] for m in conn.read()] == ["a", "b", "c"]
    assert inner == [{"t": "in"}] * 1000
    sock.incoming.append(b'"}\n')
    assert conn.read() == [{"t": "d"}]


@pytest.mark.parametrize("kind, swap", [(dict, False), (dict, True), (list, False)])
def test_what_grows_while_it_is_written_comes_to_an_end(K, kind, swap):
    class Grower(dict):
        def items(self):
            calls.append(self)
            if len(calls) < 99:
                if swap:
                    outer.pop(len(calls) - 1)
                if kind is dict:
                    outer[len(calls)] = Grower(a=1)
                else:
                    outer.append(Grower(a=1))
            return super().items()

    calls = []
    outer = {0: Grower(a=1)} if kind is dict else [Grower(a=1)]
    conn, _ = conn_of(K)
    conn.send("first")
    if kind is dict and not swap:
        with pytest.raises(RuntimeError, match="changed size"):
            conn.send(outer)
        assert conn.wbuf == line_of("first")
    else:
        conn.send(outer)
        written = {0: {"a": 1}} if kind is dict else [{"a": 1}]
        assert conn.wbuf == line_of("first") + line_of(written)
    assert len(calls) == 1


def test_there_is_no_connection_without_a_socket(K):
    conn, sock = conn_of(K)
    for make in (lambda: K._Conn.__new__(K._Conn), lambda: K._Conn.__new__(K._Conn, sock, ()),
                 lambda: K._Conn.__base__.__new__(K._Conn), lambda: object.__new__(K._Conn),
                 lambda: copy.copy(conn), lambda: K._Conn(sock),
                 lambda: type("Mine", (K._Conn,), {"__init__": list})):
        with pytest.raises(TypeError):
            make().send({})


@pytest.mark.parametrize("stream, closed", [(b"bad\n{}\n", False), (POSTED, True)])
def test_an_interrupted_warning_leaves_the_connection_in_order(K, monkeypatch, stream, closed):
    def interrupt(text):
        raise KeyboardInterrupt

    monkeypatch.setattr(u, "log_warning", interrupt)
    conn, sock = conn_of(K, stream)
    with pytest.raises(KeyboardInterrupt):
        conn.read()
    sock.incoming.append(b'{"t":"next"}\n')
    assert conn.closed == closed and conn.read() == [{"t": "next"}] * (not closed)


def test_only_a_live_connection_is_sent_to(K):
    sent = []
    for conn in (None, types.SimpleNamespace(closed=True, send=sent.append),
                 types.SimpleNamespace(closed=False, send=sent.append)):
        K._S["conn"] = conn
        K._send({"t": "x"})
    K._S["conn"] = None
    assert sent == [{"t": "x"}]
