#pragma once

#include <cstdint>

/// A rate converter under one interface: ours and its peers.
class Resampler {
public:
    virtual ~Resampler() = default;
    /// Converts interleaved frames; returns the frames written to `output`, which has room for them.
    virtual uint32_t convert(const float* input, uint32_t frames, float* output) = 0;
};
