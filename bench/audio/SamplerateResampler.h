#pragma once

#include "Resampler.h"

#include <samplerate.h>

/// The resampler of libsamplerate.
class SamplerateResampler final : public Resampler {
public:
    /// `outputPerInput` is the number of output frames per input frame; `type` is one of the SRC_… constants.
    SamplerateResampler(double outputPerInput, uint32_t channels, int type);
    ~SamplerateResampler() override;
    uint32_t convert(const float* input, uint32_t frames, float* output) override;

private:
    SRC_STATE* _state;
    const double _outputPerInput;
};
