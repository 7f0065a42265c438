#include "AggregateIO.h"

#include <algorithm>

AggregateIO::AggregateIO(AggregateHost& host, CXRef<HALIOProcTable> table,
                         std::vector<AggregateTrackShape> layout, Leader leader,
                         std::atomic<uint64_t>& sampleTime)
    : _host(host), _table(std::move(table)), _leader(std::move(leader)), _layout(std::move(layout)),
      _slots(_layout.size()), _liveTracks(_layout.size()), _sampleTime(sampleTime)
{
    std::vector<uint32_t> inputChannels, outputChannels;
    for (size_t place = 0; place < _layout.size(); ++place) {
        Slot& slot = _slots[place];
        slot.firstInput = inputChannels.size();
        slot.firstOutput = outputChannels.size();
        slot.inputs = _layout[place].inputChannels.size();
        slot.outputs = _layout[place].outputChannels.size();
        inputChannels.insert(inputChannels.end(), _layout[place].inputChannels.begin(),
                             _layout[place].inputChannels.end());
        outputChannels.insert(outputChannels.end(), _layout[place].outputChannels.begin(),
                              _layout[place].outputChannels.end());
    }
    for (const uint32_t channels : inputChannels)
        _input.push_back({nullptr, channels});
    for (const uint32_t channels : outputChannels)
        _output.push_back({nullptr, channels});
    const auto widest = [this](const std::vector<uint32_t>& channels) {
        const uint32_t most = channels.empty() ? 0 : *std::ranges::max_element(channels);
        return size_t{most} * _leader.shape.mostFrames;
    };
    _silence.resize(widest(inputChannels));
    _nowhere.resize(widest(outputChannels));
    _table->prepare(inputChannels, outputChannels, _leader.shape.mostFrames);
}

bool AggregateIO::layoutDiffers(const std::vector<AggregateTrackShape>& layout) const
{
    return !std::ranges::equal(
        layout, _layout, [](const AggregateTrackShape& a, const AggregateTrackShape& b) {
            return a.inputChannels == b.inputChannels && a.outputChannels == b.outputChannels;
        });
}

AggregateIO::~AggregateIO()
{
    if (_leaderProc)
        _host.backend().destroyIOProc(_leader.shape.deviceID, _leaderProc);
    for (size_t place = 0; place < _slots.size(); ++place)
        detach(place);
}

HALStatus AggregateIO::start()
{
    const AudioDeviceIOBlock block = [this](const AudioTimeStamp* now, const AudioBufferList* input,
                                            const AudioTimeStamp* inputTime, AudioBufferList* output,
                                            const AudioTimeStamp* outputTime) {
        _lead(*now, input, inputTime, output, outputTime);
    };
    if (const HALStatus status = _host.backend().createIOProc(_leader.shape.deviceID, block, _leaderProc))
        return status;
    return _host.backend().start(_leader.shape.deviceID, _leaderProc);
}

HALStatus AggregateIO::attach(size_t place, const AggregateTrackShape& shape, bool isCompensated)
{
    detach(place);
    Slot& slot = _slots[place];
    CXRef<AggregateTrack> track = AggregateTrack::initWithShape(shape, _leader.shape.sampleRate,
                                                                _leader.shape.mostFrames, isCompensated);
    if (!track)
        return kAudioHardwareIllegalOperationError;
    const AudioDeviceIOBlock block = [track](const AudioTimeStamp* now, const AudioBufferList* input,
                                             const AudioTimeStamp*, AudioBufferList* output,
                                             const AudioTimeStamp*) { track->run(*now, input, output); };
    if (const HALStatus status = _host.backend().createIOProc(shape.deviceID, block, slot.procID)) {
        slot.procID = nullptr;
        return status;
    }
    slot.track = track;
    slot.live.store(track.get());
    const HALStatus status = _host.backend().start(shape.deviceID, slot.procID);
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
    _host.backend().destroyIOProc(slot.track->shape().deviceID, slot.procID);
    slot.procID = nullptr;
    slot.track = nullptr;
}

// ---- The leader's IO thread

void AggregateIO::_lead(const AudioTimeStamp& now, const AudioBufferList* input,
                        const AudioTimeStamp* inputTime, AudioBufferList* output,
                        const AudioTimeStamp* outputTime) noexcept
{
    const Slot& own = _slots[_leader.place];
    const uint32_t frames = halFrameCount(input, output);
    if (frames == 0 || frames > _leader.shape.mostFrames ||
        !halTakeBlocks(input, std::span(_input).subspan(own.firstInput, own.inputs)) ||
        !halTakeBlocks(output, std::span(_output).subspan(own.firstOutput, own.outputs)))
        return;
    _followTime(now, frames);
    const auto shifted = [this](const AudioTimeStamp* time) {
        AudioTimeStamp result = *time;
        result.sampleTime += _timeOffset;
        return result;
    };
    // A direction that the leader lacks takes place beside its cycle: a cycle before, a cycle after.
    const AudioTimeStamp aside = now;
    HALCycle cycle;
    cycle.frameCount = frames;
    cycle.now = shifted(&now);
    cycle.inputTime = shifted(inputTime ? inputTime : &aside);
    cycle.outputTime = shifted(outputTime ? outputTime : &aside);
    const auto cycleTicks = static_cast<uint64_t>(frames * 1e9 / _leader.shape.sampleRate);
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
    _cycle.notify_all(); // costs a load when nobody waits, and never blocks
}

void AggregateIO::_followTime(const AudioTimeStamp& now, uint32_t frameCount) noexcept
{
    if (!_hasRun) {
        // A late first cycle has not lost any: they begin with it.
        _timeOffset = static_cast<double>(_sampleTime.load(std::memory_order_relaxed)) - now.sampleTime;
        _hasRun = true;
    } else if (now.sampleTime > _nextLeaderTime) {
        _table->reportOverload();
    }
    _nextLeaderTime = now.sampleTime + frameCount;
    _sampleTime.store(static_cast<uint64_t>(_nextLeaderTime + _timeOffset), std::memory_order_relaxed);
}

void AggregateIO::_runCycle(HALCycle& cycle, const AudioTimeStamp& leaderNow) noexcept
{
    for (size_t place = 0; place < _slots.size(); ++place) {
        if (place == _leader.place)
            continue;
        const Slot& slot = _slots[place];
        AggregateTrack* track = slot.live.load();
        _liveTracks[place] = track;
        if (track)
            track->begin(leaderNow, cycle.frameCount);
        for (size_t stream = 0; stream < slot.inputs; ++stream)
            _input[slot.firstInput + stream].samples =
                track ? track->inputBlocks()[stream].samples : _silence.data();
        for (size_t stream = 0; stream < slot.outputs; ++stream)
            _output[slot.firstOutput + stream].samples =
                track ? track->outputBlocks()[stream].samples : _nowhere.data();
    }
    _table->runCycle(cycle);
    for (size_t place = 0; place < _slots.size(); ++place)
        if (place != _leader.place && _liveTracks[place])
            _liveTracks[place]->end(leaderNow, cycle.frameCount);
}
