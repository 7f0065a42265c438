import gc
import threading
import time
import weakref

import numpy as np
import pytest

import dxr

TONE = (np.sin(np.arange(24000) * 2 * np.pi * 440 / 48000) / 4).astype(np.float32)


def test_what_is_played_is_recorded_to_the_bit(cable):
    ramp = np.arange(1, 20001, dtype=np.float32).reshape(-1, 2) / 32768
    for _ in range(10):  # repeat if the computer was too busy: a thread was late, or frames were lost
        player = threading.Timer(0.2, dxr.play, (ramp, 48000))
        player.start()
        heard = dxr.record(np.uint16(48000), 48000, np.uint16(2))  # their product is not an uint16
        player.join()
        if np.count_nonzero(heard[:, 0]) == len(ramp):
            break
    assert heard.shape == (48000, 2) and heard.dtype == np.float32
    first = np.flatnonzero(heard[:, 0])[0]
    assert np.array_equal(heard[first : first + len(ramp)], ramp)


@pytest.mark.parametrize(
    "samples",
    [TONE, TONE.astype(np.float64)[:, None], (TONE * 32767).astype(np.int16), TONE[::2]],
    ids=["float", "double, a column", "16 bits", "strided"],
)
def test_arrays_of_many_kinds_play(cable, samples):
    with dxr.play(samples, 48000, wait=False) as runner:
        assert runner.active_devices == [cable[1]]
        assert abs(dxr.record(9600)).max() == pytest.approx(0.25, abs=0.01)
        assert 0 < runner.latency(cable[1]).seconds < 0.1  # a cycle has run


def test_one_call_plays_on_two_devices(computer, cable):
    source, other = computer.plug("{other}", inputs=2, outputs=2, loops_back=True, sample_rate=44100, drift=50)
    with dxr.play(np.tile(TONE, 8), 48000, device=[cable[1], other], wait=False) as runner:
        assert set(runner.active_devices) == {cable[1], other}
        heard = dxr.record(9600, device=[cable[0], source])
    assert heard.shape == (9600, 4) and (abs(heard).max(axis=0) > 0.2).all()
    computer.unplug("{other}")


@pytest.mark.parametrize("run", [lambda: dxr.play(TONE, 48000), lambda: dxr.record(480)], ids=["play", "record"])
def test_a_device_that_refuses_to_start_is_an_error(computer, cable, monkeypatch, run):
    monkeypatch.setattr(dxr._audio, "_PATIENCE", 0.3)
    computer.fail(starts=True)
    try:
        with pytest.raises(dxr.RefusedError, match="start"):
            run()
    finally:
        computer.fail()


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


def test_a_callback_may_close_its_runner(cable):
    calls = []
    runner = dxr.Runner(48000, 256)
    runner.add("output", lambda cycle: (calls.append(cycle), runner.close())[1])
    with runner:
        assert runner.wait(30)
    time.sleep(0.05)
    assert len(calls) == 1


def test_a_runner_is_collected_if_only_its_callback_refers_to_it(cable):
    class Player:
        def __init__(self):
            self.runner = dxr.Runner(48000, 256)
            self.runner.add("output", self.fill)
            self.runner.start()

        def fill(self, cycle):
            pass

    player = weakref.ref(Player())
    gc.collect()
    assert player() is None


def test_loop_carries_sound_without_python(computer, cable):
    [source] = computer.plug("mic", inputs=1, tone=1000)
    with dxr.loop(source, cable[1]):
        time.sleep(0.3)
        heard = dxr.record(9600, device=cable[0])
    assert abs(heard).max() == pytest.approx(0.5, abs=0.01)
    computer.unplug("mic")
