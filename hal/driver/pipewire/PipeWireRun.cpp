#include "PipeWireRun.h"

#include <algorithm>

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds firstRetryDelay = 20ms; // many interruptions end sooner by themselves
constexpr std::chrono::milliseconds maxRetryDelay = 1s;
constexpr auto recoveredAfter = 5s; // a fault this long after the last retry is a new one
constexpr auto firstPatience = 2s;  // maximum wait for the first cycle if nothing else is wrong
constexpr auto minPatience = 700ms; // minimum of the wait for each later cycle
constexpr auto lookInterval = 500ms;
constexpr auto restoringTime = 300ms; // how long restoreRate() forces our rate

} // namespace

PipeWireRun::PipeWireRun(const Environment& environment, Setup setup, CXRef<PipeWireReply> reply)
    : _environment(environment), _table(std::move(setup.table)), _maxFrames(setup.maxFrames),
      _timeline(setup.timeline ? *setup.timeline : _ownTimeline), _members(std::move(setup.members)),
      _linked(_members.size()), _wanted(setup.wanted), _retryDelay(firstRetryDelay),
      _startReply(std::move(reply)), _startDeadline(setup.deadline)
{
    _timeline.pause();
    _makeIO(std::chrono::steady_clock::now());
}

PipeWireRun::~PipeWireRun()
{
    _environment.session.forget(this);
    if (_startReply)
        _startReply->finish(kAudioHardwareUnspecifiedError);
}

// ---- Changes

void PipeWireRun::setDevice(size_t place, PipeWireDevice* device, const CXRef<HALIOProcTable>& table)
{
    _members[place].device = device;
    _members[place].table = table;
    _linked[place].isStalled = false;
    _changed = true;
    if (!_io && device)
        _makeIO(std::chrono::steady_clock::now());
    else
        _linkMember(place);
}

void PipeWireRun::deviceChanged(const PipeWireDevice& device)
{
    for (size_t place = 0; place < _members.size(); ++place) {
        Member& member = _members[place];
        if (member.device != &device)
            continue;
        if (_isOfOneDevice() && member.channels != device.channels()) {
            member.channels = device.channels();
            _makeIO(std::chrono::steady_clock::now());
        } else if (_endsOf(member) != _linked[place].ends) {
            _linkMember(place);
        }
    }
}

void PipeWireRun::deviceDisappears(const PipeWireDevice& device)
{
    for (size_t place = 0; place < _members.size(); ++place)
        if (_members[place].device == &device)
            setDevice(place, nullptr, nullptr);
    if (_isOfOneDevice() && _startReply)
        std::exchange(_startReply, nullptr)->finish(kAudioHardwareBadDeviceError);
}

void PipeWireRun::connectionLost()
{
    _io.reset();
    _retryAt.reset();
    _hasCycles = false;
}

void PipeWireRun::setWantedTiming(const PipeWireDeviceIO::WantedTiming& wanted)
{
    _wanted = wanted;
    _restoringUntil.reset();
    if (_io)
        _io->setWantedTiming(wanted);
}

void PipeWireRun::restoreRate(Time now)
{
    if (!_io || _wanted.forcesRate)
        return;
    // A running graph keeps its rate unless a client forces another. Releasing it later changes nothing.
    PipeWireDeviceIO::WantedTiming forced = _wanted;
    forced.forcesRate = true;
    _io->setWantedTiming(forced);
    _restoringUntil = now + restoringTime;
}

// ---- The node and its links

/// The ports to link; nullopt while the device is absent or its streams are not those of the run.
std::optional<PipeWireEnds> PipeWireRun::_endsOf(const Member& member) const
{
    return member.device && member.device->channels() == member.channels
               ? std::optional(member.device->ends())
               : std::nullopt;
}

void PipeWireRun::_makeIO(Time now)
{
    _io.reset(); // must be destroyed before the next one prepares the table
    std::vector<PipeWireChannels> channels;
    for (const Member& member : _members)
        channels.push_back(member.channels);
    _io = std::make_unique<PipeWireDeviceIO>(_environment.session, _environment.wake, _table, channels,
                                             _wanted, _maxFrames, _timeline);
    _cyclesSeen = _overloadsSeen = 0;
    _lastCycle = now;
    _hasCycles = false;
    _restoringUntil.reset();
    for (size_t place = 0; place < _members.size(); ++place)
        _linkMember(place);
    _environment.wake.signal();
}

void PipeWireRun::_linkMember(size_t place)
{
    _linked[place].ends = _endsOf(_members[place]);
    _linked[place].since = std::chrono::steady_clock::now();
    if (_io)
        _io->setMember(place, _linked[place].ends);
    _environment.wake.signal();
}

// ---- Checks and repairs

PipeWireRun::Time PipeWireRun::update(Time now)
{
    if (_io) {
        if (const std::optional<uint32_t> nodeID = _io->nodeID())
            _io->setOwnPorts(_environment.mirror.portsOfNode(*nodeID));
        _look(now);
    }
    if (const Remedy remedy = _remedy(now); remedy != Remedy::None) {
        _retryWhenDue(remedy, now);
    } else {
        _retryAt.reset();
        _isInterrupted = _isInterrupted && !_isComplete();
    }
    _lookAtMembers(now);
    if (_startReply && !_isComplete() && now >= _startDeadline)
        _hasFailed = true;
    return _nextLook(now);
}

void PipeWireRun::_look(Time now)
{
    if (const uint64_t cycles = _io->cycleCount(); cycles != std::exchange(_cyclesSeen, cycles)) {
        _lastCycle = now;
        _hasCycles = true;
    } else if (now - _lastCycle > _patience()) {
        _hasCycles = false;
    }
    if (const uint64_t overloads = _io->overloadCount();
        overloads != std::exchange(_overloadsSeen, overloads))
        for (const Member& member : _members)
            if (member.table && member.table != _table)
                member.table->reportOverload();
    if (const PipeWireClockSeen clock = _io->clock(); _cyclesSeen > 0 && clock != _clock) {
        _clock = clock;
        _changed = true;
    }
    if (_restoringUntil && now >= *_restoringUntil)
        setWantedTiming(_wanted);
}

/// A member becomes stalled when a repair is attempted, or if it has no cycles some time after it was linked.
/// It remains stalled until it has cycles.
void PipeWireRun::_lookAtMembers(Time now)
{
    for (size_t place = 0; place < _members.size(); ++place) {
        Linked& linked = _linked[place];
        const bool getsCycles = _getsCycles(place);
        const bool isLate = linked.ends && now - linked.since > firstPatience;
        const bool isStalled = !getsCycles && (linked.isStalled || isLate);
        _changed = _changed || isStalled != linked.isStalled;
        linked.isStalled = isStalled;
    }
}

PipeWireRun::Remedy PipeWireRun::_remedy(Time now) const
{
    if (!_isAnyPresent() || !_environment.session.isConnected())
        return Remedy::None;
    if (!_io || !_io->isAlive() || _io->isDamaged())
        return Remedy::Node;
    for (size_t place = 0; place < _members.size(); ++place)
        if (const PipeWireLinks* links = _io->links(place); links && links->isBroken())
            return Remedy::Links;
    const bool lacksCycles = _io->isPaused() || now - _lastCycle > _patience();
    return lacksCycles ? Remedy::Node : Remedy::None;
}

void PipeWireRun::_retryWhenDue(Remedy remedy, Time now)
{
    const bool isNew = now - _lastRetry > recoveredAfter;
    if (!_retryAt) {
        if (isNew)
            _retryDelay = firstRetryDelay;
        _retryAt = now + _retryDelay;
        _serverAnswers = false;
        _environment.session.sync(this, [this] {
            _serverAnswers = true;
            _environment.wake.signal();
        });
    }
    if (now < *_retryAt || !_serverAnswers)
        return;
    _retryAt.reset();
    _lastRetry = now;
    _retryDelay = std::min(2 * _retryDelay, maxRetryDelay);
    if (remedy == Remedy::Node)
        _makeIO(now);
    for (size_t place = 0; place < _members.size(); ++place)
        if (!_getsCycles(place))
            _linked[place].isStalled = _changed = true;
    if (remedy == Remedy::Links)
        _io->mendLinks();
    if (!std::exchange(_isInterrupted, true) && !_startReply)
        _reportOverload();
}

bool PipeWireRun::_getsCycles(size_t place) const
{
    const PipeWireLinks* const links = _io ? _io->links(place) : nullptr;
    const bool needsLinks = _members[place].channels != PipeWireChannels{};
    return _hasCycles && (!needsLinks || (links && links->isActive()));
}

/// Whether every present member has cycles, no broken link, and an active first batch of links.
bool PipeWireRun::_isComplete() const
{
    for (size_t place = 0; place < _members.size(); ++place)
        if (_linked[place].ends &&
            (!_getsCycles(place) || (_io->links(place) && !_io->links(place)->hasStarted())))
            return false;
    return _hasCycles;
}

void PipeWireRun::finishStart()
{
    if (_startReply && _isComplete())
        std::exchange(_startReply, nullptr)->finish(kAudioHardwareNoError);
}

bool PipeWireRun::_isAnyPresent() const
{
    return std::ranges::any_of(_linked, [](const Linked& each) { return each.ends.has_value(); });
}

/// Whether the run is of one device and follows its changes of streams; a group keeps its streams.
bool PipeWireRun::_isOfOneDevice() const
{
    return _members.size() == 1 && _members.front().table == _table;
}

bool PipeWireRun::isStalled(const PipeWireDevice& device) const
{
    for (size_t place = 0; place < _members.size(); ++place)
        if (_members[place].device == &device)
            return _linked[place].isStalled;
    return false;
}

void PipeWireRun::_reportOverload()
{
    _table->reportOverload();
    for (const Member& member : _members)
        if (member.table && member.table != _table)
            member.table->reportOverload();
}

/// The longest time without a cycle before the node is recreated.
std::chrono::nanoseconds PipeWireRun::_patience() const
{
    if (_cyclesSeen == 0)
        return firstPatience;
    const double seconds = _clock.rate > 0.0 ? 4.0 * _clock.frameCount / _clock.rate : 0.0;
    return std::max<std::chrono::nanoseconds>(minPatience,
                                              std::chrono::nanoseconds(static_cast<int64_t>(seconds * 1e9)));
}

PipeWireRun::Time PipeWireRun::_nextLook(Time now) const
{
    Time next = now + lookInterval;
    for (const std::optional<Time>& due : {_serverAnswers ? _retryAt : std::nullopt, _restoringUntil,
                                           _startReply ? std::optional(_startDeadline) : std::nullopt})
        if (due && *due > now)
            next = std::min(next, *due);
    return next;
}
