"""Processes end cleanly: in any order, with cycles running."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

BEGIN = """
import dxr, os, sys, threading, time, gc
computer = dxr.simulated.Computer()
source, output = computer.plug("cable", inputs=2, outputs=2, frames=32)
def tone(cycle): cycle.samples[:] = 0.5
runner = dxr.Runner(48000, 32)
runner.add(output, tone)
runner.start()
time.sleep(0.05)
changes = dxr.changes()
"""

ENDS = {
    "by falling off the end": ("", 0),
    "by an exception": ("raise RuntimeError('x')", 1),
    "by a thread that goes on": ("threading.Thread(target=lambda: list(changes), daemon=True).start()", 0),
    "by a thread that goes on starting": (
        "def start():\n"
        "    while True:\n"
        "        again = dxr.Runner(48000, 32); again.add(source, tone); again.start(); more = dxr.changes()\n"
        "threading.Thread(target=start, daemon=True).start(); time.sleep(0.05)",
        0,
    ),
    "with the library closed": (  # as the interpreter does, but the library's threads have time to continue
        "import ctypes, _ctypes\n"
        "library = ctypes.CDLL(os.environ.get('DXR_LIBRARY', 'libdxr.so.0.1'))._handle\n"
        "_ctypes.dlclose(library); _ctypes.dlclose(library); time.sleep(0.2)",
        0,
    ),
    "with everything deleted first": ("del runner, changes, computer, output, source; gc.collect()", 0),
    "with a cycle of garbage": ("runner.me = runner; del runner; gc.collect(); time.sleep(0.05)", 0),
    "collecting garbage in the callback": (
        "runner2 = dxr.Runner(48000, 32)\n"
        "runner2.add(source, lambda cycle: (globals().pop('runner', None), gc.collect(), None)[2])\n"
        "runner2.start(); time.sleep(0.2)",
        0,
    ),
    "with a runner released in its callback, and nothing else": (
        "del changes, computer, output, source\n"
        "runner = dxr.Runner(48000, 32)\n"
        "runner.add('output', lambda cycle: globals().pop('runner', None) and None)\n"
        "runner.start(); time.sleep(0.2)",
        0,
    ),
    "by a fork of it": ("child = os.fork(); sys.exit(0 if child == 0 else os.waitpid(child, 0)[1])", 0),
}


@pytest.mark.parametrize("end", ENDS)
def test_the_interpreter_ends_while_cycles_run(script, end):
    text, wanted = ENDS[end]
    status, _, errors = script(BEGIN + text)
    assert status == wanted and "Fatal" not in errors, errors


def test_ctrl_c_ends_what_waits(script):
    status, out, errors = script(BEGIN + """
threading.Timer(0.2, lambda: os.kill(os.getpid(), 2)).start()
try: dxr.record(48000 * 60)
except KeyboardInterrupt: print("interrupted")
""")
    assert (status, out) == (0, "interrupted\n"), errors


def test_the_hardware_error_is_text(script):
    status, _, errors = script("import dxr; dxr.hardware_error()", PIPEWIRE_REMOTE="/tmp/\udcff")
    assert status == 0, errors


EXAMPLES = sorted((Path(__file__).parents[1] / "examples").glob("*.py"))


@pytest.mark.parametrize("example", EXAMPLES, ids=lambda path: path.stem)
def test_examples_run(example, tmp_path):
    done = subprocess.run([sys.executable, example, "--simulated"], capture_output=True, text=True, timeout=100, cwd=tmp_path)
    assert done.returncode == 0 and done.stdout, done.stderr


def test_the_readmes_programs_run(script):
    blocks = (Path(__file__).parents[1] / "README.md").read_text(encoding="utf-8").split("```python\n")[1:]
    program = "".join(block.split("```")[0] for block in blocks).replace("dxr.changes()", "dxr.changes(timeout=0.1)")
    simulated = """
import dxr
computer = dxr.simulated.Computer()
computer.plug("headset", name="Headset", inputs=1, outputs=2, volume=1.0, tone=440)
computer.plug("desk", outputs=2, sample_rate=44100)
"""
    status, _, errors = script(simulated + program)
    assert status == 0, errors


def test_it_installs_with_pip(tmp_path):
    package = Path(__file__).parents[1]
    if not (package / "pyproject.toml").exists():
        pytest.skip("not in the source tree")
    subprocess.run(["cp", "-rL", package, tmp_path / "source"], check=True)  # a build leaves files in its folder
    command = [sys.executable, *"-m pip install --no-build-isolation --no-deps --no-index -q --target ../site .".split()]
    done = subprocess.run(command, cwd=tmp_path / "source", capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stderr
    assert {"c.h", "py.typed", "__init__.py"} <= set(os.listdir(tmp_path / "site" / "dxr"))
