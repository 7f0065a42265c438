import os
import subprocess
import sys
import tempfile

import pytest

os.environ["XDG_DATA_HOME"] = tempfile.mkdtemp(prefix="dxr-pytest-")  # do not change the user's settings
import dxr  # noqa: E402


@pytest.fixture(scope="session")
def computer():
    """The process's only simulated computer."""
    return dxr.simulated.Computer()


@pytest.fixture
def cable(computer):
    """A device whose input receives its output. Yields its input and its output."""
    yield computer.plug("cable", name="Cable", inputs=2, outputs=2, loops_back=True, volume=1.0, sources=["Line", "Mic"])
    if any(device.uid == "cable" for device in dxr.devices()):
        computer.unplug("cable")


@pytest.fixture
def script():
    """Runs a Python program in another process; returns its status, output and errors."""

    def run(text, **environment):
        done = subprocess.run(
            [sys.executable, "-c", text], capture_output=True, text=True, timeout=100, env=os.environ | environment
        )
        return done.returncode, done.stdout, done.stderr

    return run
