#pragma once

#include <cstddef>
#include <cstdint>

/// Where one output frame of a polyphase filter lies.
struct PolyphasePosition {
    uint32_t index; ///< of the first input frame under the filter
    uint32_t row;   ///< of the coefficient table, the phase at or below the position
    float weight;   ///< 0..1, how far on towards the next row
};

/// What a polyphase filter reads.
struct PolyphaseInput {
    const float* table;           ///< rows of `tapCount` coefficients each, and one row more than phases
    uint32_t tapCount;            ///< a multiple of 16, at most maximumTaps
    const float* const* channels; ///< one array per channel
    uint32_t channelCount;

    static constexpr uint32_t maximumTaps = 2048;
};

/// The inner loops of a polyphase filter with interpolated phases, for one instruction set. All sets give the
/// same bits: sums are taken in sixteen lanes, and those added in halves.
/// Threads:   any; there is no state.
/// Real time: yes.
struct PolyphaseKernels {
    /// Sample c of frame f goes to output[f * stride + c].
    void (*filter)(const PolyphaseInput& input, const PolyphasePosition* positions, uint32_t frameCount,
                   float* output, size_t stride);
};

/// For vectors of four floats, which every processor that we build for has.
extern const PolyphaseKernels polyphaseKernels4;
