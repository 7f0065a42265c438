"""A simulated computer, for testing programs without audio hardware: create `computer =
dxr.simulated.Computer()` first, then plug and unplug devices."""

from __future__ import annotations

import weakref
from typing import Any, Literal

from ._devices import Device, Direction, device, direction_number
from ._library import ArgumentError, check, encoded, ffi, lib, owned, result


class Computer:
    """Replaces the process's audio hardware. The clock follows the host's, or if stepped moves in advance()
    only."""

    def __init__(self, clock: Literal["real", "stepped"] = "real") -> None:
        clocks = {"real": lib.DXR_CLOCK_REAL_TIME, "stepped": lib.DXR_CLOCK_STEPPED}
        if clock not in clocks:
            raise ArgumentError(f"the clock is 'real' or 'stepped', not {clock!r}")
        self.handle = owned(self, result(lib.dxr_simulated_new, clocks[clock]))

    def plug(self, uid: str, **description: Any) -> list[Device]:
        """Plugs a device in. `description`: name, transport, inputs, outputs, frames, is_hidden, sample_rate,
        sample_rates, volume, sources, drift, latency, clock_domain, loops_back, tone; see
        dxr_simulated_device in <dxr/c.h>. Returns the device's directions."""
        check(lib.dxr_simulated_plug(self.handle, _described(uid, description)))
        self.settle()
        directions: list[Direction] = ["input", "output"]
        return [device(uid, each) for each in directions if description.get(each + "s", 0)]

    def unplug(self, uid: str) -> None:
        check(lib.dxr_simulated_unplug(self.handle, encoded(uid, "the UID")))
        self.settle()

    def change(self, uid: str, **description: Any) -> None:
        """Replaces the description of the device; omitted values get their defaults."""
        check(lib.dxr_simulated_change(self.handle, _described(uid, description)))
        self.settle()

    def set_default(self, direction: Direction, uid: str) -> None:
        check(lib.dxr_simulated_set_default(self.handle, direction_number(direction), encoded(uid, "the UID")))
        self.settle()

    def fail(self, starts: bool = False, writes: bool = False) -> None:
        """Makes starts of devices, or writes of their values, fail until the next call of fail()."""
        check(lib.dxr_simulated_fail(self.handle, starts, writes))

    def lose_cycles(self, uid: str, count: int = 1) -> None:
        check(lib.dxr_simulated_lose_cycles(self.handle, encoded(uid, "the UID"), count))

    def advance(self, seconds: float) -> None:
        """Advances a stepped clock."""
        check(lib.dxr_simulated_advance(self.handle, int(seconds * 1e9)))

    def settle(self) -> None:
        """Waits until all changes so far have been reported."""
        check(lib.dxr_simulated_settle(self.handle))


def _described(uid: str, description: dict[str, Any]) -> Any:
    made = ffi.new("dxr_simulated_device *")
    kept: list[Any] = [ffi.new("char[]", encoded(uid, "the UID"))]
    made.size = ffi.sizeof("dxr_simulated_device")
    made.uid = kept[0]
    fields = {name for name, _ in ffi.typeof("dxr_simulated_device").fields}
    for name, value in description.items():
        if name in ("name", "transport"):
            value = ffi.new("char[]", encoded(value, name))
        elif name == "sources":
            kept += (texts := [ffi.new("char[]", encoded(each, name)) for each in value])
            value = ffi.new("const char *[]", texts)
            made.source_count = len(value)
        elif name == "sample_rates":
            value = ffi.new("double[]", [float(each) for each in value])
            made.sample_rate_count = len(value)
        elif name == "volume":
            made.has_volume = 1
        elif name not in fields or name in ("size", "uid") or name.endswith("_count"):
            raise TypeError(f"a simulated device has no {name!r}")
        kept.append(value)
        setattr(made, name, value)
    _keep[made] = kept
    return made


_keep: weakref.WeakKeyDictionary[Any, list[Any]] = weakref.WeakKeyDictionary()  # memory that structs point to
