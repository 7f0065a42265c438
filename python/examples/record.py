"""Records the default input for three seconds into a WAV file: record.py [FILE.wav] [--simulated]"""

import sys
import wave

import numpy as np

import dxr

seconds = 3.0
if "--simulated" in sys.argv:
    dxr.simulated.Computer().plug("mic", inputs=1, tone=440)
    sys.argv.remove("--simulated")
    seconds = 0.3

samples = dxr.record(int(seconds * 48000), 48000, channels=1)
with wave.open(sys.argv[1] if len(sys.argv) > 1 else "recording.wav", "wb") as file:
    file.setparams((1, 2, 48000, 0, "NONE", ""))
    file.writeframes((samples.clip(-1, 1) * 32767).astype("<i2").tobytes())
print(f"{len(samples)} frames, at most {20 * np.log10(abs(samples).max() + 1e-9):.1f} dB")
