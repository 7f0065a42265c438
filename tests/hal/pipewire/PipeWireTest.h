#pragma once

#include "HALReads.h"
#include "PipeWireDriver.h"
#include "PrivateServer.h"
#include "VirtualDevices.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

constexpr uint32_t input = kAudioObjectPropertyScopeInput;
constexpr uint32_t output = kAudioObjectPropertyScopeOutput;

/// Waits, for so long that only a fault can take longer.
inline bool eventually(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// Waits for a device with all its channels; 0 when it does not come.
inline AudioObjectID waitForDevice(HALModel& hal, const std::string& uid)
{
    AudioObjectID device = kAudioObjectUnknown;
    eventually([&] { return (device = deviceWithUID(hal, uid)) != kAudioObjectUnknown; });
    return device;
}

inline uint32_t channelsOf(HALModel& hal, AudioObjectID device, uint32_t scope)
{
    uint32_t channels = 0;
    for (const AudioObjectID stream :
         readList<AudioObjectID>(hal, device, at(kAudioDevicePropertyStreams, scope)))
        channels += readValue<AudioStreamBasicDescription>(hal, stream, at(kAudioStreamPropertyVirtualFormat))
                        .value_or(AudioStreamBasicDescription{})
                        .channelsPerFrame;
    return channels;
}

/// An IO callback that runs as long as this lives.
class RunningProc {
public:
    RunningProc(HALModel& hal, AudioObjectID device, const AudioDeviceIOBlock& block)
        : _hal(hal), _device(device)
    {
        EXPECT_EQ(_hal.createIOProc(device, block, _proc), kAudioHardwareNoError);
        status = _hal.start(device, _proc);
    }
    ~RunningProc() { _hal.destroyIOProc(_device, _proc); }
    RunningProc(const RunningProc&) = delete;
    RunningProc& operator=(const RunningProc&) = delete;

    HALStatus status = kAudioHardwareNoError; ///< of its start

private:
    HALModel& _hal;
    const AudioObjectID _device;
    AudioDeviceIOProcID _proc = nullptr;
};
