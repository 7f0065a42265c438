#include "FileRecorder.h"

#include <algorithm>

namespace {

constexpr double ringSeconds = 4.0; // disks fall asleep

} // namespace

CXRef<FileRecorder> FileRecorder::initWithInputs(const std::vector<DeviceSelection>& inputs)
{
    return CXRef<FileRecorder>::adopt(new FileRecorder(inputs));
}

FileRecorder::FileRecorder(const std::vector<DeviceSelection>& inputs) : _inputs(inputs)
{
    for (const DeviceSelection& input : inputs)
        _heard.add(static_cast<uint32_t>(input.channels.size()));
    _meters.add("in", inputs);
}

void FileRecorder::addTo(RunnerSession& session)
{
    for (size_t input = 0; input < _inputs.size(); ++input)
        session.add(_inputs[input],
                    [self = CXRef<FileRecorder>(this), input](uint64_t sampleTime, DXRBuffer& buffer) {
                        self->_hear(input, sampleTime, buffer);
                    });
}

void FileRecorder::open(double sampleRate)
{
    _sampleRate = sampleRate;
    _ring = std::make_unique<FrameRing>(channelCount(), static_cast<uint64_t>(ringSeconds * sampleRate));
    _isOpen.store(true, std::memory_order_release);
}

/// The blocks of a cycle come in the order of the inputs: with the last, all have been heard.
void FileRecorder::_hear(size_t input, uint64_t sampleTime, const DXRBuffer& buffer) noexcept
{
    _heard.note(input, sampleTime, buffer);
    _meters.note(input, buffer);
    if (input + 1 != _inputs.size() || !_isOpen.load(std::memory_order_acquire))
        return;
    _fillGap(buffer.hostTime(), buffer.frameCount());
    _keep(sampleTime, buffer.frameCount());
}

/// Writes silence for the time since the last cycle's end, if that is long enough for a cycle to be missing. Time goes by the
/// device's frames in between, so that a clock that drifts leaves no gaps.
void FileRecorder::_fillGap(uint64_t hostTicks, uint32_t frameCount) noexcept
{
    const double ticksOfFrame = 1.0 / (secondsOf(1) * _sampleRate);
    const uint64_t late = _nextTicks != 0 && hostTicks > _nextTicks ? hostTicks - _nextTicks : 0;
    const auto missing = static_cast<uint64_t>(static_cast<double>(late) / ticksOfFrame + 0.5);
    _nextTicks = hostTicks == 0 ? 0 : hostTicks + static_cast<uint64_t>(frameCount * ticksOfFrame);
    if (missing <= frameCount / 2)
        return;
    const uint64_t silent = std::min(missing, _ring->writableFrames());
    for (uint64_t frame = 0; frame < silent; ++frame)
        std::fill_n(_ring->frameToWrite(frame), channelCount(), 0.0F);
    _ring->commitWrite(silent);
    _silentFrames.store(_silentFrames.load(std::memory_order_relaxed) + silent, std::memory_order_relaxed);
    _droppedFrames.store(_droppedFrames.load(std::memory_order_relaxed) + missing - silent,
                         std::memory_order_relaxed);
}

void FileRecorder::_keep(uint64_t sampleTime, uint32_t frameCount) noexcept
{
    const uint64_t kept = std::min<uint64_t>(frameCount, _ring->writableFrames());
    for (uint32_t channel = 0; channel < channelCount(); ++channel) {
        const auto from = _heard.channel(channel, sampleTime, frameCount);
        for (uint64_t frame = 0; frame < kept; ++frame)
            _ring->frameToWrite(frame)[channel] = from.samples[frame * from.stride];
    }
    _ring->commitWrite(kept);
    if (kept < frameCount)
        _droppedFrames.store(_droppedFrames.load(std::memory_order_relaxed) + frameCount - kept,
                             std::memory_order_relaxed);
}
