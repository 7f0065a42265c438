#include "AlsaDevice.h"

#include "AlsaQuiet.h"
#include "Utf8.h"

#include <algorithm>
#include <cmath>

namespace {

HALStatus statusOf(int error)
{
    if (error == 0)
        return kAudioHardwareNoError;
    if (error == -ENOENT || error == -EPERM)
        return kAudioHardwareIllegalOperationError;
    return error == -ENODEV ? kAudioHardwareBadDeviceError : kAudioHardwareUnspecifiedError;
}

bool isScreen(const AlsaPcmInfo& pcm)
{
    const auto has = [](const std::string& text, const char* part) {
        return text.find(part) != std::string::npos;
    };
    return has(pcm.id, "HDMI") || has(pcm.name, "HDMI") || has(pcm.name, "DisplayPort");
}

} // namespace

CXRef<AlsaDevice> AlsaDevice::init(const CXRef<AlsaCard>& card, AlsaPcmInfo pcm, uint32_t periodCount,
                                   HALDriverSink& sink, std::function<void()> wake)
{
    return CXRef<AlsaDevice>::adopt(new AlsaDevice(card, std::move(pcm), periodCount, sink, std::move(wake)));
}

AlsaDevice::AlsaDevice(const CXRef<AlsaCard>& card, AlsaPcmInfo pcm, uint32_t periodCount,
                       HALDriverSink& sink, std::function<void()> wake)
    : _card(card), _pcm(std::move(pcm)),
      _periodCount(periodCount), _controls{AlsaControls(_pcm, HALDirection::Input),
                                           AlsaControls(_pcm, HALDirection::Output)},
      _runState{.changed = std::move(wake)}, _isProbed{!_pcm.has[0], !_pcm.has[1]}, _sink(&sink)
{}

// ---- State

HALDeviceState AlsaDevice::state() const
{
    const std::scoped_lock lock(_stateMutex);
    return _state;
}

bool AlsaDevice::isShortOf(std::string_view file) const
{
    const std::scoped_lock lock(_stateMutex);
    return std::ranges::find(_shortFiles, file) != _shortFiles.end();
}

bool AlsaDevice::refresh(bool isLast)
{
    const AlsaQuiet quiet;
    const std::scoped_lock lock(_stateMutex);
    const auto cardName = _card->name();
    if (!_sink || !cardName || !_probe(isLast))
        return !_isShort;
    HALDeviceState now = _state;
    _describe(*cardName, now);
    _readControls(now);
    if (now.sampleRates.empty()) // the directions have no common rate
        return !_isShort;
    _fit(now);
    if (!_isAdded)
        _add(std::move(now));
    else if (!(now == _state))
        _sink->deviceChanged(*this, _state = std::move(now));
    return !_isShort;
}

/// Reads the device's abilities as far as needed; returns whether they are known. _stateMutex is held.
bool AlsaDevice::_probe(bool isLast)
{
    bool isKnown = true;
    _isShort = false;
    for (const HALDirection direction : halDirections) {
        const auto place = static_cast<size_t>(direction);
        // A run keeps its directions: an absent one that appears meanwhile is added after it.
        if (_isProbed[place] || (!_abilities[place] && _runState.isPlanned))
            continue;
        int error = 0;
        auto can = AlsaPcm::probe(_card->pcmName(_pcm.number), direction, error);
        const bool isShort = alsaIsShortage(error, _card->pcmFile(_pcm.number, direction));
        const bool isAbsent =
            isLast && isShort && alsaIsAbsence(error) && !_abilities[place] && _abilities[place ^ 1U];
        const bool hasNoFile = !isShort && alsaIsAbsence(error); // yet: a container may be given it later
        _isShort = _isShort || (isShort && !isAbsent);
        _shortFiles[place] = isShort ? _card->pcmFile(_pcm.number, direction) : "";
        // Probed again only if it could not be opened for now, because probing opens the device.
        _isProbed[place] =
            isAbsent || (error != -EBUSY && error != -EAGAIN && error != -EACCES && !isShort && !hasNoFile);
        if (!_isProbed[place])
            can = _abilities[place] || hasNoFile ? _abilities[place]
                                                 : _card->abilitiesInUse(_pcm.number, direction);
        _abilities[place] = std::move(can);
        isKnown = isKnown && (_isProbed[place] || hasNoFile || _abilities[place]);
    }
    return _isAdded || (isKnown && (_abilities[0] || _abilities[1]));
}

/// Updates everything in `state` that may have changed, except controls. _stateMutex is held.
void AlsaDevice::_describe(const std::string& cardName, HALDeviceState& state) const
{
    const std::string& own = _pcm.name.empty() ? _pcm.id : _pcm.name;
    state.name = _pcm.isOnly || own.empty() ? cardName : cardName + " " + dxr::utf8Replaced(own);
    state.isStalled = _runState.isStalled;
    state.isRunningElsewhere = false;
    const double ratio = _runState.rateRatio;
    state.actualSampleRate = ratio != 1.0 ? ratio * state.nominalSampleRate : 0.0;
    uint32_t minFrames = 0;
    uint32_t maxFrames = UINT32_MAX;
    for (const HALDirection direction : halDirections) {
        const auto& can = _abilities[static_cast<size_t>(direction)];
        const auto& other = _abilities[static_cast<size_t>(direction) ^ 1U];
        if (!can)
            continue;
        state[direction].streams = {{.channelCount = can->channelCount}};
        if (_card->isUsedElsewhere(_pcm.number, direction, _runState.isOpen))
            state.isRunningElsewhere = true;
        minFrames = std::max(minFrames, can->minFrames);
        maxFrames = std::min(maxFrames, can->maxFrames);
        state.sampleRates.clear();
        for (const uint32_t rate : can->rates)
            if (!other || std::ranges::find(other->rates, rate) != other->rates.end())
                state.sampleRates.push_back({static_cast<double>(rate), static_cast<double>(rate)});
    }
    state.bufferFrameSizeRange = {static_cast<double>(minFrames),
                                  static_cast<double>(std::max(minFrames, maxFrames))};
}

void AlsaDevice::_readControls(HALDeviceState& state)
{
    _card->withControls([&](const AlsaMixer& mixer) {
        for (const HALDirection direction : halDirections)
            if (const uint32_t channels = state[direction].channelCount())
                _controls[static_cast<size_t>(direction)].read(mixer, channels, state[direction]);
    });
}

/// An output is played after the cycles in the ring, not only after one. _stateMutex is held.
void AlsaDevice::_setSafetyOffset(HALDeviceState& state) const
{
    const uint32_t frames = state.bufferFrameSize;
    if (const auto& can = _abilities[static_cast<size_t>(HALDirection::Output)])
        state[HALDirection::Output].safetyOffsetFrames =
            (can->periodCount(_periodCount, frames) - 2) * frames;
}

/// Keeps the rate and the frames per cycle as far as the directions allow. _stateMutex is held.
void AlsaDevice::_fit(HALDeviceState& state) const
{
    if (!state.canSampleRate(state.nominalSampleRate))
        state.nominalSampleRate = state.sampleRates.back().maximum;
    state.bufferFrameSize =
        std::clamp(state.bufferFrameSize, static_cast<uint32_t>(state.bufferFrameSizeRange.minimum),
                   static_cast<uint32_t>(state.bufferFrameSizeRange.maximum));
    _setSafetyOffset(state);
}

/// _stateMutex is held.
void AlsaDevice::_add(HALDeviceState state)
{
    const AlsaIdentity& identity = _card->identity();
    state.uid = "alsa:" + identity.key + ":" + std::to_string(_pcm.number);
    state.manufacturer = identity.manufacturer;
    state.modelUID = identity.modelUID;
    state.transportType = isScreen(_pcm) ? kAudioDeviceTransportTypeHDMI : identity.transportType;
    state.clockDomain = static_cast<uint32_t>(_card->number) + 1;
    AudioObjectID deviceID = _sink->deviceAdded(CXRef<AlsaDevice>(this), state);
    if (deviceID == kAudioObjectUnknown) { // another unit with the same serial number
        state.uid += "@" + identity.place;
        deviceID = _sink->deviceAdded(CXRef<AlsaDevice>(this), state);
    }
    _isAdded = deviceID != kAudioObjectUnknown;
    if (_isAdded)
        _state = std::move(state);
}

bool AlsaDevice::detach()
{
    _isGone = true;
    stopIO();
    const std::scoped_lock lock(_stateMutex);
    _sink = nullptr;
    return std::exchange(_isAdded, false);
}

// ---- IO

HALStatus AlsaDevice::startIO(const CXRef<HALIOProcTable>& table, HALDeadline deadline)
{
    if (_isGone)
        return kAudioHardwareBadDeviceError;
    const std::scoped_lock lock(_ioMutex);
    if (_isGone)
        return kAudioHardwareBadDeviceError;
    _table = table;
    const HALStatus status = _start(deadline, AlsaRun::WhenRefused::End);
    if (status)
        _table = nullptr;
    return status;
}

void AlsaDevice::stopIO()
{
    const std::scoped_lock lock(_ioMutex);
    _run.reset();
    _table = nullptr;
}

/// Starts a run with the rate, cycle and channels of the state. _ioMutex is held.
HALStatus AlsaDevice::_start(HALDeadline deadline, AlsaRun::WhenRefused whenRefused)
{
    const AlsaQuiet quiet;
    _runState.isPlanned = true; // before the state is read
    const HALDeviceState now = state();
    const AlsaSetup setup{
        .pcmName = _card->pcmName(_pcm.number),
        .deviceName = now.name,
        .channels = {now.directions[0].channelCount(), now.directions[1].channelCount()},
        .rate = static_cast<uint32_t>(std::lround(now.nominalSampleRate)),
        .frameCount = now.bufferFrameSize,
        .periodCount = _periodCount,
    };
    _run = std::make_unique<AlsaRun>(setup, _card, _table, _runState);
    const HALStatus status = _run->start(deadline, whenRefused);
    if (status && whenRefused == AlsaRun::WhenRefused::End)
        _run.reset();
    return status && !_card->name() ? kAudioHardwareBadDeviceError : status;
}

HALStatus AlsaDevice::setNominalSampleRate(double rate, HALDeadline deadline)
{
    return _retime(rate, 0, deadline);
}

HALStatus AlsaDevice::setBufferFrameSize(uint32_t frameCount, HALDeadline deadline)
{
    return _retime(0.0, frameCount, deadline);
}

/// Changes the rate and the frames per cycle; 0 keeps the present value. Restarts a running device.
HALStatus AlsaDevice::_retime(double rate, uint32_t frameCount, HALDeadline deadline)
{
    const auto set = [this](double newRate, uint32_t newFrameCount) {
        const std::scoped_lock lock(_stateMutex);
        _state.nominalSampleRate = newRate;
        _state.bufferFrameSize = newFrameCount;
        _setSafetyOffset(_state);
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
    if (_isAdded)
        _sink->deviceChanged(*this, _state);
    return status;
}

// ---- Controls

HALStatus AlsaDevice::_control(HALDirection direction, const ControlWrite& write)
{
    const AlsaQuiet quiet;
    const int error = _card->withControls(
        [&](const AlsaMixer& mixer) { return write(_controls[static_cast<size_t>(direction)], mixer); });
    refresh();
    return statusOf(error);
}

HALStatus AlsaDevice::setVolume(HALDirection direction, uint32_t element, float scalar,
                                HALDeadline /*deadline*/)
{
    return _control(direction,
                    [=](auto& controls, auto& mixer) { return controls.setVolume(mixer, element, scalar); });
}

HALStatus AlsaDevice::setMuted(HALDirection direction, bool muted, HALDeadline /*deadline*/)
{
    return _control(direction, [=](auto& controls, auto& mixer) { return controls.setMuted(mixer, muted); });
}

HALStatus AlsaDevice::setDataSource(HALDirection direction, uint32_t sourceID, HALDeadline /*deadline*/)
{
    return _control(direction,
                    [=](auto& controls, auto& mixer) { return controls.setDataSource(mixer, sourceID); });
}
