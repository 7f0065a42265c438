#include "AlsaPcm.h"

#include "HostClock.h"

#include <algorithm>

namespace {

constexpr std::array<uint32_t, 13> usualRates{8000,  11025, 16000,  22050,  32000,  44100, 48000,
                                              88200, 96000, 176400, 192000, 352800, 384000};
constexpr uint32_t minCycleFrames = 16;
constexpr uint32_t maxCycleFrames = 8192;
constexpr uint32_t usualChannels = 8; // for a device that supports any number
constexpr uint32_t maxChannels = 256;
constexpr uint64_t maxStampAge = 1'000'000'000; // nanoseconds; older stamps are invalid

/// The first error of a sequence of calls, which ends at that error.
class Calls {
public:
    /// Stores the error in `result`, if any; returns whether `result` is an error.
    bool failed(int result) noexcept { return (_error = std::min(result, 0)) < 0; }
    int error() const noexcept { return _error; }

private:
    int _error = 0;
};

/// Opens a direction of a device and restricts its configurations to those that the driver supports.
int openUsable(const std::string& name, HALDirection direction, snd_pcm_t*& pcm,
               snd_pcm_hw_params_t* hardware, bool& isMapped, const AlsaFormat*& format)
{
    Calls calls;
    if (calls.failed(snd_pcm_open(&pcm, name.c_str(), alsaStream(direction), SND_PCM_NONBLOCK)) ||
        calls.failed(snd_pcm_hw_params_any(pcm, hardware)))
        return calls.error();
    isMapped = snd_pcm_hw_params_set_access(pcm, hardware, SND_PCM_ACCESS_MMAP_INTERLEAVED) == 0;
    if (!isMapped && calls.failed(snd_pcm_hw_params_set_access(pcm, hardware, SND_PCM_ACCESS_RW_INTERLEAVED)))
        return calls.error();
    for (const AlsaFormat& each : AlsaFormat::all) {
        format = &each;
        if (snd_pcm_hw_params_set_format(pcm, hardware, each.number) == 0)
            return 0;
    }
    return -EINVAL;
}

} // namespace

// ---- Opening

std::unique_ptr<AlsaPcm> AlsaPcm::open(HALDirection direction, const AlsaSetup& setup, int& error)
{
    std::unique_ptr<AlsaPcm> pcm(new AlsaPcm(direction, setup));
    error = pcm->_configure(direction, setup);
    return error ? nullptr : std::move(pcm);
}

AlsaPcm::~AlsaPcm()
{
    if (!_pcm)
        return;
    snd_pcm_drop(_pcm);
    snd_pcm_close(_pcm);
}

/// Configures the period that is nearest to one cycle. It need not be equal: a cycle begins when its frames
/// are available.
int AlsaPcm::_configure(HALDirection direction, const AlsaSetup& setup)
{
    snd_pcm_hw_params_t* hardware = nullptr;
    snd_pcm_hw_params_alloca(&hardware);
    snd_pcm_uframes_t period = _frameCount;
    snd_pcm_uframes_t ring = _frameCount * setup.periodCount;
    int side = 0;
    Calls calls;
    // The number of channels may differ from that of probe(), because of other programs that use the device.
    _ringChannels = _channels;
    if (calls.failed(openUsable(setup.pcmName, direction, _pcm, hardware, _isMapped, _format)) ||
        calls.failed(snd_pcm_hw_params_set_rate(_pcm, hardware, setup.rate, 0)) ||
        calls.failed(snd_pcm_hw_params_set_channels_near(_pcm, hardware, &_ringChannels)) ||
        calls.failed(snd_pcm_hw_params_set_period_size_near(_pcm, hardware, &period, &side)) ||
        calls.failed(snd_pcm_hw_params_set_buffer_size_near(_pcm, hardware, &ring)) ||
        calls.failed(snd_pcm_hw_params(_pcm, hardware)) ||
        calls.failed(snd_pcm_hw_params_get_buffer_size(hardware, &_ringFrames)))
        return calls.error();
    _periodCount =
        static_cast<uint32_t>(std::min<snd_pcm_uframes_t>(setup.periodCount, _ringFrames / _frameCount));
    if (_periodCount < 2 || _ringChannels == 0 || _ringChannels > maxChannels)
        return -EINVAL;
    // If the ring is longer than its cycles, the rest stays empty.
    _neededFrames = _isCapture ? _frameCount : _ringFrames - (_periodCount - 1) * _frameCount;
    _scratch.resize(_isMapped ? 0 : _frameCount * _ringChannels * _format->sampleBytes);
    if (calls.failed(_configureStart()))
        return calls.error();
    return snd_pcm_poll_descriptors(_pcm, &_descriptor, 1) == 1 ? 0 : -EINVAL;
}

/// Configures the device to start in start() and to stop on an overload. With a stop threshold beyond the
/// ring's length, an overload would go unnoticed.
int AlsaPcm::_configureStart()
{
    snd_pcm_sw_params_t* software = nullptr;
    snd_pcm_sw_params_alloca(&software);
    snd_pcm_uframes_t boundary = 0;
    Calls calls;
    if (calls.failed(snd_pcm_sw_params_current(_pcm, software)) ||
        calls.failed(snd_pcm_sw_params_get_boundary(software, &boundary)) ||
        calls.failed(snd_pcm_sw_params_set_start_threshold(_pcm, software, boundary)) ||
        calls.failed(snd_pcm_sw_params_set_stop_threshold(_pcm, software, _ringFrames)) ||
        calls.failed(snd_pcm_sw_params_set_avail_min(_pcm, software, _neededFrames)) ||
        calls.failed(snd_pcm_sw_params_set_tstamp_mode(_pcm, software, SND_PCM_TSTAMP_ENABLE)))
        return calls.error();
    snd_pcm_sw_params_set_tstamp_type(_pcm, software, SND_PCM_TSTAMP_TYPE_MONOTONIC); // else see stamp()
    return std::min(snd_pcm_sw_params(_pcm, software), 0);
}

std::optional<AlsaAbilities> AlsaPcm::probe(const std::string& name, HALDirection direction, int& error)
{
    snd_pcm_t* pcm = nullptr;
    snd_pcm_hw_params_t* hardware = nullptr;
    snd_pcm_hw_params_alloca(&hardware);
    bool isMapped = false;
    const AlsaFormat* format = nullptr;
    error = openUsable(name, direction, pcm, hardware, isMapped, format);
    const std::unique_ptr<snd_pcm_t, int (*)(snd_pcm_t*)> closer(pcm, snd_pcm_close);
    AlsaAbilities can;
    unsigned minChannels = 0;
    snd_pcm_uframes_t minPeriod = 0, maxRing = 0;
    int side = 0;
    Calls calls;
    if (calls.failed(error) || calls.failed(snd_pcm_hw_params_get_channels_min(hardware, &minChannels)) ||
        calls.failed(snd_pcm_hw_params_get_channels_max(hardware, &can.channelCount)) ||
        calls.failed(snd_pcm_hw_params_get_period_size_min(hardware, &minPeriod, &side)) ||
        calls.failed(snd_pcm_hw_params_get_buffer_size_max(hardware, &maxRing))) {
        error = calls.error();
        return std::nullopt;
    }
    std::ranges::copy_if(usualRates, std::back_inserter(can.rates), [&](uint32_t rate) {
        return snd_pcm_hw_params_test_rate(pcm, hardware, rate, 0) == 0;
    });
    if (can.channelCount > usualChannels)
        can.channelCount = std::max(minChannels, usualChannels);
    can.minFrames = static_cast<uint32_t>(std::min<snd_pcm_uframes_t>(minPeriod, UINT32_MAX));
    can.maxRingFrames = static_cast<uint32_t>(std::min<snd_pcm_uframes_t>(maxRing, UINT32_MAX));
    std::optional<AlsaAbilities> found = usable(can);
    error = found ? 0 : -EINVAL;
    return found;
}

std::optional<AlsaAbilities> AlsaPcm::usable(AlsaAbilities can)
{
    can.minFrames = std::max(can.minFrames, minCycleFrames);
    can.maxFrames = std::min(can.maxRingFrames / 2, maxCycleFrames);
    std::erase_if(can.rates,
                  [](uint32_t rate) { return std::ranges::find(usualRates, rate) == usualRates.end(); });
    const bool isUsable = can.channelCount > 0 && can.channelCount <= maxChannels && !can.rates.empty() &&
                          can.minFrames <= can.maxFrames;
    return isUsable ? std::optional(can) : std::nullopt;
}

// ---- Running

int AlsaPcm::prepare()
{
    snd_pcm_drop(_pcm); // it may still be running after an error of the other direction
    return std::min(snd_pcm_prepare(_pcm), 0);
}

int AlsaPcm::fill() noexcept
{
    _transferred = 0;
    for (uint32_t cycle = 0; !_isCapture && cycle < _periodCount; ++cycle)
        if (const int error = transfer(nullptr))
            return error;
    return 0;
}

int AlsaPcm::start()
{
    return std::min(snd_pcm_start(_pcm), 0);
}

int AlsaPcm::errorIn(short events) const noexcept
{
    // For a device that has disappeared the kernel may report only this event: the state still reads as
    // running.
    if ((events & (POLLNVAL | POLLHUP)) != 0)
        return -ENODEV;
    if ((events & POLLERR) == 0)
        return 0;
    switch (snd_pcm_state(_pcm)) {
    case SND_PCM_STATE_XRUN:
        return -EPIPE;
    case SND_PCM_STATE_SUSPENDED:
        return -ESTRPIPE;
    case SND_PCM_STATE_DISCONNECTED:
        return -ENODEV;
    default:
        return -EIO;
    }
}

int AlsaPcm::isReady() noexcept
{
    const snd_pcm_sframes_t available = snd_pcm_avail_update(_pcm);
    if (available < 0)
        return static_cast<int>(available);
    if (static_cast<snd_pcm_uframes_t>(available) > _ringFrames)
        return -EPIPE;
    return static_cast<snd_pcm_uframes_t>(available) >= _neededFrames ? 1 : 0;
}

AlsaPcm::Stamp AlsaPcm::stamp() noexcept
{
    snd_pcm_uframes_t available = 0;
    snd_htimestamp_t time{};
    const uint64_t now = dxr::HostClock::nowTicks();
    const int error = snd_pcm_htimestamp(_pcm, &available, &time);
    uint64_t stamp = static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
    // Some drivers have no time stamps, or stamps of another clock.
    if (error < 0 || stamp > now + maxStampAge || stamp + maxStampAge < now)
        stamp = now;
    available = std::min(available, _ringFrames);
    const uint64_t inRing = _isCapture ? available : _ringFrames - available;
    return {stamp, _isCapture ? _transferred + inRing : _transferred - std::min(_transferred, inRing)};
}

int AlsaPcm::transfer(float* samples) noexcept
{
    const int error = _isMapped ? _transferMapped(samples) : _transferByCalls(samples);
    _transferred += error ? 0 : _frameCount;
    return error;
}

void AlsaPcm::_convert(float* samples, std::byte* ring, size_t frameCount) const noexcept
{
    if (_isCapture)
        _format->decode(ring, _ringChannels, samples, _channels, frameCount);
    else
        _format->encode(samples, _channels, ring, _ringChannels, frameCount);
}

int AlsaPcm::_transferMapped(float* samples) noexcept
{
    for (snd_pcm_uframes_t left = _frameCount; left > 0;) {
        const snd_pcm_channel_area_t* areas = nullptr;
        snd_pcm_uframes_t offset = 0;
        snd_pcm_uframes_t count = left;
        if (const int error = snd_pcm_mmap_begin(_pcm, &areas, &offset, &count); error < 0)
            return error;
        if (count == 0 || count > left)
            return -EPIPE;
        auto* const ring =
            static_cast<std::byte*>(areas[0].addr) + areas[0].first / 8 + offset * (areas[0].step / 8);
        _convert(samples, ring, count);
        const snd_pcm_sframes_t done = snd_pcm_mmap_commit(_pcm, offset, count);
        if (done < 0 || static_cast<snd_pcm_uframes_t>(done) != count)
            return done < 0 ? static_cast<int>(done) : -EPIPE;
        samples = samples ? samples + count * _channels : nullptr;
        left -= count;
    }
    return 0;
}

int AlsaPcm::_transferByCalls(float* samples) noexcept
{
    if (!_isCapture)
        _convert(samples, _scratch.data(), _frameCount);
    for (snd_pcm_uframes_t moved = 0; moved < _frameCount;) {
        std::byte* const place = _scratch.data() + moved * _ringChannels * _format->sampleBytes;
        const snd_pcm_uframes_t left = _frameCount - moved;
        const snd_pcm_sframes_t count =
            _isCapture ? snd_pcm_readi(_pcm, place, left) : snd_pcm_writei(_pcm, place, left);
        if (count <= 0) // unexpected: isReady() has found room
            return count < 0 && count != -EAGAIN ? static_cast<int>(count) : -EPIPE;
        moved += std::min(static_cast<snd_pcm_uframes_t>(count), left);
    }
    if (_isCapture)
        _convert(samples, _scratch.data(), _frameCount);
    return 0;
}
