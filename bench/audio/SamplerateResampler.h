#pragma once

#include "Resampler.h"

#include <samplerate.h>

/// libsamplerate's.
class SamplerateResampler final : public Resampler {
public:
    /// `outputPerInput` frames for one; `type` is one of SRC_….
    SamplerateResampler(double outputPerInput, uint32_t channels, int type);
    ~SamplerateResampler() override;
    uint32_t convert(const float* input, uint32_t frames, float* output) override;

private:
    SRC_STATE* _state;
    const double _outputPerInput;
};
