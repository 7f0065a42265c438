#include "ClockBridge.h"

#include <algorithm>

namespace {

constexpr uint32_t fadeFrames = 64;

uint64_t ringFrames(const ClockBridge::Settings& settings, const CompensatingResampler& resampler)
{
    const double ratio = settings.writerRate / settings.readerRate;
    // Up to three cycles of each side are the delay; the rest is for cycles that run late and in bursts.
    const double cycles = 8.0 * (settings.maxWriterFrames + settings.maxReaderFrames * ratio);
    return static_cast<uint64_t>(cycles) + 4096 + resampler.framesBefore() + resampler.framesAfter();
}

/// Applies a rising or falling ramp to the frames [from, from + count) of a block.
void fade(const HALStreamBlock& block, uint32_t from, uint32_t count, bool rises) noexcept
{
    for (uint32_t frame = 0; frame < count; ++frame) {
        const float gain =
            static_cast<float>(rises ? frame + 1 : count - frame) / static_cast<float>(count + 1);
        float* samples = block.samples + size_t{from + frame} * block.channelCount;
        for (uint32_t channel = 0; channel < block.channelCount; ++channel)
            samples[channel] *= gain;
    }
}

} // namespace

CXRef<ClockBridge> ClockBridge::initWithSettings(const Settings& settings)
{
    CXRef<CompensatingResampler> resampler =
        CompensatingResampler::initWithRatio(settings.writerRate / settings.readerRate);
    if (!resampler)
        return nullptr;
    return CXRef<ClockBridge>::adopt(new ClockBridge(settings, std::move(resampler)));
}

ClockBridge::ClockBridge(const Settings& settings, CXRef<CompensatingResampler> resampler)
    : _settings(settings), _resampler(std::move(resampler)),
      _ring(settings.channelCount, ringFrames(settings, *_resampler),
            _resampler->framesBefore() + _resampler->framesAfter()),
      _controller({settings.writerRate, settings.readerRate, settings.compensates, _resampler->framesBefore(),
                   _resampler->framesAfter()})
{}

// ---- The writer's side

void ClockBridge::write(uint64_t hostNanoseconds, uint64_t sampleTime, std::span<const HALStreamBlock> blocks,
                        uint32_t frameCount) noexcept
{
    if (frameCount > _settings.maxWriterFrames)
        return;
    _fillGap(sampleTime, blocks, frameCount);
    _nextSampleTime = sampleTime + frameCount;
    _hasWritten = true;
    if (_ring.writableFrames() < frameCount)
        return; // the reader has stopped; when it continues, the next cycle reported shows the gap
    uint32_t channel = 0;
    for (const HALStreamBlock& block : blocks) {
        _ring.put(block, channel, 0, frameCount);
        channel += block.channelCount;
    }
    _ring.commitWrite(frameCount);
    _ring.report({hostNanoseconds, sampleTime + frameCount, _ring.writtenFrame(), frameCount});
}

void ClockBridge::_fillGap(uint64_t sampleTime, std::span<const HALStreamBlock> blocks,
                           uint32_t frameCount) noexcept
{
    const uint64_t gap = sampleTime - _nextSampleTime;
    if (!_hasWritten || gap == 0 || _ring.writableFrames() < frameCount ||
        gap > _ring.writableFrames() - frameCount)
        return;
    uint32_t channel = 0;
    for (const HALStreamBlock& block : blocks) {
        _ring.put({nullptr, block.channelCount}, channel, 0, static_cast<uint32_t>(gap));
        channel += block.channelCount;
    }
    _ring.commitWrite(gap);
}

// ---- The reader's side

void ClockBridge::read(uint64_t hostNanoseconds, uint64_t sampleTime, std::span<const HALStreamBlock> blocks,
                       uint32_t frameCount) noexcept
{
    WriterCycle cycle{};
    while (_ring.take(cycle))
        _controller.wrote(cycle);
    const ReadPlan plan =
        _controller.plan(hostNanoseconds, sampleTime, frameCount, _ring.firstFrame(), _ring.endFrame());
    uint32_t channel = 0;
    for (const HALStreamBlock& block : blocks) {
        if (block.samples)
            _readBlock(block, channel, plan, frameCount);
        channel += block.channelCount;
    }
    _wasSilent = plan.silentFrames + plan.frameCount < frameCount || plan.frameCount == 0;
    _ring.release(plan.releasedFrame);
    _publish();
}

void ClockBridge::_readBlock(const HALStreamBlock& block, uint32_t firstChannel, const ReadPlan& plan,
                             uint32_t frameCount) const noexcept
{
    const uint32_t end = plan.silentFrames + plan.frameCount;
    const size_t stride = block.channelCount;
    std::fill_n(block.samples, stride * plan.silentFrames, 0.0F);
    _resampler->read({_ring.channels() + firstChannel, block.channelCount, _ring.mask()}, plan.walk,
                     plan.frameCount, block.samples + stride * plan.silentFrames, stride);
    std::fill_n(block.samples + stride * end, stride * (frameCount - end), 0.0F);
    const uint32_t edge = std::min(fadeFrames, plan.frameCount);
    if (_wasSilent || plan.silentFrames > 0 || plan.isJump)
        fade(block, plan.silentFrames, edge, true);
    if (end < frameCount)
        fade(block, end - edge, edge, false);
}

void ClockBridge::_publish() noexcept
{
    _partsPerMillion.store((_controller.clockRatio() - 1.0) * 1e6, std::memory_order_relaxed);
    _levelFrames.store(_controller.level(), std::memory_order_relaxed);
    _delayFrames.store(_controller.delay(), std::memory_order_relaxed);
    _resynchronisations.store(_controller.resynchronisations(), std::memory_order_relaxed);
    _lostFrames.store(_controller.lostFrames(), std::memory_order_relaxed);
}

ClockBridge::Status ClockBridge::status() const noexcept
{
    return {_partsPerMillion.load(std::memory_order_relaxed), _levelFrames.load(std::memory_order_relaxed),
            _delayFrames.load(std::memory_order_relaxed), _resynchronisations.load(std::memory_order_relaxed),
            _lostFrames.load(std::memory_order_relaxed)};
}
