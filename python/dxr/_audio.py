"""Audio on devices: Runner, and play(), record() and loop(), which use it."""

from __future__ import annotations

import time
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from typing import Any, Literal

import numpy as np
from numpy.typing import ArrayLike, NDArray

from ._devices import Device, Direction, default, device_list, direction_number
from ._library import ArgumentError, Error, NotFoundError, RefusedError, allow_release_in_callbacks, callbacks_change, check, decoded
from ._library import ffi, in_callback, lib, owned, release, result

Samples = NDArray[np.float32]


@dataclass
class Cycle:
    """One device's part of one cycle; valid during a callback."""

    samples: Samples
    """frames x channels: recorded samples, or silence to overwrite with output."""
    sample_time: int
    """Of the first frame, in frames since the runner's start."""
    host_time: int
    """When the first frame is at the device, in nanoseconds of time.monotonic_ns(); 0 if unknown."""
    sample_rate: float


Callback = Callable[[Cycle], object]


@dataclass(frozen=True)
class State:
    """The present state of a runner. Counts are since its start, and 0 once it has stopped."""

    is_running: bool
    frames: int
    sample_rate: float
    sample_time: int
    cycles: int
    late_cycles: int
    lost_frames: int
    """Frames lost by all devices since the last restart."""
    restarts: int
    error: str
    """Why a running runner has no audio; empty if it has."""


@dataclass(frozen=True)
class Latency:
    """How long samples take between a callback and the air in one direction of a device, itemised by cause,
    in frames of the device. The values of an input and of an output add up to the pair's round trip."""

    seconds: float
    frames: float
    sample_rate: float
    device_frames: float
    safety_frames: float
    cycle_frames: float
    block_frames: float
    converter_frames: float
    ring_frames: float


def _samples_of(array: ArrayLike) -> Samples:
    """Converts to 32-bit floats, frames x channels."""
    given = np.asarray(array)
    if given.ndim not in (1, 2) or given.size == 0:
        raise ArgumentError(f"samples are frames, or frames x channels, and some: not of shape {given.shape}")
    if given.dtype.kind == "i":
        samples = given.astype(np.float32) / -float(np.iinfo(given.dtype).min)
    elif given.dtype.kind == "f":
        samples = given.astype(np.float32)
    else:
        raise TypeError(f"samples are floats or signed integers, not {given.dtype}")
    return samples[:, None] if samples.ndim == 1 else samples


class Sound:
    """Frames in the library's memory, which a runner plays or records into without calling Python."""

    def __init__(self, frames: int, channels: int, sample_rate: float, repeats: bool = False) -> None:
        frames, channels = _whole(frames, "frames"), _whole(channels, "channels")
        self.handle = owned(self, result(lib.dxr_sound_new, frames, channels, sample_rate, repeats))
        # The array keeps the handle: it may outlive this object.
        check(lib.dxr_retain(self.handle))
        handle = self.handle
        memory = ffi.gc(result(lib.dxr_sound_samples, handle), lambda _: release(handle))
        buffer = ffi.buffer(memory, frames * channels * 4)
        self.samples: Samples = np.frombuffer(buffer, np.float32).reshape(frames, channels)

    @property
    def position(self) -> int:
        """The number of frames played or recorded so far."""
        return result(lib.dxr_sound_position, self.handle)


def _whole(number: int, name: str, minimum: int = 1) -> int:
    """The number as an int: a NumPy integer would overflow in calculations."""
    if not isinstance(number, (int, np.integer)) or not minimum <= number < 2**31:
        raise ArgumentError(f"{name} is to be a whole number from {minimum}, not {number!r}")
    return int(number)


class Runner:
    """Audio on one or several devices at once, at one rate and frame count; the devices may run at others. As
    a context manager, it runs inside `with`. Devices may be absent, appear or disappear; callbacks are still
    called.

    Callbacks run on the device's real-time thread and need the interpreter: keep them short. If a callback
    raises an exception, the runner stops; wait(), stop() and the end of `with` raise the exception again. If
    a callback returns a true value, the runner stops too.

    A runner to which nothing refers, or nothing but its own callbacks, is garbage, and is closed when Python
    collects it."""

    handle: Any = ffi.NULL

    def __init__(self, sample_rate: float = 0.0, frames: int = 0, quality: Literal["high", "fast"] = "high") -> None:
        self._kept: list[Any] = []
        self._failure: list[BaseException] = []
        self._closed: list[bool] = []  # not empty once it is closed
        if quality not in ("high", "fast"):
            raise ArgumentError(f"the quality is 'high' or 'fast', not {quality!r}")
        frames = _whole(frames, "frames", 0)
        # The finalizer must not refer to the callbacks: they may refer to this object, which it would keep alive.
        self.handle = owned(self, result(lib.dxr_runner_new))
        check(lib.dxr_runner_set_format(self.handle, frames, sample_rate))
        check(lib.dxr_runner_set_quality(self.handle, quality == "high"))

    def close(self) -> None:
        """Stops the runner and releases it: no callback is called any more. In a callback, it stops shortly
        after."""
        self._closed.append(True)
        release(self.handle, self._kept)

    def __del__(self) -> None:
        self.close()

    def add(
        self, device: Device | Direction, what: Callback | Sound, channels: Sequence[int] | None = None
    ) -> None:
        """Calls `what` for the device once a cycle, or plays it, or records into it. 'input' and 'output'
        mean the default devices, and change when the defaults do. `channels`, from 1, default to the device's
        stereo pair."""
        node = ffi.new("dxr_node *")
        node.size = ffi.sizeof("dxr_node")
        if isinstance(device, Device):
            node.device = device.handle
        else:
            node.default_of = direction_number(device)
        if channels is not None:
            numbers = [int(channel) for channel in channels]
            if not numbers or min(numbers) < 1 or max(numbers) > 4096:
                raise ArgumentError(f"channels are numbers from 1, not {channels!r}")
            node.channels = kept = ffi.new("uint32_t[]", numbers)
            node.channel_count = len(kept)
        if isinstance(what, Sound):
            node.sound = what.handle
        elif callable(what):
            node.io = callback = self._io(what)
            self._kept.append(callback)
        else:
            raise TypeError(f"a callback or a dxr.Sound is wanted, not {type(what).__name__}")
        check(lib.dxr_runner_add(self.handle, node))

    def remove(self, device: Device | Direction) -> None:
        if isinstance(device, Device):
            check(lib.dxr_runner_remove(self.handle, device.handle))
        else:
            check(lib.dxr_runner_remove_default(self.handle, direction_number(device)))

    def _io(self, callback: Callback) -> Any:
        failure, closed = self._failure, self._closed
        allow_release_in_callbacks()

        def io(cycle: Any, _user: Any) -> int:
            if closed:
                return 1
            in_callback.depth = getattr(in_callback, "depth", 0) + 1
            try:
                buffer = ffi.buffer(cycle.samples, cycle.frames * cycle.channels * 4)
                samples = np.frombuffer(buffer, np.float32).reshape(cycle.frames, cycle.channels)
                made = Cycle(samples, cycle.sample_time, cycle.host_time, cycle.sample_rate)
                return 1 if callback(made) else 0
            finally:
                in_callback.depth -= 1

        def failed(_kind: Any, error: BaseException, _traceback: Any) -> None:
            failure.append(error)

        return ffi.callback("dxr_io", io, error=1, onerror=failed)

    def start(self) -> None:
        self._failure.clear()
        with callbacks_change(begins=True):
            check(lib.dxr_runner_start(self.handle))

    def stop(self) -> None:
        """No callback runs after it has returned. Raises the exception that a callback has raised."""
        status = lib.dxr_runner_stop(self.handle)
        if self._failure:
            raise self._failure.pop(0)
        if not self._closed:
            check(status)

    def wait(self, seconds: float | None = None) -> bool:
        """Waits, at most `seconds`, until a callback has stopped the runner. Returns whether it has
        stopped."""
        end = None if seconds is None else time.monotonic() + seconds
        while self.is_running and not self._failure and (end is None or time.monotonic() < end):
            time.sleep(0.01)
        if self._failure:
            self.stop()
        return not self.is_running

    @property
    def state(self) -> State:
        state = ffi.new("dxr_runner_state *")
        state.size = ffi.sizeof("dxr_runner_state")
        check(lib.dxr_runner_get_state(self.handle, state))
        return State(
            bool(state.is_running), state.frames, state.sample_rate, state.sample_time, state.cycles,
            state.late_cycles, state.lost_frames, state.restarts, decoded(state.error),
        )  # fmt: skip

    def latency(self, device: Device) -> Latency:
        """The latency of a running device, as of the last cycle."""
        latency = ffi.new("dxr_latency *")
        latency.size = ffi.sizeof("dxr_latency")
        check(lib.dxr_runner_get_latency(self.handle, device.handle, latency))
        return Latency(*(getattr(latency, name) for name in Latency.__dataclass_fields__))

    @property
    def is_running(self) -> bool:
        try:
            return self.state.is_running
        except Error:
            if not self._closed:
                raise
            return False

    @property
    def active_devices(self) -> list[Device]:
        """The devices that run now."""
        return device_list(lib.dxr_runner_active_devices, self.handle)

    def __enter__(self) -> Runner:
        self.start()
        return self

    def __exit__(self, kind: object, *_error: object) -> None:
        try:
            self.stop()
        except BaseException:
            if kind is None:
                raise
        finally:
            self.close()


Where = Device | Direction | Sequence[Device] | None


def _chosen(device: Where, direction: Direction) -> list[tuple[Device | Direction, Device]]:
    """The items to add to a runner, each with its present device."""
    if device is None or isinstance(device, str):
        if device not in (None, direction):
            raise ArgumentError(f"not {device!r} but an {direction}, or a dxr.Device: see dxr.device()")
        return [(direction, default(direction))]
    chosen = [device] if isinstance(device, Device) else list(device)
    if not chosen:
        raise NotFoundError(f"no {direction} is given: the list of devices is empty")
    for each in chosen:
        if not isinstance(each, Device):
            raise TypeError(f"a dxr.Device is wanted, not {type(each).__name__}")
        if each.direction != direction:
            raise ArgumentError(f"{each.name!r} is an {each.direction}, not an {direction}")
    return [(each, each) for each in chosen]


def _channels(count: int, device: Device) -> list[int]:
    if count > device.channels:
        raise ArgumentError(f"{count} channels are wanted, {device.name!r} has {device.channels}")
    return list(device.stereo_channels) if count == 2 else list(range(1, count + 1))


_PATIENCE = 5.0  # seconds; the runner tries to start its devices again meanwhile


def _wait_until(runner: Runner, is_done: Callable[[], bool]) -> None:
    """Waits until `is_done` returns true. Raises RefusedError if the runner has had no audio for _PATIENCE."""
    last_good = time.monotonic()
    while not is_done():
        error = runner.state.error
        now = time.monotonic()
        if not error:
            last_good = now
        elif now - last_good > _PATIENCE:
            raise RefusedError(error)
        time.sleep(0.01)


def play(samples: ArrayLike, sample_rate: float, device: Where = None, wait: bool = True) -> Runner:
    """Plays samples, frames or frames x channels, on a device, on several at once, or on the default output.
    A single channel is played on two. Returns the runner when all has been played, or with `wait=False` at
    once: it plays as long as the runner is kept. Raises RefusedError if a device refuses to start for five
    seconds."""
    array = _samples_of(samples)
    runner = Runner(sample_rate)
    sounds = []
    for where, now in _chosen(device, "output"):
        channels = array.shape[1] if array.shape[1] > 1 or now.channels < 2 else 2
        sound = Sound(len(array), channels, sample_rate)
        sound.samples[:] = array
        runner.add(where, sound, _channels(channels, now))
        sounds.append(sound)
    runner.start()
    if wait:
        with runner:
            _wait_until(runner, lambda: all(sound.position >= len(array) for sound in sounds))
            state = runner.state  # one block and a cycle or two are still on the way to the loudspeaker
            end = state.sample_time + 4 * state.frames
            _wait_until(runner, lambda: runner.state.sample_time >= end)
    return runner


def record(frames: int, sample_rate: float = 48000.0, channels: int | None = None, device: Where = None) -> Samples:
    """Records `frames` frames from a device, from several side by side, or from the default input. Returns
    frames x channels; by default all channels of a device. Raises RefusedError as play() does."""
    frames = _whole(frames, "frames")
    wanted = None if channels is None else _whole(channels, "channels")
    runner = Runner(sample_rate)
    sounds = []
    for where, now in _chosen(device, "input"):
        count = wanted or now.channels
        sound = Sound(frames, count, sample_rate)
        runner.add(where, sound, _channels(count, now))
        sounds.append(sound)
    with runner:
        _wait_until(runner, lambda: all(sound.position >= frames for sound in sounds))
    return sounds[0].samples if len(sounds) == 1 else np.hstack([sound.samples for sound in sounds])


def loop(input: Where = None, output: Where = None, frames: int = 256, sample_rate: float = 48000.0) -> Runner:
    """Returns a running runner that plays an input on an output without calling Python, as long as it is
    kept. For example, `with dxr.loop(): ...`."""
    frames = _whole(frames, "frames")
    (source, from_device), = _chosen(input, "input")
    channels = 2 if from_device.channels > 1 else 1
    runner = Runner(sample_rate, frames)
    way = Sound(frames * 16, channels, sample_rate, repeats=True)
    runner.add(source, way, _channels(channels, from_device))
    for where, now in _chosen(output, "output"):
        runner.add(where, way, _channels(channels, now))
    runner.start()
    return runner


