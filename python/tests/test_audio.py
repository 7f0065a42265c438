import threading
import time

import numpy as np
import pytest

import dxr

TONE = (np.sin(np.arange(24000) * 2 * np.pi * 440 / 48000) / 4).astype(np.float32)


def begin_of(needle, samples):
    """The index at which a signal begins in a recording."""
    first = np.flatnonzero(samples)[0] - np.flatnonzero(needle)[0]
    return samples[first : first + len(needle)]


def test_what_is_played_is_recorded_to_the_bit(cable):
    ramp = np.arange(1, 20001, dtype=np.float32).reshape(-1, 2) / 32768
    for _ in range(10):  # repeat if the computer was too busy: a thread was late, or frames were lost
        heard = []
        recorder = threading.Thread(target=lambda: heard.append(dxr.record(48000, 48000)))
        recorder.start()
        time.sleep(0.2)
        dxr.play(ramp, 48000)
        recorder.join()
        if np.count_nonzero(heard[0][:, 0]) == len(ramp):
            break
    assert heard[0].shape == (48000, 2) and heard[0].dtype == np.float32
    assert np.array_equal(begin_of(ramp[:, 0], heard[0][:, 0]), ramp[:, 0])
    assert np.array_equal(begin_of(ramp[:, 1], heard[0][:, 1]), ramp[:, 1])


@pytest.mark.parametrize(
    "samples, channels",
    [(TONE, 2), (TONE.astype(np.float64)[:, None], 2), ((TONE * 32767).astype(np.int16), 2), (TONE[::2], 2)],
    ids=["float", "double, a column", "16 bits", "strided"],
)
def test_arrays_of_many_kinds_play(cable, samples, channels):
    with dxr.play(samples, 48000, wait=False) as runner:
        assert runner.active_devices == [cable[1]]
        assert abs(dxr.record(9600)).max() == pytest.approx(0.25, abs=0.01)
        assert 0 < runner.latency(cable[1]).seconds < 0.1  # a cycle has run


def test_one_call_plays_on_two_devices_through_a_replug(computer, cable):
    _, other = computer.plug("other", inputs=2, outputs=2, loops_back=True, sample_rate=44100, drift=50)
    with dxr.play(np.tile(TONE, 8), 48000, device=[cable[1], other], wait=False) as runner:
        assert set(runner.active_devices) == {cable[1], other}
        computer.unplug("other")
        assert runner.active_devices == [cable[1]]
        computer.plug("other", inputs=2, outputs=2, loops_back=True, sample_rate=44100)
        deadline = time.monotonic() + 30
        while len(runner.active_devices) < 2 and time.monotonic() < deadline:
            time.sleep(0.01)
        heard = dxr.record(9600, device=[dxr.device("cable", "input"), dxr.device("other", "input")])
        assert heard.shape == (9600, 4) and (abs(heard).max(axis=0) > 0.2).all()
    computer.unplug("other")


def test_callbacks_get_arrays_and_may_end_it(cable):
    seen = []

    def tone(cycle):
        seen.append((cycle.samples.shape, cycle.samples.any(), cycle.sample_time, cycle.sample_rate))
        cycle.samples[:] = 0.5
        return len(seen) == 5

    runner = dxr.Runner(48000, 256)
    runner.add("output", tone, channels=[2])
    with runner:
        assert runner.wait(30)
    assert seen == [((256, 1), False, 256 * i, 48000.0) for i in range(5)], "silence to write to, and nothing after"


def test_a_callback_that_raises_stops_the_runner_and_is_raised(cable):
    def fail(cycle):
        raise ValueError("no samples today")

    runner = dxr.Runner(48000)
    runner.add(cable[1], fail)
    with pytest.raises(ValueError, match="no samples today"):
        with runner:
            runner.wait(30)
    with pytest.raises(dxr.Error, match="released"):
        runner.start()


def test_loop_carries_sound_without_python(computer):
    computer.plug("mic", inputs=1, tone=1000)
    _, speaker = computer.plug("speaker", inputs=2, outputs=2, loops_back=True)
    with dxr.loop(dxr.device("mic", "input"), speaker):
        time.sleep(0.3)
        heard = dxr.record(9600, device=dxr.device("speaker", "input"))
    assert abs(heard).max() == pytest.approx(0.5, abs=0.01)
    computer.unplug("mic")
    computer.unplug("speaker")


BAD = {
    "a shape": (lambda o: dxr.play(np.zeros((2, 2, 2)), 48000), ValueError, r"not of shape \(2, 2, 2\)"),
    "no frames": (lambda o: dxr.play([], 48000), ValueError, "not of shape"),
    "complex numbers": (lambda o: dxr.play(np.zeros(4, complex), 48000), TypeError, "not complex128"),
    "text": (lambda o: dxr.play("tone.wav", 48000), (TypeError, ValueError), ""),
    "a rate that is no number": (lambda o: dxr.play(TONE, "fast"), TypeError, ""),
    "channels": (lambda o: dxr.play(np.zeros((8, 5)), 48000, o), ValueError, "5 channels are wanted, 'Cable' has 2"),
    "an input to play on": (lambda o: dxr.play(TONE, 48000, o.counterpart), ValueError, "is an input, not an output"),
    "frames": (lambda o: dxr.record(0), ValueError, "whole number above 0"),
    "no callback": (lambda o: dxr.Runner().add(o, 7), TypeError, "a callback or a dxr.Sound"),
    "channel 0": (lambda o: dxr.Runner().add(o, print, channels=[0]), ValueError, "from 1"),
}  # fmt: skip


@pytest.mark.parametrize("case", BAD)
def test_bad_input_raises(cable, case):
    call, error, text = BAD[case]
    with pytest.raises(error, match=text):
        call(cable[1])
