#pragma once

#include "DeviceMeters.h"
#include "FrameRing.h"
#include "RunnerInputs.h"
#include "RunnerSession.h"
#include "SoundFileWriter.h"

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
    /// Writes what has been heard since then and not yet been written, up to so many frames in all, as far as the session has
    /// read the trace; after the session's end, all of it. Throws ToolFailure.
    void writeTo(SoundFileWriter& file, uint64_t maxFrames, bool isEnd);
    /// Frames of silence that were written: cycles that were lost, and the time in which a device changed.
    uint64_t silentFrames() const noexcept { return _silentFrames; }
    /// Frames that were heard while the ring was full, because they could not be written fast enough.
    uint64_t droppedFrames() const noexcept { return _droppedFrames.load(std::memory_order_relaxed); }
    DeviceMeters& meters() noexcept { return _meters; }

private:
    explicit FileRecorder(const std::vector<DeviceSelection>& inputs);
    ~FileRecorder() override = default;

    void _hear(size_t input, uint64_t sampleTime, const DXRBuffer& buffer) noexcept CX_REALTIME;
    void _note(const DXRCycleRecord& record);
    void _keep(uint64_t sampleTime, uint32_t frameCount) noexcept CX_REALTIME;

    const std::vector<DeviceSelection> _inputs;
    RunnerInputs _heard;
    DeviceMeters _meters;
    std::unique_ptr<FrameRing> _ring; // made by open(), like the rate
    double _sampleRate = 0.0;
    // Of the writing thread: the last cycle in the trace, and where in the runner's time how many frames are missing.
    struct Gap {
        uint64_t sampleTime, frameCount;
    };
    DXRCycleRecord _last;
    std::deque<Gap> _gaps;
    uint64_t _framesTaken = 0, _silentFrames = 0;
    // Raised once there is a ring: its release pairs with the acquire of the blocks, which then find it.
    std::atomic<bool> _isOpen{false};
    // The runner's of the first frame in the ring; stored before that is handed over by the ring.
    std::atomic<uint64_t> _firstSampleTime{UINT64_MAX};
    std::atomic<uint64_t> _droppedFrames{0}; // has one writer and stands for itself
};
