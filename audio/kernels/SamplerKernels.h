#pragma once

#include <cstddef>
#include <cstdint>

/// Where up to `capacity` consecutive output frames lie between the input frames. One for all channels: the
/// first group of channels finds the positions as it goes, while its filter waits, and the others use them.
struct SamplerPositions {
    static constexpr uint32_t capacity = 128;
    static constexpr uint32_t step =
        16; // found at a time; also the padding that lets kernels load whole vectors

    double start, ratio; ///< output frame i of the call lies at start + ratio * i
    uint32_t firstFrame; ///< of the call, the first one here
    uint32_t found;      ///< how many of the arrays' entries are set, a multiple of `step`
    bool fitsInt;        ///< the positions are within 32 bits

    uint32_t index[capacity + step]; ///< of the first of the four samples around the position
    float t1[capacity + step];       ///< fraction / 6
    float t2[capacity + step];       ///< fraction squared / 2
    float t3[capacity + step];       ///< fraction cubed / 6
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

    /// Interpolates `count` frames of 2^n channels, n the place in this array, from positions[first] on. The
    /// samples of position index i are the floats at window + (i + 0…3) * rowBytes, channels side by side;
    /// with one or two channels the rows must follow each other without a gap. `output` gets dense frames.
    /// `filter`, unless null, is applied to them and updated.
    void (*interpolate[5])(const std::byte* window, ptrdiff_t rowBytes, SamplerPositions* positions,
                           uint32_t first, uint32_t count, float* output, SamplerFilter* filter);
};

/// For vectors of four floats, which every processor that we build for has.
extern const SamplerKernels samplerKernels4;
