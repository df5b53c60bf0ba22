"""The torture run in its short form, in a process of its own: it sets the clock and the state."""
import os
import subprocess
import sys

from conftest import PLUGIN, ROOT


def test_short_torture_finds_nothing():
    done = subprocess.run([sys.executable, ROOT / "tests" / "torture", "--short"],
                          env={**os.environ, "KESTRIX_PLUGIN": str(PLUGIN.resolve())},
                          capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stdout + done.stderr
