#include "LoopPatch.h"

LoopPatch::LoopPatch(const std::vector<DeviceSelection>& inputs, const std::vector<DeviceSelection>& outputs)
    : _selections{inputs, outputs}, _inputs(inputs)
{
    for (const DeviceSelection& output : outputs)
        _maps.push_back(straightChannelMap(_inputs.channelCount(), output));
    _meters.add("in", inputs);
    _meters.add("out", outputs);
}

void LoopPatch::addTo(RunnerSession& session)
{
    const CXRef<LoopPatch> self(this);
    session.add(_selections[0], self, &LoopPatch::_hear);
    session.add(_selections[1], self, &LoopPatch::_play);
}

void LoopPatch::_hear(size_t input, uint64_t sampleTime, DXRBuffer& buffer) noexcept
{
    _inputs.note(input, sampleTime, buffer);
    _meters.note(input, buffer);
}

void LoopPatch::_play(size_t output, uint64_t sampleTime, DXRBuffer& buffer) noexcept
{
    buffer.mute();
    if (!_isOpen.load(std::memory_order_relaxed))
        return;
    const uint32_t channels = buffer.channelCount();
    for (uint32_t channel = 0; channel < channels; ++channel)
        for (const ChannelShare& share : _maps[output][channel]) {
            const auto from = _inputs.channel(share.channel, sampleTime, buffer.frameCount());
            for (size_t frame = 0; frame < buffer.frameCount(); ++frame)
                buffer.samples()[frame * channels + channel] +=
                    share.gain * from.samples[frame * from.stride];
        }
    _meters.note(_inputs.inputCount() + output, buffer);
    if (output == 0)
        _framesPassed.store(_framesPassed.load(std::memory_order_relaxed) + buffer.frameCount(),
                            std::memory_order_relaxed);
}
