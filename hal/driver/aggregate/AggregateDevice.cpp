#include "AggregateDevice.h"

#include "CXWeak.h"

#include <algorithm>
#include <cmath>
#include <system_error>

namespace {

constexpr std::chrono::seconds maxWaitToFollow{2};
constexpr std::chrono::milliseconds minTimeToStart{200}; // with less, a device in good order may fail, too
constexpr std::chrono::milliseconds firstPause{100};     // between attempts to start
constexpr std::chrono::seconds longestPause{10}, longestPauseOfPart{60};
constexpr int pausePerAttempt = 5; // a long attempt holds the lock and the queue, which others need

HALDeadline deadlineFromNow()
{
    return std::chrono::steady_clock::now() + maxWaitToFollow;
}

/// The deadline of the first of `count` starts, which have equal shares of the time that is left.
HALDeadline deadlineOfFirst(size_t count, HALDeadline deadline)
{
    const auto now = std::chrono::steady_clock::now();
    return now + (deadline - now) / static_cast<ptrdiff_t>(count);
}

/// The deadline of a group's start, which leaves a quarter of the time.
HALDeadline deadlineOfGroup(HALDeadline deadline)
{
    return deadline - (deadline - std::chrono::steady_clock::now()) / 4;
}

bool hasTimeToStart(HALDeadline deadline)
{
    return deadline - std::chrono::steady_clock::now() >= minTimeToStart;
}

/// The state without what a failed start itself may change.
HALDeviceState stateBesideIO(HALDeviceState state)
{
    state.isStalled = false;
    state.actualSampleRate = 0.0;
    return state;
}

/// Whether both devices have the same clock.
bool shareClock(const HALDeviceState& a, const HALDeviceState& b)
{
    return a.clockDomain != 0 && a.clockDomain == b.clockDomain;
}

/// Whether both devices can run in one cycle, without a bridge.
bool sharesCycles(const HALDeviceState& a, const HALDeviceState& b)
{
    return a.groupDomain != 0 && a.groupDomain == b.groupDomain && a.nominalSampleRate == b.nominalSampleRate;
}

/// Whether the device can lead or join. Cycles without any channel have no frames.
bool hasChannels(const HALDeviceState& state)
{
    return std::ranges::any_of(state.directions,
                               [](const HALDirectionState& each) { return each.channelCount() > 0; });
}

/// The leader's frames per frame of the other device.
double framesPerFrame(const HALDeviceState& leader, const HALDeviceState& other)
{
    return other.nominalSampleRate > 0.0 ? leader.nominalSampleRate / other.nominalSampleRate : 1.0;
}

/// What a bridge to the other device adds to the latency, in the leader's frames. The time stamps are the
/// leader's and already include a cycle of it.
double bridgeLatency(const HALDeviceState& leader, const HALDeviceState& other, HALDirection direction)
{
    const bool isInput = direction == HALDirection::Input;
    const HALDeviceState& writer = isInput ? other : leader;
    const HALDeviceState& reader = isInput ? leader : other;
    DriftController::Settings settings;
    settings.writerRate = writer.nominalSampleRate;
    settings.readerRate = reader.nominalSampleRate;
    settings.framesAfter =
        CompensatingResampler::framesAfterForRatio(settings.writerRate / settings.readerRate);
    const double delay = DriftController::delayFor(settings, writer.bufferFrameSize, reader.bufferFrameSize);
    if (isInput)
        return delay * framesPerFrame(leader, other) - leader.bufferFrameSize;
    // The delay includes a cycle of the leader, too, and the other device plays a cycle after it has read.
    return delay + other.bufferFrameSize * framesPerFrame(leader, other) - 2.0 * leader.bufferFrameSize;
}

/// The intersection of both lists of rates.
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

CXRef<AggregateDevice> AggregateDevice::initWithDescription(AggregateDescription description,
                                                            HALDriverSink& sink, DeviceFinder findDevice,
                                                            CXRef<dxr::SerialQueue> queue)
{
    return CXRef<AggregateDevice>::adopt(
        new AggregateDevice(std::move(description), sink, std::move(findDevice), std::move(queue)));
}

AggregateDevice::AggregateDevice(AggregateDescription description, HALDriverSink& sink,
                                 DeviceFinder findDevice, CXRef<dxr::SerialQueue> queue)
    : _description(std::move(description)), _sink(sink), _findDevice(std::move(findDevice)),
      _queue(std::move(queue)), _name(_description.name), _subDevices(_description.subDevices.size())
{}

// ---- Its state

HALDeviceState AggregateDevice::look()
{
    const std::scoped_lock lock(_mutex);
    _lookAtSubDevices();
    _publishStatus();
    return _composedState();
}

void AggregateDevice::_lookAtSubDevices()
{
    for (size_t place = 0; place < _subDevices.size(); ++place) {
        SubDevice& subDevice = _subDevices[place];
        const CXRef<HALDevice> before =
            std::exchange(subDevice.device, _findDevice(_description.subDevices[place].uid));
        if (before != subDevice.device) {
            subDevice.failed = std::nullopt;
            subDevice.mustRetry = false;
            subDevice.runsAlone = false;
        }
        if (!subDevice.device)
            continue;
        HALDeviceState state = subDevice.device->state();
        if (state.aggregate) // excludes aggregates, which might contain this one
            subDevice.device = nullptr;
        else
            subDevice.state = std::move(state);
    }
}

const AggregateDevice::SubDevice* AggregateDevice::_leader() const
{
    const auto isPresent = [](const SubDevice& each) { return each.device && hasChannels(each.state); };
    if (_io) {
        if (isPresent(_subDevices[_io->plan().leader]))
            return &_subDevices[_io->plan().leader];
        for (const size_t place : _io->plan().group) // the group's cycle continues without its first leader
            if (isPresent(_subDevices[place]))
                return &_subDevices[place];
    }
    if (_description.clock && isPresent(_subDevices[*_description.clock]))
        return &_subDevices[*_description.clock];
    const auto first = std::ranges::find_if(_subDevices, isPresent);
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
    state.aggregate->subDeviceStatus = _readStatus;
    for (const SubDevice& each : _subDevices)
        if (each.device)
            state.aggregate->activeSubDevices.push_back(each.device->objectID());
    const SubDevice* leader = _leader();
    state.isStalled = _table && (!_io || !leader || leader->state.isStalled);
    if (leader) {
        state.clockDomain = leader->state.clockDomain;
        state.nominalSampleRate = leader->state.nominalSampleRate;
        state.actualSampleRate = leader->state.actualSampleRate;
        state.bufferFrameSize = leader->state.bufferFrameSize;
        state.bufferFrameSizeRange = leader->state.bufferFrameSizeRange;
        state.sampleRates = leader->state.sampleRates;
        for (const SubDevice& each : _subDevices)
            if (each.device)
                state.sampleRates = commonRates(state.sampleRates, each.state.sampleRates);
        if (state.sampleRates.empty()) // the sub-devices without the leader's rate are resampled
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
    const SubDevice* leader = _leader();
    whole.safetyOffsetFrames = leader ? leader->state[direction].safetyOffsetFrames : 0;
    for (const SubDevice& each : _subDevices) {
        const HALDirectionState& part = each.state[direction];
        if (part.streams.empty())
            continue;
        for (HALStreamState stream : part.streams) {
            stream.objectID = kAudioObjectUnknown; // the model assigns an ID of the aggregate
            if (leader)
                stream.latencyFrames = static_cast<uint32_t>(
                    std::lround(stream.latencyFrames * framesPerFrame(leader->state, each.state)));
            whole.streams.push_back(stream);
        }
        for (uint32_t channel = 0; channel < part.channelCount(); ++channel)
            whole.channelNames.push_back(channel < part.channelNames.size()
                                             ? part.channelNames[channel]
                                             : each.state.name + " " + std::to_string(channel + 1));
        if (!each.device)
            continue;
        if (leader)
            whole.latencyFrames = std::max(whole.latencyFrames, _pathLatency(*leader, each, direction));
        // One control for all sub-devices that have it.
        if (part.mainVolume && !whole.mainVolume)
            whole.mainVolume = part.mainVolume;
        if (part.muted)
            whole.muted = whole.muted.value_or(true) && *part.muted;
    }
    if (whole.channelCount() >= 2)
        whole.stereoChannels = std::array{1U, 2U};
}

/// The latency of a sub-device after the time stamps, which are the leader's, at the leader's rate.
uint32_t AggregateDevice::_pathLatency(const SubDevice& leader, const SubDevice& subDevice,
                                       HALDirection direction) const
{
    const HALDirectionState& part = subDevice.state[direction];
    const double own = part.latencyFrames + static_cast<double>(part.safetyOffsetFrames);
    double frames = own * framesPerFrame(leader.state, subDevice.state) -
                    leader.state[direction].safetyOffsetFrames; // which the time stamps include
    const auto place = static_cast<size_t>(&subDevice - _subDevices.data());
    const bool sharesCycle =
        &leader == &subDevice || (_io ? _io->isInGroup(place) : sharesCycles(leader.state, subDevice.state));
    if (!sharesCycle)
        frames += bridgeLatency(leader.state, subDevice.state, direction);
    return static_cast<uint32_t>(std::lround(std::max(0.0, frames)));
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

void AggregateDevice::_publishStatus()
{
    std::vector<AggregateStatus::SubDevice> status(_subDevices.size());
    const SubDevice* leader = _leader();
    for (size_t place = 0; place < status.size(); ++place) {
        const SubDevice& each = _subDevices[place];
        status[place].deviceID = each.device ? each.device->objectID() : kAudioObjectUnknown;
        if (!_io)
            continue;
        status[place].isClock = &each == leader;
        status[place].isRunning = each.device && _io->isInGroup(place);
        status[place].track = _io->track(place);
    }
    _status->set(std::move(status));
}

void AggregateDevice::_publish()
{
    _publishStatus();
    _sink.deviceChanged(*this, _composedState());
}

// ---- Following the sub-devices

void AggregateDevice::refresh()
{
    const std::scoped_lock lock(_mutex);
    if (_isEnded)
        return;
    _lookAtSubDevices();
    _follow(deadlineFromNow());
    _publish();
}

void AggregateDevice::_follow(HALDeadline deadline)
{
    const auto began = std::chrono::steady_clock::now();
    if (_table && _mustBeginAgain())
        _begin(deadline);
    else if (_io)
        _joinPresent(deadline, 0);
    _retryLater(std::chrono::steady_clock::now() - began);
}

void AggregateDevice::end()
{
    const std::scoped_lock lock(_mutex);
    _isEnded = true;
    _endRetries();
    _io = nullptr;
    _table = nullptr;
}

// ---- Writes

HALStatus AggregateDevice::setName(const std::string& name, HALDeadline /*deadline*/)
{
    const std::scoped_lock lock(_mutex);
    _name = name;
    _publish();
    return kAudioHardwareNoError;
}

/// Writes to the sub-devices whose state passes `takes`. The aggregate has the leader's values: if the leader
/// refuses, the others keep theirs.
template <class Takes, class Write>
HALStatus AggregateDevice::_writeToAll(Takes takes, Write write, HALDeadline deadline)
{
    const std::scoped_lock lock(_mutex);
    const SubDevice* leader = _leader();
    const bool leaderTakes = leader && takes(leader->state);
    HALStatus result = leaderTakes ? write(leader->device->driver()) : kAudioHardwareUnspecifiedError;
    if (!leaderTakes || result == kAudioHardwareNoError) {
        for (const SubDevice& each : _subDevices) {
            if (&each == leader || !each.device || !takes(each.state))
                continue;
            const HALStatus status = write(each.device->driver());
            if (!leaderTakes && result != kAudioHardwareNoError)
                result = status;
        }
    }
    _lookAtSubDevices();
    _follow(deadline);
    _publish();
    return result;
}

HALStatus AggregateDevice::setNominalSampleRate(double rate, HALDeadline deadline)
{
    return _writeToAll([=](const HALDeviceState& state) { return state.canSampleRate(rate); },
                       [=](HALDeviceDriver& driver) { return driver.setNominalSampleRate(rate, deadline); },
                       deadline);
}

HALStatus AggregateDevice::setBufferFrameSize(uint32_t frameCount, HALDeadline deadline)
{
    return _writeToAll(
        [=](const HALDeviceState& state) {
            return frameCount >= state.bufferFrameSizeRange.minimum &&
                   frameCount <= state.bufferFrameSizeRange.maximum;
        },
        [=](HALDeviceDriver& driver) { return driver.setBufferFrameSize(frameCount, deadline); }, deadline);
}

HALStatus AggregateDevice::setVolume(HALDirection direction, uint32_t element, float scalar,
                                     HALDeadline deadline)
{
    if (element != kAudioObjectPropertyElementMain)
        return kAudioHardwareIllegalOperationError;
    return _writeToAll(
        [=](const HALDeviceState& state) { return state[direction].mainVolume.has_value(); },
        [=](HALDeviceDriver& driver) { return driver.setVolume(direction, element, scalar, deadline); },
        deadline);
}

HALStatus AggregateDevice::setMuted(HALDirection direction, bool muted, HALDeadline deadline)
{
    return _writeToAll([=](const HALDeviceState& state) { return state[direction].muted.has_value(); },
                       [=](HALDeviceDriver& driver) { return driver.setMuted(direction, muted, deadline); },
                       deadline);
}

// ---- Running

HALStatus AggregateDevice::startIO(const CXRef<HALIOProcTable>& table, HALDeadline deadline)
{
    const std::scoped_lock lock(_mutex);
    if (_isEnded)
        return kAudioHardwareBadDeviceError;
    const auto began = std::chrono::steady_clock::now();
    _table = table;
    _endRetries();
    _lookAtSubDevices();
    _forgetFailures();
    for (SubDevice& each : _subDevices)
        each.runsAlone = false;
    const HALStatus status = _begin(deadline);
    if (status)
        _table = nullptr;
    _retryLater(std::chrono::steady_clock::now() - began);
    _publish();
    return status;
}

void AggregateDevice::stopIO()
{
    const std::scoped_lock lock(_mutex);
    _io = nullptr;
    _table = nullptr;
    _endRetries();
    if (!_isEnded)
        _publish();
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
    shape.deviceID = subDevice.device ? subDevice.device->objectID() : kAudioObjectUnknown;
    for (const HALStreamState& stream : subDevice.state[HALDirection::Input].streams)
        shape.inputChannels.push_back(stream.channelCount);
    for (const HALStreamState& stream : subDevice.state[HALDirection::Output].streams)
        shape.outputChannels.push_back(stream.channelCount);
    shape.sampleRate = subDevice.state.nominalSampleRate;
    shape.maxFrames = subDevice.state.bufferFrameSize;
    return shape;
}

/// The places that can run in the leader's cycle, including those of absent sub-devices that could when they
/// were last present.
std::vector<size_t> AggregateDevice::_groupOf(size_t leader) const
{
    const SubDevice& first = _subDevices[leader];
    const auto canJoin = [&](const SubDevice& each) {
        return !first.runsAlone && !each.runsAlone && hasChannels(each.state) &&
               sharesCycles(first.state, each.state);
    };
    std::vector<size_t> group;
    for (size_t place = 0; place < _subDevices.size(); ++place)
        if (place == leader || (canJoin(_subDevices[place]) && !_hasFailed(place)))
            group.push_back(place);
    return group;
}

AggregateIO::Plan AggregateDevice::_planFor(size_t leader, std::vector<size_t> group) const
{
    const HALDeviceState& state = _subDevices[leader].state;
    AggregateIO::Plan plan;
    plan.leader = leader;
    plan.group = std::move(group);
    plan.sampleRate = state.nominalSampleRate;
    // Buffers for the longest possible cycle, so that a change of the cycle length does not require a new
    // run.
    plan.maxFrames =
        std::max(state.bufferFrameSize, static_cast<uint32_t>(state.bufferFrameSizeRange.maximum));
    for (const SubDevice& each : _subDevices)
        plan.layout.push_back(_shapeOf(each));
    return plan;
}

AggregateIO::Devices AggregateDevice::_devices() const
{
    AggregateIO::Devices devices;
    devices.reserve(_subDevices.size());
    for (const SubDevice& each : _subDevices)
        devices.push_back(each.device);
    return devices;
}

/// Starts or restarts with the first sub-device that can lead. Those that failed to start and have not
/// changed are tried last.
HALStatus AggregateDevice::_begin(HALDeadline deadline)
{
    if (_io) // the attempts so far were those of a part
        _endRetries();
    _io = nullptr;
    HALStatus status = kAudioHardwareUnspecifiedError;
    std::vector<size_t> candidates = _candidates();
    while (!candidates.empty()) {
        auto next = std::ranges::find_if_not(candidates, [this](size_t each) { return _hasFailed(each); });
        if (next == candidates.end())
            next = candidates.begin();
        const size_t place = *next;
        candidates.erase(next);
        const bool isLast = candidates.empty();
        const std::vector<size_t> group = _groupOf(place);
        status = _beginWith(place, group, isLast, deadline);
        if (status && group.size() > 1) {
            // The driver does not run them in one cycle, or one of them is stuck, and nothing reports which.
            for (const size_t each : group)
                _subDevices[each].runsAlone = true;
            status = _beginWith(place, {place}, isLast, deadline);
        }
        if (status == kAudioHardwareNoError || std::chrono::steady_clock::now() >= deadline)
            break;
    }
    return status;
}

/// The places that can lead, the present leader's first.
std::vector<size_t> AggregateDevice::_candidates() const
{
    std::vector<size_t> candidates;
    if (const SubDevice* leader = _leader())
        candidates.push_back(static_cast<size_t>(leader - _subDevices.data()));
    for (size_t place = 0; place < _subDevices.size(); ++place)
        if (_subDevices[place].device && hasChannels(_subDevices[place].state) &&
            std::ranges::find(candidates, place) == candidates.end())
            candidates.push_back(place);
    return candidates;
}

/// The last candidate may take all of the time; another leaves half of it, in case that it is stuck. A group
/// leaves less: it includes the next candidates, and all may need the time of its slowest member.
HALStatus AggregateDevice::_beginWith(size_t leader, std::vector<size_t> group, bool isLast,
                                      HALDeadline deadline)
{
    const bool isGroup = group.size() > 1;
    _io = std::make_unique<AggregateIO>(_table, _planFor(leader, std::move(group)), _sampleTime);
    const size_t leaderStarts = isLast && !isGroup ? 1 : 2;
    // The others start first, so that their frames are available in the first cycle.
    _joinPresent(deadline, leaderStarts);
    const HALDeadline share = isGroup ? deadlineOfGroup(deadline) : deadlineOfFirst(leaderStarts, deadline);
    const bool hasTime = hasTimeToStart(share);
    const HALStatus status = _io->start(_devices(), share);
    if (!status || !isGroup) // the failure of a group may be that of any member
        for (const size_t place : _io->plan().group)
            _noteStart(_subDevices[place], status, hasTime);
    if (status)
        _io = nullptr;
    return status;
}

bool AggregateDevice::_mustBeginAgain() const
{
    const SubDevice* leader = _leader();
    if (!_io || !leader)
        return _io || !std::ranges::all_of(_candidates(), [this](size_t each) { return _hasFailed(each); });
    const AggregateIO::Plan& plan = _io->plan();
    const auto place = static_cast<size_t>(leader - _subDevices.data());
    if (!_io->isInGroup(place) || leader->state.nominalSampleRate != plan.sampleRate ||
        leader->state.bufferFrameSize > plan.maxFrames)
        return true;
    // A new device object with the same UID: the callback on the old object has ended with it.
    if (plan.group.size() == 1 && _shapeOf(*leader).deviceID != plan.layout[place].deviceID)
        return true;
    if (_groupOf(place) != plan.group)
        return true;
    for (size_t each = 0; each < _subDevices.size(); ++each) {
        const AggregateTrackShape now = _shapeOf(_subDevices[each]);
        if (now.inputChannels != plan.layout[each].inputChannels ||
            now.outputChannels != plan.layout[each].outputChannels)
            return true;
    }
    return false;
}

/// Joins the sub-devices that are present. Those that must be started, and `laterStarts` after them, share
/// the time, so that one that is stuck leaves time for the others.
void AggregateDevice::_joinPresent(HALDeadline deadline, size_t laterStarts)
{
    std::vector<size_t> starting;
    const SubDevice* leader = _leader();
    for (size_t place = 0; place < _subDevices.size(); ++place) {
        const SubDevice& subDevice = _subDevices[place];
        if (_io->isInGroup(place))
            _io->setMember(place, subDevice.device);
        else if (!subDevice.device || !leader)
            _io->detach(place);
        else if (_mustStart(place))
            starting.push_back(place);
    }
    size_t starts = starting.size() + laterStarts;
    for (const size_t place : starting) {
        SubDevice& each = _subDevices[place];
        const HALDeadline share = deadlineOfFirst(starts--, deadline);
        const bool hasTime = hasTimeToStart(share);
        const HALStatus status = _io->attach(place, each.device, _shapeOf(each),
                                             leader->state.bufferFrameSize, _isCompensated(place), share);
        _noteStart(each, status, hasTime);
    }
}

void AggregateDevice::_noteStart(SubDevice& subDevice, HALStatus status, bool hadTime)
{
    // 'nope': the rates are too far apart, but not those of another leader.
    const bool hasFailed = status && status != kAudioHardwareIllegalOperationError;
    if (hasFailed && !subDevice.mustRetry) // it does not wait for the pause of another
        _endRetries();
    subDevice.mustRetry = hasFailed;
    subDevice.failed = hasFailed && hadTime ? std::optional(subDevice.state) : std::nullopt;
}

/// Whether it failed to start and has not changed since then.
bool AggregateDevice::_hasFailed(size_t place) const
{
    const SubDevice& subDevice = _subDevices[place];
    return subDevice.failed && stateBesideIO(*subDevice.failed) == stateBesideIO(subDevice.state);
}

/// Whether the sub-device, which is present beside a leader, must be started or restarted. One that failed to
/// start stays silent until it changes or _retryNow() is called; the others do not wait for it.
bool AggregateDevice::_mustStart(size_t place) const
{
    const SubDevice& subDevice = _subDevices[place];
    if (!hasChannels(subDevice.state) || _hasFailed(place))
        return false;
    const CXRef<AggregateTrack>& track = _io->track(place);
    return !track || track->shape() != _shapeOf(subDevice) ||
           track->leaderFrames() != _leader()->state.bufferFrameSize ||
           track->isCompensated() != _isCompensated(place);
}

// ---- Trying again

bool AggregateDevice::_mustRetry() const
{
    if (!_table || !_io)
        return _table && !_candidates().empty();
    const auto isMissing = [](const SubDevice& each) { return each.mustRetry && hasChannels(each.state); };
    return std::ranges::any_of(_subDevices, isMissing);
}

/// Queues another attempt if one is needed and none is queued; `took`: how long the last one took. The delay
/// timer owns the queued work, which has the queue and a weak reference: it does nothing when the device has
/// ended or is gone. end() waits for an attempt that is running, because it takes the lock.
void AggregateDevice::_retryLater(std::chrono::nanoseconds took)
{
    if (!_mustRetry())
        _endRetries();
    else if (!_retry.isQueued)
        _queueRetry(took);
}

void AggregateDevice::_queueRetry(std::chrono::nanoseconds took)
{
    const std::chrono::nanoseconds longest = _io ? longestPauseOfPart : longestPause;
    _retry.pause = std::clamp(std::max(2 * _retry.pause, pausePerAttempt * took),
                              std::chrono::nanoseconds(firstPause), longest);
    try {
        _queue->after(static_cast<uint64_t>(_retry.pause.count()),
                      [weak = CXWeak(*this), number = _retry.number] {
                          if (const CXRef<AggregateDevice> self = weak.lock())
                              self->_retryNow(number);
                      });
        _retry.isQueued = true;
    } catch (const std::system_error&) { // no thread: the next change of a device tries again
    }
}

void AggregateDevice::_retryNow(uint64_t number)
{
    const std::scoped_lock lock(_mutex);
    if (_isEnded || number != _retry.number)
        return;
    _retry.isQueued = false;
    _lookAtSubDevices();
    _forgetFailures();
    _follow(deadlineFromNow());
    _publish();
}

/// Lets what has failed start again. One that could run in the group of a run starts beside it, because to
/// include it would restart the others.
void AggregateDevice::_forgetFailures()
{
    const SubDevice* leader = _leader();
    for (size_t place = 0; place < _subDevices.size(); ++place) {
        SubDevice& each = _subDevices[place];
        if (_io && leader && _hasFailed(place) && sharesCycles(leader->state, each.state))
            each.runsAlone = true;
        each.failed = std::nullopt;
    }
}
