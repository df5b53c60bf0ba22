"""The demo, in its quick form: a check that takes a few seconds of real time."""
import subprocess
import sys

from conftest import PLUGIN, ROOT


def test_quick_demo_ends_well():
    done = subprocess.run([sys.executable, ROOT / "tools" / "demo.py", "--quick", "--plugin",
                           PLUGIN.resolve() / "Content" / "Python"],
                          capture_output=True, text=True, timeout=60)
    assert done.returncode == 0 and "both sides were equal" in done.stdout, done.stderr
