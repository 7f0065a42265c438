#pragma once

#include <cstddef>
#include <cstdint>

/// The positions of up to `capacity` consecutive output frames between the input frames. Shared by all
/// channels: the positions are computed while the first group of channels is processed, and the other groups
/// reuse them.
struct SamplerPositions {
    static constexpr uint32_t capacity = 576; // 512 frames converted from 44.1 to 48 kHz fit into one block
    static constexpr uint32_t step = 16;      // positions computed at a time

    double start = 0, ratio = 0; ///< the position of the call's output frame i is start + ratio * i
    uint32_t firstFrame = 0;     ///< the call's output frame that index[0] refers to
    uint32_t found = 0;          ///< number of valid entries in the arrays, a multiple of `step`
    bool fitsInt = false;        ///< the positions fit into 32 bits

    // Uninitialised, because clearing them would cost as much as a small block. Aligned, because whole
    // vectors are read soon after they are written, and a vector written in two parts would be slow to read.
    alignas(64) uint32_t index[capacity + step]; ///< of the first of the four samples around it
    alignas(64) float t1[capacity + step];       ///< fraction / 6
    alignas(64) float t2[capacity + step];       ///< fraction squared / 2
    alignas(64) float t3[capacity + step];       ///< fraction cubed / 6
};

/// The location of the samples around the positions: rows, each with the channels of one frame side by side.
struct SamplerWindow {
    static constexpr uint32_t headLength = 4; ///< position indexes below this use the history
    static constexpr uint32_t headRows = 10;

    const std::byte* rows; ///< address that the row of position index 0 would have outside the head
    /// The rows of indexes 0 to 3, copied together: the history and two frames of input; from row 6 on, the
    /// rows of index 3, which are the third of the history and three frames of input.
    const std::byte* head;
    ptrdiff_t rowBytes; ///< distance between rows; rows of one or two channels have no gaps

    /// Returns the first of the four rows around a position with this index.
    const std::byte* row(uint32_t index) const noexcept
    {
        if (index >= headLength)
            return rows + static_cast<ptrdiff_t>(index) * rowBytes;
        return head + static_cast<ptrdiff_t>(index < 3 ? index : 6) * rowBytes;
    }
};

/// The state of the low-pass for up to 16 channels side by side.
struct SamplerFilter {
    static constexpr uint32_t maximumChannels = 16;

    float b0 = 0, b1 = 0, a1 = 0, a2 = 0;
    /// The latest input frames: the last frame is at the end of the array, dense, preceded by the frame
    /// before it. The rest of the array is used by the kernels.
    alignas(64) float x[2 * maximumChannels];
    alignas(64) float y1[maximumChannels], y2[maximumChannels];

    float* end() noexcept { return x + size_t{2} * maximumChannels; }
    const float* end() const noexcept { return x + size_t{2} * maximumChannels; }
};

/// The sampler's inner loops for one instruction set. All sets give bit-identical results.
/// Threads:   any; stateless.
/// Real time: yes.
struct SamplerKernels {
    uint32_t maximumChannels; ///< per call: a power of two, at most 16

    /// Entry n interpolates `count` frames of 2^n channels, beginning at position `first`. Writes dense
    /// frames to `output`. Unless `filter` is null, filters them and updates `filter`.
    void (*interpolate[5])(const SamplerWindow& window, SamplerPositions& positions, uint32_t first,
                           uint32_t count, float* output, SamplerFilter* filter);
};

/// For vectors of four floats, which every supported processor has.
extern const SamplerKernels samplerKernels4;
