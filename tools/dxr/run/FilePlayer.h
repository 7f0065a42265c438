#pragma once

#include "ChannelMap.h"
#include "DeviceMeters.h"
#include "RunnerSession.h"
#include "SoundFileReader.h"

/// Plays a sound file on every output of a runner, after open(). The file is read ahead into a ring buffer.
/// Threads:   the blocks in the runner's cycles; all else on one other thread. Another one reads a pipe.
/// Real time: the blocks.
class FilePlayer final : public CXObject {
public:
    /// The runner must run at the file's rate. `maps` has a map of the file's channels for each output.
    /// Throws ToolFailure if the file cannot be read.
    static CXRef<FilePlayer> initWithFile(SoundFileReader file, const std::vector<DeviceSelection>& outputs,
                                          std::vector<ChannelMap> maps)
    {
        return CXRef<FilePlayer>::adopt(new FilePlayer(std::move(file), outputs, std::move(maps)));
    }

    /// Adds the outputs to a session that has not started. Their blocks keep this object alive.
    void addTo(RunnerSession& session);
    void open() noexcept { _isOpen.store(true, std::memory_order_relaxed); }
    /// Fills the ring buffer; call it a few times a second. Throws ToolFailure if the file cannot be read.
    void feed()
    {
        if (_hasFailed.load(std::memory_order_acquire))
            throw ToolFailure(_failure);
        if (!_file.isStream() && !_isFed.load(std::memory_order_relaxed) && !_file.fill(_ring))
            _isFed.store(true, std::memory_order_release);
    }
    /// The runner's sample time after the last frame of the file; null until that frame has been played.
    std::optional<uint64_t> endTime() const noexcept
    {
        const uint64_t time = _endTime.load(std::memory_order_relaxed);
        return time != 0 ? std::optional(time) : std::nullopt;
    }

    uint64_t framesPlayed() const noexcept { return _framesPlayed.load(std::memory_order_relaxed); }
    /// The number of frames to play; null for a pipe, or a file that is repeated until the user ends it.
    std::optional<uint64_t> frameCount() const noexcept
    {
        return _file.isStream() || _file.frameCount() == UINT64_MAX ? std::nullopt
                                                                    : std::optional(_file.frameCount());
    }
    /// Cycles that played silence because the file was read too slowly. No frame of the file is lost.
    uint64_t underruns() const noexcept { return _underruns.load(std::memory_order_relaxed); }
    DeviceMeters& meters() noexcept { return _meters; }

private:
    FilePlayer(SoundFileReader file, const std::vector<DeviceSelection>& outputs,
               std::vector<ChannelMap> maps);
    ~FilePlayer() override = default;

    void _readStream() noexcept;
    void _play(size_t output, uint64_t sampleTime, DXRBuffer& buffer) noexcept CX_REALTIME;
    void _giveBack(uint64_t sampleTime, uint32_t frameCount) noexcept CX_REALTIME;

    const std::vector<DeviceSelection> _outputs;
    const std::vector<ChannelMap> _maps; // by output
    SoundFileReader _file;               // used by feed(), or for a pipe by its thread
    std::string _failure;                // of reading a pipe; published by the release of _hasFailed
    std::atomic<bool> _hasFailed{false};
    FrameRing _ring;
    DeviceMeters _meters;
    // For the current cycle: the number of frames that all outputs play, and whether they play at all.
    uint64_t _given = 0;
    bool _isPlaying = false;

    std::atomic<bool> _isOpen{false}; // takes effect in one of the next cycles; relaxed: orders nothing
    // Set after the last frame was written to the ring. Its release pairs with the acquire in the blocks:
    // once it is set, an empty ring means the end of the file.
    std::atomic<bool> _isFed{false};
    std::atomic<uint64_t> _endTime{0};                     // 0: not known yet; relaxed: orders nothing
    std::atomic<uint64_t> _framesPlayed{0}, _underruns{0}; // written by the blocks; order nothing
};
