#pragma once

#include "CycleMonitor.h"
#include "DeviceReport.h"

#include <chrono>

/// An IO callback on one device, for as long as this lives. The callback keeps alive what it needs.
/// Threads: one; the callback runs on the device's IO thread.
/// Waits:   start() and stop() may wait for the sound server, for a bounded time.
class DeviceIO final : public CXObject {
public:
    /// `block` notes its cycles on `monitor`, which it keeps alive and which also hears of overloads. Throws
    /// ToolFailure.
    static CXRef<DeviceIO> initWithDevice(const DeviceReport& device, const AudioDeviceIOBlock& block,
                                          CycleMonitor& monitor);

    /// Throws ToolFailure when the device does not start.
    void start();
    /// The callback is over on return.
    void stop() noexcept;
    /// Throws ToolFailure when the device has gone, or has given no cycle for seconds.
    void check();

private:
    DeviceIO(const DeviceReport& device, const AudioDeviceIOBlock& block, CycleMonitor& monitor);
    ~DeviceIO() override;

    static HALStatus _noteOverload(AudioObjectID, uint32_t, const AudioObjectPropertyAddress*, void* monitor);

    const AudioObjectID _deviceID;
    const std::string _name; // printable
    const AudioDeviceIOBlock _block;
    CycleMonitor& _monitor;
    AudioDeviceIOProcID _procID = nullptr;
    uint64_t _lastCycles = 0;
    std::chrono::steady_clock::time_point _lastProgress;
};
