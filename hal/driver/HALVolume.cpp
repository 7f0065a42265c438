#include "HALVolume.h"

#include <algorithm>
#include <cmath>

namespace {

// Computed in double precision, so that a scalar survives the conversion to an amplitude and back.
float scalarOf(float amplitude)
{
    if (!(amplitude > 0.0F))
        return 0.0F;
    return static_cast<float>(std::min(1.0, std::cbrt(static_cast<double>(amplitude))));
}

double cube(float scalar)
{
    const double value = static_cast<double>(scalar);
    return value * value * value;
}

} // namespace

void HALVolume::setAmplitudes(const std::vector<float>& amplitudes)
{
    const bool isFinite = std::ranges::all_of(amplitudes, [](float each) { return std::isfinite(each); });
    const auto loudest = std::ranges::max_element(amplitudes);
    if (amplitudes.size() != _amplitudes.size())
        _balance.assign(amplitudes.size(), 1.0);
    // Infinite amplitudes, which any client of a sound server may set, have no balance.
    if (isFinite && loudest != amplitudes.end() && *loudest > 0.0F)
        std::ranges::transform(amplitudes, _balance.begin(), [loudest](float amplitude) {
            return std::max(0.0, static_cast<double>(amplitude) / static_cast<double>(*loudest));
        });
    _amplitudes = amplitudes;
}

std::optional<float> HALVolume::mainScalar() const
{
    if (_amplitudes.empty())
        return std::nullopt;
    return scalarOf(*std::ranges::max_element(_amplitudes));
}

std::vector<std::optional<float>> HALVolume::channelScalars() const
{
    std::vector<std::optional<float>> scalars;
    for (const float amplitude : _amplitudes)
        scalars.emplace_back(scalarOf(amplitude));
    return scalars;
}

std::vector<float> HALVolume::amplitudesAfter(uint32_t element, float scalar) const
{
    std::vector<float> after = _amplitudes;
    if (element == 0) {
        for (size_t channel = 0; channel < after.size(); ++channel)
            after[channel] = static_cast<float>(cube(scalar) * _balance[channel]);
    } else if (element <= after.size()) {
        after[element - 1] = static_cast<float>(cube(scalar));
    }
    return after;
}
