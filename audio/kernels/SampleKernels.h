#pragma once

#include <cstddef>
#include <cstdint>

/// The inner loops of buffers for one instruction set. All sets give bit-identical results; DXRBuffer
/// documents the conversions. A source and a destination must not overlap unless they are identical.
/// Threads:   any; stateless.
/// Real time: yes.
struct SampleKernels {
    void (*mix)(const float* from, float* to, size_t count);
    void (*toInt16)(const float* from, int16_t* to, size_t count);
    void (*fromInt16)(const int16_t* from, float* to, size_t count);
    void (*mixToInt16)(const float* from, int16_t* to, size_t count);
    void (*mixFromInt16)(const int16_t* from, float* to, size_t count);

    /// Copies between `channelCount` arrays and the first channels of interleaved frames that are `stride`
    /// floats apart.
    void (*interleave)(const float* const* from, float* to, uint32_t channelCount, uint32_t stride,
                       uint32_t frameCount);
    void (*deinterleave)(const float* from, float* const* to, uint32_t channelCount, uint32_t stride,
                         uint32_t frameCount);
};

/// For vectors of four floats, which every supported processor has.
extern const SampleKernels sampleKernels4;
