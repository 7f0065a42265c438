"""How a program tests its own device code without hardware: on a simulated computer, whose clock moves only
on request."""

import numpy as np

import dxr

computer = dxr.simulated.Computer(clock="stepped")
source, output = computer.plug("cable", inputs=2, outputs=2, loops_back=True)
heard = []
runner = dxr.Runner(48000, 512)
runner.add(source, lambda cycle: heard.append(cycle.samples.copy()))
runner.add(output, lambda cycle: cycle.samples.fill(0.5))
with runner:
    computer.advance(1.0)  # one second of audio, without waiting
    samples = np.concatenate(heard)
    computer.unplug("cable")
    assert not runner.active_devices and not source.is_connected
assert samples[0, 0] == 0.0 and samples[-512:].min() == 0.5, "an echo: what is played comes back"
print(f"ok: {len(heard)} cycles")
