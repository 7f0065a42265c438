#pragma once

#include "DeviceMeters.h"
#include "FrameRing.h"
#include "RunnerInputs.h"
#include "RunnerSession.h"

/// Records the inputs of a runner, their channels side by side, and keeps the frames until they are written. What they hear
/// lasts as long as it took: gaps are filled with silence.
/// Threads:   the blocks in the runner's cycles, the rest on one other thread.
/// Real time: the blocks.
class FileRecorder final : public CXObject {
public:
    static CXRef<FileRecorder> initWithInputs(const std::vector<DeviceSelection>& inputs);

    /// Adds the devices, with blocks that keep this alive, to a session that has not started.
    void addTo(RunnerSession& session);
    uint32_t channelCount() const noexcept { return _heard.channelCount(); }
    /// Keeps what is heard from now on; once. `sampleRate` is the runner's, in Hz.
    void open(double sampleRate);
    bool isOpen() const noexcept { return _isOpen.load(std::memory_order_relaxed); }
    /// What has been heard since then and not yet been written; the reader's side is the caller's.
    FrameRing& ring() noexcept { return *_ring; }
    /// Frames of silence in it: time that passed without cycles, when a device was lost or changed.
    uint64_t silentFrames() const noexcept { return _silentFrames.load(std::memory_order_relaxed); }
    /// Frames that were heard while the ring was full, because they could not be written fast enough.
    uint64_t droppedFrames() const noexcept { return _droppedFrames.load(std::memory_order_relaxed); }
    DeviceMeters& meters() noexcept { return _meters; }

private:
    explicit FileRecorder(const std::vector<DeviceSelection>& inputs);
    ~FileRecorder() override = default;

    void _hear(size_t input, uint64_t sampleTime, const DXRBuffer& buffer) noexcept CX_REALTIME;
    void _fillGap(uint64_t hostTicks, uint32_t frameCount) noexcept CX_REALTIME;
    void _keep(uint64_t sampleTime, uint32_t frameCount) noexcept CX_REALTIME;

    const std::vector<DeviceSelection> _inputs;
    RunnerInputs _heard;
    DeviceMeters _meters;
    std::unique_ptr<FrameRing> _ring; // made by open(), like the rate
    double _sampleRate = 0.0;
    uint64_t _nextTicks =
        0; // of the cycles: when the next frame is due at the device; 0 when that is not known
    // Raised once there is a ring: its release pairs with the acquire of the blocks, which then find it.
    std::atomic<bool> _isOpen{false};
    std::atomic<uint64_t> _droppedFrames{0}, _silentFrames{0}; // have one writer and stand for themselves
};
