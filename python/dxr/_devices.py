"""Devices, their settings and their changes."""

from __future__ import annotations

import json
import queue
import weakref
from collections.abc import Iterator, MutableMapping
from dataclasses import dataclass
from typing import Any, Literal

from ._library import ArgumentError, NotFoundError, callbacks_change, check, decoded, encoded, ffi, lib, owned, release, result, taken

Direction = Literal["input", "output"]


def direction_number(direction: str) -> int:
    try:
        return {"input": lib.DXR_INPUT, "output": lib.DXR_OUTPUT}[direction]
    except (KeyError, TypeError):
        raise ArgumentError(f"the direction is 'input' or 'output', not {direction!r}") from None


class Settings(MutableMapping[str, Any]):
    """The settings of a device, shared by all applications of the user: values that JSON can represent."""

    def __init__(self, device: Device) -> None:
        self._device = device

    def __getitem__(self, key: str) -> Any:
        value = json.loads(taken(result(lib.dxr_device_get_setting, self._device.handle, encoded(key, "the key"))))
        if value is None:
            raise KeyError(key)
        return value

    def __setitem__(self, key: str, value: Any) -> None:
        text = encoded(json.dumps(value, allow_nan=False), "the value")
        check(lib.dxr_device_set_setting(self._device.handle, encoded(key, "the key"), text))

    def __delitem__(self, key: str) -> None:
        self[key]
        check(lib.dxr_device_set_setting(self._device.handle, encoded(key, "the key"), b"null"))

    def __iter__(self) -> Iterator[str]:
        return iter(json.loads(taken(result(lib.dxr_device_setting_keys, self._device.handle))))

    def __len__(self) -> int:
        return sum(1 for _ in self)


class Device:
    """One direction of an audio device. The object remains valid while the device is unplugged; objects are
    equal if they are the same device. A property that is set has its new value shortly after, when the
    hardware has changed."""

    def __init__(self, handle: Any) -> None:
        self.handle = owned(self, handle)

    def _info(self, field: str) -> Any:
        info = result(lib.dxr_device_get_info, self.handle)
        try:
            value = getattr(info, field)
            if field == "sample_rates":
                return [value[i] for i in range(info.sample_rate_count)]
            if field == "sources":
                return [decoded(value[i]) for i in range(info.source_count)]
            if field == "stereo_channels":
                return (value[0], value[1])
            return decoded(value) if isinstance(value, ffi.CData) else value
        finally:
            lib.dxr_free(info)

    uid: str = property(lambda self: self._info("uid"))  # type: ignore[assignment]
    reference: str = property(lambda self: self._info("reference"), doc="What to store to find it again.")  # type: ignore[assignment]
    name: str = property(lambda self: self._info("display_name"), doc="Differs from those of like devices.")  # type: ignore[assignment]
    manufacturer: str = property(lambda self: self._info("manufacturer"))  # type: ignore[assignment]
    model: str = property(lambda self: self._info("model"))  # type: ignore[assignment]
    transport: str = property(lambda self: self._info("transport").strip())  # type: ignore[assignment]
    channels: int = property(lambda self: self._info("channels"))  # type: ignore[assignment]
    stereo_channels: tuple[int, int] = property(lambda self: self._info("stereo_channels"))  # type: ignore[assignment]
    sample_rates: list[float] = property(lambda self: self._info("sample_rates"))  # type: ignore[assignment]
    sources: list[str] = property(lambda self: self._info("sources"))  # type: ignore[assignment]
    has_volume: bool = property(lambda self: bool(self._info("has_volume")))  # type: ignore[assignment]
    has_mute: bool = property(lambda self: bool(self._info("has_mute")))  # type: ignore[assignment]
    is_connected: bool = property(lambda self: bool(self._info("is_connected")))  # type: ignore[assignment]
    is_default: bool = property(lambda self: bool(self._info("is_default")))  # type: ignore[assignment]
    is_input: bool = property(lambda self: self._info("direction") == lib.DXR_INPUT)  # type: ignore[assignment]

    @property
    def direction(self) -> Direction:
        return "input" if self.is_input else "output"

    @property
    def volume(self) -> float:
        """0 to 1; 1 without a control."""
        return self._info("volume")

    @volume.setter
    def volume(self, volume: float) -> None:
        check(lib.dxr_device_set_volume(self.handle, volume))

    @property
    def muted(self) -> bool:
        return bool(self._info("is_muted"))

    @muted.setter
    def muted(self, muted: bool) -> None:
        check(lib.dxr_device_set_muted(self.handle, bool(muted)))

    @property
    def sample_rate(self) -> float:
        """Nominal, in Hz; can be set to one of sample_rates."""
        return self._info("sample_rate")

    @sample_rate.setter
    def sample_rate(self, rate: float) -> None:
        check(lib.dxr_device_set_sample_rate(self.handle, rate))

    @property
    def source(self) -> str:
        """One of sources; empty if there is none."""
        return self._info("source")

    @source.setter
    def source(self, source: str) -> None:
        check(lib.dxr_device_set_source(self.handle, encoded(source, "the source")))

    @property
    def settings(self) -> Settings:
        return Settings(self)

    @property
    def counterpart(self) -> Device | None:
        """The other direction of the same physical device."""
        try:
            return Device(result(lib.dxr_device_counterpart, self.handle))
        except NotFoundError:
            return None

    def make_default(self) -> None:
        check(lib.dxr_device_make_default(self.handle))

    def archive(self) -> bytes:
        """Everything about the device, for device_from_archive() on any computer."""
        size = ffi.new("size_t *")
        memory = ffi.new("const void **")
        check(lib.dxr_device_archive(self.handle, memory, size))
        try:
            return bytes(ffi.buffer(memory[0], size[0]))
        finally:
            lib.dxr_free(memory[0])

    def __eq__(self, other: object) -> bool:
        return isinstance(other, Device) and self.handle == other.handle

    def __hash__(self) -> int:
        return hash(self.handle)

    def __repr__(self) -> str:
        return f"<dxr.Device {self.direction} {self.name!r} {self.channels} ch {self.sample_rate:g} Hz {self.uid!r}>"


def device_list(function: Any, *arguments: Any) -> list[Device]:
    devices = ffi.new("dxr_device *const **")
    count = ffi.new("size_t *")
    check(function(*arguments, devices, count))
    try:
        found = []
        for i in range(count[0]):
            check(lib.dxr_retain(devices[0][i]))
            found.append(Device(devices[0][i]))
        return found
    finally:
        lib.dxr_free(devices[0])


def devices(direction: Direction | None = None) -> list[Device]:
    """The connected devices, sorted by name."""
    wanted = None if direction is None else direction_number(direction)
    return [each for each in device_list(lib.dxr_devices) if wanted in (None, direction_number(each.direction))]


def default(direction: Direction) -> Device:
    """The default device. Raises NotFoundError if there is none."""
    return Device(result(lib.dxr_default_device, direction_number(direction)))


def device(name: str, direction: Direction) -> Device:
    """The device with this UID or reference, present or not, otherwise the only connected one whose name
    contains `name`. Raises ArgumentError for a reference of the other direction."""
    text = encoded(name, "the name")
    number = direction_number(direction)
    if name[:1] == "{" and name[-1:] == "}":
        try:
            found = Device(result(lib.dxr_device_with_reference, text))
        except ArgumentError:
            pass  # not a reference: a UID or a name may have this form too
        else:
            if found.direction != direction:
                raise ArgumentError(f"the reference is of {found.name!r}, an {found.direction}, not an {direction}")
            return found
    try:
        return Device(result(lib.dxr_device_with_uid, text, number))
    except NotFoundError:
        fitting = [each for each in devices(direction) if name and name.lower() in each.name.lower()]
    if len(fitting) == 1:
        return fitting[0]
    names = ", ".join(repr(each.name) for each in fitting or devices(direction))
    raise NotFoundError(f"{'several' if fitting else 'no'} {direction}s fit {name!r}: {names or 'there is none'}")


def device_from_archive(archive: bytes) -> Device:
    """The device described by archive(); it is disconnected if this computer has never had it."""
    return Device(result(lib.dxr_device_from_archive, ffi.from_buffer(archive), len(archive)))


@dataclass(frozen=True)
class Change:
    """A change of a device. A new default device is an update of the previous and of the new default."""

    kind: Literal["connected", "disconnected", "updated"]
    device: Device


_KINDS = {lib.DXR_CONNECTED: "connected", lib.DXR_DISCONNECTED: "disconnected", lib.DXR_UPDATED: "updated"}


class Changes:
    """An iterator over all changes since its creation; see changes()."""

    def __init__(self, timeout: float | None = None) -> None:
        changes: queue.SimpleQueue[Change | None] = queue.SimpleQueue()

        @ffi.callback("dxr_device_callback")
        def note(device: Any, change: int, _user: Any) -> None:
            lib.dxr_retain(device)
            changes.put(Change(_KINDS[change], Device(device)))  # type: ignore[arg-type]

        self._changes = changes
        self._timeout = timeout
        with callbacks_change(begins=True):
            self._close = weakref.finalize(self, release, result(lib.dxr_follow, note, ffi.NULL), note)

    def __iter__(self) -> Changes:
        return self

    def __next__(self) -> Change:
        try:
            change = self._changes.get(timeout=self._timeout)
        except queue.Empty:
            raise StopIteration from None
        if change is None:
            self._changes.put(None)
            raise StopIteration
        return change

    def close(self) -> None:
        """Ends the iteration, from any thread."""
        self._close()
        self._changes.put(None)

    def __enter__(self) -> Changes:
        return self

    def __exit__(self, *_error: object) -> None:
        self.close()


def changes(timeout: float | None = None) -> Changes:
    """Iterates over devices that connect, disconnect and change: `for change in dxr.changes():`. Ends after
    `timeout` seconds without a change, or with close(). Changes are queued from this call on: list the
    devices after it."""
    return Changes(timeout)


