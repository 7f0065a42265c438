#include "SamplerateResampler.h"

#include <stdexcept>

SamplerateResampler::SamplerateResampler(double outputPerInput, uint32_t channels, int type)
    : _outputPerInput(outputPerInput)
{
    int error = 0;
    _state = src_new(type, static_cast<int>(channels), &error);
    if (error != 0)
        throw std::runtime_error(src_strerror(error));
}

SamplerateResampler::~SamplerateResampler()
{
    src_delete(_state);
}

uint32_t SamplerateResampler::convert(const float* input, uint32_t frames, float* output)
{
    constexpr long roomFrames = 1 << 14;
    SRC_DATA data{input, output, static_cast<long>(frames), roomFrames, 0, 0, 0, _outputPerInput};
    src_process(_state, &data);
    return static_cast<uint32_t>(data.output_frames_gen);
}
