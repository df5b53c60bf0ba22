"""Peers that behave badly at the socket: silent, half, slow, gone, too many, or no peers at all.

The editor never waits for any of them, keeps no descriptor of theirs, and takes the next good one.
"""
import json
import os
import select
import socket
import struct

from rig import Finding, Rig


def descriptors():
    """How many this process has; always 0 where that can't be told."""
    return len(os.listdir("/proc/self/fd")) if os.path.isdir("/proc/self/fd") else 0


def raw(rig, receive_buffer=None):
    """A bare socket, connected and accepted."""
    rig.start()
    sock = socket.socket()
    if receive_buffer:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    sock.connect(("127.0.0.1", rig.K._S["port"]))
    sock.setblocking(False)
    rig.tick()
    return sock


def reset(sock):
    """Ends the connection by a reset instead of a closing handshake."""
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()


def expect(truth, text, case=None):
    if not truth:
        raise Finding(text, case)


def check_takes_a_peer(rig, case):
    peer = rig.connect(takeover=True)
    rig.check_quiet(case)
    expect(len(peer.actors) == len(rig.ed.actors()), "a good peer gets no level", case)
    return peer


def reconnects(rig, count, times):
    """No descriptor and no connection is kept."""
    rig.connect().close()
    rig.tick(0.1)
    before = descriptors()
    for _ in range(times):
        sock = raw(rig)
        sock.send(rig.random.choice((b"", b'{"t":"hello","version":16}\n', b"{", b"[]\n")))
        if rig.random.random() < 0.5:
            rig.tick()
        rig.random.choice((reset, socket.socket.close))(sock)
        if rig.random.random() < 0.8:
            rig.tick()
        count("reconnects")
    rig.tick(6.0)
    expect(descriptors() <= before, f"{descriptors() - before} descriptors are kept")
    rig.check_quiet()
    check_takes_a_peer(rig, "after many reconnects").close()
    rig.tick(0.1)


def slow_reader(rig, count):
    """Output waits in the link's buffer; all of it arrives in the end, or goes with a reset."""
    for drained in (True, False):
        sock = raw(rig, receive_buffer=4096)
        sock.send(b'{"t":"hello","version":16}\n{"t":"synced"}\n')
        lamp = rig.ed.spawn("PointLight", "Moved")
        waiting = 0
        for i in range(4000):
            rig.ed.move(lamp, (i, 0, 0))
            rig.ed.rename(lamp, f"Moved{i}" + "x" * 4000)
            rig.ed.select(lamp)
            rig.tick(0.03)
            waiting = len(rig.K._S["conn"].wbuf)
            if waiting > 4 << 20:
                break
        rig.ed.clear_history()
        expect(waiting > 1 << 20, f"a slow reader leaves only {waiting} bytes waiting")
        count("ticks beside a slow reader", i)
        if drained:
            data = bytearray()
            for _ in range(20000):
                try:
                    data += sock.recv(1 << 20)
                except BlockingIOError:
                    # What has left the link may still be on its way through the kernel.
                    if not (rig.K._S["conn"].wbuf or select.select([sock], [], [], 0.5)[0]):
                        break
                    rig.tick()
            names = [m["label"] for line in data.split(b"\n")[:-1]
                     if (m := json.loads(line))["t"] == "rename"]
            expect(names[-1].startswith(f"Moved{i}x"), "what a slow reader gets isn't the newest")
            numbers = [int(n[5:n.index("x")]) for n in names]
            expect(numbers == sorted(set(numbers)), "a slow reader's messages are out of order")
        reset(sock)
        rig.tick(0.1)
        expect(rig.K._S["conn"] is None, "a reset connection is kept")
        rig.check_quiet("slow reader")
        rig.ed.delete(lamp)
        check_takes_a_peer(rig, "after a slow reader").close()
        rig.tick(0.1)


def run(seed, count, times=1000):
    rig = Rig(seed)
    try:
        reconnects(rig, count, times)
        slow_reader(rig, count)
    finally:
        rig.close()


def run_short(seed, count):
    run(seed, count, times=100)
