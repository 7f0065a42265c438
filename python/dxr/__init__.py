"""Audio devices, and audio on one or several of them at once.

    import dxr
    dxr.play(samples, 48000)                        # on the default output
    samples = dxr.record(48000, channels=1)         # a second of the default input
    for change in dxr.changes():                    # devices as they appear, disappear and change
        print(change.kind, change.device.name)
"""

from . import simulated
from ._audio import Callback, Cycle, Latency, Runner, Samples, Sound, State, loop, play, record
from ._devices import Change, Changes, Device, Direction, Settings, changes, default, device, device_from_archive, devices
from ._library import ArgumentError, Error, NotFoundError, RefusedError, StateError, check, decoded, encoded, lib, result, taken

__version__: str = decoded(lib.dxr_version())


def set_application(identifier: str) -> None:
    """Sets the application's identifier, such as "com.example.player", which is stored with the device
    settings it makes. Must be called first."""
    check(lib.dxr_set_application(encoded(identifier, "the identifier")))


def hardware_error() -> str:
    """The reason why no devices can be found, "cannot connect to the PipeWire server at …"; empty if they can
    be."""
    return taken(result(lib.dxr_hardware_error))


__all__ = [
    "ArgumentError", "Callback", "Change", "Changes", "Cycle", "Device", "Direction", "Error", "Latency", "NotFoundError",
    "RefusedError", "Runner", "Samples", "Settings", "Sound", "State", "StateError", "changes", "default", "device",
    "device_from_archive", "devices", "hardware_error", "loop", "play", "record", "set_application", "simulated",
]  # fmt: skip
