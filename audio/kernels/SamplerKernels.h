#pragma once

#include <cstddef>
#include <cstdint>

/// Where up to `capacity` consecutive output frames lie between the input frames, and the powers of the
/// fraction that the interpolation uses. One for all channels.
struct SamplerPositions {
    static constexpr uint32_t capacity = 64;
    static constexpr uint32_t padding = 16; // zeros past the end, so that kernels load whole vectors

    uint32_t index[capacity + padding]; ///< of the first of the four samples around the position
    float t1[capacity + padding];       ///< fraction / 6
    float t2[capacity + padding];       ///< fraction squared / 2
    float t3[capacity + padding];       ///< fraction cubed / 6
};

/// The low-pass of up to 16 channels side by side.
struct SamplerFilter {
    static constexpr uint32_t maximumChannels = 16;

    float b0, b1, a1, a2;
    float x1[maximumChannels], x2[maximumChannels], y1[maximumChannels], y2[maximumChannels];
};

/// The sampler's inner loops for one instruction set. All sets give the same bits.
/// Threads:   any; there is no state.
/// Real time: yes.
struct SamplerKernels {
    uint32_t maximumChannels; ///< that one call handles: a power of two, at most 16

    /// Fills `positions` for `count` output frames from frame `first` on.
    void (*locate)(double start, double ratio, uint32_t first, uint32_t count, SamplerPositions* positions);

    /// Interpolates `count` frames of 2^n channels, n the place in this array, from positions[first] on. The
    /// samples of position index i are the floats at window + (i + 0…3) * rowBytes, channels side by side;
    /// with one or two channels the rows must follow each other without a gap. `output` gets dense frames.
    /// `filter`, unless null, is applied to them and updated.
    void (*interpolate[5])(const std::byte* window, ptrdiff_t rowBytes, const SamplerPositions* positions,
                           uint32_t first, uint32_t count, float* output, SamplerFilter* filter);
};

/// For vectors of four floats, which every processor that we build for has.
extern const SamplerKernels samplerKernels4;
