#pragma once

#include "AudioRun.h"
#include "ChannelCopy.h"
#include "LevelMeter.h"

/// Hears a device and keeps its frames until they are written down.
/// Threads:   the callback on the device's IO thread, the rest on one other.
/// Real time: the callback.
class FileRecorder final : public CXObject {
public:
    static CXRef<FileRecorder> initWithDevice(const DeviceReport& device);

    /// Adds the callback to `run`. Throws ToolFailure.
    void addTo(AudioRun& run);

    /// What has been heard and not yet written; the reader's side is the caller's.
    FrameRing& ring() noexcept { return _ring; }
    /// Frames that were heard while the ring was full, because they could not be written fast enough.
    uint64_t droppedFrames() const noexcept { return _droppedFrames.load(std::memory_order_relaxed); }
    CycleMonitor& monitor() noexcept { return _monitor; }
    LevelMeter& meter() noexcept { return _meter; }

private:
    explicit FileRecorder(const DeviceReport& device);
    ~FileRecorder() override = default;

    void _takeInput(const AudioTimeStamp* now, const AudioBufferList* input,
                    const AudioTimeStamp* inputTime) noexcept CX_REALTIME;

    const DeviceReport _device;
    FrameRing _ring;
    CycleMonitor _monitor;
    LevelMeter _meter;
    bool _isRecording = false; // of the IO thread
    std::atomic<uint64_t> _droppedFrames{0};
};
