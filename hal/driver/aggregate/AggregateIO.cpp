#include "AggregateIO.h"

#include <algorithm>

namespace {

/// Appends one block per stream.
void addBlocks(std::vector<HALStreamBlock>& blocks, const std::vector<uint32_t>& channels)
{
    for (const uint32_t count : channels)
        blocks.push_back({nullptr, count});
}

std::vector<uint32_t> channelsOf(const std::vector<HALStreamBlock>& blocks)
{
    std::vector<uint32_t> channels;
    channels.reserve(blocks.size());
    for (const HALStreamBlock& block : blocks)
        channels.push_back(block.channelCount);
    return channels;
}

} // namespace

AggregateIO::AggregateIO(CXRef<HALIOProcTable> table, Plan plan, std::atomic<uint64_t>& sampleTime)
    : _table(std::move(table)), _plan(std::move(plan)), _slots(_plan.layout.size()),
      _liveTracks(_plan.layout.size()), _sampleTime(sampleTime)
{
    for (size_t place = 0; place < _slots.size(); ++place) {
        const AggregateTrackShape& shape = _plan.layout[place];
        Slot& slot = _slots[place];
        slot.firstInput = _input.size();
        slot.firstOutput = _output.size();
        slot.inputs = shape.inputChannels.size();
        slot.outputs = shape.outputChannels.size();
        addBlocks(_input, shape.inputChannels);
        addBlocks(_output, shape.outputChannels);
    }
    for (const size_t place : _plan.group) {
        _slots[place].isInGroup = true;
        addBlocks(_groupInput, _plan.layout[place].inputChannels);
        addBlocks(_groupOutput, _plan.layout[place].outputChannels);
    }
    const auto widest = [this](const std::vector<HALStreamBlock>& blocks) {
        uint32_t channels = 0;
        for (const HALStreamBlock& block : blocks)
            channels = std::max(channels, block.channelCount);
        return size_t{channels} * _plan.maxFrames;
    };
    _silence.resize(widest(_input));
    _discarded.resize(widest(_output));
    _table->prepare(channelsOf(_input), channelsOf(_output), _plan.maxFrames);
}

AggregateIO::~AggregateIO()
{
    if (_group)
        _group->stop();
    for (size_t place = 0; place < _slots.size(); ++place) {
        Slot& slot = _slots[place];
        if (!slot.isInGroup)
            detach(place);
        else if (slot.device && _group)
            slot.device->groupRunEnds();
        else if (slot.device)
            slot.device->destroyIOProc(slot.procID);
    }
}

bool AggregateIO::isInGroup(size_t place) const noexcept
{
    return _slots[place].isInGroup;
}

// ---- The leader and its group

AudioDeviceIOBlock AggregateIO::_leadBlock()
{
    return [this](const AudioTimeStamp* now, const AudioBufferList* input, const AudioTimeStamp* inputTime,
                  AudioBufferList* output,
                  const AudioTimeStamp* outputTime) { _lead(*now, input, inputTime, output, outputTime); };
}

HALStatus AggregateIO::start(const Devices& devices, HALDeadline deadline)
{
    if (_plan.group.size() > 1)
        return _startGroup(devices, deadline);
    const CXRef<HALDevice>& leader = devices[_plan.leader];
    Slot& slot = _slots[_plan.leader];
    if (const HALStatus status = leader->createIOProc(_leadBlock(), slot.procID))
        return status;
    slot.device = leader;
    _leaderTable = leader->table();
    return leader->start(slot.procID, deadline);
}

HALStatus AggregateIO::_startGroup(const Devices& devices, HALDeadline deadline)
{
    std::vector<HALGroupMember> members;
    for (const size_t place : _plan.group) {
        const CXRef<HALDevice>& device = devices[place];
        HALGroupMember& member = members.emplace_back();
        member.inputChannels = _plan.layout[place].inputChannels;
        member.outputChannels = _plan.layout[place].outputChannels;
        if (device) {
            member.device = device->driverRef();
            member.table = device->table();
        }
    }
    _leaderTable = _groupTable = HALIOProcTable::initBeside(*_table);
    _groupTable->setTiming(_plan.sampleRate, 0); // until the driver sets another rate
    _groupTable->start(_groupTable->create(_leadBlock()));
    const HALStatus status =
        devices[_plan.leader]->driver().startTogether(members, _groupTable, deadline, _group);
    if (status) {
        _group = nullptr;
        return status;
    }
    for (const size_t place : _plan.group)
        if ((_slots[place].device = devices[place]))
            _slots[place].device->groupRunBegins();
    return kAudioHardwareNoError;
}

void AggregateIO::setMember(size_t place, const CXRef<HALDevice>& device)
{
    Slot& slot = _slots[place];
    if (!_group || slot.device == device)
        return;
    const auto member = static_cast<size_t>(std::ranges::find(_plan.group, place) - _plan.group.begin());
    if (slot.device)
        slot.device->groupRunEnds();
    slot.device = nullptr;
    const HALStatus status = device ? _group->setMember(member, device->driverRef(), device->table())
                                    : _group->setMember(member, nullptr, nullptr);
    if (!device || status)
        return;
    slot.device = device;
    device->groupRunBegins();
}

// ---- The others

HALStatus AggregateIO::attach(size_t place, const CXRef<HALDevice>& device, const AggregateTrackShape& shape,
                              uint32_t leaderFrames, bool isCompensated, HALDeadline deadline)
{
    detach(place);
    Slot& slot = _slots[place];
    CXRef<AggregateTrack> track =
        AggregateTrack::initWithShape(shape, _plan.sampleRate, leaderFrames, isCompensated);
    if (!track)
        return kAudioHardwareIllegalOperationError;
    const AudioDeviceIOBlock block = [track](const AudioTimeStamp* now, const AudioBufferList* input,
                                             const AudioTimeStamp*, AudioBufferList* output,
                                             const AudioTimeStamp*) { track->run(*now, input, output); };
    if (const HALStatus status = device->createIOProc(block, slot.procID))
        return status;
    slot.device = device;
    slot.track = track;
    slot.live.store(track.get());
    const HALStatus status = device->start(slot.procID, deadline);
    if (status)
        detach(place);
    return status;
}

void AggregateIO::detach(size_t place)
{
    Slot& slot = _slots[place];
    if (!slot.track)
        return;
    slot.live.store(nullptr);
    const uint32_t cycle = _cycle.load();
    if (cycle % 2 != 0)
        _cycle.wait(cycle);
    slot.device->destroyIOProc(slot.procID);
    slot.procID = nullptr;
    slot.device = nullptr;
    slot.track = nullptr;
}

// ---- The leader's IO thread

bool AggregateIO::_takeGroupBlocks(const AudioBufferList* input, const AudioBufferList* output) noexcept
{
    if (!halTakeBlocks(input, _groupInput) || !halTakeBlocks(output, _groupOutput))
        return false;
    auto nextInput = _groupInput.begin();
    auto nextOutput = _groupOutput.begin();
    for (const size_t place : _plan.group) {
        const Slot& slot = _slots[place];
        std::copy_n(nextInput, slot.inputs, _input.begin() + static_cast<ptrdiff_t>(slot.firstInput));
        std::copy_n(nextOutput, slot.outputs, _output.begin() + static_cast<ptrdiff_t>(slot.firstOutput));
        nextInput += static_cast<ptrdiff_t>(slot.inputs);
        nextOutput += static_cast<ptrdiff_t>(slot.outputs);
    }
    return true;
}

void AggregateIO::_lead(const AudioTimeStamp& now, const AudioBufferList* input,
                        const AudioTimeStamp* inputTime, AudioBufferList* output,
                        const AudioTimeStamp* outputTime) noexcept
{
    const uint32_t frames = halFrameCount(input, output);
    if (frames == 0 || frames > _plan.maxFrames || !_takeGroupBlocks(input, output))
        return;
    // A change reaches the leader's cycles before the aggregate's state.
    const double rate = _leaderTable->nominalSampleRate();
    _table->setTiming(rate, frames);
    _followTime(now, frames);
    const auto shifted = [this](const AudioTimeStamp* time) {
        AudioTimeStamp result = *time;
        result.sampleTime += _timeOffset;
        return result;
    };
    // For a direction that the leader does not have: input a cycle before, output a cycle after.
    const AudioTimeStamp aside = now;
    HALCycle cycle;
    cycle.frameCount = frames;
    cycle.now = shifted(&now);
    cycle.inputTime = shifted(inputTime ? inputTime : &aside);
    cycle.outputTime = shifted(outputTime ? outputTime : &aside);
    const auto cycleTicks = static_cast<uint64_t>(frames * 1e9 / (rate > 0.0 ? rate : _plan.sampleRate));
    if (!inputTime) {
        cycle.inputTime.sampleTime -= frames;
        cycle.inputTime.hostTime -= std::min(cycle.inputTime.hostTime, cycleTicks);
    }
    if (!outputTime) {
        cycle.outputTime.sampleTime += frames;
        cycle.outputTime.hostTime += cycleTicks;
    }
    cycle.input = _input;
    cycle.output = _output;
    _cycle.fetch_add(1);
    _runCycle(cycle, now);
    _cycle.fetch_add(1);
    _cycle.notify_all(); // costs a load when no thread waits, and never blocks
}

void AggregateIO::_followTime(const AudioTimeStamp& now, uint32_t frameCount) noexcept
{
    if (!_hasRun) {
        // If the first cycle is late, no cycle was lost: sample time begins with it.
        _timeOffset = static_cast<double>(_sampleTime.load(std::memory_order_relaxed)) - now.sampleTime;
        _hasRun = true;
    } else if (now.sampleTime > _nextLeaderTime && !_groupTable) { // groups report to _table themselves
        _table->reportOverload();
    }
    _nextLeaderTime = now.sampleTime + frameCount;
    _sampleTime.store(static_cast<uint64_t>(_nextLeaderTime + _timeOffset), std::memory_order_relaxed);
}

void AggregateIO::_runCycle(HALCycle& cycle, const AudioTimeStamp& leaderNow) noexcept
{
    for (size_t place = 0; place < _slots.size(); ++place) {
        const Slot& slot = _slots[place];
        if (slot.isInGroup)
            continue;
        AggregateTrack* track = slot.live.load();
        if (track && track->leaderFrames() < cycle.frameCount) // until attached again, for longer cycles
            track = nullptr;
        _liveTracks[place] = track;
        if (track)
            track->begin(leaderNow, cycle.frameCount);
        for (size_t stream = 0; stream < slot.inputs; ++stream)
            _input[slot.firstInput + stream].samples =
                track ? track->inputBlocks()[stream].samples : _silence.data();
        for (size_t stream = 0; stream < slot.outputs; ++stream)
            _output[slot.firstOutput + stream].samples =
                track ? track->outputBlocks()[stream].samples : _discarded.data();
    }
    _table->runCycle(cycle);
    for (size_t place = 0; place < _slots.size(); ++place)
        if (!_slots[place].isInGroup && _liveTracks[place])
            _liveTracks[place]->end(leaderNow, cycle.frameCount);
}
