"""Plays noise on the default output and reports devices that are plugged and unplugged; a device that returns
is the same object: follow.py [--simulated]"""

import sys
import threading

import numpy as np

import dxr

timeout = None
if "--simulated" in sys.argv:
    computer = dxr.simulated.Computer()
    computer.plug("speakers", name="Speakers", outputs=2)
    threading.Timer(0.2, computer.unplug, ["speakers"]).start()
    threading.Timer(0.4, computer.plug, ["speakers"], {"name": "Speakers", "outputs": 2}).start()
    timeout = 1.0

noise = np.random.default_rng(1)


def play(cycle: dxr.Cycle) -> None:
    cycle.samples[:] = 0.05 * noise.standard_normal(cycle.samples.shape, np.float32)


runner = dxr.Runner(48000)
runner.add("output", play)  # the default device, even when the default changes
with dxr.changes(timeout) as changes, runner:
    for change in changes:
        print(f"{change.kind:12} {change.device.name}  playing on {[device.name for device in runner.active_devices]}")
