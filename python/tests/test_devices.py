import threading

import numpy as np
import pytest

import dxr


def test_a_device_has_properties_that_can_be_set(computer, cable):
    source, output = cable
    assert dxr.default("output") == output and output.is_default and not output.is_input
    assert (output.name, output.uid, output.channels, output.transport) == ("Cable", "cable", 2, "virt")
    output.volume = 0.5
    output.muted = True
    output.source = "Mic"
    output.sample_rate = 44100
    computer.settle()  # the values change when the hardware has changed
    assert (output.volume, output.muted, output.source, output.sample_rate) == (0.5, True, "Mic", 44100)
    assert output.counterpart == source and source.counterpart == output
    assert dxr.device("cab", "output") == dxr.device(output.reference, "output") == output
    assert dxr.device_from_archive(output.archive()) == output
    assert len({output, dxr.device("cable", "output"), source}) == 2


def test_settings_are_a_mapping(cable):
    settings = cable[1].settings
    settings["gain"] = [1, 2.5, "ü"]
    assert dict(settings) == {"gain": [1, 2.5, "ü"]}
    del settings["gain"]
    assert "gain" not in settings and len(settings) == 0
    with pytest.raises(KeyError):
        del settings["gain"]


def test_changes_are_iterated_and_devices_stay_the_same(computer, cable):
    with dxr.changes(timeout=30) as changes:
        computer.unplug("cable")
        assert {next(changes), next(changes)} == {dxr.Change("disconnected", each) for each in cable}
        assert not cable[0].is_connected and "Cable" in cable[0].name
        computer.plug("cable", name="Cable", inputs=2, outputs=2)
        assert {next(changes), next(changes)} >= {dxr.Change("connected", cable[0])}
        threading.Timer(0.1, changes.close).start()
        assert len(list(changes)) < 20, "ends when it is closed, from another thread"
    # On a busy computer, the plugged device may report a little later.
    assert any(list(dxr.changes(timeout=0.1)) == [] for _ in range(100)), "ends by its timeout"


BAD = {
    "a name that is not UTF-8": (lambda d: dxr.device("\udcff", "output"), dxr.ArgumentError, "not UTF-8"),
    "a name with a null": (lambda d: dxr.device("a\0b", "output"), dxr.ArgumentError, "null character"),
    "no such device": (lambda d: dxr.device("trumpet", "output"), dxr.NotFoundError, "no outputs fit 'trumpet'"),
    "another direction": (lambda d: dxr.device(d.reference, "input"), dxr.ArgumentError, "an output, not an input"),
    "a rate": (lambda d: setattr(d, "sample_rate", 12345), dxr.RefusedError, "does not take this sample rate"),
    "hardware twice": (lambda d: dxr.simulated.Computer(), dxr.StateError, "other hardware already"),
    "a field": (lambda d: dxr.simulated._described("x", {"colour": 1}), TypeError, "no 'colour'"),
    "a shape": (lambda d: dxr.play(np.zeros((2, 2, 2)), 48000), ValueError, r"not of shape \(2, 2, 2\)"),
    "complex numbers": (lambda d: dxr.play(np.zeros(4, complex), 48000), TypeError, "not complex128"),
    "channels": (lambda d: dxr.play(np.zeros((8, 5)), 48000, d), ValueError, "5 channels are wanted, 'Cable' has 2"),
    "an input to play on": (lambda d: dxr.play(np.zeros(8), 48000, d.counterpart), ValueError, "is an input"),
    "an empty list": (lambda d: dxr.play(np.zeros(8), 48000, []), dxr.NotFoundError, "no output is given"),
    "no callback": (lambda d: dxr.Runner().add(d, 7), TypeError, "a callback or a dxr.Sound"),
    "channel 0": (lambda d: dxr.Runner().add(d, print, channels=[0]), ValueError, "from 1"),
}  # fmt: skip


@pytest.mark.parametrize("case", BAD)
def test_bad_input_raises_with_the_librarys_text(cable, case):
    call, error, text = BAD[case]
    with pytest.raises(error, match=text):
        call(cable[1])
