import os
import subprocess
import sys
import tempfile

import pytest

os.environ["XDG_DATA_HOME"] = tempfile.mkdtemp(prefix="dxr-pytest-")  # settings are not the user's
import dxr  # noqa: E402


@pytest.fixture(scope="session")
def computer():
    """The one simulated computer of the process."""
    return dxr.simulated.Computer()


@pytest.fixture
def cable(computer):
    """A device whose input hears what its output plays: input, output."""
    yield computer.plug("cable", name="Cable", inputs=2, outputs=2, loops_back=True, volume=1.0, sources=["Line", "Mic"])
    if any(device.uid == "cable" for device in dxr.devices()):
        computer.unplug("cable")


@pytest.fixture
def script():
    """Runs a Python program in a process of its own: what it has printed, and its status."""

    def run(text, **environment):
        done = subprocess.run(
            [sys.executable, "-c", text], capture_output=True, text=True, timeout=100, env=os.environ | environment
        )
        return done.returncode, done.stdout, done.stderr

    return run
