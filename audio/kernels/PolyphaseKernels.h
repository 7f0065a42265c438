#pragma once

#include <cstddef>
#include <cstdint>

/// The position of one output frame of a polyphase filter.
struct PolyphasePosition {
    uint32_t index; ///< the first input frame under the filter
    uint32_t row;   ///< row of the coefficient table: the phase at or below the position
    float weight;   ///< 0..1, the interpolation weight of the next row
};

/// The input of a polyphase filter.
struct PolyphaseInput {
    const float* table;           ///< rows of `tapCount` coefficients, one more row than phases
    uint32_t tapCount;            ///< a multiple of 16, at most maximumTaps
    const float* const* channels; ///< one array per channel
    uint32_t channelCount;

    static constexpr uint32_t maximumTaps = 2048;
};

/// The inner loops of a polyphase filter with interpolated phases, for one instruction set. All sets give
/// bit-identical results: each sums in sixteen lanes and then adds the lanes in halves.
/// Threads:   any; stateless.
/// Real time: yes.
struct PolyphaseKernels {
    /// Writes sample c of frame f to output[f * stride + c].
    void (*filter)(const PolyphaseInput& input, const PolyphasePosition* positions, uint32_t frameCount,
                   float* output, size_t stride);
};

/// For vectors of four floats, which every supported processor has.
extern const PolyphaseKernels polyphaseKernels4;
