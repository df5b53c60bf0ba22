"""Torture: random and broken input from every side, bounded in time.

    python3 tests/torture                           # everything, about three minutes
    python3 tests/torture --short                   # under 25 seconds, always the same seeds
    python3 tests/torture --only messages --seed 4711   # one round again
    python3 tests/torture --only failures --full  # every failing path, about eight minutes
"""
import argparse
import collections
import importlib
import time
import traceback

from rig import Finding

# Topic -> seconds that it gets, and rounds in the short form.
TOPICS = {"messages": (55, 6), "sessions": (45, 3), "failures": (70, 1)}
MOST_FINDINGS = 5   # of one topic, then it stops


def run_round(topic, seed, counts, form):
    """Runs one round; gives what it found as text, or None."""
    def count(kind, n=1):
        counts[kind] += n

    try:
        module = importlib.import_module(topic)
        getattr(module, f"run_{form}", module.run)(seed, count)
    except Finding as finding:
        return f"{finding}" + (f"\n  input: {finding.case!r}" if finding.case else "")
    except Exception:
        return traceback.format_exc()


def main():
    args = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    args.add_argument("--short", action="store_const", dest="form", const="short")
    args.add_argument("--full", action="store_const", dest="form", const="full")
    args.add_argument("--seed", type=int, help="one round of each topic, with this seed")
    args.add_argument("--only", choices=TOPICS)
    args = args.parse_args()
    begin = time.monotonic()
    first = 1 if args.form else int(begin * 1000) % 1_000_000
    failed = 0
    for topic, (seconds, rounds) in TOPICS.items():
        if args.only not in (None, topic):
            continue
        counts, found, done = collections.Counter(), 0, 0
        end = time.monotonic() + seconds
        wanted = 1 if args.seed is not None or args.form == "full" else rounds if args.form else None
        while (time.monotonic() < end if wanted is None else done < wanted) \
                and found < MOST_FINDINGS:
            seed = first + done if args.seed is None else args.seed
            text = run_round(topic, seed, counts, args.form)
            done += 1
            if text:
                found += 1
                print(f"FINDING {topic}: {text}\n  again: python3 tests/torture --only {topic}"
                      f" --seed {seed}" + (f" --{args.form}" if args.form else ""), flush=True)
        failed += found
        seeds = f"{args.seed}" if args.seed is not None else f"{first} to {first + done - 1}"
        kinds = ", ".join(f"{n} {kind}" for kind, n in counts.items()) or "nothing"
        print(f"{topic}: {kinds}; seeds {seeds}; findings {found}", flush=True)
    print(f"{failed} findings in {time.monotonic() - begin:.0f} s")
    return 1 if failed else 0


if __name__ == "__main__":
    raise SystemExit(main())
