#include "HALDeviceState.h"

#include <algorithm>
#include <cmath>

uint32_t HALDirectionState::channelCount() const noexcept
{
    uint32_t count = 0;
    for (const HALStreamState& stream : streams)
        count += stream.channelCount;
    return count;
}

bool HALDeviceState::canSampleRate(double rate) const noexcept
{
    return std::ranges::any_of(sampleRates, [rate](const AudioValueRange& range) {
        return range.minimum <= rate && rate <= range.maximum;
    });
}

float halDecibelsFromScalar(float scalar) noexcept
{
    if (!(scalar > 0.0F))
        return halSilenceDecibels;
    return std::max(halSilenceDecibels, 60.0F * std::log10(scalar)); // amplitude is the cube of the scalar
}

float halScalarFromDecibels(float decibels) noexcept
{
    if (!(decibels > halSilenceDecibels))
        return 0.0F;
    return std::pow(10.0F, decibels / 60.0F);
}
