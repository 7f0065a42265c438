#include "SimulatedDevice.h"

#include "HALTimeStamp.h"

#include <algorithm>
#include <numbers>

namespace {

constexpr double ticksPerSecond = 1e9; // host ticks are nanoseconds

/// Copies frames of `channels` samples between the interleaved samples of a direction and those of one
/// stream.
void copyChannels(const float* from, uint32_t fromStride, float* to, uint32_t toStride, uint32_t channels,
                  uint32_t frames)
{
    for (uint32_t frame = 0; frame < frames; ++frame)
        std::copy_n(from + size_t{frame} * fromStride, channels, to + size_t{frame} * toStride);
}

} // namespace

/// The group of devices that startTogether() has started.
class SimulatedDevice::Group final : public HALGroupIO {
public:
    Group(CXRef<SimulatedMachine> machine, CXRef<SimulatedRun> run)
        : _machine(std::move(machine)), _run(std::move(run))
    {}

    HALStatus setMember(size_t place, const CXRef<HALDeviceDriver>& device,
                        const CXRef<HALIOProcTable>& table) override
    {
        const auto member = CXRefCast<SimulatedDevice>(device);
        if (member && !enter(*member))
            return kAudioHardwareIllegalOperationError;
        if (const auto present = devicesOf(*_run); member && !present.empty())
            setCycle(*member, present.front()->state().bufferFrameSize);
        _run->setMember(place, member, table, _machine->scheduler.nowTicks());
        _machine->scheduler.reschedule(_run);
        return kAudioHardwareNoError;
    }

    void stop() override
    {
        _machine->scheduler.remove(_run);
        for (const CXRef<SimulatedDevice>& member : devicesOf(*_run))
            leave(*member);
    }

    /// Adds the device to the group and ends its own run if it has one. Returns false if the device is
    /// already in a group.
    bool enter(SimulatedDevice& device)
    {
        CXRef<SimulatedRun> own;
        {
            const std::scoped_lock lock(_machine->membershipMutex);
            if (device._isInGroup)
                return false;
            device._isInGroup = true;
            own = std::exchange(device._currentRun, _run);
        }
        if (own)
            _machine->scheduler.remove(own);
        return true;
    }

    static std::vector<CXRef<SimulatedDevice>> devicesOf(const SimulatedRun& run)
    {
        std::vector<CXRef<SimulatedDevice>> devices;
        for (const CXRef<SimulatedRunMember>& member : run.presentMembers())
            devices.push_back(CXRefCast<SimulatedDevice>(member));
        return devices;
    }

    /// Sets the device's cycle length to that of the group: all members have the same.
    static void setCycle(SimulatedDevice& device, uint32_t frameCount)
    {
        if (device.state().bufferFrameSize != frameCount)
            device.alter([=](SimulatedDeviceDescription& each) { each.state.bufferFrameSize = frameCount; });
    }

    void leave(SimulatedDevice& device)
    {
        CXRef<SimulatedRun> own;
        {
            const auto held = device.lock();
            const std::scoped_lock lock(_machine->membershipMutex);
            if (device._currentRun != _run)
                return;
            device._isInGroup = false;
            if (device._table) // its own callbacks continue
                own = SimulatedRun::initWithDevice(CXRef(&device));
            device._currentRun = own;
        }
        if (own)
            device._runAlone(own);
    }

private:
    const CXRef<SimulatedMachine> _machine;
    const CXRef<SimulatedRun> _run;
};

CXRef<SimulatedDevice> SimulatedDevice::initWithDescription(SimulatedDeviceDescription description,
                                                            const CXRef<SimulatedMachine>& machine)
{
    return CXRef<SimulatedDevice>::adopt(new SimulatedDevice(std::move(description), machine));
}

SimulatedDevice::SimulatedDevice(SimulatedDeviceDescription description,
                                 const CXRef<SimulatedMachine>& machine)
    : _machine(machine), _uid(description.state.uid), _state(description.state),
      _description(std::move(description)),
      _random(static_cast<std::minstd_rand::result_type>(std::hash<std::string>{}(_uid)))
{
    // The first sample time is large enough for the input time of the first cycle not to be negative.
    _sampleTime = uint64_t{_description.state.bufferFrameSize} +
                  _description.state[HALDirection::Input].safetyOffsetFrames;
}

SimulatedDevice::~SimulatedDevice() = default;

// ---- The description

SimulatedDeviceDescription SimulatedDevice::currentDescription() const
{
    const auto held = lock();
    return _description;
}

HALDeviceState SimulatedDevice::state() const
{
    const std::scoped_lock lock(_stateMutex);
    return _state;
}

HALStatus SimulatedDevice::alter(const std::function<void(SimulatedDeviceDescription&)>& change)
{
    if (!_isPluggedIn)
        return kAudioHardwareBadDeviceError;
    {
        const auto held =
            lock(); // released before the script mutex is locked: a callback of this cycle may lock that
        const double due = _ticksAt(_sampleTime);
        change(_description);
        _anchor(due); // a new rate applies from the next cycle on
        if (!_isPrepared())
            _prepareBetweenCycles();
        if (_table)
            _table->setTiming(_description.state.nominalSampleRate, _description.state.bufferFrameSize);
        const std::scoped_lock state(_stateMutex);
        _state = _description.state;
    }
    if (const CXRef<SimulatedRun> run = _run())
        _machine->scheduler.reschedule(run);
    const std::scoped_lock script(_machine->scriptMutex);
    if (_machine->sink)
        _machine->sink->deviceChanged(*this, state());
    return kAudioHardwareNoError;
}

bool SimulatedDevice::unplug()
{
    if (!_isPluggedIn.exchange(false))
        return false;
    _leaveRun();
    return true;
}

void SimulatedDevice::_leaveRun()
{
    CXRef<SimulatedRun> run;
    bool wasInGroup = false;
    {
        const std::scoped_lock lock(_machine->membershipMutex);
        run = std::exchange(_currentRun, nullptr);
        wasInGroup = std::exchange(_isInGroup, false);
    }
    if (const std::optional<size_t> place = run && wasInGroup ? run->placeOf(*this) : std::nullopt)
        run->setMember(*place, nullptr, nullptr, _machine->scheduler.nowTicks());
    else if (run)
        _machine->scheduler.remove(run);
    stopIO();
}

bool SimulatedDevice::loseCycles(uint64_t count)
{
    const CXRef<SimulatedRun> run = _run();
    if (run)
        run->loseCycles(count);
    return bool(run);
}

CXRef<SimulatedRun> SimulatedDevice::_run() const
{
    const std::scoped_lock lock(_machine->membershipMutex);
    return _currentRun;
}

// ---- Writes

HALStatus SimulatedDevice::_write(const std::function<void(SimulatedDeviceDescription&)>& change)
{
    const HALStatus status = _machine->faults.statusOfWrite(_uid);
    return status ? status : alter(change);
}

HALStatus SimulatedDevice::setNominalSampleRate(double rate, HALDeadline /*deadline*/)
{
    return _write([rate](SimulatedDeviceDescription& each) { each.state.nominalSampleRate = rate; });
}

HALStatus SimulatedDevice::setBufferFrameSize(uint32_t frameCount, HALDeadline /*deadline*/)
{
    const auto set = [=](SimulatedDeviceDescription& each) { each.state.bufferFrameSize = frameCount; };
    if (const HALStatus status = _write(set))
        return status;
    const CXRef<SimulatedRun> run = _run(); // all its members have one cycle length
    for (const CXRef<SimulatedDevice>& other :
         run ? Group::devicesOf(*run) : std::vector<CXRef<SimulatedDevice>>())
        if (other.get() != this)
            other->alter(set);
    return kAudioHardwareNoError;
}

HALStatus SimulatedDevice::setVolume(HALDirection direction, uint32_t element, float scalar,
                                     HALDeadline /*deadline*/)
{
    return _write([=](SimulatedDeviceDescription& each) {
        HALDirectionState& state = each.state[direction];
        if (element == 0)
            state.mainVolume = scalar;
        else if (element <= state.channelVolumes.size())
            state.channelVolumes[element - 1] = scalar;
    });
}

HALStatus SimulatedDevice::setMuted(HALDirection direction, bool muted, HALDeadline /*deadline*/)
{
    return _write([=](SimulatedDeviceDescription& each) { each.state[direction].muted = muted; });
}

HALStatus SimulatedDevice::setDataSource(HALDirection direction, uint32_t sourceID, HALDeadline /*deadline*/)
{
    return _write([=](SimulatedDeviceDescription& each) { each.state[direction].dataSourceID = sourceID; });
}

// ---- IO

HALStatus SimulatedDevice::startIO(const CXRef<HALIOProcTable>& table, HALDeadline /*deadline*/)
{
    if (const HALStatus status = _machine->faults.statusOfStart())
        return status;
    if (!_isPluggedIn)
        return kAudioHardwareBadDeviceError;
    if (cycleTicks() == 0) // without frames or a rate, the device cannot run
        return kAudioHardwareUnspecifiedError;
    CXRef<SimulatedRun> own;
    {
        const auto held = lock();
        _table = table;
        _prepareBetweenCycles();
        const std::scoped_lock lock(_machine->membershipMutex);
        if (!_currentRun)
            own = _currentRun = SimulatedRun::initWithDevice(CXRef(this));
    }
    const HALStatus status = own ? _runAlone(own) : kAudioHardwareNoError;
    if (status)
        stopIO();
    if (_isPluggedIn)
        return status;
    _leaveRun(); // unplugged meanwhile
    return kAudioHardwareBadDeviceError;
}

/// Adds the device's own run to the scheduler. Removes it again if the device was unplugged or stopped since
/// the run was created: that call has not found the run in the scheduler.
HALStatus SimulatedDevice::_runAlone(const CXRef<SimulatedRun>& own)
{
    const HALStatus status = _machine->scheduler.add(own);
    if (_run() != own)
        _machine->scheduler.remove(own);
    return status;
}

void SimulatedDevice::stopIO()
{
    CXRef<SimulatedRun> own;
    {
        const auto held = lock();
        if (_table && _description.sink) {
            const uint32_t channels = _description.state[HALDirection::Output].channelCount();
            _description.sink(_sampleTime, 0, channels, _description.state.nominalSampleRate, nullptr);
        }
        _table = nullptr;
        const std::scoped_lock lock(_machine->membershipMutex);
        if (!_isInGroup)
            own = std::exchange(_currentRun, nullptr);
    }
    if (own)
        _machine->scheduler.remove(own);
}

HALStatus SimulatedDevice::startTogether(std::span<const HALGroupMember> members,
                                         const CXRef<HALIOProcTable>& table, HALDeadline /*deadline*/,
                                         CXRef<HALGroupIO>& group)
{
    if (const HALStatus status = _machine->faults.statusOfStart())
        return status;
    const CXRef<SimulatedRun> run = SimulatedRun::initWithGroup(members, table);
    const auto started = CXRef<Group>::adopt(new Group(_machine, run));
    const uint32_t frameCount = state().bufferFrameSize;
    for (const CXRef<SimulatedDevice>& member : Group::devicesOf(*run)) {
        if (!started->enter(*member)) {
            started->stop();
            return kAudioHardwareIllegalOperationError;
        }
        Group::setCycle(*member, frameCount);
    }
    if (run->cycleTicks() == 0) {
        started->stop();
        return kAudioHardwareUnspecifiedError;
    }
    if (const HALStatus status = _machine->scheduler.add(run)) {
        started->stop();
        return status;
    }
    group = started;
    return kAudioHardwareNoError;
}

// ---- The cycle

void SimulatedDevice::begin(uint64_t firstCycleTicks)
{
    const auto held = lock();
    _prepareBetweenCycles();
    _anchor(static_cast<double>(firstCycleTicks));
}

uint64_t SimulatedDevice::nextCycleTicks() const
{
    const auto held = lock();
    return static_cast<uint64_t>(_ticksAt(_sampleTime));
}

uint64_t SimulatedDevice::cycleTicks() const
{
    const auto held = lock();
    return static_cast<uint64_t>(_ticksPerFrame() * _description.state.bufferFrameSize);
}

HALCycle SimulatedDevice::beginCycle(uint64_t lostCycles)
{
    const HALDeviceState& state = _description.state;
    _isInCycle = true;
    _sampleTime += lostCycles * state.bufferFrameSize;
    _hear();
    HALCycle cycle;
    const auto start = static_cast<double>(_sampleTime);
    cycle.frameCount = state.bufferFrameSize;
    const double late = _ticksLate();
    cycle.now = _stampAt(start, late);
    cycle.inputTime =
        _stampAt(start - state.bufferFrameSize - state[HALDirection::Input].safetyOffsetFrames, late);
    cycle.outputTime =
        _stampAt(start + state.bufferFrameSize + state[HALDirection::Output].safetyOffsetFrames, late);
    cycle.input = _blocks[0];
    cycle.output = _blocks[1];
    return cycle;
}

void SimulatedDevice::runCallbacks(const HALCycle& cycle, bool isMixed)
{
    const CXRef<HALIOProcTable> table = _table;
    if (!table)
        return;
    HALCycle own = cycle;
    if (isMixed)
        own.output = _mixedBlocks;
    table->runCycle(own);
    for (size_t stream = 0; isMixed && stream < _mixedStreams.size(); ++stream)
        std::ranges::transform(_mixedStreams[stream], _streams[1][stream], _streams[1][stream].begin(),
                               std::plus<>());
}

void SimulatedDevice::endCycle()
{
    if (!_mustPrepare) // else the blocks no longer match the description
        _play();
    _sampleTime += _blockFrames;
    _isInCycle = false;
    if (std::exchange(_mustPrepare, false))
        _prepare();
}

/// Whether the blocks match the description.
bool SimulatedDevice::_isPrepared() const
{
    const HALDeviceState& state = _description.state;
    const auto hasStreams = [&](HALDirection direction) {
        return std::ranges::equal(_blocks[static_cast<size_t>(direction)], state[direction].streams, {},
                                  &HALStreamBlock::channelCount, &HALStreamState::channelCount);
    };
    return _blockFrames == state.bufferFrameSize && std::ranges::all_of(halDirections, hasStreams);
}

void SimulatedDevice::_prepareBetweenCycles()
{
    if (_isInCycle)
        _mustPrepare = true;
    else
        _prepare();
}

void SimulatedDevice::reportOverload()
{
    const auto held = lock();
    if (_table)
        _table->reportOverload();
}

void SimulatedDevice::_prepare()
{
    const HALDeviceState& state = _description.state;
    _blockFrames = state.bufferFrameSize;
    std::array<std::vector<uint32_t>, 2> channels;
    for (const HALDirection direction : halDirections) {
        const auto index = static_cast<size_t>(direction);
        _samples[index].assign(size_t{state[direction].channelCount()} * state.bufferFrameSize, 0.0F);
        _streams[index].clear();
        _blocks[index].clear();
        for (const HALStreamState& stream : state[direction].streams) {
            channels[index].push_back(stream.channelCount);
            _streams[index].emplace_back(size_t{stream.channelCount} * state.bufferFrameSize);
        }
        for (size_t stream = 0; stream < channels[index].size(); ++stream)
            _blocks[index].push_back({_streams[index][stream].data(), channels[index][stream]});
    }
    _mixedStreams = _streams[1];
    _mixedBlocks.clear();
    for (size_t stream = 0; stream < _mixedStreams.size(); ++stream)
        _mixedBlocks.push_back({_mixedStreams[stream].data(), channels[1][stream]});
    if (_table)
        _table->prepare(channels[0], channels[1], state.bufferFrameSize);
}

void SimulatedDevice::_anchor(double ticks)
{
    _anchorSampleTime = _sampleTime;
    _anchorTicks = ticks;
}

double SimulatedDevice::_ticksPerFrame() const
{
    return ticksPerSecond /
           (_description.state.nominalSampleRate * (1.0 + _description.driftPartsPerMillion * 1e-6));
}

double SimulatedDevice::_ticksAt(uint64_t sampleTime) const
{
    return _anchorTicks + static_cast<double>(sampleTime - _anchorSampleTime) * _ticksPerFrame();
}

double SimulatedDevice::_ticksLate()
{
    const double middle = _description.latenessSeconds * ticksPerSecond;
    if (middle <= 0.0)
        return 0.0;
    std::exponential_distribution<double> tail(std::numbers::ln2);
    std::uniform_real_distribution<double> even(0.0, 1.0);
    const double rare = even(_random) < 1.0 / 2000.0 ? even(_random) * 0.4e-3 * ticksPerSecond : 0.0;
    return middle * (0.6 + 0.4 * tail(_random)) + rare;
}

AudioTimeStamp SimulatedDevice::_stampAt(double sampleTime, double ticksLate) const
{
    const double ticks =
        _anchorTicks + (sampleTime - static_cast<double>(_anchorSampleTime)) * _ticksPerFrame() + ticksLate;
    return halTimeStamp(sampleTime, ticks, 1.0 + _description.driftPartsPerMillion * 1e-6);
}

void SimulatedDevice::_hear()
{
    const HALDeviceState& state = _description.state;
    const HALDirectionState& input = state[HALDirection::Input];
    const uint32_t frames = state.bufferFrameSize;
    const uint32_t channels = input.channelCount();
    if (channels == 0)
        return;
    std::vector<float>& heard = _samples[0];
    std::ranges::fill(heard, 0.0F);
    if (_description.source) {
        const uint64_t first = _sampleTime - std::min<uint64_t>(_sampleTime, frames);
        _description.source(first, frames, channels, state.nominalSampleRate, heard.data());
    } else if (_description.loopsBack) {
        const uint32_t played = state[HALDirection::Output].channelCount();
        copyChannels(_samples[1].data(), played, heard.data(), channels, std::min(played, channels), frames);
    }
    _applyVolume(HALDirection::Input, heard);
    uint32_t channel = 0;
    for (const HALStreamBlock& block : _blocks[0]) {
        copyChannels(heard.data() + channel, channels, block.samples, block.channelCount, block.channelCount,
                     frames);
        channel += block.channelCount;
    }
}

void SimulatedDevice::_play()
{
    const HALDeviceState& state = _description.state;
    const uint32_t frames = state.bufferFrameSize;
    const uint32_t channels = state[HALDirection::Output].channelCount();
    if (channels == 0)
        return;
    std::vector<float>& played = _samples[1];
    uint32_t channel = 0;
    for (const HALStreamBlock& block : _blocks[1]) {
        copyChannels(block.samples, block.channelCount, played.data() + channel, channels, block.channelCount,
                     frames);
        channel += block.channelCount;
    }
    _applyVolume(HALDirection::Output, played);
    if (_description.sink)
        _description.sink(_sampleTime, frames, channels, state.nominalSampleRate, played.data());
}

float SimulatedDevice::_gain(HALDirection direction, uint32_t channel) const
{
    const HALDirectionState& state = _description.state[direction];
    float scalar = state.mainVolume.value_or(1.0F);
    if (channel < state.channelVolumes.size())
        scalar *= state.channelVolumes[channel].value_or(1.0F);
    return scalar * scalar * scalar; // the slider's cube law
}

void SimulatedDevice::_applyVolume(HALDirection direction, std::vector<float>& samples) const
{
    const HALDirectionState& state = _description.state[direction];
    if (state.muted.value_or(false)) {
        std::ranges::fill(samples, 0.0F);
        return;
    }
    const uint32_t channels = state.channelCount();
    for (uint32_t channel = 0; channel < channels; ++channel) {
        const float gain = _gain(direction, channel);
        for (size_t i = channel; gain != 1.0F && i < samples.size(); i += channels)
            samples[i] *= gain;
    }
}
