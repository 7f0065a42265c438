#include "AggregateDevice.h"

#include <algorithm>
#include <cmath>

namespace {

/// Whether both go by one clock.
bool shareClock(const HALDeviceState& a, const HALDeviceState& b)
{
    return a.clockDomain != 0 && a.clockDomain == b.clockDomain;
}

bool hasStreams(const HALDeviceState& state)
{
    return std::ranges::any_of(state.directions,
                               [](const HALDirectionState& each) { return !each.streams.empty(); });
}

/// The rates within both lists.
std::vector<AudioValueRange> commonRates(const std::vector<AudioValueRange>& a,
                                         const std::vector<AudioValueRange>& b)
{
    std::vector<AudioValueRange> common;
    for (const AudioValueRange& one : a)
        for (const AudioValueRange& other : b) {
            const AudioValueRange both{std::max(one.minimum, other.minimum),
                                       std::min(one.maximum, other.maximum)};
            if (both.minimum <= both.maximum && std::ranges::find(common, both) == common.end())
                common.push_back(both);
        }
    return common;
}

} // namespace

CXRef<AggregateDevice> AggregateDevice::initWithDescription(AggregateHost& host,
                                                            AggregateDescription description)
{
    return CXRef<AggregateDevice>::adopt(new AggregateDevice(host, std::move(description)));
}

AggregateDevice::AggregateDevice(AggregateHost& host, AggregateDescription description)
    : _host(host), _description(std::move(description)), _name(_description.name),
      _subDevices(_description.subDevices.size())
{}

// ---- What it looks like

HALDeviceState AggregateDevice::initialState()
{
    const std::scoped_lock lock(_mutex);
    _lookAtSubDevices();
    return _composedState();
}

void AggregateDevice::_lookAtSubDevices()
{
    for (size_t place = 0; place < _subDevices.size(); ++place) {
        SubDevice& subDevice = _subDevices[place];
        subDevice.deviceID = _host.deviceForUID(_description.subDevices[place].uid);
        std::optional<HALDeviceState> state = _host.stateOf(subDevice.deviceID);
        if (!state || state->aggregate) // one made of aggregates might be made of itself
            subDevice.deviceID = kAudioObjectUnknown;
        else
            subDevice.state = std::move(*state);
    }
}

const AggregateDevice::SubDevice* AggregateDevice::_leader() const
{
    const auto isThere = [](const SubDevice& each) {
        return each.deviceID != kAudioObjectUnknown && hasStreams(each.state);
    };
    if (_io && isThere(_subDevices[_io->leaderPlace()]))
        return &_subDevices[_io->leaderPlace()];
    if (_description.clock && isThere(_subDevices[*_description.clock]))
        return &_subDevices[*_description.clock];
    const auto first = std::ranges::find_if(_subDevices, isThere);
    return first == _subDevices.end() ? nullptr : &*first;
}

HALDeviceState AggregateDevice::_composedState() const
{
    HALDeviceState state;
    state.uid = _description.uid;
    state.name = _name;
    state.transportType = kAudioDeviceTransportTypeAggregate;
    state.aggregate.emplace();
    state.aggregate->composition = _composition();
    for (const SubDevice& each : _subDevices)
        if (each.deviceID != kAudioObjectUnknown)
            state.aggregate->activeSubDevices.push_back(each.deviceID);
    if (const SubDevice* leader = _leader()) {
        state.clockDomain = leader->state.clockDomain;
        state.nominalSampleRate = leader->state.nominalSampleRate;
        state.actualSampleRate = leader->state.actualSampleRate;
        state.bufferFrameSize = leader->state.bufferFrameSize;
        state.bufferFrameSizeRange = leader->state.bufferFrameSizeRange;
        state.sampleRates = leader->state.sampleRates;
        for (const SubDevice& each : _subDevices)
            if (each.deviceID != kAudioObjectUnknown)
                state.sampleRates = commonRates(state.sampleRates, each.state.sampleRates);
        if (state.sampleRates.empty()) // then whoever cannot follow is converted
            state.sampleRates = leader->state.sampleRates;
    }
    for (const HALDirection direction : halDirections)
        _composeDirection(state, direction);
    return state;
}

void AggregateDevice::_composeDirection(HALDeviceState& state, HALDirection direction) const
{
    HALDirectionState& whole = state[direction];
    whole.canBeDefault = false;
    for (const SubDevice& each : _subDevices) {
        const HALDirectionState& part = each.state[direction];
        if (part.streams.empty())
            continue;
        for (HALStreamState stream : part.streams) {
            stream.objectID = kAudioObjectUnknown; // the aggregate's own
            whole.streams.push_back(stream);
        }
        for (uint32_t channel = 0; channel < part.channelCount(); ++channel)
            whole.channelNames.push_back(channel < part.channelNames.size()
                                             ? part.channelNames[channel]
                                             : each.state.name + " " + std::to_string(channel + 1));
        if (each.deviceID == kAudioObjectUnknown)
            continue;
        whole.latencyFrames = std::max(whole.latencyFrames, _pathLatency(each, direction));
        whole.safetyOffsetFrames = std::max(whole.safetyOffsetFrames, part.safetyOffsetFrames);
        // One control for all that have one.
        if (part.mainVolume && !whole.mainVolume)
            whole.mainVolume = part.mainVolume;
        if (part.muted)
            whole.muted = whole.muted.value_or(true) && *part.muted;
    }
    if (whole.channelCount() >= 2)
        whole.stereoChannels = std::array{1U, 2U};
}

uint32_t AggregateDevice::_pathLatency(const SubDevice& subDevice, HALDirection direction) const
{
    const uint32_t own = subDevice.state[direction].latencyFrames;
    const SubDevice* leader = _leader();
    if (!leader || leader == &subDevice)
        return own;
    const bool isInput = direction == HALDirection::Input;
    const HALDeviceState& writer = isInput ? subDevice.state : leader->state;
    const HALDeviceState& reader = isInput ? leader->state : subDevice.state;
    DriftController::Settings settings;
    settings.writerRate = writer.nominalSampleRate;
    settings.readerRate = reader.nominalSampleRate;
    const double frames = DriftController::delayFor(settings, writer.bufferFrameSize, reader.bufferFrameSize);
    const double seconds = frames / writer.nominalSampleRate + own / subDevice.state.nominalSampleRate;
    // A cycle of the leader is in its time stamps already.
    const double inLeaders = seconds * leader->state.nominalSampleRate - leader->state.bufferFrameSize;
    return static_cast<uint32_t>(std::lround(std::max(0.0, inLeaders)));
}

CXPlist AggregateDevice::_composition() const
{
    CXPlist composition = _description.dictionary;
    composition["name"] = _name;
    CXPlist subDevices = CXPlist::array();
    for (size_t place = 0; place < _subDevices.size(); ++place) {
        const AggregateDescription::SubDevice& described = _description.subDevices[place];
        const HALDeviceState& state = _subDevices[place].state;
        CXPlist entry{{"uid", described.uid},
                      {"drift", described.isCompensated && place != _description.clock ? 1 : 0},
                      {"channels-in", state[HALDirection::Input].channelCount()},
                      {"channels-out", state[HALDirection::Output].channelCount()}};
        if (!state.name.empty())
            entry["name"] = state.name;
        subDevices.push_back(std::move(entry));
    }
    composition["subdevices"] = std::move(subDevices);
    return composition;
}

void AggregateDevice::_publish()
{
    const HALDeviceState state = _composedState();
    _host.changeState(_objectID, [&](HALDeviceState& now) { now = state; });
}

// ---- What becomes of it

void AggregateDevice::refresh()
{
    const std::scoped_lock lock(_mutex);
    if (_isEnded)
        return;
    _lookAtSubDevices();
    if (_table && _mustBeginAgain())
        _begin();
    else if (_io)
        _attachWhatCame();
    _publish();
}

void AggregateDevice::end()
{
    const std::scoped_lock lock(_mutex);
    _isEnded = true;
    _io = nullptr;
    _table = nullptr;
}

HALStatus AggregateDevice::setName(const std::string& name)
{
    const std::scoped_lock lock(_mutex);
    _name = name;
    _publish();
    return kAudioHardwareNoError;
}

template <class Value>
HALStatus AggregateDevice::_writeToAll(uint32_t selector, uint32_t scope, const Value& value,
                                       bool (*takes)(const HALDeviceState&, const Value&))
{
    const SubDevice* leader = _leader();
    HALStatus result = kAudioHardwareUnspecifiedError;
    for (const SubDevice& each : _subDevices) {
        if (each.deviceID == kAudioObjectUnknown || !takes(each.state, value))
            continue;
        const HALStatus status =
            _host.backend().writeProperty(each.deviceID, {selector, scope, kAudioObjectPropertyElementMain},
                                          {}, std::as_bytes(std::span(&value, 1)));
        if (&each == leader || result != kAudioHardwareNoError)
            result = status; // the leader's is what counts: what it runs at is what the aggregate runs at
    }
    _lookAtSubDevices();
    if (_table && _mustBeginAgain())
        _begin();
    _publish();
    return result;
}

HALStatus AggregateDevice::setNominalSampleRate(double rate)
{
    const std::scoped_lock lock(_mutex);
    return _writeToAll<double>(
        kAudioDevicePropertyNominalSampleRate, kAudioObjectPropertyScopeGlobal, rate,
        [](const HALDeviceState& state, const double& wanted) { return state.canSampleRate(wanted); });
}

HALStatus AggregateDevice::setBufferFrameSize(uint32_t frameCount)
{
    const std::scoped_lock lock(_mutex);
    return _writeToAll<uint32_t>(kAudioDevicePropertyBufferFrameSize, kAudioObjectPropertyScopeGlobal,
                                 frameCount, [](const HALDeviceState& state, const uint32_t& wanted) {
                                     return wanted >= state.bufferFrameSizeRange.minimum &&
                                            wanted <= state.bufferFrameSizeRange.maximum;
                                 });
}

HALStatus AggregateDevice::setVolume(HALDirection direction, float scalar)
{
    const std::scoped_lock lock(_mutex);
    const bool isInput = direction == HALDirection::Input;
    return _writeToAll<float>(
        kAudioDevicePropertyVolumeScalar, halScope(direction), scalar,
        isInput ? [](const HALDeviceState& state,
                     const float&) { return state[HALDirection::Input].mainVolume.has_value(); }
                : [](const HALDeviceState& state, const float&) {
                      return state[HALDirection::Output].mainVolume.has_value();
                  });
}

HALStatus AggregateDevice::setMuted(HALDirection direction, bool muted)
{
    const std::scoped_lock lock(_mutex);
    const bool isInput = direction == HALDirection::Input;
    return _writeToAll<uint32_t>(
        kAudioDevicePropertyMute, halScope(direction), uint32_t{muted},
        isInput ? [](const HALDeviceState& state,
                     const uint32_t&) { return state[HALDirection::Input].muted.has_value(); }
                : [](const HALDeviceState& state, const uint32_t&) {
                      return state[HALDirection::Output].muted.has_value();
                  });
}

// ---- Running

HALStatus AggregateDevice::startIO(const CXRef<HALIOProcTable>& table)
{
    const std::scoped_lock lock(_mutex);
    if (_isEnded)
        return kAudioHardwareBadDeviceError;
    _table = table;
    _lookAtSubDevices();
    const HALStatus status = _begin();
    if (status)
        _table = nullptr;
    _publish();
    return status;
}

void AggregateDevice::stopIO()
{
    const std::scoped_lock lock(_mutex);
    _io = nullptr;
    _table = nullptr;
}

bool AggregateDevice::_isCompensated(size_t place) const
{
    const SubDevice* leader = _leader();
    return _description.subDevices[place].isCompensated &&
           !(leader && shareClock(leader->state, _subDevices[place].state));
}

AggregateTrackShape AggregateDevice::_shapeOf(const SubDevice& subDevice) const
{
    AggregateTrackShape shape;
    shape.deviceID = subDevice.deviceID;
    for (const HALStreamState& stream : subDevice.state[HALDirection::Input].streams)
        shape.inputChannels.push_back(stream.channelCount);
    for (const HALStreamState& stream : subDevice.state[HALDirection::Output].streams)
        shape.outputChannels.push_back(stream.channelCount);
    shape.sampleRate = subDevice.state.nominalSampleRate;
    shape.mostFrames = subDevice.state.bufferFrameSize;
    return shape;
}

std::vector<AggregateTrackShape> AggregateDevice::_layout() const
{
    std::vector<AggregateTrackShape> layout;
    for (const SubDevice& each : _subDevices)
        layout.push_back(_shapeOf(each));
    return layout;
}

/// Starts, or starts again, with whoever can lead.
HALStatus AggregateDevice::_begin()
{
    _io = nullptr;
    HALStatus status = kAudioHardwareUnspecifiedError;
    std::vector<size_t> candidates;
    if (const SubDevice* leader = _leader())
        candidates.push_back(static_cast<size_t>(leader - _subDevices.data()));
    for (size_t place = 0; place < _subDevices.size(); ++place)
        if (std::ranges::find(candidates, place) == candidates.end())
            candidates.push_back(place);
    for (const size_t place : candidates) {
        const SubDevice& candidate = _subDevices[place];
        if (candidate.deviceID == kAudioObjectUnknown || !hasStreams(candidate.state))
            continue;
        status = _beginWith(place);
        if (status == kAudioHardwareNoError)
            break;
    }
    return status;
}

HALStatus AggregateDevice::_beginWith(size_t leader)
{
    _io = std::make_unique<AggregateIO>(
        _host, _table, _layout(), AggregateIO::Leader{leader, _shapeOf(_subDevices[leader])}, _sampleTime);
    // The others first, so that their frames are there when the first cycle comes.
    _attachWhatCame();
    const HALStatus status = _io->start();
    if (status)
        _io = nullptr;
    return status;
}

bool AggregateDevice::_mustBeginAgain() const
{
    if (!_io)
        return _leader() != nullptr;
    const SubDevice& leader = _subDevices[_io->leaderPlace()];
    if (leader.deviceID == kAudioObjectUnknown || _shapeOf(leader) != _io->leaderShape())
        return true;
    return _io->layoutDiffers(_layout());
}

void AggregateDevice::_attachWhatCame()
{
    for (size_t place = 0; place < _subDevices.size(); ++place) {
        if (place == _io->leaderPlace())
            continue;
        const SubDevice& subDevice = _subDevices[place];
        const CXRef<AggregateTrack> track = _io->track(place);
        if (subDevice.deviceID == kAudioObjectUnknown) {
            _io->detach(place);
            continue;
        }
        const AggregateTrackShape shape = _shapeOf(subDevice);
        const bool isCompensated = _isCompensated(place);
        // One that does not start stays silent until it changes: the others are not held up by it.
        if (hasStreams(subDevice.state) &&
            (!track || track->shape() != shape || track->isCompensated() != isCompensated))
            _io->attach(place, shape, isCompensated);
    }
}

std::vector<AudioAggregateSubDeviceStatus> AggregateDevice::status() const
{
    const std::scoped_lock lock(_mutex);
    std::vector<AudioAggregateSubDeviceStatus> all(_subDevices.size());
    for (size_t place = 0; place < all.size(); ++place) {
        all[place].deviceID = _subDevices[place].deviceID;
        if (!_io)
            continue;
        if (place == _io->leaderPlace())
            all[place].isClock = all[place].isRunning = 1;
        else if (const CXRef<AggregateTrack> track = _io->track(place))
            track->addStatus(all[place]);
    }
    return all;
}
