"""How the console talks over the link: linking up, asking, waiting for answers, telling the user."""
import contextlib
import json
import math
import os
import sys
import time

from link_peer import PORTS, PeerError, encode, find
from peer_text import describe


def show(peer, msg, raw=False):
    """Prints a message as a readable line, or as it is."""
    colour = sys.stdout.isatty() and not os.environ.get("NO_COLOR")
    print(encode(msg).decode() if raw else describe(peer, msg, colour), flush=True)


FAILURES = ("error", "unknown", "spawn_failed")


def greet(args):
    """A peer that has said hello to an editor, by the common options."""
    return find(args.host, args.port or PORTS, args.timeout or 10.0, name=args.name,
                scope=args.scope, takeover=args.takeover)


def tell(args, text, **data):
    """Prints what happened: the text, or with --json the data."""
    print(json.dumps(data) if args.json else text, flush=True)


def link(args):
    """A peer that has its snapshot and is ready for edits."""
    peer = greet(args)
    hear(peer, args, "hello", "snapshot")
    peer.synced()
    return peer


@contextlib.contextmanager
def progress(peer):
    """On a terminal, a line with what the editor is busy with, gone when it has answered."""
    before = peer.listener

    def listener(msg):
        if msg["t"] == "busy":
            print(f"\r\033[K{msg['what'] or ''}", end="", file=sys.stderr, flush=True)
        if before:
            before(msg)
    if not sys.stderr.isatty():
        yield
        return
    peer.listener = listener
    try:
        yield
    finally:
        peer.listener = before
        print("\r\033[K", end="", file=sys.stderr, flush=True)


def report_faults(peer):
    for text in peer.faults:
        print(f"peer: fault: {text}", file=sys.stderr)
    peer.faults.clear()


def listen(peer, seconds):
    """Yields every message for that many seconds, without end if None."""
    for msg in peer.take():     # what came with the greeting
        if peer.listener:
            peer.listener(msg)
        yield msg
    end = math.inf if seconds is None else time.monotonic() + seconds
    while (left := end - time.monotonic()) > 0:
        yield from peer.pump(min(left, 3600.0))
        report_faults(peer)
        peer.clear()
        peer.check()


def post(peer, args, text, agrees, *msgs):
    """Sends messages that have no answer, asks the editor for its level and says so with `text` if
    agrees() then holds. Returns the exit code: 1 if it doesn't, or the editor reports a failure.
    """
    for msg in msgs:
        peer.send(msg)
    failures = []
    peer.listener = lambda m: failures.append(describe(peer, m)) if m["t"] in FAILURES else None
    ask(peer, args, {"t": "resync"}, "snapshot")
    peer.listener = None
    for line in failures:
        print("peer: " + line, file=sys.stderr)
    done = agrees() and not failures
    if done:
        tell(args, text, done=True)
    else:
        tell(args, "nothing happened: the editor leaves it as it is", done=False)
    return 0 if done else 1


def ask(peer, args, msg, *kinds, **how):
    """Sends `msg` and returns the answer of one of `kinds`; PeerError if the request failed."""
    peer.send(msg)
    return hear(peer, args, msg["t"], *kinds, **how)


def hear(peer, args, request, *kinds, match=None, timeout=10.0):
    """The answer of one of `kinds` to a request of that type; PeerError if the request failed."""
    def is_answer(m):
        if m["t"] == "error":
            return m["msg"].startswith(request + ": ")
        return match is None or match(m)
    with progress(peer):
        answer = peer.wait((*kinds, "error"), is_answer, args.timeout or timeout)
    if answer["t"] in FAILURES:
        raise PeerError(f"the editor reports: {answer['msg']}")
    return answer
