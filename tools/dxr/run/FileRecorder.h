#pragma once

#include "DeviceMeters.h"
#include "FrameRing.h"
#include "RunnerInputs.h"
#include "RunnerSession.h"
#include "SoundFileWriter.h"

/// Records the inputs of a runner, as one row of channels, into a ring buffer, and writes them to a file.
/// Lost frames are replaced by silence.
/// Threads:   the blocks in the runner's cycles; all else on one other thread.
/// Real time: the blocks.
class FileRecorder final : public CXObject {
public:
    static CXRef<FileRecorder> initWithInputs(const std::vector<DeviceSelection>& inputs)
    {
        return CXRef<FileRecorder>::adopt(new FileRecorder(inputs));
    }

    /// Adds the inputs to a session that has not started. Their blocks keep this object alive.
    void addTo(RunnerSession& session);
    uint32_t channelCount() const noexcept { return _heard.channelCount(); }
    /// Starts recording; call it once. `sampleRate` is the runner's, Hz.
    void open(double sampleRate)
    {
        constexpr double ringSeconds = 4.0; // a disk may have to spin up
        _sampleRate = sampleRate;
        _ring = std::make_unique<FrameRing>(channelCount(), static_cast<uint64_t>(ringSeconds * sampleRate));
        _isOpen.store(true, std::memory_order_release);
    }
    bool isOpen() const noexcept { return _isOpen.load(std::memory_order_relaxed); }
    /// Writes the frames recorded since the last call, until the file has `maxFrames`. Unless `isEnd`, writes
    /// only cycles whose trace records the session has read, because these show the gaps. Throws ToolFailure.
    void writeTo(SoundFileWriter& file, uint64_t maxFrames, bool isEnd);
    /// Frames of silence written for lost cycles and for the time of restarts.
    uint64_t silentFrames() const noexcept { return _silentFrames; }
    /// Frames lost because the file was written too slowly.
    uint64_t droppedFrames() const noexcept { return _droppedFrames.load(std::memory_order_relaxed); }
    DeviceMeters& meters() noexcept { return _meters; }

private:
    explicit FileRecorder(const std::vector<DeviceSelection>& inputs) : _inputs(inputs), _heard(inputs)
    {
        _meters.add("in", inputs);
    }
    ~FileRecorder() override = default;

    void _hear(size_t input, uint64_t sampleTime, DXRBuffer& buffer) noexcept CX_REALTIME;
    void _note(const DXRCycleRecord& record);
    void _keep(uint64_t sampleTime, uint32_t frameCount) noexcept CX_REALTIME;

    const std::vector<DeviceSelection> _inputs;
    RunnerInputs _heard;
    DeviceMeters _meters;
    std::unique_ptr<FrameRing> _ring; // allocated by open()
    double _sampleRate = 0.0;
    // Frames missing before the runner's sample time `sampleTime`.
    struct Gap {
        uint64_t sampleTime, frameCount;
    };
    DXRCycleRecord _last; // the last cycle in the trace
    std::deque<Gap> _gaps;
    uint64_t _framesTaken = 0, _silentFrames = 0;
    // Set after _ring is allocated. Its release pairs with the acquire in the blocks, which use the ring.
    std::atomic<bool> _isOpen{false};
    // The runner's sample time of the first frame in the ring. Stored, with release, before that frame is
    // written to the ring; pairs with the acquire in writeTo().
    std::atomic<uint64_t> _firstSampleTime{UINT64_MAX};
    std::atomic<uint64_t> _droppedFrames{0}; // relaxed: orders nothing
};
