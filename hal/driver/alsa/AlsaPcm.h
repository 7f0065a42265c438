#pragma once

#include "AlsaFormat.h"
#include "HALDirection.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <poll.h>
#include <string>
#include <vector>

/// The configuration in which a device runs.
struct AlsaSetup {
    std::string pcmName;                ///< "hw:1,0"
    std::string deviceName;             ///< for messages
    std::array<uint32_t, 2> channels{}; ///< by HALDirection; 0: the device does not have the direction
    uint32_t rate = 0;                  ///< Hz
    uint32_t frameCount = 0;            ///< frames per cycle
    uint32_t periodCount = 3;           ///< cycles that the ring holds; fewer if its maximum length is less
};

/// The abilities of one direction of a device.
struct AlsaAbilities {
    uint32_t channelCount = 0;
    std::vector<uint32_t> rates; ///< Hz, ascending
    uint32_t minFrames = 0;      ///< frames per cycle
    uint32_t maxRingFrames = 0;
    uint32_t maxFrames = 0; ///< frames per cycle; set by AlsaPcm::usable()

    /// The number of cycles of this length, at most `wanted`, that the ring holds.
    uint32_t periodCount(uint32_t wanted, uint32_t frameCount) const noexcept
    {
        return std::clamp(maxRingFrames / frameCount, 2U, wanted);
    }
};

constexpr snd_pcm_stream_t alsaStream(HALDirection direction) noexcept
{
    return direction == HALDirection::Input ? SND_PCM_STREAM_CAPTURE : SND_PCM_STREAM_PLAYBACK;
}

/// One direction of an open device. Frames are transferred through its ring buffer, mapped or by read and
/// write calls.
/// Threads:   one at a time.
/// Real time: where marked.
/// Fails:     with a negative errno: -EPIPE for an overload, -ESTRPIPE for a suspend, -ENODEV if the device
///            has disappeared.
class AlsaPcm {
public:
    /// Opens the device. Returns null and sets `error` if the device has disappeared, is used by another
    /// program or does not support `setup`.
    static std::unique_ptr<AlsaPcm> open(HALDirection direction, const AlsaSetup& setup, int& error);
    /// Reads the abilities of a device that is not in use. Returns nothing and sets `error` if it cannot be
    /// opened or has no configuration that the driver supports.
    static std::optional<AlsaAbilities> probe(const std::string& name, HALDirection direction, int& error);
    /// The part of `can` that the driver supports; nothing if there is none.
    static std::optional<AlsaAbilities> usable(AlsaAbilities can);
    ~AlsaPcm();
    AlsaPcm(const AlsaPcm&) = delete;
    AlsaPcm& operator=(const AlsaPcm&) = delete;

    /// Links both directions: prepare() and start() then act on both. Returns false if they cannot be linked.
    bool link(AlsaPcm& other) { return snd_pcm_link(_pcm, other._pcm) == 0; }
    int prepare();
    /// Fills the ring with periodCount cycles of silence.
    int fill() noexcept;
    int start();
    /// For poll(). Does not change.
    const pollfd& descriptor() const noexcept { return _descriptor; }
    /// The number of cycles that the ring holds.
    uint32_t periodCount() const noexcept { return _periodCount; }

    /// The position of the device's clock at a time.
    struct Stamp {
        uint64_t hostNanoseconds;
        uint64_t position; ///< frames captured or played since prepare()
    };

    /// The error in `events`, which poll() returned for the descriptor; 0 if there is none.
    int errorIn(short events) const noexcept;
    /// Returns 1 if a cycle's frames have been captured, or if a cycle can be written without more than
    /// periodCount cycles in the ring; 0 if not; or an error.
    int isReady() noexcept CX_REALTIME;
    Stamp stamp() noexcept CX_REALTIME;
    /// Transfers the interleaved frames of one cycle, with the channels of the setup. Null `samples` mean
    /// silence.
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
    const snd_pcm_uframes_t _frameCount; // frames per cycle
    const AlsaFormat* _format = nullptr;
    bool _isMapped = false;
    uint32_t _ringChannels = 0;
    uint32_t _periodCount = 0;
    snd_pcm_uframes_t _ringFrames = 0;
    snd_pcm_uframes_t _neededFrames = 0; // available frames required for a cycle
    uint64_t _transferred = 0;           // frames since prepare()
    std::vector<std::byte> _scratch;     // one cycle, if the ring is not mapped
    pollfd _descriptor{};
};
