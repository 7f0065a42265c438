#pragma once

#include "DeviceIO.h"
#include "Interrupts.h"

#include <vector>

/// Runs audio on a few devices until it is done, a device goes, or the user asks to stop.
/// Threads: one.
class AudioRun {
public:
    explicit AudioRun(const Interrupts& interrupts) : _interrupts(interrupts) {}
    ~AudioRun() { stop(); }
    AudioRun(const AudioRun&) = delete;
    AudioRun& operator=(const AudioRun&) = delete;

    void add(CXRef<DeviceIO> device) { _devices.push_back(std::move(device)); }
    /// Starts the devices in order. False when the user asked to stop meanwhile. Throws ToolFailure.
    bool start();
    /// Lets so much time pass. False when the user has asked to stop. Throws ToolFailure when a device is
    /// gone.
    bool wait(int milliseconds);
    /// Stops the devices, if they run. A server that hangs is not waited for once the user has asked.
    void stop();

private:
    const Interrupts& _interrupts;
    std::vector<CXRef<DeviceIO>> _devices;
};
