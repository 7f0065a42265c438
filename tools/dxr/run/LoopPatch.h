#pragma once

#include "ChannelMap.h"
#include "DeviceMeters.h"
#include "RunnerInputs.h"
#include "RunnerSession.h"

/// Plays all inputs of a runner, as one row of channels, on every output: see straightChannelMap(). Outputs
/// are silent unless the patch is open.
/// Threads:   the blocks in the runner's cycles; all else on one other thread.
/// Real time: the blocks.
class LoopPatch final : public CXObject {
public:
    static CXRef<LoopPatch> initWithSelections(const std::vector<DeviceSelection>& inputs,
                                               const std::vector<DeviceSelection>& outputs)
    {
        return CXRef<LoopPatch>::adopt(new LoopPatch(inputs, outputs));
    }

    /// Adds the devices to a session that has not started. Their blocks keep this object alive.
    void addTo(RunnerSession& session)
    {
        const CXRef<LoopPatch> self(this);
        session.add(_selections[0], self, &LoopPatch::_hear);
        session.add(_selections[1], self, &LoopPatch::_play);
    }
    void setOpen(bool isOpen = true) noexcept { _isOpen.store(isOpen, std::memory_order_relaxed); }
    /// The number of frames played while the patch was open.
    uint64_t framesPassed() const noexcept { return _framesPassed.load(std::memory_order_relaxed); }
    DeviceMeters& meters() noexcept { return _meters; }

private:
    LoopPatch(const std::vector<DeviceSelection>& inputs, const std::vector<DeviceSelection>& outputs)
        : _selections{inputs, outputs}, _inputs(inputs)
    {
        for (const DeviceSelection& output : outputs)
            _maps.push_back(straightChannelMap(_inputs.channelCount(), output));
        _meters.add("in", inputs);
        _meters.add("out", outputs);
    }
    ~LoopPatch() override = default;

    void _hear(size_t input, uint64_t sampleTime, DXRBuffer& buffer) noexcept CX_REALTIME
    {
        _inputs.note(input, sampleTime, buffer);
        _meters.note(input, buffer);
    }

    void _play(size_t output, uint64_t sampleTime, DXRBuffer& buffer) noexcept CX_REALTIME
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
            _framesPassed.fetch_add(buffer.frameCount(), std::memory_order_relaxed);
    }

    const std::vector<DeviceSelection> _selections[2]; // inputs, outputs
    RunnerInputs _inputs;
    std::vector<ChannelMap> _maps;          // by output
    DeviceMeters _meters;                   // of the inputs, then of the outputs
    std::atomic<bool> _isOpen{false};       // takes effect in one of the next cycles; relaxed: orders nothing
    std::atomic<uint64_t> _framesPassed{0}; // relaxed: orders nothing
};
