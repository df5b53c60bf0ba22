"""Run by the editor when it starts: builds the link's menu and starts its server.

A fault here must leave the editor's start alone, so it ends in one line of the Output Log.
"""

import re
import sys

import unreal

# The module is built for one version of the interpreter, which reads nothing but garbage in another.
PYTHON = (3, 11)


def _is_commandlet():
    """Whether the editor runs without its user: it cooks, say, or rebuilds lighting."""
    command_line = getattr(unreal.SystemLibrary, "get_command_line", str)()
    return re.search(r"(?:^|\s)[-/]run=", command_line, re.IGNORECASE) is not None


def _start_link():
    if _is_commandlet():
        return
    if sys.version_info[:2] != PYTHON:
        raise RuntimeError("it is built for Python %d.%d, and this editor has Python %d.%d"
                           % (PYTHON + sys.version_info[:2]))
    import kestrix

    if hasattr(kestrix, "register_menu"):
        kestrix.register_menu()
    kestrix.start()


try:
    _start_link()
except Exception as error:
    unreal.log_warning(f"[Verrin] the link could not start: {error}")
