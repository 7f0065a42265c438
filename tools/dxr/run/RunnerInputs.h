#pragma once

#include <dxr/CXRealtime.h>
#include <dxr/DXRBuffer.h>
#include <vector>

/// What the inputs of a runner hear in one of its cycles, the channels of them all side by side, in the order the inputs
/// were added. Nothing is copied on the way in: a buffer stays as it is until the cycle is over.
/// Threads:   add() before the runner starts; the rest in its cycles, which are one at a time.
/// Real time: note() and channel().
class RunnerInputs {
public:
    /// Frame k of a channel is samples[k * stride].
    struct Channel {
        const float* samples;
        uint32_t stride;
    };

    /// Adds an input of so many channels; its number, from 0.
    size_t add(uint32_t channelCount);
    uint32_t channelCount() const noexcept { return static_cast<uint32_t>(_channels.size()); }
    size_t inputCount() const noexcept { return _heard.size(); }

    /// What input number `input` hears at `sampleTime`.
    void note(size_t input, uint64_t sampleTime, const DXRBuffer& buffer) noexcept CX_REALTIME;
    /// Channel number `channel`, from 0, of the `frameCount` frames at `sampleTime`; silence when there is no such
    /// channel, or nothing was heard at that time. Good until the cycle is over.
    Channel channel(uint32_t channel, uint64_t sampleTime, uint32_t frameCount) const noexcept CX_REALTIME;

private:
    struct Heard {
        uint64_t sampleTime = UINT64_MAX;
        const float* samples = nullptr; // the runner's, gone after the cycle
        uint32_t frameCount = 0;
        uint32_t channelCount = 0;
    };
    struct Place {
        size_t input;
        uint32_t number; // within the input, from 0
    };

    std::vector<Heard> _heard;    // by input
    std::vector<Place> _channels; // side by side
};
