#include "SimulatedRun.h"

#include <algorithm>

CXRef<SimulatedRun> SimulatedRun::initWithDevice(const CXRef<SimulatedRunMember>& device)
{
    auto run = CXRef<SimulatedRun>::adopt(new SimulatedRun);
    run->_members.push_back({device, nullptr, {}, {}});
    return run;
}

CXRef<SimulatedRun> SimulatedRun::initWithGroup(std::span<const HALGroupMember> members,
                                                const CXRef<HALIOProcTable>& table)
{
    auto run = CXRef<SimulatedRun>::adopt(new SimulatedRun);
    run->_groupTable = table;
    for (const HALGroupMember& each : members)
        run->_members.push_back({CXRefCast<SimulatedRunMember>(each.device), each.table, each.inputChannels,
                                 each.outputChannels});
    return run;
}

void SimulatedRun::begin(uint64_t nowTicks)
{
    const std::scoped_lock lock(_mutex);
    for (const Member& each : _members)
        if (each.device)
            each.device->begin(nowTicks + _leader()->cycleTicks());
}

void SimulatedRun::setMember(size_t place, const CXRef<SimulatedRunMember>& device,
                             const CXRef<HALIOProcTable>& table, uint64_t nowTicks)
{
    const std::scoped_lock lock(_mutex);
    const uint64_t due = nextCycleTicks();
    _members[place].device = device;
    _members[place].table = table;
    if (device) // none is due while all were absent
        device->begin(due != UINT64_MAX ? due : nowTicks + device->cycleTicks());
}

std::optional<size_t> SimulatedRun::placeOf(const SimulatedRunMember& device) const
{
    const std::scoped_lock lock(_mutex);
    for (size_t place = 0; _groupTable && place < _members.size(); ++place)
        if (_members[place].device.get() == &device)
            return place;
    return std::nullopt;
}

std::vector<CXRef<SimulatedRunMember>> SimulatedRun::presentMembers() const
{
    std::vector<CXRef<SimulatedRunMember>> present;
    const std::scoped_lock lock(_mutex);
    for (const Member& each : _members)
        if (each.device)
            present.push_back(each.device);
    return present;
}

void SimulatedRun::end()
{
    const std::scoped_lock lock(_mutex);
    _isEnded = true;
}

const CXRef<SimulatedRunMember>& SimulatedRun::_leader() const
{
    static const CXRef<SimulatedRunMember> none;
    const auto present = std::ranges::find_if(_members, [](const Member& each) { return bool(each.device); });
    return present == _members.end() ? none : present->device;
}

uint64_t SimulatedRun::nextCycleTicks() const
{
    const std::scoped_lock lock(_mutex);
    const CXRef<SimulatedRunMember>& leader = _leader();
    // Without frames or a rate there is no next cycle.
    return leader && !_isEnded && leader->cycleTicks() > 0 ? leader->nextCycleTicks() : UINT64_MAX;
}

uint64_t SimulatedRun::cycleTicks() const
{
    const std::scoped_lock lock(_mutex);
    const CXRef<SimulatedRunMember>& leader = _leader();
    return leader ? leader->cycleTicks() : 0;
}

uint64_t SimulatedRun::cycleCount() const
{
    const std::scoped_lock lock(_mutex);
    return _cycles;
}

void SimulatedRun::loseCycles(uint64_t count)
{
    const std::scoped_lock lock(_mutex);
    _lost += count;
}

// ---- The cycle

void SimulatedRun::runCycle()
{
    const std::scoped_lock lock(_mutex);
    if (_isEnded || !_leader())
        return;
    const uint64_t lost = std::exchange(_lost, 0);
    ++_cycles;
    if (_groupTable)
        return _runGroup(lost);
    const CXRef<SimulatedRunMember> device = _leader();
    const auto held = device->lock();
    if (lost > 0)
        device->reportOverload();
    device->runCallbacks(device->beginCycle(lost), false);
    device->endCycle();
}

/// Allocates buffers for `frameCount` frames of every stream and prepares the table.
void SimulatedRun::_prepareGroup(uint32_t frameCount)
{
    std::vector<uint32_t> inputs, outputs;
    for (const Member& each : _members) {
        inputs.insert(inputs.end(), each.inputChannels.begin(), each.inputChannels.end());
        outputs.insert(outputs.end(), each.outputChannels.begin(), each.outputChannels.end());
    }
    const auto room = [&](const std::vector<uint32_t>& channels) {
        return channels.empty() ? size_t{0} : size_t{*std::ranges::max_element(channels)} * frameCount;
    };
    _silence.assign(room(inputs), 0.0F);
    _discarded.assign(room(outputs), 0.0F);
    _groupFrames = frameCount;
    _groupTable->prepare(inputs, outputs, frameCount);
}

void SimulatedRun::_runGroup(uint64_t lostCycles)
{
    // The cycle continues with the members it began with, even if a callback unplugs one.
    std::vector<CXRef<SimulatedRunMember>> present(_members.size());
    std::vector<std::unique_lock<std::recursive_mutex>> held;
    for (size_t place = 0; place < _members.size(); ++place)
        if ((present[place] = _members[place].device))
            held.push_back(present[place]->lock());
    if (lostCycles > 0)
        _reportOverload();

    HALCycle cycle;
    bool isFirst = true;
    _input.clear();
    _output.clear();
    std::vector<HALCycle> own(_members.size());
    for (size_t place = 0; place < _members.size(); ++place) {
        if (present[place]) {
            own[place] = present[place]->beginCycle(lostCycles);
            if (std::exchange(isFirst, false)) {
                cycle = own[place];
                _groupTable->setTiming(present[place]->nominalSampleRate(), cycle.frameCount);
            }
            for (const HALStreamBlock& block : own[place].output) // the group may not fill all of them
                std::fill_n(block.samples, size_t{block.channelCount} * own[place].frameCount, 0.0F);
        }
    }
    if (cycle.frameCount != _groupFrames)
        _prepareGroup(cycle.frameCount);
    for (size_t place = 0; place < _members.size(); ++place)
        _addBlocks(_members[place], own[place], cycle.frameCount);

    const double shift = _followTime(cycle, lostCycles);
    for (AudioTimeStamp* time : {&cycle.now, &cycle.inputTime, &cycle.outputTime})
        time->sampleTime += shift;
    cycle.input = _input;
    cycle.output = _output;
    _groupTable->runCycle(cycle);
    for (size_t place = 0; place < _members.size(); ++place) {
        if (!present[place])
            continue;
        present[place]->runCallbacks(own[place], true);
        present[place]->endCycle();
    }
}

void SimulatedRun::_reportOverload()
{
    _groupTable->reportOverload();
    for (const Member& each : _members)
        if (each.table)
            each.table->reportOverload();
}

/// Appends the member's blocks to those of the group. While the member's cycle length differs from the
/// group's, it is silent.
void SimulatedRun::_addBlocks(const Member& member, const HALCycle& own, uint32_t frameCount)
{
    const auto add = [&](std::vector<HALStreamBlock>& all, std::span<const HALStreamBlock> blocks,
                         const std::vector<uint32_t>& channels, float* otherwise) {
        const bool fits = own.frameCount == frameCount &&
                          std::ranges::equal(blocks, channels, {}, &HALStreamBlock::channelCount);
        for (size_t stream = 0; stream < channels.size(); ++stream)
            all.push_back({fits ? blocks[stream].samples : otherwise, channels[stream]});
    };
    add(_input, own.input, member.inputChannels, _silence.data());
    add(_output, own.output, member.outputChannels, _discarded.data());
}

/// Returns the difference between the group's sample time and that of the present leader, so that the group's
/// sample time continues if another device leads.
double SimulatedRun::_followTime(const HALCycle& leaders, uint64_t lostCycles)
{
    if (_cycles == 1)
        _groupSampleTime = static_cast<uint64_t>(leaders.now.sampleTime);
    else
        _groupSampleTime += lostCycles * leaders.frameCount;
    const double shift = static_cast<double>(_groupSampleTime) - leaders.now.sampleTime;
    _groupSampleTime += leaders.frameCount;
    return shift;
}
