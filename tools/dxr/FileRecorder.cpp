#include "FileRecorder.h"

#include <algorithm>

namespace {

constexpr double ringSeconds = 4.0; // disks fall asleep

} // namespace

CXRef<FileRecorder> FileRecorder::initWithDevice(const DeviceReport& device)
{
    return CXRef<FileRecorder>::adopt(new FileRecorder(device));
}

FileRecorder::FileRecorder(const DeviceReport& device)
    : _device(device), _ring(std::max(1U, device[HALDirection::Input].channelCount),
                             static_cast<uint64_t>(ringSeconds * device.sampleRate)),
      _monitor(device.sampleRate), _meter(device[HALDirection::Input].channelCount)
{}

void FileRecorder::addTo(AudioRun& run)
{
    run.add(DeviceIO::initWithDevice(
        _device,
        AudioDeviceIOBlock([self = CXRef<FileRecorder>(this)](
                               const AudioTimeStamp* now, const AudioBufferList* input,
                               const AudioTimeStamp* inputTime, AudioBufferList*,
                               const AudioTimeStamp*) { self->_takeInput(now, input, inputTime); }),
        _monitor));
}

void FileRecorder::_takeInput(const AudioTimeStamp* now, const AudioBufferList* input,
                              const AudioTimeStamp* inputTime) noexcept
{
    const CXRealtimeScope realtime;
    const uint32_t frameCount = cycleFrameCount(input);
    if (!_isRecording && _monitor.isSettled()) {
        _isRecording = true;
        _monitor.beginCounting();
    }
    _monitor.noteCycle(now, inputTime, frameCount);
    if (!_isRecording || !input)
        return;
    _meter.note(input);
    const uint64_t kept = std::min<uint64_t>(frameCount, _ring.writableFrames());
    copyCycleToRing(*input, kept, _ring);
    if (kept < frameCount)
        _droppedFrames.store(_droppedFrames.load(std::memory_order_relaxed) + frameCount - kept,
                             std::memory_order_relaxed);
}
