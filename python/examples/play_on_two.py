"""Plays a tone on two devices at once, regardless of their rates and clocks: play_on_two.py [--simulated]"""

import sys

import numpy as np

import dxr

if "--simulated" in sys.argv:
    computer = dxr.simulated.Computer()
    computer.plug("one", outputs=2)
    computer.plug("two", outputs=2, sample_rate=44100, drift=50)

outputs = dxr.devices("output")[:2]
if len(outputs) < 2:
    sys.exit("There are no two output devices.")
time = np.arange(48000) / 48000
print("Playing on", " and ".join(device.name for device in outputs))
dxr.play(0.2 * np.sin(2 * np.pi * 440 * time), 48000, device=outputs)
