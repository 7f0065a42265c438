#pragma once

#include "DeviceSelection.h"

#include <dxr/CXRealtime.h>
#include <dxr/DXRBuffer.h>

/// The inputs of a runner in one of its cycles, as one row of channels in the order the inputs were added.
/// No sample is copied: the runner's buffers stay valid until the cycle is over.
/// Threads:   the blocks of a runner's cycles, which never overlap.
/// Real time: note() and channel().
class RunnerInputs {
public:
    /// Sample k is samples[k * stride].
    struct Channel {
        const float* samples;
        uint32_t stride;
    };

    explicit RunnerInputs(const std::vector<DeviceSelection>& inputs) : _buffers(inputs.size())
    {
        for (size_t input = 0; input < inputs.size(); ++input)
            for (uint32_t number = 0; number < inputs[input].channels.size(); ++number)
                _channels.push_back({input, number});
    }
    uint32_t channelCount() const noexcept { return static_cast<uint32_t>(_channels.size()); }
    size_t inputCount() const noexcept { return _buffers.size(); }

    /// Sets the samples of input `input`, counted from 0, at `sampleTime`.
    void note(size_t input, uint64_t sampleTime, const DXRBuffer& buffer) noexcept CX_REALTIME
    {
        _buffers[input] = {sampleTime, buffer.samples(), buffer.frameCount(), buffer.channelCount()};
    }
    /// Channel `channel`, counted from 0, of the row; silence if it had no cycle at `sampleTime`.
    Channel channel(uint32_t channel, uint64_t sampleTime, uint32_t frameCount) const noexcept CX_REALTIME
    {
        static constexpr float silence = 0.0F;
        const Place& place = _channels[channel];
        const Buffer& buffer = _buffers[place.input];
        if (buffer.sampleTime != sampleTime || buffer.frameCount != frameCount ||
            place.number >= buffer.channelCount)
            return {&silence, 0};
        return {buffer.samples + place.number, buffer.channelCount};
    }

private:
    struct Buffer {
        uint64_t sampleTime = UINT64_MAX;
        const float* samples = nullptr; // the runner's buffer, invalid after the cycle
        uint32_t frameCount = 0;
        uint32_t channelCount = 0;
    };
    struct Place {
        size_t input;
        uint32_t number; // of the channel within the input, from 0
    };

    std::vector<Buffer> _buffers; // by input
    std::vector<Place> _channels;
};
