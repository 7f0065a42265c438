#include "RunnerInputs.h"

size_t RunnerInputs::add(uint32_t channelCount)
{
    const size_t input = _heard.size();
    _heard.emplace_back();
    for (uint32_t number = 0; number < channelCount; ++number)
        _channels.push_back({input, number});
    return input;
}

void RunnerInputs::note(size_t input, uint64_t sampleTime, const DXRBuffer& buffer) noexcept
{
    _heard[input] = {sampleTime, buffer.samples(), buffer.frameCount(), buffer.channelCount()};
}

RunnerInputs::Channel RunnerInputs::channel(uint32_t channel, uint64_t sampleTime,
                                            uint32_t frameCount) const noexcept
{
    static constexpr float silence = 0.0F;
    if (channel >= _channels.size())
        return {&silence, 0};
    const Place& place = _channels[channel];
    const Heard& heard = _heard[place.input];
    if (heard.sampleTime != sampleTime || heard.frameCount != frameCount ||
        place.number >= heard.channelCount)
        return {&silence, 0};
    return {heard.samples + place.number, heard.channelCount};
}
