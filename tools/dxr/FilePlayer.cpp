#include "FilePlayer.h"

#include <algorithm>
#include <dxr/HostClock.h>

namespace {

constexpr double ringSeconds = 2.0;
constexpr double ticksPerSecond =
    1e9 * platform::HostClock::nanosecondsDenominator / platform::HostClock::nanosecondsNumerator;

} // namespace

CXRef<FilePlayer> FilePlayer::initWithFile(SoundFileReader file, const DeviceReport& device, ChannelMap map)
{
    return CXRef<FilePlayer>::adopt(new FilePlayer(std::move(file), device, std::move(map)));
}

FilePlayer::FilePlayer(SoundFileReader file, const DeviceReport& device, ChannelMap map)
    : _device(device), _map(std::move(map)), _file(std::move(file)),
      _ring(_file.channelCount(), static_cast<uint64_t>(ringSeconds * _file.sampleRate())),
      _monitor(device.sampleRate), _meter(device[HALDirection::Output].channelCount)
{
    feed();
}

void FilePlayer::addTo(AudioRun& run)
{
    run.add(DeviceIO::initWithDevice(
        _device,
        AudioDeviceIOBlock([self = CXRef<FilePlayer>(this)](const AudioTimeStamp* now, const AudioBufferList*,
                                                            const AudioTimeStamp*, AudioBufferList* output,
                                                            const AudioTimeStamp* outputTime) {
            self->_giveOutput(now, output, outputTime);
        }),
        _monitor));
}

void FilePlayer::feed()
{
    if (!_isFed.load(std::memory_order_relaxed) && !_file.fill(_ring))
        _isFed.store(true, std::memory_order_release);
}

bool FilePlayer::isOver() const noexcept
{
    const uint64_t end = _endTicks.load(std::memory_order_relaxed);
    return end != 0 && platform::HostClock::nowTicks() >= end;
}

void FilePlayer::_giveOutput(const AudioTimeStamp* now, AudioBufferList* output,
                             const AudioTimeStamp* outputTime) noexcept
{
    const CXRealtimeScope realtime;
    const uint32_t frameCount = cycleFrameCount(output);
    if (!_isPlaying && _monitor.isSettled()) {
        _isPlaying = true;
        _monitor.beginCounting();
    }
    _monitor.noteCycle(now, outputTime, frameCount);
    if (!_isPlaying || !output || frameCount == 0 || _endTicks.load(std::memory_order_relaxed) != 0)
        return;
    const bool isFed = _isFed.load(std::memory_order_acquire);
    const uint64_t given = std::min<uint64_t>(frameCount, _ring.readableFrames());
    copyRingToCycle(_ring, given, _map, *output, 0);
    _meter.note(output);
    _framesPlayed.store(_framesPlayed.load(std::memory_order_relaxed) + given, std::memory_order_relaxed);
    if (given == frameCount && (_ring.readableFrames() > 0 || !isFed))
        return;
    if (!isFed) {
        _underruns.store(_underruns.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        return;
    }
    // Two more cycles of silence see the last frame through whatever stands between here and the loudspeaker.
    const double framesLeft = 3.0 * frameCount + _device[HALDirection::Output].latencyFrames +
                              _device[HALDirection::Output].safetyOffsetFrames;
    const uint64_t from = outputTime ? outputTime->hostTime : platform::HostClock::nowTicks();
    _endTicks.store(from + static_cast<uint64_t>(framesLeft / _device.sampleRate * ticksPerSecond),
                    std::memory_order_relaxed);
}
