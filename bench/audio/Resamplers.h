#pragma once

#include "Resampler.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

struct ResamplerKind {
    std::string name;
    std::function<std::unique_ptr<Resampler>(uint32_t rateIn, uint32_t rateOut, uint32_t channels)> make;
    bool converts = true; ///< false if it only times a part of the conversion
};

/// Our converters first, then the plain implementations and the lower limit of their filter, then the peers.
const std::vector<ResamplerKind>& resamplerKinds();
