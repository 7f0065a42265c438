#pragma once

#include "Resampler.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

struct ResamplerKind {
    std::string name;
    std::function<std::unique_ptr<Resampler>(uint32_t rateIn, uint32_t rateOut, uint32_t channels)> make;
    bool converts = true; ///< or only takes the time of a part of it
};

/// Ours first, then the plain forms of the same rules and the least that their filter takes, then the peers.
const std::vector<ResamplerKind>& resamplerKinds();
