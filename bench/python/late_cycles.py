"""How many cycles of 256 frames does a Python callback miss? Usage: late_cycles.py SECONDS [--server]. Runs on simulated
hardware or, with --server, on the first output of the PipeWire server. Compares with sounddevice over PortAudio if that is
installed. Asserts nothing."""

import sys
import time

import numpy as np

import dxr

seconds = float(sys.argv[1])
if "--server" not in sys.argv:
    dxr.simulated.Computer().plug("speakers", outputs=2, frames=256)
tone = (0.2 * np.sin(2 * np.pi * np.arange(256) * 375 / 48000)).astype(np.float32)[:, None]
took = []


def play(cycle: dxr.Cycle) -> None:
    begin = time.perf_counter_ns()
    cycle.samples[:] = tone[: len(cycle.samples)]
    took.append(time.perf_counter_ns() - begin)


runner = dxr.Runner(48000, 256)
runner.add(dxr.devices("output")[0], play)
with runner:
    time.sleep(seconds)
    state = runner.state
took.sort()
print(
    f"dxr          {state.cycles} cycles, {state.late_cycles} late, {state.lost_frames} frames lost; inside the callback "
    f"median {took[len(took) // 2] / 1000:.0f} us, longest {took[-1] / 1000:.0f} us of 5333"
)

try:
    import sounddevice
except (ImportError, OSError) as error:
    sys.exit(f"sounddevice  not measured: {error}")
late = cycles = 0


def fill(out: np.ndarray, frames: int, _time: object, status: object) -> None:
    global late, cycles
    cycles += 1
    late += bool(status)
    out[:] = tone[:frames]


with sounddevice.OutputStream(48000, 256, channels=2, dtype="float32", callback=fill):
    time.sleep(seconds)
print(f"sounddevice  {cycles} cycles, {late} with an underflow")
