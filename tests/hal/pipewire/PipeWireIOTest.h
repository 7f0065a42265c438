#pragma once

#include "MonitorTap.h"
#include "PipeWireTest.h"

#include <atomic>
#include <cmath>
#include <vector>

inline constexpr float step = 1.0F / 16777216.0F;
inline constexpr uint64_t rampMask = 0xFFFFFF;

/// A ramp that counts the sample time, in every channel: frames that are lost are missing from the ramp, too.
inline void playRamp(const AudioTimeStamp& now, AudioBuffer& buffer)
{
    auto* samples = static_cast<float*>(buffer.data);
    const uint32_t frames = buffer.dataByteSize / (buffer.numberChannels * 4);
    for (uint32_t frame = 0; frame < frames; ++frame)
        for (uint32_t channel = 0; channel < buffer.numberChannels; ++channel)
            *samples++ =
                static_cast<float>((static_cast<uint64_t>(now.sampleTime) + frame + 1) & rampMask) * step;
}

/// playRamp() in every stream.
inline AudioDeviceIOBlock playingRamp()
{
    return [](const AudioTimeStamp* now, const AudioBufferList*, const AudioTimeStamp*, AudioBufferList* out,
              const AudioTimeStamp*) {
        AudioBuffer* const buffers = out->buffers; // by pointer, past the declared bound of one
        for (uint32_t stream = 0; stream < out->numberBuffers; ++stream)
            playRamp(*now, *(buffers + stream));
    };
}

/// How often a sample does not follow the one before. A stretch of silence, which a lost cycle may leave, is one break.
inline size_t breaksOf(const std::vector<float>& ramp)
{
    size_t breaks = 0;
    int64_t last = 0;
    for (const float sample : ramp) {
        const int64_t value = std::llround(sample / step);
        breaks += value != 0 && last != 0 && value != last + 1;
        last = value != 0 ? value : last;
    }
    return breaks;
}

/// Counts the overloads that are reported for a device.
class OverloadCounter {
public:
    OverloadCounter(HALModel& hal, AudioObjectID device)
        : _hal(hal), _device(device), _listener{nullptr, nullptr,
                                                [this](uint32_t count, const AudioObjectPropertyAddress*) {
                                                    _count += count;
                                                },
                                                nullptr}
    {
        _hal.addListener(_device, at(kAudioDeviceProcessorOverload), _listener);
    }
    ~OverloadCounter() { _hal.removeListener(_device, at(kAudioDeviceProcessorOverload), _listener); }
    OverloadCounter(const OverloadCounter&) = delete;
    OverloadCounter& operator=(const OverloadCounter&) = delete;
    size_t count() const noexcept { return _count; }

private:
    HALModel& _hal;
    const AudioObjectID _device;
    std::atomic<size_t> _count{0};
    const HALListener _listener;
};
