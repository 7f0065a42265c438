"""Lists the audio devices: list_devices.py [--simulated]"""

import sys

import dxr

if "--simulated" in sys.argv:
    dxr.simulated.Computer().plug("desk", name="Desk", inputs=4, outputs=2, volume=0.5)

for device in dxr.devices():
    mark = "*" if device.is_default else " "
    print(f"{mark} {device.direction:6} {device.channels:3} ch {device.sample_rate:8g} Hz  {device.name}")
