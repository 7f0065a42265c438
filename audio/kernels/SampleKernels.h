#pragma once

#include <cstddef>
#include <cstdint>

/// The inner loops of buffers for one instruction set. All sets give the same bits; the rules stand at
/// DXRBuffer. Sources and destinations do not overlap unless they are the same.
/// Threads:   any; there is no state.
/// Real time: yes.
struct SampleKernels {
    void (*mix)(const float* from, float* to, size_t count);
    void (*toInt16)(const float* from, int16_t* to, size_t count);
    void (*fromInt16)(const int16_t* from, float* to, size_t count);
    void (*mixToInt16)(const float* from, int16_t* to, size_t count);
    void (*mixFromInt16)(const int16_t* from, float* to, size_t count);

    /// Between `channelCount` arrays and frames of which they are the first channels, `stride` floats apart.
    void (*interleave)(const float* const* from, float* to, uint32_t channelCount, uint32_t stride,
                       uint32_t frameCount);
    void (*deinterleave)(const float* from, float* const* to, uint32_t channelCount, uint32_t stride,
                         uint32_t frameCount);
};

/// For vectors of four floats, which every processor that we build for has.
extern const SampleKernels sampleKernels4;
