#include "DXRAudioContext.h"

#include "CXErrorAdditions.h"
#include "DXRAudioAggregateContext.h"
#include "DXRAudioTimerContext.h"
#include "DXRDeviceRunner.h"
#include "GlobalQueue.h"
#include "HostClock.h"
#include "QDL.h"

#include <algorithm>
#include <alloca.h>
#include <cstdio>

namespace {

constexpr std::nullptr_t nil = nullptr;
constexpr uint32_t defaultFrameCount = 512;
constexpr double defaultSampleRate = 44100.0;
// Of one direction, on the stack of an IO thread: 16 bytes each. A device with more has them in its record.
constexpr uint32_t mostStackEntries = 1024;
constexpr double ticksPerSecond =
    1e9 * platform::HostClock::nanosecondsDenominator / platform::HostClock::nanosecondsNumerator;

constexpr AudioObjectPropertyAddress bufferFrameSize{
    kAudioDevicePropertyBufferFrameSize, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
constexpr AudioObjectPropertyAddress nominalSampleRate{
    kAudioDevicePropertyNominalSampleRate, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};

template <class Value>
bool readProperty(AudioObjectID deviceID, const AudioObjectPropertyAddress& address, Value* value)
{
    Value read{};
    uint32_t size = sizeof read;
    if (AudioObjectGetPropertyData(deviceID, &address, 0, nullptr, &size, &read) != kAudioHardwareNoError ||
        size != sizeof read)
        return false;
    *value = read;
    return true;
}

template <class Value>
bool writeProperty(AudioObjectID deviceID, const AudioObjectPropertyAddress& address, Value value)
{
    return AudioObjectSetPropertyData(deviceID, &address, 0, nullptr, sizeof value, &value) ==
           kAudioHardwareNoError;
}

/// The buffers of a list, which has as many as it says, whatever its declared bound.
std::span<const AudioBuffer> buffersOf(const AudioBufferList* list)
{
    return {&list->buffers[0], list->numberBuffers};
}

bool hasSampleTime(const AudioTimeStamp* time)
{
    return time && (time->flags & kAudioTimeStampSampleTimeValid) != 0;
}

/// Frames of a buffer that has channels; 0 without data.
uint32_t frameCountOf(const AudioBuffer& buffer)
{
    if (buffer.numberChannels == 0 || !buffer.data)
        return 0;
    return static_cast<uint32_t>(buffer.dataByteSize / (uint64_t{buffer.numberChannels} * sizeof(float)));
}

} // namespace

// ---- Life

CXRef<DXRAudioContext> DXRAudioContext::audioContextWithRunner(const CXRef<DXRDeviceRunner>& runner,
                                                               const DXRDeviceNodes& nodes)
{
    Viables viables;
    std::vector<std::string> deviceUIDs;
    for (const auto& direction : nodes) {
        for (const CXRef<DXRDeviceNode>& node : direction) {
            if (!node->isViable())
                continue;
            viables.insert(node);
            for (std::string& uid : node->deviceUIDs()) {
                if (std::ranges::find(deviceUIDs, uid) == deviceUIDs.end())
                    deviceUIDs.push_back(std::move(uid));
            }
        }
    }
    if (deviceUIDs.size() >= 2 && viables.size() > 1)
        return DXRAudioAggregateContext::initWithRunner(runner, nodes, std::move(viables), deviceUIDs);
    if (!viables.empty())
        return initWithRunner(runner, nodes, std::move(viables));
    return DXRAudioTimerContext::initWithRunner(runner, nodes, std::move(viables));
}

CXRef<DXRAudioContext> DXRAudioContext::initWithRunner(const CXRef<DXRDeviceRunner>& runner,
                                                       const DXRDeviceNodes& nodes, Viables viables)
{
    auto context = CXRef<DXRAudioContext>::adopt(new DXRAudioContext(runner, nodes, std::move(viables)));
    for (const auto& direction : nodes) {
        for (const CXRef<DXRDeviceNode>& node : direction) {
            if (context->_deviceID == kAudioObjectUnknown && context->_viables.contains(node)) {
                context->_deviceID = node->device()->deviceID();
                context->_deviceUID = node->device()->deviceUID();
            }
        }
    }
    return context;
}

DXRAudioContext::DXRAudioContext(const CXRef<DXRDeviceRunner>& runner, const DXRDeviceNodes& nodes,
                                 Viables viables)
    : _nodes(nodes), _viables(std::move(viables)), _queue(runner->queue()), _runner(runner)
{}

// noexcept as it is, a broken promise ends the process here.
DXRAudioContext::~DXRAudioContext() CX_UNCHECKED_QUEUE // nobody else has it any more
{
    CX_ASSERT(_iocontext == NULL); // NOLINT(modernize-use-nullptr): the text of the assertion
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
    CX_ASSERT(_iocontext == nil);
    const CXRef<DXRAudioIOContext> record = _makeRecord();
    if (AudioDeviceCreateIOProcIDWithBlock(
            &record->procID, _deviceID, nullptr,
            [record, context = this](const AudioTimeStamp* now, const AudioBufferList* input,
                                     const AudioTimeStamp* inputTime, AudioBufferList* output,
                                     const AudioTimeStamp* outputTime) {
                _callback(*context, *record, now,
                          {hasSampleTime(inputTime) ? input : nullptr,
                           hasSampleTime(outputTime) ? output : nullptr});
            }) != kAudioHardwareNoError) {
        record->forgetWork();
        return false;
    }
    for (const bool isInput : {true, false}) {
        const size_t direction = isInput ? 0 : 1;
        record->channels[direction] = QDLAudioDeviceChannelCount(_deviceID, isInput);
        if (record->channels[direction] > mostStackEntries)
            record->entries[direction].resize(record->channels[direction]);
    }
    _listenForRate(*record);
    _askForFormat();
    if (AudioDeviceStart(_deviceID, record->procID) != kAudioHardwareNoError) {
        _endCallback(*record, _deviceID);
        return false;
    }
    _iocontext = record;
    _startIO();
    record->unsafe.fetch_sub(1); // cycles may come in
    return true;
}

CXRef<DXRAudioIOContext> DXRAudioContext::_makeRecord()
{
    CXRef<DXRAudioIOContext> record = DXRAudioIOContext::init();
    record->unsafe.store(1); // keeps cycles out until the context is ready
    record->turn = [record, context = this] { _takeTurn(*context, *record, false); };
    record->farewell = [record, deviceID = _deviceID] { _sayFarewell(record, deviceID); };
    return record;
}

/// A device need not begin its sample time anew with a new rate.
void DXRAudioContext::_listenForRate(DXRAudioIOContext& record) const
{
    record.rateListener = DXRPropertyListener::initWithObjectID(
        _deviceID, &nominalSampleRate, nullptr, CXRef<CXObject>(&record),
        [](const CXRef<CXObject>& target, const AudioObjectPropertyAddress*) {
            static_cast<DXRAudioIOContext&>(*target).rateChanged = true;
        });
    record.rateListener->start();
}

/// Failures do not matter: cycles adapt to whatever the device runs at.
void DXRAudioContext::_askForFormat()
{
    const uint32_t frameCount = _runner->frameCount();
    uint32_t deviceFrameCount = 0;
    if (frameCount != 0 && (!_frameCount(&deviceFrameCount) || deviceFrameCount != frameCount))
        _setFrameCount(frameCount);
    const double sampleRate = _runner->sampleRate();
    double deviceSampleRate = 0.0;
    if (sampleRate > 0.0 && (!_sampleRate(&deviceSampleRate) || deviceSampleRate != sampleRate))
        _setSampleRate(sampleRate);
}

void DXRAudioContext::_startIO()
{
    CX_ASSERT_ON_QUEUE(_queue);
    uint32_t deviceFrameCount = 0;
    double deviceSampleRate = 0.0;
    if (!_frameCount(&deviceFrameCount) || deviceFrameCount > DXRDeviceRunner::mostFrames)
        deviceFrameCount = 0;
    if (!_sampleRate(&deviceSampleRate) || !QDLAudioDeviceSampleRateIsValid(deviceSampleRate))
        deviceSampleRate = 0.0;
    const auto firstOf = [](auto wanted, auto offered, auto otherwise) {
        return wanted != 0 ? wanted : offered != 0 ? offered : otherwise;
    };
    const uint32_t frameCount = firstOf(_runner->frameCount(), deviceFrameCount, defaultFrameCount);
    const double sampleRate = firstOf(_runner->sampleRate(), deviceSampleRate, defaultSampleRate);
    if (_iocontext && deviceFrameCount != 0 && deviceSampleRate != 0.0) {
        _iocontext->frameCount = deviceFrameCount;
        _iocontext->sampleRate = deviceSampleRate;
    }
    for (size_t direction = 0; direction < _nodes.size(); ++direction) {
        for (const CXRef<DXRDeviceNode>& node : _nodes[direction]) {
            std::vector<uint32_t> map = _channelMapForNode(node);
            // What the node's device had when it was last looked at need not be what there is an entry for now.
            for (uint32_t& channel : map)
                channel = !_iocontext || channel <= _iocontext->channels[direction] ? channel : 0;
            node->startIOWithSampleRate(sampleRate, frameCount, map);
        }
    }
    _runner->audioContextDidStartWithSampleRate(sampleRate, frameCount);
}

std::vector<uint32_t> DXRAudioContext::_channelMapForNode(const CXRef<DXRDeviceNode>& node) const
{
    std::vector<uint32_t> map(_viables.contains(node) ? node->device()->channelCount() : 0, 0);
    for (uint32_t channel = 1; channel <= map.size(); ++channel)
        map[channel - 1] = channel;
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
    _stopIO();
}

void DXRAudioContext::_stopIO()
{
    for (const auto& direction : _nodes) {
        for (const CXRef<DXRDeviceNode>& node : direction)
            node->stopIO();
    }
}

/// Waits for the running cycle: not where a cycle may be waiting for the caller.
void DXRAudioContext::_endCallback(DXRAudioIOContext& record, AudioObjectID deviceID)
{
    AudioDeviceStop(deviceID, record.procID);
    AudioDeviceDestroyIOProcID(deviceID, record.procID);
    record.rateListener->stop();
    record.forgetWork();
}

/// Work of the queue that a cycle leaves behind when the end of the callback has fallen to it.
void DXRAudioContext::_sayFarewell(const CXRef<DXRAudioIOContext>& record, AudioObjectID deviceID)
{
    const auto context = CXRefCast<DXRAudioContext>(std::exchange(record->keeper, nullptr));
    platform::GlobalQueue::highPriority().async([record, deviceID, context] {
        _endCallback(*record, deviceID);
        // The context may end with this, and a private device with it: nothing runs on that any more.
    });
    if (record->needsRestart)
        context->_runner->audioContextDidStopFromConfigChange();
}

// ---- The device's properties

bool DXRAudioContext::_frameCount(uint32_t* frameCount) const
{
    return readProperty(_deviceID, bufferFrameSize, frameCount);
}

bool DXRAudioContext::_setFrameCount(uint32_t frameCount)
{
    return writeProperty(_deviceID, bufferFrameSize, frameCount);
}

bool DXRAudioContext::_sampleRate(double* sampleRate) const
{
    return readProperty(_deviceID, nominalSampleRate, sampleRate);
}

bool DXRAudioContext::_setSampleRate(double sampleRate)
{
    return writeProperty(_deviceID, nominalSampleRate, sampleRate);
}

// ---- The cycle

void DXRAudioContext::_callback(DXRAudioContext& context, DXRAudioIOContext& record,
                                const AudioTimeStamp* now, const DXRStreamBuffers& buffers) noexcept
{
    const CXRealtimeScope realtime;
    if (!record.enter())
        return;
    // From here to its turn the cycle has the record, and the context is there, whatever stop does.
    constexpr double pastLast = 0x1p64;
    record.hasTime = hasSampleTime(now) && now->sampleTime >= 0.0 && now->sampleTime < pastLast;
    record.sampleTime = record.hasTime ? static_cast<uint64_t>(now->sampleTime) : 0;
    record.buffers = buffers;
    record.dueTicks = now && (now->flags & kAudioTimeStampHostTimeValid) != 0 ? now->hostTime : 0;
    record.beginTicks = context._runner->isTraced() ? platform::HostClock::nowTicks() : 0;
    record.freshRate.reset();
    if (record.rateChanged.load(std::memory_order_relaxed) && record.rateChanged.exchange(false))
        record.lastSampleTime = DXRAudioIOContext::noSampleTime;
    // Read here: on the device's own thread that takes no lock, in the queue's it would.
    double rate = 0.0;
    if (record.hasTime && record.lastSampleTime > record.sampleTime && context._sampleRate(&rate))
        record.freshRate = rate;
    if (!context._queue->dispatchSyncBypassOnceIfIdle([&] { _takeTurn(context, record, true); }))
        record.waitForTurn(*context._queue);
}

/// A cycle's work in the queue, `isHere` on its own thread, which then cannot have gone away.
void DXRAudioContext::_takeTurn(DXRAudioContext& context, DXRAudioIOContext& record, bool isHere) noexcept
{
    const CXRealtimeScope realtime;
    CX_ASSERT_ON_QUEUE(context._queue);
    const bool isClaimed = isHere || record.claimTurn();
    if (!record.leaveUnlessStopped())
        context._queue->dispatchAsync(record.farewell);
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
    uint32_t channels[2] = {}, frames[2] = {};
    for (size_t direction = 0; direction < 2; ++direction) {
        if (lists[direction])
            _channelCount(&channels[direction], &frames[direction], lists[direction]);
    }
    const uint32_t frameCount = frames[0] != 0 ? frames[0] : frames[1];
    double sampleRate = 0.0;
    if (frameCount == 0 || !_followRate(record, sampleTime, &sampleRate))
        return;
    if (!std::ranges::equal(channels, record.channels))
        return _leaveForNewLayout(record);
    if (frameCount != record.frameCount || sampleRate != record.sampleRate) {
        record.frameCount = frameCount;
        record.sampleRate = sampleRate;
        const CXRealtimeExemption exemption("the converter for the old format goes");
        record.converter = nullptr;
    }
    record.lastSampleTime = sampleTime;
    DXRAudioConverter* const converter = _converterFor(record);

    DXRChannelEntry* entries[2];
    for (size_t direction = 0; direction < 2; ++direction) {
        const size_t count = record.channels[direction];
        entries[direction] = count > mostStackEntries
                                 ? record.entries[direction].data()
                                 : static_cast<DXRChannelEntry*>(alloca(count * sizeof(DXRChannelEntry)));
        if (lists[direction])
            _sampleBuffers(entries[direction], static_cast<uint32_t>(count), frameCount, lists[direction]);
    }
    if (DXRCycleTrace* const trace = _runner->cycleTrace())
        _performTraced(*trace, record, converter, entries);
    else
        _performNodes(converter, entries);
}

/// The rate of this cycle. False when it was to be read and could not be, or is none to work with.
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
    record.unsafe.fetch_add(1); // for good, as stop does
    record.needsRestart = true;
    record.keeper = CXRef<CXObject>(this);
    _iocontext = nullptr; // the callback has the record still
    _queue->dispatchAsync(record.farewell);
}

/// Null when none is needed.
DXRAudioConverter* DXRAudioContext::_converterFor(DXRAudioIOContext& record) const
{
    const uint32_t frameCount = _runner->frameCountOfIO();
    const double sampleRate = _runner->sampleRateOfIO();
    if (record.frameCount == frameCount && record.sampleRate == sampleRate)
        return nullptr;
    if (!record.converter || record.converter->convertedFrameCount() != frameCount ||
        record.converter->convertedSampleRate() != sampleRate) {
        const CXRealtimeExemption exemption(
            "a new converter after a change of format, which is heard anyway");
        DXRAudioConverter::Nodes nodes[2];
        for (size_t direction = 0; direction < 2; ++direction)
            nodes[direction].assign(_nodes[direction].begin(), _nodes[direction].end());
        record.converter = DXRAudioConverter::initWithNodes(nodes, record.channels, record.sampleRate,
                                                            sampleRate, record.frameCount, frameCount);
    }
    return record.converter.get();
}

void DXRAudioContext::_performNodes(DXRAudioConverter* converter, const DXRChannelEntry* const samples[2])
{
    uint64_t sampleTime = _runner->sampleTime();
    if (converter) {
        converter->performIOWithSampleTime(&sampleTime, samples);
    } else {
        for (size_t direction = 0; direction < 2; ++direction) {
            for (const CXRef<DXRDeviceNode>& node : _nodes[direction])
                node->performIOWithSampleTime(sampleTime, samples[direction]);
        }
        sampleTime += _runner->frameCountOfIO();
    }
    _runner->setSampleTime(sampleTime);
}

void DXRAudioContext::_performTraced(DXRCycleTrace& trace, const DXRAudioIOContext& record,
                                     DXRAudioConverter* converter, const DXRChannelEntry* const samples[2])
{
    DXRCycleRecord traced = _runner->traceRecord(this);
    traced.frameCount = record.frameCount;
    traced.deviceSampleTime = record.sampleTime;
    traced.dueTicks = record.dueTicks;
    if (record.dueTicks != 0 && record.sampleRate > 0.0)
        traced.deadlineTicks =
            record.dueTicks + static_cast<uint64_t>(record.frameCount / record.sampleRate * ticksPerSecond);
    traced.blocksBeginTicks = platform::HostClock::nowTicks();
    traced.beginTicks = record.beginTicks != 0 ? record.beginTicks : traced.blocksBeginTicks;
    _performNodes(converter, samples);
    traced.endTicks = platform::HostClock::nowTicks();
    traced.runnerFrameCount = static_cast<uint32_t>(_runner->sampleTime() - traced.sampleTime);
    trace.write(traced);
}

void DXRAudioContext::_channelCount(uint32_t* channelCount, uint32_t* frameCount,
                                    const AudioBufferList* streamBuffers)
{
    uint32_t channels = 0, frames = 0;
    for (const AudioBuffer& buffer : buffersOf(streamBuffers)) {
        channels += buffer.numberChannels;
        if (frames == 0)
            frames = frameCountOf(buffer);
    }
    if (channelCount)
        *channelCount = channels;
    if (frameCount)
        *frameCount = frames;
}

void DXRAudioContext::_sampleBuffers(DXRChannelEntry* entries, uint32_t room, uint32_t frameCount,
                                     const AudioBufferList* streamBuffers)
{
    uint32_t filled = 0;
    for (const AudioBuffer& buffer : buffersOf(streamBuffers)) {
        auto* const samples = frameCountOf(buffer) >= frameCount ? static_cast<float*>(buffer.data) : nullptr;
        for (uint32_t channel = 0; channel < buffer.numberChannels && filled < room; ++channel)
            entries[filled++] = {samples ? samples + channel : nullptr, buffer.numberChannels};
    }
}
