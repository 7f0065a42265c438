#pragma once

#include "SoundStream.h"

#include <string>
#include <vector>

/// Writes a WAV file of 32-bit floats. `sample` is called with the frame and the channel.
template <class Sample>
void writeWave(const std::string& path, int rate, int channels, int frames, Sample sample)
{
    SF_INFO info{0, rate, channels, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 0, 0};
    std::vector<float> samples;
    for (int i = 0; i < frames * channels; ++i)
        samples.push_back(static_cast<float>(sample(i / channels, i % channels)));
    const SoundHandle file(sf_open(path.c_str(), SFM_WRITE, &info));
    sf_writef_float(file.get(), samples.data(), frames);
}

/// Returns the samples of a file in the command's WAV format: extensible, 32-bit floats; empty for other
/// formats.
inline std::vector<float> samplesOf(const std::string& path, uint32_t channels)
{
    SF_INFO info{};
    const SoundHandle file(sf_open(path.c_str(), SFM_READ, &info));
    if (!file || info.format != (SF_FORMAT_WAVEX | SF_FORMAT_FLOAT) ||
        info.channels != static_cast<int>(channels))
        return {};
    std::vector<float> samples(static_cast<size_t>(info.frames) * channels);
    sf_readf_float(file.get(), samples.data(), info.frames);
    return samples;
}
