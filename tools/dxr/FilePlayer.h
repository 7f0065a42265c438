#pragma once

#include "AudioRun.h"
#include "ChannelCopy.h"
#include "LevelMeter.h"
#include "SoundFileReader.h"

/// Plays a sound file on a device, every frame once. The file is read ahead into a ring, which the device's
/// IO thread empties; the first frame is given once the device has settled and the ring is full. Threads: the
/// callback on the device's IO thread, the rest on one other. Real time: the callback.
class FilePlayer final : public CXObject {
public:
    /// The device runs at the file's rate. Reads ahead. Throws ToolFailure when the file cannot be read.
    static CXRef<FilePlayer> initWithFile(SoundFileReader file, const DeviceReport& device, ChannelMap map);

    /// Adds the callback to `run`. Throws ToolFailure.
    void addTo(AudioRun& run);
    /// Reads on; to be called every so often, a few times a second at least. Throws ToolFailure.
    void feed();
    /// Whether the last frame has been heard.
    bool isOver() const noexcept;

    uint64_t framesPlayed() const noexcept { return _framesPlayed.load(std::memory_order_relaxed); }
    uint64_t frameCount() const noexcept { return _file.frameCount(); }
    /// Cycles in which the file could not be read fast enough; nothing of it is left out.
    uint64_t underruns() const noexcept { return _underruns.load(std::memory_order_relaxed); }
    CycleMonitor& monitor() noexcept { return _monitor; }
    LevelMeter& meter() noexcept { return _meter; }

private:
    FilePlayer(SoundFileReader file, const DeviceReport& device, ChannelMap map);
    ~FilePlayer() override = default;

    void _giveOutput(const AudioTimeStamp* now, AudioBufferList* output,
                     const AudioTimeStamp* outputTime) noexcept CX_REALTIME;

    const DeviceReport _device;
    const ChannelMap _map;
    SoundFileReader _file; // of the feeding thread
    FrameRing _ring;
    CycleMonitor _monitor;
    LevelMeter _meter;
    bool _isPlaying = false; // of the IO thread

    // Raised by feed() after the last frame has gone into the ring: its release pairs with the acquire of the
    // callback, which, having seen it, finds the ring complete, and may take an empty one for the end.
    std::atomic<bool> _isFed{false};
    // When the last frame is heard at the device, in host ticks; 0 until it has been given. Stands for
    // itself.
    std::atomic<uint64_t> _endTicks{0};
    std::atomic<uint64_t> _framesPlayed{0}, _underruns{0}; // statistics of the callback
};
