#pragma once

#include <cstddef>
#include <cstdint>

/// Where up to `capacity` consecutive output frames lie between the input frames. One for all channels: the
/// first group of channels finds the positions as it goes, while its filter waits, and the others use them.
struct SamplerPositions {
    static constexpr uint32_t capacity = 576; // what 512 frames become from 44.1 to 48 kHz is one block
    static constexpr uint32_t step = 16;      // found at a time

    double start = 0, ratio = 0; ///< output frame i of the call lies at start + ratio * i
    uint32_t firstFrame = 0;     ///< of the call, the first one here
    uint32_t found = 0;          ///< how many of the arrays' entries are set, a multiple of `step`
    bool fitsInt = false;        ///< the positions are within 32 bits

    // Left as they come: clearing them would cost as much as a small block. Vectors of them are read soon
    // after they are written: aligned, so that none was written in two pieces.
    alignas(64) uint32_t index[capacity + step]; ///< of the first of the four samples around the position
    alignas(64) float t1[capacity + step];       ///< fraction / 6
    alignas(64) float t2[capacity + step];       ///< fraction squared / 2
    alignas(64) float t3[capacity + step];       ///< fraction cubed / 6
};

/// Where the samples around the positions lie: rows of the channels of one frame, side by side.
struct SamplerWindow {
    static constexpr uint32_t headLength = 4; ///< position indexes below it reach into the history
    static constexpr uint32_t headRows = 10;

    const std::byte* rows; ///< the row of position index 0, were it not in the head
    /// The rows of indexes 0 to 3, copied together: the history, two frames of input, and from row 6 on those
    /// of index 3, which are the third of the history and three frames of input.
    const std::byte* head;
    ptrdiff_t rowBytes; ///< from row to row; no gap between the rows of one or two channels

    /// The first of the four rows around a position with this index.
    const std::byte* row(uint32_t index) const noexcept
    {
        if (index >= headLength)
            return rows + static_cast<ptrdiff_t>(index) * rowBytes;
        return head + static_cast<ptrdiff_t>(index < 3 ? index : 6) * rowBytes;
    }
};

/// The low-pass of up to 16 channels side by side.
struct SamplerFilter {
    static constexpr uint32_t maximumChannels = 16;

    float b0 = 0, b1 = 0, a1 = 0, a2 = 0;
    /// The latest frames that went in: at its end the last one, dense, and the one before it in front of
    /// that. What lies further in front is the kernels' own.
    alignas(64) float x[2 * maximumChannels];
    alignas(64) float y1[maximumChannels], y2[maximumChannels];

    float* end() noexcept { return x + size_t{2} * maximumChannels; }
    const float* end() const noexcept { return x + size_t{2} * maximumChannels; }
};

/// The sampler's inner loops for one instruction set. All sets give the same bits.
/// Threads:   any; there is no state.
/// Real time: yes.
struct SamplerKernels {
    uint32_t maximumChannels; ///< that one call handles: a power of two, at most 16

    /// Interpolates `count` frames of 2^n channels, n the place in this array, from positions[first] on.
    /// `output` gets dense frames. `filter`, unless null, is applied to them and updated.
    void (*interpolate[5])(const SamplerWindow& window, SamplerPositions& positions, uint32_t first,
                           uint32_t count, float* output, SamplerFilter* filter);
};

/// For vectors of four floats, which every processor that we build for has.
extern const SamplerKernels samplerKernels4;
