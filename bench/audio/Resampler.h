#pragma once

#include <cstdint>

/// A common interface of our rate converter and its peers.
class Resampler {
public:
    virtual ~Resampler() = default;
    /// Converts interleaved frames. Returns the number of frames written to `output`, which is large enough.
    virtual uint32_t convert(const float* input, uint32_t frames, float* output) = 0;
};
