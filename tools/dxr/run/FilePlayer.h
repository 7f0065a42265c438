#pragma once

#include "ChannelMap.h"
#include "DeviceMeters.h"
#include "RunnerSession.h"
#include "SoundFileReader.h"

/// Plays a sound file on every output of a runner, every frame once, or as often as it is read. The file is read ahead into a ring, which the
/// runner's cycles empty; the first frame is given after open().
/// Threads:   the blocks in the runner's cycles, the rest on one other thread. What comes from a pipe, which may have to be
///            waited for, is read on a thread of its own, which goes on as long as the pipe does.
/// Real time: the blocks.
class FilePlayer final : public CXObject {
public:
    /// The runner is to run at the file's rate; `maps` says for each output which of the file's channels it plays on the
    /// channels it has. Reads ahead. Throws ToolFailure when the file cannot be read.
    static CXRef<FilePlayer> initWithFile(SoundFileReader file, const std::vector<DeviceSelection>& outputs,
                                          std::vector<ChannelMap> maps);

    /// Adds the devices, with blocks that keep this alive, to a session that has not started.
    void addTo(RunnerSession& session);
    void open() noexcept { _isOpen.store(true, std::memory_order_relaxed); }
    /// Reads on; to be called every so often, a few times a second at least. Throws ToolFailure.
    void feed();
    /// The runner's sample time behind the last frame of the file; nothing until that has been given.
    std::optional<uint64_t> endTime() const noexcept;

    uint64_t framesPlayed() const noexcept { return _framesPlayed.load(std::memory_order_relaxed); }
    /// What is played in all; nothing for a pipe, or a file that is repeated until the user ends it.
    std::optional<uint64_t> frameCount() const noexcept;
    /// Cycles in which the file could not be read fast enough; nothing of it is left out.
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
    // Of the runner's cycles: frames that all outputs play in this one, whether they play at all.
    uint64_t _given = 0;
    bool _isPlaying = false;

    std::atomic<bool> _isOpen{false}; // takes effect in some cycle; orders nothing
    // Raised by feed() after the last frame has gone into the ring: its release pairs with the acquire of the
    // blocks, which, having seen it, find the ring complete, and may take an empty one for the end.
    std::atomic<bool> _isFed{false};
    std::atomic<uint64_t> _endTime{0}; // 0 until the last frame has been given; stands for itself
    std::atomic<uint64_t> _framesPlayed{0}, _underruns{0}; // statistics of the blocks
};
