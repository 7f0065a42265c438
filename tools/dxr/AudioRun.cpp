#include "AudioRun.h"

bool AudioRun::start()
{
    const bool isStarted = _interrupts.runUnlessAsked([devices = _devices] {
        for (const CXRef<DeviceIO>& device : devices)
            device->start();
    });
    if (!isStarted)
        _devices.clear(); // whoever is still starting them has them now
    return isStarted && !_interrupts.wasAsked();
}

bool AudioRun::wait(int milliseconds)
{
    const bool goesOn = _interrupts.wait(milliseconds);
    for (const CXRef<DeviceIO>& device : _devices)
        device->check();
    return goesOn;
}

void AudioRun::stop()
{
    constexpr int graceMilliseconds = 300;
    if (_devices.empty())
        return;
    _interrupts.runUnlessAsked(
        [devices = std::move(_devices)] {
            for (const CXRef<DeviceIO>& device : devices)
                device->stop();
        },
        graceMilliseconds);
    _devices.clear();
}
