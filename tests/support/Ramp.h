#pragma once

#include "Eventually.h"

#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <span>

// Ramps that count frames in steps of 2^-24, from 1: exact in a float; a lost frame leaves a gap in the
// count.

inline constexpr float rampStep = 1.0F / 16777216.0F;
inline constexpr uint64_t rampMask = 0xFFFFFF;

inline float rampSample(uint64_t frame)
{
    return static_cast<float>((frame + 1) & rampMask) * rampStep;
}

/// Checks ramps of either sign, one in each of up to 8 interleaved channels.
/// Threads: one checks, any read the counts.
class RampCheck {
public:
    std::atomic<uint64_t> frames{0}; ///< with sound in all channels
    std::atomic<uint64_t> breaks{0}; ///< frames that do not follow the last; silence after sound is one

    void see(std::span<const float> samples, size_t channels) noexcept
    {
        for (size_t i = 0; i + channels <= samples.size(); i += channels) {
            bool follows = true, sounds = true;
            for (size_t channel = 0; channel < channels; ++channel) {
                int64_t& last = _last[channel];
                const int64_t value = std::llround(std::abs(samples[i + channel]) / rampStep);
                follows = follows && (last == 0 || value == ((last + 1) & int64_t{rampMask}));
                sounds = sounds && value != 0;
                last = value;
            }
            breaks += follows ? 0 : 1;
            frames += sounds ? 1 : 0;
        }
    }
    /// Waits for `count` further frames. Returns false on timeout.
    bool waitForMore(uint64_t count) const
    {
        return eventually([this, end = frames + count] { return frames >= end; });
    }

private:
    std::array<int64_t, 8> _last{};
};

/// Returns how often a sample does not follow its predecessor, except in the silence before the ramp.
inline uint64_t breaksOf(std::span<const float> ramp)
{
    RampCheck check;
    check.see(ramp, 1);
    return check.breaks;
}
