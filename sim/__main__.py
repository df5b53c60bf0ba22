"""A headless editor on a demo level: python3 -m sim [--script FILE] [--seconds N] ..."""
import argparse
import os
import pathlib
import runpy
import signal
import sys
import tempfile
import time

from . import Editor, demo_level

PLUGIN = pathlib.Path(__file__).resolve().parents[1] / "build/release/plugin/Content/Python"
PREFIX = {"log": "", "warning": "Warning: ", "error": "Error: "}
FRAME = 1.0 / 60.0


def arguments():
    parse = argparse.ArgumentParser(prog="python3 -m sim", description=__doc__)
    parse.add_argument("--project", help="project folder (default: a temporary one)")
    parse.add_argument("--plugin", type=pathlib.Path, default=PLUGIN,
                       help="the plugin's Content/Python, whose init_unreal.py is run")
    parse.add_argument("--actors", type=int, default=300, help="size of the demo level")
    parse.add_argument("--script", help="file with `def script(ed)`, a generator that edits the "
                       "level and yields the seconds to wait before going on")
    parse.add_argument("--exit-when-done", action="store_true", help="end with the script")
    parse.add_argument("--seconds", type=float, help="end after that long")
    return parse.parse_args()


def write_log(ed):
    """Move the log to stdout, as the editor's log file has it."""
    for level, text in ed.log:
        print(f"LogPython: {PREFIX[level]}{text}", flush=True)
    ed.clear_log()


def start_plugin(ed, folder):
    """Run the plugin's start-up script as the editor does; its errors are log lines."""
    script = folder / "init_unreal.py"
    sys.path.insert(0, str(folder))
    ed.guarded(runpy.run_path, str(script), None, "__main__")


def run(ed, script, exit_when_done, seconds):
    """Tick at 60 Hz until a signal, the end of the time, or the end of the script."""
    stop = []
    for signum in (signal.SIGINT, signal.SIGTERM):
        signal.signal(signum, lambda *_: stop.append(True))
    start = last = time.perf_counter()
    script_due = start
    while not stop:
        now = time.perf_counter()
        if seconds is not None and now - start >= seconds:
            break
        if script is not None and now >= script_due:
            try:
                script_due = now + (next(script) or 0.0)
            except StopIteration:
                script = None
                if exit_when_done:
                    break
        ed.tick(dt=now - last)
        last = now
        write_log(ed)
        time.sleep(max(0.0, FRAME - (time.perf_counter() - now)))
    write_log(ed)


def main():
    args = arguments()
    if not (args.plugin / "init_unreal.py").exists():
        sys.exit(f"no plugin at {args.plugin}")
    with tempfile.TemporaryDirectory(prefix="sim_project_") as temporary:
        ed = Editor(args.project or temporary)
        if not ed.actors():     # the project may have been saved before
            demo_level.build(ed, args.actors)
        start_plugin(ed, args.plugin)
        write_log(ed)
        print(f"editor running, pid {os.getpid()}, {len(ed.actors())} actors, project "
              f"{ed.project_dir}", flush=True)
        script = runpy.run_path(args.script)["script"](ed) if args.script else None
        run(ed, script, args.exit_when_done, args.seconds)


if __name__ == "__main__":
    main()
