"""The editor stand-in: `import sim; ed = sim.Editor(project_dir)` makes `unreal` importable."""
import os
import sys

_here = os.path.dirname(os.path.abspath(__file__))
if _here not in sys.path:
    sys.path.insert(0, _here)

from .control import Editor  # noqa: E402 - needs the path above

__all__ = ["Editor"]
