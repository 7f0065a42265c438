#include "Sound.h"

#include <algorithm>

namespace dxr_c {

/// A repeating sound is indexed by the runner's time, so that an input and an output use the same position.
void Sound::perform(uint64_t sampleTime, DXRBuffer& cycle, bool isInput) noexcept
{
    const uint64_t all = buffer->frameCount(), channels = buffer->channelCount();
    const uint64_t done = position.load(std::memory_order_relaxed);
    uint64_t place = _repeats ? sampleTime % all : done;
    const uint64_t count = _repeats ? cycle.frameCount() : std::min<uint64_t>(cycle.frameCount(), all - done);
    for (uint64_t frame = 0; frame < count;) {
        const uint64_t step = std::min(count - frame, all - place);
        float* const inCycle = cycle.samples() + frame * channels;
        float* const inSound = buffer->samples() + place * channels;
        std::copy_n(isInput ? inCycle : inSound, step * channels, isInput ? inSound : inCycle);
        frame += step;
        place = (place + step) % all;
    }
    if (!isInput)
        std::fill_n(cycle.samples() + count * channels, (cycle.frameCount() - count) * channels, 0.0F);
    position.store(done + count, std::memory_order_release);
}

} // namespace dxr_c
