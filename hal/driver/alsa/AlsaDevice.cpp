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
    : _card(card), _pcm(std::move(pcm)), _periodCount(periodCount), _wake(std::move(wake))
{}

// ---- What it is

bool AlsaDevice::_probe()
{
    bool isUnknown = false;
    for (const HALDirection direction : halDirections) {
        const auto place = static_cast<size_t>(direction);
        if (!_pcm.has[place] || _isProbed[place])
            continue;
        int error = 0;
        auto can = AlsaPcm::probe(_card->pcmName(_pcm.number), direction, error);
        // Asked once more after the next use; otherwise never, for to ask is a use.
        _isProbed[place] = error != -EBUSY && error != -EAGAIN && error != -EACCES;
        if (!_isProbed[place] && !_abilities[place])
            can = _card->abilitiesInUse(_pcm.number, direction);
        if (_isProbed[place] || can)
            _abilities[place] = std::move(can);
        isUnknown = isUnknown || (!_isProbed[place] && !_abilities[place]);
    }
    return !isUnknown && (_abilities[0] || _abilities[1]);
}

bool AlsaDevice::add(HALDriverSink& sink, const AlsaIdentity& identity, bool isOnly)
{
    if (!_probe())
        return false;
    _card->withControls([this](snd_ctl_t* card) { _controls.find(card, _pcm); });
    HALDeviceState state = _describe(identity, isOnly);
    if (state.sampleRates.empty())
        return false; // its directions have no rate in common
    _readControls(state);
    const std::scoped_lock lock(_stateMutex);
    _state = state;
    AudioObjectID deviceID = sink.deviceAdded(CXRef<AlsaDevice>(this), _state);
    if (deviceID == kAudioObjectUnknown) { // another unit with the same serial number
        _state.uid += "@" + identity.place;
        deviceID = sink.deviceAdded(CXRef<AlsaDevice>(this), _state);
    }
    _sink = deviceID == kAudioObjectUnknown ? nullptr : &sink;
    return _sink != nullptr;
}

/// What was known by its use alone is known for good when it is free.
void AlsaDevice::learn(const AlsaIdentity& identity, bool isOnly)
{
    const auto isKnown = [this](size_t place) { return _isProbed[place] || !_pcm.has[place]; };
    if ((isKnown(0) && isKnown(1)) || !_probe())
        return;
    const HALDeviceState described = _describe(identity, isOnly);
    _change([&](HALDeviceState& state) {
        for (const HALDirection direction : halDirections)
            state[direction].streams = described[direction].streams;
        state.sampleRates = described.sampleRates;
        state.bufferFrameSizeRange = described.bufferFrameSizeRange;
    });
}

HALDeviceState AlsaDevice::_describe(const AlsaIdentity& identity, bool isOnly) const
{
    HALDeviceState state;
    state.uid = "alsa:" + identity.key + ":" + std::to_string(_pcm.number);
    state.name = alsaDeviceName(identity, _pcm, isOnly);
    state.manufacturer = identity.manufacturer;
    state.modelUID = identity.modelUID;
    state.transportType = alsaTransportType(identity, _pcm);
    state.clockDomain = static_cast<uint32_t>(_card->number()) + 1;
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
    _card->withControls([&](snd_ctl_t*) {
        for (const HALDirection direction : halDirections)
            if (_abilities[static_cast<size_t>(direction)])
                _controls.read(direction, state[direction].channelCount(), state[direction]);
    });
}

void AlsaDevice::_readUse(HALDeviceState& state, bool isOurs)
{
    state.isRunningElsewhere = std::ranges::any_of(halDirections, [&](HALDirection direction) {
        const bool has = _abilities[static_cast<size_t>(direction)].has_value();
        return has && _card->isUsedElsewhere(_pcm.number, direction, isOurs);
    });
}

// ---- Reports

bool AlsaDevice::isAdded() const
{
    const std::scoped_lock lock(_stateMutex);
    return _sink != nullptr;
}

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

void AlsaDevice::setIdentity(const AlsaIdentity& identity, bool isOnly)
{
    _change([&](HALDeviceState& state) { state.name = alsaDeviceName(identity, _pcm, isOnly); });
}

void AlsaDevice::refresh(Part part)
{
    if (part == Part::Controls)
        _card->withControls([this](snd_ctl_t* card) { _controls.find(card, _pcm); });
    bool isRunning = false;
    bool isStalled = false;
    double ratio = 1.0;
    {
        const std::scoped_lock lock(_ioMutex);
        isRunning = _run != nullptr;
        isStalled = _run && _run->isStalled();
        ratio = _run ? _run->rateRatio() : 1.0;
    }
    _change([&](HALDeviceState& state) {
        if (part == Part::Run) {
            state.isStalled = isStalled;
            state.actualSampleRate = isRunning && ratio != 1.0 ? ratio * state.nominalSampleRate : 0.0;
        }
        if (part == Part::Run || part == Part::Use)
            _readUse(state, isRunning && !isStalled);
        else
            _readControls(state);
    });
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
    _hasNews = true;
    _wake();
    return status;
}

/// Starts the run that the state describes. _ioMutex is held.
HALStatus AlsaDevice::_start(HALDeadline deadline, AlsaRun::WhenRefused whenRefused)
{
    const HALDeviceState now = state();
    AlsaRunSetup setup{
        .pcmName = _card->pcmName(_pcm.number), .deviceName = now.name, .input = {}, .output = {}};
    setup.rate = static_cast<uint32_t>(std::lround(now.nominalSampleRate));
    setup.frameCount = now.bufferFrameSize;
    for (const HALDirection direction : halDirections)
        if (const uint32_t channels = now[direction].channelCount())
            (direction == HALDirection::Input ? setup.input : setup.output) =
                AlsaSetup{channels, setup.rate, setup.frameCount, _periodCount};
    _run = std::make_unique<AlsaRun>(setup, _card, _table, _timeline, [this] {
        _hasNews.store(true, std::memory_order_relaxed);
        _wake();
    });
    const HALStatus status = _run->start(deadline, whenRefused);
    if (status && whenRefused == AlsaRun::WhenRefused::End)
        _run.reset();
    return status && !_card->info() ? kAudioHardwareBadDeviceError : status;
}

void AlsaDevice::stopIO()
{
    {
        const std::scoped_lock lock(_ioMutex);
        _run.reset();
        _table = nullptr;
    }
    _hasNews = true;
    _wake();
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

HALStatus AlsaDevice::_control(const std::function<int(AlsaControls&)>& write)
{
    const int error = _card->withControls([&](snd_ctl_t*) { return write(_controls); });
    refresh(Part::Values);
    return statusOf(error);
}

HALStatus AlsaDevice::setVolume(HALDirection direction, uint32_t element, float scalar,
                                HALDeadline /*deadline*/)
{
    return _control([=](AlsaControls& controls) { return controls.setVolume(direction, element, scalar); });
}

HALStatus AlsaDevice::setMuted(HALDirection direction, bool muted, HALDeadline /*deadline*/)
{
    return _control([=](AlsaControls& controls) { return controls.setMuted(direction, muted); });
}

HALStatus AlsaDevice::setDataSource(HALDirection direction, uint32_t sourceID, HALDeadline /*deadline*/)
{
    return _control([=](AlsaControls& controls) { return controls.setDataSource(direction, sourceID); });
}
