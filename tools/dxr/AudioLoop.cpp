#include "AudioLoop.h"

#include <algorithm>

namespace {

constexpr double leastMarginSeconds = 0.010;
constexpr double stretchSeconds =
    1.0;                            // bursts of late cycles are over by then; what is left too much is drift
constexpr double ringSeconds = 1.0; // what a server that was held up may hand over at once

/// For counters with a single writer.
void add(std::atomic<uint64_t>& counter, uint64_t value) noexcept
{
    counter.store(counter.load(std::memory_order_relaxed) + value, std::memory_order_relaxed);
}

ChannelMap mapFor(const DeviceReport& input, const DeviceReport& output)
{
    const DirectionReport& side = output[HALDirection::Output];
    const std::array<uint32_t, 2> stereo = side.stereoChannels.value_or(std::array<uint32_t, 2>{1, 2});
    return straightChannelMap(input[HALDirection::Input].channelCount, side.channelCount, stereo[0],
                              stereo[1]);
}

uint64_t ringFrames(const DeviceReport& input, const DeviceReport& output)
{
    return static_cast<uint64_t>(ringSeconds * output.sampleRate) + 4 * uint64_t{input.bufferFrameSize} +
           4 * uint64_t{output.bufferFrameSize};
}

} // namespace

CXRef<AudioLoop> AudioLoop::initWithDevices(const DeviceReport& input, const DeviceReport& output)
{
    return CXRef<AudioLoop>::adopt(new AudioLoop(input, output));
}

AudioLoop::AudioLoop(const DeviceReport& input, const DeviceReport& output)
    : _input(input), _output(output), _hasTwoDevices(input.deviceID != output.deviceID),
      _map(mapFor(input, output)),
      _ring(std::max(1U, input[HALDirection::Input].channelCount), ringFrames(input, output)),
      _inputMonitor(input.sampleRate), _outputMonitor(output.sampleRate),
      _inputMeter(input[HALDirection::Input].channelCount),
      _outputMeter(output[HALDirection::Output].channelCount)
{}

void AudioLoop::addTo(AudioRun& run)
{
    const CXRef<AudioLoop> self(this);
    if (!_hasTwoDevices) {
        run.add(DeviceIO::initWithDevice(
            _input,
            AudioDeviceIOBlock(
                [self](const AudioTimeStamp* now, const AudioBufferList* input,
                       const AudioTimeStamp* inputTime, AudioBufferList* output,
                       const AudioTimeStamp*) { self->_passThrough(now, input, inputTime, output); }),
            _inputMonitor));
        return;
    }
    run.add(DeviceIO::initWithDevice(
        _input,
        AudioDeviceIOBlock([self](const AudioTimeStamp* now, const AudioBufferList* input,
                                  const AudioTimeStamp* inputTime, AudioBufferList*,
                                  const AudioTimeStamp*) { self->_takeInput(now, input, inputTime); }),
        _inputMonitor));
    run.add(DeviceIO::initWithDevice(
        _output,
        AudioDeviceIOBlock([self](const AudioTimeStamp* now, const AudioBufferList*, const AudioTimeStamp*,
                                  AudioBufferList* output, const AudioTimeStamp* outputTime) {
            self->_giveOutput(now, output, outputTime);
        }),
        _outputMonitor));
}

uint64_t AudioLoop::ringLatencyFrames() const noexcept
{
    return _hasTwoDevices ? _inputMonitor.cycleFrames() + _outputMonitor.cycleFrames() + _margin() : 0;
}

uint64_t AudioLoop::overruns() const noexcept
{
    return _refused.load(std::memory_order_relaxed) + _jumps.load(std::memory_order_relaxed);
}

uint64_t AudioLoop::overrunFrames() const noexcept
{
    return _refusedFrames.load(std::memory_order_relaxed) + _jumpedFrames.load(std::memory_order_relaxed);
}

void AudioLoop::_passThrough(const AudioTimeStamp* now, const AudioBufferList* input,
                             const AudioTimeStamp* inputTime, AudioBufferList* output) noexcept
{
    const CXRealtimeScope realtime;
    const uint32_t frameCount = std::max(cycleFrameCount(input), cycleFrameCount(output));
    if (!_isPlaying && _inputMonitor.isSettled()) {
        _isPlaying = true;
        _inputMonitor.beginCounting();
        _isFlowing.store(true, std::memory_order_relaxed);
    }
    _inputMonitor.noteCycle(now, inputTime, frameCount);
    if (!_isPlaying || !input || !output)
        return;
    copyCycleToCycle(*input, _map, *output);
    add(_framesMoved, frameCount);
    _inputMeter.note(input);
    _outputMeter.note(output);
}

void AudioLoop::_takeInput(const AudioTimeStamp* now, const AudioBufferList* input,
                           const AudioTimeStamp* inputTime) noexcept
{
    const CXRealtimeScope realtime;
    const uint32_t frameCount = cycleFrameCount(input);
    const bool isWanted = _isWanted.load(std::memory_order_relaxed);
    if (isWanted)
        _inputMonitor.beginCounting();
    _inputMonitor.noteCycle(now, inputTime, frameCount);
    if (!isWanted || !input)
        return;
    _inputMeter.note(input);
    const uint64_t kept = std::min<uint64_t>(frameCount, _ring.writableFrames());
    copyCycleToRing(*input, kept, _ring);
    if (kept < frameCount) {
        add(_refused, 1);
        add(_refusedFrames, frameCount - kept);
    }
}

void AudioLoop::_giveOutput(const AudioTimeStamp* now, AudioBufferList* output,
                            const AudioTimeStamp* outputTime) noexcept
{
    const CXRealtimeScope realtime;
    const uint32_t frameCount = cycleFrameCount(output);
    const bool isPrimed = output && _isPrimed(frameCount);
    _outputMonitor.noteCycle(now, outputTime, frameCount);
    if (!isPrimed)
        return;
    const uint64_t given = std::min<uint64_t>(frameCount, _ring.readableFrames());
    copyRingToCycle(_ring, given, _map, *output, 0);
    add(_framesMoved, given);
    _outputMeter.note(output);
    if (given < frameCount) {
        add(_underruns, 1);
        add(_underrunFrames, frameCount - given);
        _isPlaying = false; // let it fill up again, or every cycle from now on would be cut
        return;
    }
    _holdLatency(frameCount);
}

bool AudioLoop::_isPrimed(uint32_t frameCount) noexcept
{
    if (_isPlaying)
        return true;
    if (!_isWanted.load(std::memory_order_relaxed)) {
        if (_inputMonitor.isSettled() && _outputMonitor.isSettled())
            _isWanted.store(true, std::memory_order_relaxed);
        return false;
    }
    if (_ring.readableFrames() < frameCount + _inputMonitor.cycleFrames() + _margin()) {
        if (_isFlowing.load(std::memory_order_relaxed))
            add(_underrunFrames, frameCount);
        return false;
    }
    _isPlaying = true;
    _leastAfterCycle = _ring.readableFrames();
    _stretchFrames = 0;
    if (!_isFlowing.exchange(true, std::memory_order_relaxed))
        _outputMonitor.beginCounting();
    return true;
}

void AudioLoop::_holdLatency(uint32_t frameCount) noexcept
{
    _leastAfterCycle = std::min(_leastAfterCycle, _ring.readableFrames());
    _stretchFrames += frameCount;
    if (static_cast<double>(_stretchFrames) < stretchSeconds * _output.sampleRate)
        return;
    const uint64_t wanted = _inputMonitor.cycleFrames() + _margin();
    if (_leastAfterCycle > wanted + _margin()) {
        add(_jumps, 1);
        add(_jumpedFrames, _leastAfterCycle - wanted);
        _ring.commitRead(_leastAfterCycle - wanted);
    }
    _leastAfterCycle = _ring.readableFrames();
    _stretchFrames = 0;
}

uint64_t AudioLoop::_margin() const noexcept
{
    const auto least = static_cast<uint64_t>(leastMarginSeconds * _output.sampleRate);
    return std::max<uint64_t>({_inputMonitor.cycleFrames(), _outputMonitor.cycleFrames(), least});
}
