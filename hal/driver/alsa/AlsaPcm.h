#pragma once

#include "AlsaFormat.h"
#include "HALDirection.h"

#include <array>
#include <memory>
#include <optional>
#include <poll.h>
#include <string>
#include <vector>

/// How a device is to run.
struct AlsaSetup {
    std::string pcmName;                ///< "hw:1,0"
    std::string deviceName;             ///< for messages
    std::array<uint32_t, 2> channels{}; ///< by HALDirection; 0: it does not have that direction
    uint32_t rate = 0;                  ///< Hz
    uint32_t frameCount = 0;            ///< of a cycle
    uint32_t periodCount = 3;           ///< cycles that the ring is long; fewer where it has no room
};

/// What one direction of a device can do.
struct AlsaAbilities {
    uint32_t channelCount = 0;
    std::vector<uint32_t> rates; ///< Hz, ascending
    uint32_t minFrames = 0;      ///< of a cycle
    uint32_t maxFrames = 0;
};

constexpr snd_pcm_stream_t alsaStream(HALDirection direction) noexcept
{
    return direction == HALDirection::Input ? SND_PCM_STREAM_CAPTURE : SND_PCM_STREAM_PLAYBACK;
}

/// One direction of a device, open. Frames go in and out through its ring, mapped or by read and write.
/// Threads:   one at a time.
/// Real time: where marked.
/// Fails:     with a negative errno: -EPIPE is an overload, -ESTRPIPE a suspend, -ENODEV a device that is gone.
class AlsaPcm {
public:
    /// Null, and `error`, when the device is gone, used by another program or not able to run like this.
    static std::unique_ptr<AlsaPcm> open(HALDirection direction, const AlsaSetup& setup, int& error);
    /// Asks a device that no one uses; none, and `error`, when it cannot be asked or has nothing that we can use.
    static std::optional<AlsaAbilities> probe(const std::string& name, HALDirection direction, int& error);
    /// What of `can` the driver can use.
    static std::optional<AlsaAbilities> usable(AlsaAbilities can);
    ~AlsaPcm();
    AlsaPcm(const AlsaPcm&) = delete;
    AlsaPcm& operator=(const AlsaPcm&) = delete;

    /// From now on prepare() and start() act on both. False when they cannot be linked.
    bool link(AlsaPcm& other) { return snd_pcm_link(_pcm, other._pcm) == 0; }
    int prepare();
    /// Fills the ring with periodCount cycles of silence.
    int fill() noexcept;
    int start();
    /// For poll(); the same until the end.
    const pollfd& descriptor() const noexcept { return _descriptor; }
    /// Cycles that the ring holds.
    uint32_t periodCount() const noexcept { return _periodCount; }

    /// Where the device's clock was at a moment.
    struct Stamp {
        uint64_t hostNanoseconds;
        uint64_t position; ///< frames captured or played since prepare()
    };

    /// The error in what poll() returned for the descriptor; 0 when there is none.
    int errorIn(short events) const noexcept;
    /// Whether a cycle's frames have been captured, or can be written without more than periodCount cycles waiting in
    /// the ring; or an error.
    int isReady() noexcept CX_REALTIME;
    Stamp stamp() noexcept CX_REALTIME;
    /// Moves one cycle's interleaved frames of as many channels as set up; null `samples` are silence.
    int transfer(float* samples) noexcept CX_REALTIME;

private:
    AlsaPcm(HALDirection direction, const AlsaSetup& setup)
        : _isCapture(direction == HALDirection::Input),
          _channels(setup.channels[static_cast<size_t>(direction)]), _frameCount(setup.frameCount)
    {}
    int _configure(HALDirection direction, const AlsaSetup& setup);
    int _configureStart();
    int _transferMapped(float* samples) noexcept;
    int _transferByCalls(float* samples) noexcept;
    void _convert(float* samples, std::byte* ring, size_t frameCount) const noexcept;

    snd_pcm_t* _pcm = nullptr;
    const bool _isCapture;
    const uint32_t _channels;
    const snd_pcm_uframes_t _frameCount; // of a cycle
    const AlsaFormat* _format = nullptr;
    bool _isMapped = false;
    uint32_t _ringChannels = 0;
    uint32_t _periodCount = 0;
    snd_pcm_uframes_t _ringFrames = 0;
    snd_pcm_uframes_t _neededFrames = 0; // that have to be available for a cycle
    uint64_t _transferred = 0;           // frames since prepare()
    std::vector<std::byte> _scratch;     // one cycle, where the ring is not mapped
    pollfd _descriptor{};
};
