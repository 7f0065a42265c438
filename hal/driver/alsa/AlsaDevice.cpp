#include "AlsaDevice.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr uint32_t usualRate = 48000; // Hz
constexpr uint32_t usualFrames = 512;

HALStatus statusOf(int error)
{
    if (error == 0)
        return kAudioHardwareNoError;
    if (error == -ENOENT || error == -EPERM)
        return kAudioHardwareIllegalOperationError;
    return error == -ENODEV ? kAudioHardwareBadDeviceError : kAudioHardwareUnspecifiedError;
}

} // namespace

CXRef<AlsaDevice> AlsaDevice::init(const CXRef<AlsaCard>& card, AlsaPcmInfo pcm, uint32_t periodCount,
                                   std::function<void()> wake)
{
    return CXRef<AlsaDevice>::adopt(new AlsaDevice(card, std::move(pcm), periodCount, std::move(wake)));
}

AlsaDevice::AlsaDevice(const CXRef<AlsaCard>& card, AlsaPcmInfo pcm, uint32_t periodCount,
                       std::function<void()> wake)
    : _card(card), _pcm(pcm), _periodCount(periodCount),
      _wake(std::move(wake)), _isProbed{!pcm.has[0], !pcm.has[1]}, _controls(std::move(pcm))
{}

// ---- What it is

bool AlsaDevice::_probe()
{
    bool isKnown = true;
    for (const HALDirection direction : halDirections) {
        const auto place = static_cast<size_t>(direction);
        if (_isProbed[place])
            continue;
        int error = 0;
        auto can = AlsaPcm::probe(_card->pcmName(_pcm.number), direction, error);
        // Asked once more after the next use; otherwise never, for to ask is a use.
        _isProbed[place] = error != -EBUSY && error != -EAGAIN && error != -EACCES;
        if (!_isProbed[place])
            can = _abilities[place] ? _abilities[place] : _card->abilitiesInUse(_pcm.number, direction);
        _abilities[place] = std::move(can);
        isKnown = isKnown && (_isProbed[place] || _abilities[place]);
    }
    return isKnown && (_abilities[0] || _abilities[1]);
}

bool AlsaDevice::update(HALDriverSink& sink)
{
    const auto identity = _card->identity();
    if (!identity || !_probe())
        return false;
    HALDeviceState described = _describe(*identity);
    if (described.sampleRates.empty())
        return false; // its directions have no rate in common
    described.isRunningElsewhere = _isUsedElsewhere(_isRunning());
    _change([&](HALDeviceState& state) {
        state.name = described.name;
        for (const HALDirection direction : halDirections)
            state[direction].streams = described[direction].streams;
        state.sampleRates = described.sampleRates;
        state.bufferFrameSizeRange = described.bufferFrameSizeRange;
        state.isRunningElsewhere = described.isRunningElsewhere;
    });
    const std::scoped_lock lock(_stateMutex);
    if (!_sink)
        _add(sink, *identity, described);
    return _sink != nullptr;
}

/// _stateMutex is held.
void AlsaDevice::_add(HALDriverSink& sink, const AlsaIdentity& identity, HALDeviceState state)
{
    _readControls(state);
    _state = std::move(state);
    AudioObjectID deviceID = sink.deviceAdded(CXRef<AlsaDevice>(this), _state);
    if (deviceID == kAudioObjectUnknown) { // another unit with the same serial number
        _state.uid += "@" + identity.place;
        deviceID = sink.deviceAdded(CXRef<AlsaDevice>(this), _state);
    }
    _sink = deviceID == kAudioObjectUnknown ? nullptr : &sink;
}

HALDeviceState AlsaDevice::_describe(const AlsaIdentity& identity) const
{
    HALDeviceState state;
    state.uid = "alsa:" + identity.key + ":" + std::to_string(_pcm.number);
    state.name = alsaDeviceName(identity, _pcm);
    state.manufacturer = identity.manufacturer;
    state.modelUID = identity.modelUID;
    state.transportType = alsaTransportType(identity, _pcm);
    state.clockDomain = static_cast<uint32_t>(_card->number) + 1;
    std::vector<uint32_t> rates;
    uint32_t minFrames = 0;
    uint32_t maxFrames = UINT32_MAX;
    bool isFirst = true;
    for (const HALDirection direction : halDirections) {
        const auto& can = _abilities[static_cast<size_t>(direction)];
        if (!can)
            continue;
        state[direction].streams = {{.channelCount = can->channelCount}};
        minFrames = std::max(minFrames, can->minFrames);
        maxFrames = std::min(maxFrames, can->maxFrames);
        if (std::exchange(isFirst, false))
            rates = can->rates;
        std::erase_if(rates,
                      [&](uint32_t rate) { return std::ranges::find(can->rates, rate) == can->rates.end(); });
    }
    for (const uint32_t rate : rates)
        state.sampleRates.push_back({static_cast<double>(rate), static_cast<double>(rate)});
    if (!state.canSampleRate(usualRate) && !rates.empty())
        state.nominalSampleRate = rates.back();
    state.bufferFrameSizeRange = {static_cast<double>(minFrames),
                                  static_cast<double>(std::max(minFrames, maxFrames))};
    state.bufferFrameSize = std::clamp(usualFrames, minFrames, std::max(minFrames, maxFrames));
    return state;
}

void AlsaDevice::_readControls(HALDeviceState& state)
{
    _card->withControls([&](const AlsaMixer& mixer) {
        for (const HALDirection direction : halDirections)
            if (const uint32_t channels = state[direction].channelCount())
                _controls.read(mixer, direction, channels, state[direction]);
    });
}

bool AlsaDevice::_isUsedElsewhere(bool isOurs)
{
    return std::ranges::any_of(halDirections, [&](HALDirection direction) {
        const bool has = _abilities[static_cast<size_t>(direction)].has_value();
        return has && _card->isUsedElsewhere(_pcm.number, direction, isOurs);
    });
}

// ---- Reports

HALDeviceState AlsaDevice::state() const
{
    const std::scoped_lock lock(_stateMutex);
    return _state;
}

/// Reports the state as `change` makes it.
void AlsaDevice::_change(const std::function<void(HALDeviceState&)>& change)
{
    const std::scoped_lock lock(_stateMutex);
    const HALDeviceState before = _state;
    change(_state);
    if (_sink && !(_state == before))
        _sink->deviceChanged(*this, _state);
}

void AlsaDevice::refreshControls()
{
    _change([this](HALDeviceState& state) { _readControls(state); });
}

void AlsaDevice::refreshRun()
{
    if (!_hasRunChanged.exchange(false, std::memory_order_relaxed))
        return;
    bool isStalled = false;
    double ratio = 1.0;
    {
        const std::scoped_lock lock(_ioMutex);
        isStalled = _run && _run->isStalled();
        ratio = _run ? _run->rateRatio() : 1.0;
    }
    const bool isUsedElsewhere = _isUsedElsewhere(_isRunning());
    _change([&](HALDeviceState& state) {
        state.isStalled = isStalled;
        state.actualSampleRate = ratio != 1.0 ? ratio * state.nominalSampleRate : 0.0;
        state.isRunningElsewhere = isUsedElsewhere;
    });
}

/// Whether this process has it open.
bool AlsaDevice::_isRunning() const
{
    const std::scoped_lock lock(_ioMutex);
    return _run && !_run->isStalled();
}

void AlsaDevice::remove()
{
    detach();
    HALDriverSink* sink = nullptr;
    {
        const std::scoped_lock lock(_stateMutex);
        sink = std::exchange(_sink, nullptr);
    }
    if (sink)
        sink->deviceRemoved(*this);
}

void AlsaDevice::detach()
{
    const std::scoped_lock lock(_ioMutex);
    _isGone = true;
    _run.reset();
}

// ---- IO

HALStatus AlsaDevice::startIO(const CXRef<HALIOProcTable>& table, HALDeadline deadline)
{
    HALStatus status = kAudioHardwareBadDeviceError;
    {
        const std::scoped_lock lock(_ioMutex);
        if (!_isGone) {
            _table = table;
            status = _start(deadline, AlsaRun::WhenRefused::End);
            if (status)
                _table = nullptr;
        }
    }
    _runChanged();
    return status;
}

/// On the IO thread, too.
void AlsaDevice::_runChanged()
{
    _hasRunChanged.store(true, std::memory_order_relaxed); // read after the wake-up
    _wake();
}

/// Starts the run that the state describes. _ioMutex is held.
HALStatus AlsaDevice::_start(HALDeadline deadline, AlsaRun::WhenRefused whenRefused)
{
    const HALDeviceState now = state();
    const AlsaRunSetup setup{
        .pcmName = _card->pcmName(_pcm.number),
        .deviceName = now.name,
        .channels = {now.directions[0].channelCount(), now.directions[1].channelCount()},
        .rate = static_cast<uint32_t>(std::lround(now.nominalSampleRate)),
        .frameCount = now.bufferFrameSize,
        .periodCount = _periodCount,
    };
    _run = std::make_unique<AlsaRun>(setup, _card, _table, _timeline, [this] { _runChanged(); });
    const HALStatus status = _run->start(deadline, whenRefused);
    if (status && whenRefused == AlsaRun::WhenRefused::End)
        _run.reset();
    return status && !_card->identity() ? kAudioHardwareBadDeviceError : status;
}

void AlsaDevice::stopIO()
{
    {
        const std::scoped_lock lock(_ioMutex);
        _run.reset();
        _table = nullptr;
    }
    _runChanged();
}

HALStatus AlsaDevice::setNominalSampleRate(double rate, HALDeadline deadline)
{
    return _retime(rate, 0, deadline);
}

HALStatus AlsaDevice::setBufferFrameSize(uint32_t frameCount, HALDeadline deadline)
{
    return _retime(0.0, frameCount, deadline);
}

/// Changes the rate and the frames of a cycle; 0 leaves a value as it is. A running device is restarted.
HALStatus AlsaDevice::_retime(double rate, uint32_t frameCount, HALDeadline deadline)
{
    const auto set = [this](double newRate, uint32_t newFrameCount) {
        const std::scoped_lock lock(_stateMutex);
        _state.nominalSampleRate = newRate;
        _state.bufferFrameSize = newFrameCount;
    };
    HALStatus status = kAudioHardwareNoError;
    {
        const std::scoped_lock lock(_ioMutex);
        if (_isGone)
            return kAudioHardwareBadDeviceError;
        const HALDeviceState before = state();
        set(rate != 0.0 ? rate : before.nominalSampleRate, frameCount ? frameCount : before.bufferFrameSize);
        if (std::exchange(_run, nullptr)) {
            status = _start(deadline, AlsaRun::WhenRefused::End);
            if (status) {
                set(before.nominalSampleRate, before.bufferFrameSize);
                _start(deadline, AlsaRun::WhenRefused::Retry);
            }
        }
    }
    const std::scoped_lock lock(_stateMutex);
    _state.actualSampleRate = 0.0;
    if (_sink)
        _sink->deviceChanged(*this, _state);
    return status;
}

// ---- Controls

HALStatus AlsaDevice::_control(const std::function<int(const AlsaMixer&)>& write)
{
    const int error = _card->withControls(write);
    refreshControls();
    return statusOf(error);
}

HALStatus AlsaDevice::setVolume(HALDirection direction, uint32_t element, float scalar,
                                HALDeadline /*deadline*/)
{
    return _control(
        [=, this](auto& mixer) { return _controls.setVolume(mixer, direction, element, scalar); });
}

HALStatus AlsaDevice::setMuted(HALDirection direction, bool muted, HALDeadline /*deadline*/)
{
    return _control([=, this](auto& mixer) { return _controls.setMuted(mixer, direction, muted); });
}

HALStatus AlsaDevice::setDataSource(HALDirection direction, uint32_t sourceID, HALDeadline /*deadline*/)
{
    return _control([=, this](auto& mixer) { return _controls.setDataSource(mixer, direction, sourceID); });
}
