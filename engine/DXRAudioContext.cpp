#include "DXRAudioContext.h"

#include "CXErrorAdditions.h"
#include "CXFourCharCode.h"
#include "DeviceClock.h"
#include "GlobalQueue.h"
#include "HostClock.h"
#include "PropertyValue.h"
#include "QDL.h"
#include "RingOffsets.h"
#include "RunnerIO.h"
#include "StreamBuffers.h"

#include <algorithm>
#include <alloca.h>
#include <cstdio>
#include <iterator>
#include <new>

namespace {

constexpr uint32_t defaultFrameCount = 512;
constexpr double defaultSampleRate = 44100.0;
// The limit of one direction's entries on an IO thread's stack, 16 bytes each. Devices with more channels
// keep them in the record.
constexpr uint32_t maxStackEntries = 1024;

constexpr AudioObjectPropertyAddress bufferFrameSize{
    kAudioDevicePropertyBufferFrameSize, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
constexpr AudioObjectPropertyAddress nominalSampleRate{
    kAudioDevicePropertyNominalSampleRate, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};

/// " (status 'what')".
std::string statusText(HALStatus status)
{
    return " (status '" + stringWithFourCharCode(static_cast<uint32_t>(status)) + "')";
}

/// Why the node's buffer could not be made.
DXRDeviceRunnerError bufferErrorOf(const DXRDeviceNode& node, uint32_t frameCount)
{
    const size_t channelCount = node.channels().size();
    const bool isTooLarge = uint64_t{frameCount} * channelCount > DXRDeviceNode::maxSamples;
    return {node.device()->deviceUID(), kAudioHardwareNoError,
            (isTooLarge ? "too many" : "not enough memory for the") + std::string(" channels of '") +
                node.device()->displayName() + "' for buffers of " + std::to_string(frameCount) +
                " frames: " + std::to_string(channelCount)};
}

bool hasSampleTime(const AudioTimeStamp* time)
{
    return time && (time->flags & kAudioTimeStampSampleTimeValid) != 0;
}

} // namespace

// ---- Life

CXRef<DXRAudioContext> DXRAudioContext::initWithIO(RunnerIO& io, const CXRef<CXObject>& runner,
                                                   const DXRDeviceNodes& nodes, Viables viables,
                                                   const std::vector<std::string>& deviceUIDs)
{
    auto context =
        CXRef<DXRAudioContext>::adopt(new DXRAudioContext(io, runner, nodes, std::move(viables), deviceUIDs));
    // If a node's device is an aggregate of which only one part, also a node's device, is connected: use the
    // part itself, whose cycles serve both nodes.
    const auto isOneOf = [&](const CXRef<DXRDeviceNode>& node, bool isListed) {
        return context->_viables.contains(node) &&
               (!isListed || std::ranges::find(deviceUIDs, node->device()->deviceUID()) != deviceUIDs.end());
    };
    for (const bool isListed : {true, false}) {
        for (const auto& direction : nodes) {
            for (const CXRef<DXRDeviceNode>& node : direction) {
                if (context->_deviceID == kAudioObjectUnknown && isOneOf(node, isListed)) {
                    context->_deviceID = node->device()->deviceID();
                    context->_deviceUID = node->device()->deviceUID();
                }
            }
        }
    }
    return context;
}

DXRAudioContext::DXRAudioContext(RunnerIO& io, const CXRef<CXObject>& runner, const DXRDeviceNodes& nodes,
                                 Viables viables, std::vector<std::string> deviceUIDs)
    : _nodes(nodes), _viables(std::move(viables)), _queue(io.queue), _io(io), _runner(runner),
      _deviceUIDs(std::move(deviceUIDs))
{}

std::vector<std::string> DXRAudioContext::deviceUIDsOf(const DXRDeviceNodes& nodes, const Viables& viables)
{
    std::vector<std::string> uids;
    for (const auto& direction : nodes) {
        for (const CXRef<DXRDeviceNode>& node : direction) {
            if (!viables.contains(node))
                continue;
            for (std::string& uid : node->deviceUIDs()) {
                if (std::ranges::find(uids, uid) == uids.end())
                    uids.push_back(std::move(uid));
            }
        }
    }
    return uids;
}

// A failed assertion ends the process here: destructors are noexcept.
DXRAudioContext::~DXRAudioContext() CX_UNCHECKED_QUEUE // no other thread has a reference
{
    CX_ASSERT_SAYING(!_iocontext, "_iocontext == NULL");
}

std::string DXRAudioContext::description() const
{
    char text[80];
    std::snprintf(text, sizeof text, "<%s: %p", className(), static_cast<const void*>(this));
    std::string description = text;
    if (_deviceID != kAudioObjectUnknown)
        description += ", (" + std::to_string(_deviceID) + ") " + _deviceUID;
    return description + ">";
}

// ---- Starting and stopping

bool DXRAudioContext::start()
{
    CX_ASSERT_ON_QUEUE(_queue);
    CX_ASSERT_SAYING(!_iocontext, "_iocontext == nil");
    const CXRef<DXRAudioIOContext> record = _makeRecord();
    if (const HALStatus status = AudioDeviceCreateIOProcIDWithBlock(
            &record->procID, _deviceID, nullptr,
            [record, context = this](const AudioTimeStamp* now, const AudioBufferList* input,
                                     const AudioTimeStamp* inputTime, AudioBufferList* output,
                                     const AudioTimeStamp* outputTime) {
                _callback(*context, *record, {now, inputTime, outputTime},
                          {hasSampleTime(inputTime) ? input : nullptr,
                           hasSampleTime(outputTime) ? output : nullptr});
            });
        status != kAudioHardwareNoError) {
        record->forgetWork();
        return _fail(status, "cannot use");
    }
    _readStreams(*record);
    _followLayouts();
    _listenForRate(*record);
    _askForFormat();
    const HALStatus status = AudioDeviceStart(_deviceID, record->procID);
    if (status != kAudioHardwareNoError) {
        _endCallback(*record, _deviceID);
        _stopFollowing();
        return _fail(status, "cannot start");
    }
    _iocontext = record;
    if (!_startIO()) {
        _iocontext = nullptr;
        _endCallback(*record, _deviceID); // cannot deadlock: cycles are kept out and do not wait here
        _stopFollowing();
        return false;
    }
    record->unsafe.fetch_sub(1); // from here on, cycles may enter
    _followRings();
    return true;
}

/// `text`: what could not be done with the device.
bool DXRAudioContext::_fail(HALStatus status, const std::string& text)
{
    const CXRef<DXRDevice> device = _viables.size() == 1 ? (*_viables.begin())->device() : nullptr;
    const std::string name = device ? "'" + device->displayName() + "'" : "the devices";
    _error = {device ? device->deviceUID() : "", status, text + " " + name + statusText(status)};
    return false;
}

void DXRAudioContext::_readStreams(DXRAudioIOContext& record) const
{
    for (const bool isInput : {true, false}) {
        const size_t direction = isInput ? 0 : 1;
        record.streamChannels[direction] = streamChannelCountsOf(_deviceID, isInput);
        for (const uint32_t count : record.streamChannels[direction])
            record.channels[direction] += count;
        if (record.channels[direction] > maxStackEntries)
            record.entries[direction].resize(record.channels[direction]);
    }
}

DXRAudioContext::Layouts DXRAudioContext::_readLayouts() const
{
    Layouts layouts{channelLayoutOf(_deviceID, _deviceUID), {}, false};
    // A node's aggregate runs on while one of its parts is present. Ignore which: the hardware handles these,
    // and the runner follows the devices of nodes, of which the parts of a private aggregate are made.
    layouts.isSilent = kind() == DXRCycleRecord::Context::Device &&
                       std::ranges::none_of(layouts.context, &ChannelPart::isThere);
    for (ChannelPart& part : layouts.context)
        part.isThere = true;
    for (const CXRef<DXRDeviceNode>& node : _viables) {
        const DXRDevice& device = *node->device();
        if (device.deviceID() == _deviceID)
            continue;
        ChannelLayout& layout = layouts.nodes[node];
        if (device.isAggregate())
            layout = channelLayoutOf(device.deviceID(), device.deviceUID());
        else // as the context reports it, because the device itself may have disappeared
            std::ranges::copy_if(
                layouts.context, std::back_inserter(layout),
                [uid = device.deviceUID()](const ChannelPart& part) { return part.uid == uid; });
    }
    return layouts;
}

/// Makes the runner start a new context when a part of an aggregate appears, disappears or changes its
/// channels: cycles cannot always detect this.
void DXRAudioContext::_followLayouts()
{
    std::set<AudioObjectID> aggregates{_deviceID};
    for (const CXRef<DXRDeviceNode>& node : _viables) {
        if (node->device()->isAggregate())
            aggregates.insert(node->device()->deviceID());
    }
    const CXDispatchQueue::Work look = [weak = CXWeak(*this)] {
        if (const CXRef<DXRAudioContext> self = weak.lock())
            self->_lookAtLayouts();
    };
    for (const AudioObjectID aggregate : aggregates) {
        for (const uint32_t selector :
             {kAudioAggregateDevicePropertyComposition, kAudioAggregateDevicePropertyActiveSubDeviceList}) {
            const AudioObjectPropertyAddress address{selector, kAudioObjectPropertyScopeGlobal,
                                                     kAudioObjectPropertyElementMain};
            _layoutListeners.push_back(DXRPropertyListener::initWithObjectID(
                aggregate, &address, nullptr, CXRef<CXObject>(_queue),
                [look](const CXRef<CXObject>& queue, const AudioObjectPropertyAddress*) {
                    static_cast<CXDispatchQueue&>(*queue).dispatchAsync(look);
                }));
            _layoutListeners.back()->start();
        }
    }
    _layouts = _readLayouts();
    _queue->dispatchAsync(look); // finds changes made before the listeners were started
}

void DXRAudioContext::_lookAtLayouts()
{
    CX_ASSERT_ON_QUEUE(_queue);
    if (_iocontext && (deviceUIDsOf(_nodes, _viables) != _deviceUIDs || !(_readLayouts() == _layouts)))
        _io.onNewLayout(*this);
}

void DXRAudioContext::_stopFollowing()
{
    if (const CXRef<RingOffsets> offsets = std::exchange(_ringOffsets, nullptr))
        offsets->stop();
    for (const CXRef<DXRPropertyListener>& listener : std::exchange(_layoutListeners, {}))
        listener->stop();
}

CXRef<DXRAudioIOContext> DXRAudioContext::_makeRecord()
{
    CXRef<DXRAudioIOContext> record = DXRAudioIOContext::init();
    record->unsafe.store(1); // keeps cycles out until the context is ready
    record->turn = [record, context = this] { _takeTurn(*context, *record, false); };
    record->ending = [record, deviceID = _deviceID] { _endLater(record, deviceID); };
    return record;
}

/// Listens because a device need not restart its sample time when its rate changes.
void DXRAudioContext::_listenForRate(DXRAudioIOContext& record) const
{
    record.rateListener = DXRPropertyListener::initWithObjectID(
        _deviceID, &nominalSampleRate, nullptr, CXRef<CXObject>(&record),
        [](const CXRef<CXObject>& target, const AudioObjectPropertyAddress*) {
            static_cast<DXRAudioIOContext&>(*target).rateChanged = true;
        });
    record.rateListener->start();
}

/// Failures are ignored: cycles adapt to the format that the device runs at.
void DXRAudioContext::_askForFormat()
{
    const uint32_t frameCount = _io.frameCount.value();
    uint32_t deviceFrameCount = 0;
    if (frameCount != 0 && (!_frameCount(&deviceFrameCount) || deviceFrameCount != frameCount))
        _setFrameCount(frameCount);
    const double sampleRate = _io.sampleRate.value();
    double deviceSampleRate = 0.0;
    if (sampleRate > 0.0 && (!_sampleRate(&deviceSampleRate) || deviceSampleRate != sampleRate))
        _setSampleRate(sampleRate);
}

bool DXRAudioContext::_startIO()
{
    CX_ASSERT_ON_QUEUE(_queue);
    uint32_t deviceFrameCount = 0;
    double deviceSampleRate = 0.0;
    if (!_frameCount(&deviceFrameCount) || deviceFrameCount > DXRDeviceNode::maxFrames)
        deviceFrameCount = 0;
    if (!_sampleRate(&deviceSampleRate) || !QDLAudioDeviceSampleRateIsValid(deviceSampleRate))
        deviceSampleRate = 0.0;
    const auto firstOf = [](auto wanted, auto offered, auto otherwise) {
        return wanted != 0 ? wanted : offered != 0 ? offered : otherwise;
    };
    const uint32_t frameCount = firstOf(_io.frameCount.value(), deviceFrameCount, defaultFrameCount);
    const double sampleRate = firstOf(_io.sampleRate.value(), deviceSampleRate, defaultSampleRate);
    if (_iocontext && deviceFrameCount != 0 && deviceSampleRate != 0.0) {
        _iocontext->frameCount = deviceFrameCount;
        _iocontext->sampleRate = deviceSampleRate;
    }
    for (size_t direction = 0; direction < _nodes.size(); ++direction) {
        for (const CXRef<DXRDeviceNode>& node : _nodes[direction]) {
            std::vector<uint32_t> map = _channelMapForNode(node);
            // The device's channels may have changed since they were read: drop channels that have no entry.
            for (uint32_t& channel : map)
                channel = !_iocontext || channel <= _iocontext->channels[direction] ? channel : 0;
            if (!node->startIOWithSampleRate(sampleRate, frameCount, map)) {
                _stopIO();
                _error = bufferErrorOf(*node, frameCount);
                return false;
            }
        }
    }
    // Now, because building its filter is too expensive for the first cycle.
    if (_iocontext && _iocontext->frameCount != 0 && !_makeConverter(*_iocontext, sampleRate, frameCount)) {
        _stopIO();
        _error = {"", kAudioHardwareNoError,
                  "not enough memory to convert buffers of " + std::to_string(frameCount) + " frames"};
        return false;
    }
    _io.contextDidStart(sampleRate, frameCount);
    return true;
}

std::vector<uint32_t> DXRAudioContext::_channelMapForNode(const CXRef<DXRDeviceNode>& node) const
{
    if (!_viables.contains(node)) // absent devices have no channels
        return {};
    const uint32_t channelCount = node->device()->channelCount();
    std::vector<uint32_t> map;
    if (const auto layout = _layouts.nodes.find(node); layout != _layouts.nodes.end()) {
        map = channelMapBetween(layout->second, _layouts.context, node->isInput());
    } else {
        for (uint32_t channel = 1; channel <= channelCount; ++channel)
            map.push_back(channel);
    }
    map.resize(std::max<size_t>(map.size(), channelCount), 0);
    return map;
}

void DXRAudioContext::stop()
{
    CX_ASSERT_ON_QUEUE(_queue);
    if (const CXRef<DXRAudioIOContext> record = std::exchange(_iocontext, nullptr)) {
        if (record->stopCycles())
            _endCallback(*record, _deviceID);
        else
            record->keeper = CXRef<CXObject>(this);
    }
    _stopFollowing();
    _stopIO();
}

void DXRAudioContext::_stopIO()
{
    for (const auto& direction : _nodes) {
        for (const CXRef<DXRDeviceNode>& node : direction)
            node->stopIO();
    }
}

/// Waits for the running cycle. Must not be called where a cycle may be waiting for the caller.
void DXRAudioContext::_endCallback(DXRAudioIOContext& record, AudioObjectID deviceID)
{
    AudioDeviceStop(deviceID, record.procID);
    AudioDeviceDestroyIOProcID(deviceID, record.procID);
    record.rateListener->stop();
    record.forgetWork();
}

/// Work of the queue, enqueued by a cycle that must end its callback.
void DXRAudioContext::_endLater(const CXRef<DXRAudioIOContext>& record, AudioObjectID deviceID)
{
    const auto context = CXRefCast<DXRAudioContext>(std::exchange(record->keeper, nullptr));
    const bool needsRestart = record->needsRestart;
    // Does not throw: the queue has had a thread since the callback was created.
    dxr::GlobalQueue::highPriority().async([record, deviceID, context, needsRestart] {
        _endCallback(*record, deviceID);
        // Only after the callback has ended: this function may run at the end of the cycle, on the IO thread,
        // which must not start a device, and whose device would call a new callback in the same cycle.
        if (needsRestart)
            context->_queue->dispatchAsync([context] { context->_io.onNewLayout(*context); });
        // Here the last reference to the context may be released, and its private device destroyed: this is
        // safe because the device no longer runs.
    });
}

// ---- The device's properties

bool DXRAudioContext::_frameCount(uint32_t* frameCount) const
{
    const auto read = propertyValue<uint32_t>(_deviceID, bufferFrameSize);
    *frameCount = read.value_or(*frameCount);
    return read.has_value();
}

bool DXRAudioContext::_setFrameCount(uint32_t frameCount)
{
    return setPropertyValue(_deviceID, bufferFrameSize, frameCount);
}

bool DXRAudioContext::_sampleRate(double* sampleRate) const
{
    const auto read = propertyValue<double>(_deviceID, nominalSampleRate);
    *sampleRate = read.value_or(*sampleRate);
    return read.has_value();
}

bool DXRAudioContext::_setSampleRate(double sampleRate)
{
    return setPropertyValue(_deviceID, nominalSampleRate, sampleRate);
}

// ---- The cycle

void DXRAudioContext::_callback(DXRAudioContext& context, DXRAudioIOContext& record, const Stamps& stamps,
                                const DXRStreamBuffers& buffers) noexcept
{
    const AudioTimeStamp* const now = stamps.now;
    const CXRealtimeScope realtime;
    if (!record.enter())
        return;
    // The cycle owns the record until its turn, and the context stays alive even if stop() runs.
    constexpr double pastLast = 0x1p64;
    record.hasTime = hasSampleTime(now) && now->sampleTime >= 0.0 && now->sampleTime < pastLast;
    record.sampleTime = record.hasTime ? static_cast<uint64_t>(now->sampleTime) : 0;
    record.buffers = buffers;
    record.inputSampleTime = buffers.input ? stamps.input->sampleTime : 0.0;
    record.outputSampleTime = buffers.output ? stamps.output->sampleTime : 0.0;
    record.dueTicks = now && (now->flags & kAudioTimeStampHostTimeValid) != 0 ? now->hostTime : 0;
    record.beginTicks = context._io.isTraced.load(std::memory_order_relaxed) ? dxr::HostClock::nowTicks() : 0;
    record.freshRate.reset();
    if (record.rateChanged.load(std::memory_order_relaxed) && record.rateChanged.exchange(false))
        record.lastSampleTime = DXRAudioIOContext::noSampleTime;
    // Read the rate here: on the device's own thread this takes no lock, on the queue it would.
    double rate = 0.0;
    if (record.hasTime && record.lastSampleTime > record.sampleTime && context._sampleRate(&rate))
        record.freshRate = rate;
    if (!context._queue->dispatchSyncBypassOnceIfIdle([&] { _takeTurn(context, record, true); }))
        record.waitForTurn(*context._queue);
}

/// A cycle's work on the queue. `isHere`: called on the cycle's own thread, so the cycle cannot have been
/// abandoned.
void DXRAudioContext::_takeTurn(DXRAudioContext& context, DXRAudioIOContext& record, bool isHere) noexcept
{
    const CXRealtimeScope realtime;
    CX_ASSERT_ON_QUEUE(context._queue);
    const bool isClaimed = isHere || record.claimTurn();
    if (!record.leaveUnlessStopped())
        context._queue->dispatchAsync(record.ending);
    else if (isClaimed && record.hasTime && context._iocontext.get() == &record)
        context._performIO(record.sampleTime, record.buffers);
    if (isClaimed && !isHere)
        record.finishTurn();
}

void DXRAudioContext::_performIO(uint64_t sampleTime, const DXRStreamBuffers& buffers)
{
    CX_ASSERT_ON_QUEUE(_queue);
    DXRAudioIOContext& record = *_iocontext;
    const AudioBufferList* const lists[2] = {buffers.input, buffers.output};
    const uint32_t inputFrames = lists[0] ? frameCountOf(lists[0]) : 0;
    const uint32_t frameCount = inputFrames != 0 || !lists[1] ? inputFrames : frameCountOf(lists[1]);
    double sampleRate = 0.0;
    if (frameCount == 0 || !_followRate(record, sampleTime, &sampleRate))
        return;
    if (!hasStreams(lists[0], record.streamChannels[0]) || !hasStreams(lists[1], record.streamChannels[1]))
        return _leaveForNewLayout(record);
    if (sampleRate != record.sampleRate || record.lastSampleTime >= sampleTime)
        record.clock->reset();
    if (frameCount != record.frameCount || sampleRate != record.sampleRate) {
        record.frameCount = frameCount;
        record.sampleRate = sampleRate;
        const CXRealtimeExemption exemption("the converter for the old format goes");
        record.converter = nullptr;
    }
    // A device's sample time also counts the frames it has lost.
    const uint64_t expected = record.lastSampleTime + record.lastFrameCount;
    const bool isNext = record.lastSampleTime < sampleTime && record.lastFrameCount != 0;
    const uint64_t lostFrames = isNext && sampleTime > expected ? sampleTime - expected : 0;
    record.lastSampleTime = sampleTime;
    record.lastFrameCount = frameCount;
    if (!_makeConverter(record, _io.sampleRate.value(), _io.frameCount.value()))
        return _leaveForNewLayout(record); // the start of the next context reports the error
    DXRAudioConverter* const converter = record.converter.get();

    DXRChannelEntry* entries[2];
    for (size_t direction = 0; direction < 2; ++direction) {
        const size_t count = record.channels[direction];
        entries[direction] = count > maxStackEntries
                                 ? record.entries[direction].data()
                                 : static_cast<DXRChannelEntry*>(alloca(count * sizeof(DXRChannelEntry)));
        if (lists[direction])
            sampleBuffers(entries[direction], static_cast<uint32_t>(count), frameCount, lists[direction]);
    }
    const DXRCycleTimes times = _timesOf(record);
    if (DXRCycleTrace* const trace = _io.trace.get())
        _performTraced(*trace, record, converter, entries, times);
    else
        _performNodes(converter, entries, times);
    const auto now = static_cast<double>(sampleTime);
    record.distances[0] = now - record.inputSampleTime;
    record.distances[1] = record.outputSampleTime - now;
    record.blockPlaces[0] = converter ? converter->placeOfLastBlock(true) : 0.0;
    record.blockPlaces[1] = converter ? converter->placeOfLastBlock(false) : frameCount;
    const uint64_t deadline = _deadlineOf(record);
    _io.noteCycle(record.isOnHostClock && deadline != 0 && dxr::HostClock::nowTicks() > deadline, lostFrames);
}

/// The times of this cycle; unknown if the device does not report host times.
DXRCycleTimes DXRAudioContext::_timesOf(DXRAudioIOContext& record) noexcept
{
    // Blocks of a direction without data are called too: they get the times that the timer would report.
    const auto now = static_cast<double>(record.sampleTime);
    if (!record.buffers.input)
        record.inputSampleTime = now - record.frameCount;
    if (!record.buffers.output)
        record.outputSampleTime = now + record.frameCount;
    if (record.dueTicks == 0)
        return {};
    return record.clock->follow(record.dueTicks, record.sampleTime, record.inputSampleTime,
                                record.outputSampleTime, record.sampleRate);
}

/// When the next cycle is due, in ticks; 0 if the device does not report host times.
uint64_t DXRAudioContext::_deadlineOf(const DXRAudioIOContext& record) noexcept
{
    if (record.dueTicks == 0 || !(record.sampleRate > 0.0))
        return 0;
    return record.dueTicks +
           static_cast<uint64_t>(record.frameCount / record.sampleRate * dxr::HostClock::ticksPerSecond);
}

// ---- Latency

std::vector<DXRDeviceLatency> DXRAudioContext::latencies() const
{
    CX_ASSERT_ON_QUEUE(_queue);
    std::vector<DXRDeviceLatency> latencies;
    const std::optional<RingOffsets::Placements> placements = _placements();
    if (!placements)
        return latencies;
    const SubDeviceStatuses statuses = subDeviceStatusesOf(_deviceID);
    for (size_t direction = 0; direction < _nodes.size(); ++direction) {
        for (const CXRef<DXRDeviceNode>& node : _nodes[direction]) {
            // An aggregate is connected even if none of the parts that have its channels is.
            if (!_viables.contains(node) || node->deviceUIDs().empty())
                continue;
            latencies.push_back(
                latencyOfSlowest(_devicesOfNode(*node), node->isInput(), (*placements)[direction], statuses));
            latencies.back().deviceUID = node->device()->deviceUID();
        }
    }
    return latencies;
}

std::vector<AudioObjectID> DXRAudioContext::_devicesOfNode(const DXRDeviceNode&) const
{
    return {_deviceID};
}

std::optional<RingOffsets::Placements> DXRAudioContext::_placements() const
{
    CX_ASSERT_ON_QUEUE(_queue);
    if (!_iocontext || _iocontext->lastFrameCount == 0 || !(_iocontext->sampleRate > 0.0))
        return std::nullopt;
    const DXRAudioIOContext& record = *_iocontext;
    RingOffsets::Placements placements;
    for (size_t direction = 0; direction < placements.size(); ++direction) {
        placements[direction].clockID = _deviceID;
        placements[direction].sampleRate = record.sampleRate;
        placements[direction].cycleFrames = record.lastFrameCount;
        placements[direction].distanceFrames = record.distances[direction];
        placements[direction].blockFrames =
            _io.frameCount.value() * record.sampleRate / _io.sampleRate.value();
        placements[direction].placeFrames = record.blockPlaces[direction];
    }
    return placements;
}

void DXRAudioContext::_followRings()
{
    std::vector<RingOffsets::Part> parts;
    for (const CXRef<DXRDeviceNode>& node : _viables)
        parts.push_back({node, _devicesOfNode(*node)});
    const auto lastCycle = [weak = CXWeak(*this)] {
        const CXRef<DXRAudioContext> self = weak.lock();
        return self ? self->_placements() : std::nullopt;
    };
    _ringOffsets = RingOffsets::initWithDevice(_deviceID, std::move(parts), lastCycle, _queue);
}

/// The rate of this cycle. Returns false if the rate had to be read and could not be, or is invalid.
bool DXRAudioContext::_followRate(DXRAudioIOContext& record, uint64_t sampleTime,
                                  double* sampleRate) const noexcept
{
    *sampleRate = record.sampleRate;
    if (record.lastSampleTime <= sampleTime)
        return true;
    if (record.freshRate && QDLAudioDeviceSampleRateIsValid(*record.freshRate)) {
        *sampleRate = *record.freshRate;
        return true;
    }
    record.lastSampleTime = DXRAudioIOContext::noSampleTime;
    record.sampleRate = 0.0;
    return false;
}

void DXRAudioContext::_leaveForNewLayout(DXRAudioIOContext& record)
{
    CX_ASSERT_ON_QUEUE(_queue);
    record.unsafe.fetch_add(1); // permanently, as stop does
    record.needsRestart = true;
    record.keeper = CXRef<CXObject>(this);
    _iocontext = nullptr; // the callback still holds the record
    _queue->dispatchAsync(record.ending);
}

/// Makes the converter between the device's format and the runner's, unless they are equal or it exists.
/// Returns false if memory is exhausted.
bool DXRAudioContext::_makeConverter(DXRAudioIOContext& record, double sampleRate,
                                     uint32_t frameCount) const noexcept
{
    if (record.converter || (record.frameCount == frameCount && record.sampleRate == sampleRate))
        return true;
    const CXRealtimeExemption exemption("a new converter after a change of format, which is heard anyway");
    try {
        DXRAudioConverter::Nodes nodes[2];
        for (size_t direction = 0; direction < 2; ++direction)
            nodes[direction].assign(_nodes[direction].begin(), _nodes[direction].end());
        record.converter =
            DXRAudioConverter::initWithNodes(nodes, record.channels, record.sampleRate, sampleRate,
                                             record.frameCount, frameCount, _io.conversionQuality);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

void DXRAudioContext::_performNodes(DXRAudioConverter* converter, const DXRChannelEntry* const samples[2],
                                    const DXRCycleTimes& times)
{
    uint64_t sampleTime = _io.sampleTime.load(std::memory_order_relaxed);
    if (converter) {
        converter->performIOWithSampleTime(&sampleTime, samples, times);
    } else {
        const uint32_t frameCount = _io.frameCount.value();
        // The output block's samples are played after the buffer that is passed to the device now.
        const uint64_t hostTimes[2] = {times.ticksAt(times.input, 0),
                                       times.ticksAt(times.output, frameCount)};
        for (size_t direction = 0; direction < 2; ++direction) {
            for (const CXRef<DXRDeviceNode>& node : _nodes[direction])
                node->performIOWithSampleTime(sampleTime, samples[direction], hostTimes[direction]);
        }
        sampleTime += frameCount;
    }
    _io.setSampleTime(sampleTime);
}

void DXRAudioContext::_performTraced(DXRCycleTrace& trace, const DXRAudioIOContext& record,
                                     DXRAudioConverter* converter, const DXRChannelEntry* const samples[2],
                                     const DXRCycleTimes& times)
{
    DXRCycleRecord traced = _io.record(kind(), _deviceID);
    traced.frameCount = record.frameCount;
    traced.deviceSampleTime = record.sampleTime;
    traced.dueTicks = record.dueTicks;
    traced.deadlineTicks = _deadlineOf(record);
    traced.blocksBeginTicks = dxr::HostClock::nowTicks();
    traced.beginTicks = record.beginTicks != 0 ? record.beginTicks : traced.blocksBeginTicks;
    _performNodes(converter, samples, times);
    traced.endTicks = dxr::HostClock::nowTicks();
    traced.runnerFrameCount =
        static_cast<uint32_t>(_io.sampleTime.load(std::memory_order_relaxed) - traced.sampleTime);
    trace.write(traced);
}
