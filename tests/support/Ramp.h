#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

// Ramps that count frames in steps of 2^-24, from 1: exact in a float; a lost frame leaves a gap in the
// count.

inline constexpr float rampStep = 1.0F / 16777216.0F;
inline constexpr uint64_t rampMask = 0xFFFFFF;

inline float rampSample(uint64_t frame)
{
    return static_cast<float>((frame + 1) & rampMask) * rampStep;
}

/// Returns how often a sample does not follow its predecessor. Silence within the ramp is one break.
inline size_t breaksOf(const std::vector<float>& ramp)
{
    size_t breaks = 0;
    int64_t last = 0;
    bool wasSilent = false;
    for (const float sample : ramp) {
        const int64_t value = std::llround(sample / rampStep);
        breaks += value != 0 && last != 0 && (value != last + 1 || wasSilent);
        wasSilent = value == 0;
        last = value != 0 ? value : last;
    }
    return breaks;
}
