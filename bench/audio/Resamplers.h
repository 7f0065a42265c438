#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// A rate converter under one interface: ours and its peers.
class Resampler {
public:
    virtual ~Resampler() = default;
    /// Converts interleaved frames; answers the frames written to `output`, which has room for them.
    virtual uint32_t convert(const float* input, uint32_t frames, float* output) = 0;
};

struct ResamplerKind {
    std::string name;
    std::function<std::unique_ptr<Resampler>(uint32_t rateIn, uint32_t rateOut, uint32_t channels)> make;
    bool converts = true; ///< or only takes the time of a part of it
};

/// Ours first, then the plain forms of the same rules and the least that their filter takes, then the peers.
const std::vector<ResamplerKind>& resamplerKinds();
