#pragma once

#include "ChannelMap.h"
#include "DeviceMeters.h"
#include "RunnerSession.h"
#include "SoundFileReader.h"

/// Plays a sound file on every output of a runner, from open() on. The file is read ahead into a ring buffer.
/// Threads:   the blocks in the runner's cycles, the rest on one other thread. A pipe is read on a thread of
///            its own, which lasts as long as the pipe.
/// Real time: the blocks.
class FilePlayer final : public CXObject {
public:
    /// For a runner at the file's rate; `maps`, by output, are of the file's channels. Throws ToolFailure
    /// when the file cannot be read.
    static CXRef<FilePlayer> initWithFile(SoundFileReader file, const std::vector<DeviceSelection>& outputs,
                                          std::vector<ChannelMap> maps);

    /// Adds the devices, with blocks that keep this alive, to a session that has not started.
    void addTo(RunnerSession& session);
    void open() noexcept { _isOpen.store(true, std::memory_order_relaxed); }
    /// Reads on; call it a few times a second. Throws ToolFailure.
    void feed();
    /// The runner's sample time after the last frame of the file; null before that is played.
    std::optional<uint64_t> endTime() const noexcept;

    uint64_t framesPlayed() const noexcept { return _framesPlayed.load(std::memory_order_relaxed); }
    /// Frames to play; null for a pipe, or a file that is repeated until the user ends it.
    std::optional<uint64_t> frameCount() const noexcept;
    /// Cycles with silence because the file was read too slowly; no frame of it is lost.
    uint64_t underruns() const noexcept { return _underruns.load(std::memory_order_relaxed); }
    DeviceMeters& meters() noexcept { return _meters; }

private:
    FilePlayer(SoundFileReader file, const std::vector<DeviceSelection>& outputs,
               std::vector<ChannelMap> maps);
    ~FilePlayer() override = default;

    bool _isStream() const noexcept { return _file.isStream(); }
    void _readStream() noexcept;
    void _play(size_t output, uint64_t sampleTime, DXRBuffer& buffer) noexcept CX_REALTIME;
    void _take(uint32_t frameCount) noexcept CX_REALTIME;
    void _giveBack(uint64_t sampleTime, uint32_t frameCount) noexcept CX_REALTIME;

    const std::vector<DeviceSelection> _outputs;
    const std::vector<ChannelMap> _maps; // by output
    SoundFileReader _file;               // of the feeding thread
    std::string _failure;                // of a stream; published by _hasFailed
    std::atomic<bool> _hasFailed{false};
    FrameRing _ring;
    DeviceMeters _meters;
    // Of the present cycle: frames that all outputs play, and whether they play at all.
    uint64_t _given = 0;
    bool _isPlaying = false;

    std::atomic<bool> _isOpen{false}; // takes effect in some cycle; orders nothing
    // Raised after the last frame was written to the ring. Its release pairs with the acquire of the blocks:
    // once it is raised, an empty ring is the end.
    std::atomic<bool> _isFed{false};
    std::atomic<uint64_t> _endTime{0};                     // 0: not yet; orders nothing
    std::atomic<uint64_t> _framesPlayed{0}, _underruns{0}; // written by the blocks; order nothing
};
