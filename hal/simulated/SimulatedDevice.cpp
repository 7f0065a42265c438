#include "SimulatedDevice.h"

#include <algorithm>

namespace {

constexpr double ticksPerSecond = 1e9; // host ticks are nanoseconds

/// Copies between all channels interleaved and one stream of them.
void copyChannels(const float* from, uint32_t fromStride, float* to, uint32_t toStride, uint32_t channels,
                  uint32_t frames)
{
    for (uint32_t frame = 0; frame < frames; ++frame)
        std::copy_n(from + size_t{frame} * fromStride, channels, to + size_t{frame} * toStride);
}

} // namespace

/// The device's lock, which the IO thread holds already while it is in a cycle.
class SimulatedDevice::Guard {
public:
    explicit Guard(const SimulatedDevice& device) : _lock(device._mutex, std::defer_lock)
    {
        if (runningOnThisThread != &device)
            _lock.lock();
    }
    static thread_local const SimulatedDevice* runningOnThisThread;

private:
    std::unique_lock<std::mutex> _lock;
};

thread_local const SimulatedDevice* SimulatedDevice::Guard::runningOnThisThread = nullptr;

CXRef<SimulatedDevice> SimulatedDevice::initWithDescription(const SimulatedDeviceDescription& description)
{
    return CXRef<SimulatedDevice>::adopt(new SimulatedDevice(description));
}

SimulatedDevice::SimulatedDevice(const SimulatedDeviceDescription& description) : _description(description)
{
    // Late enough for the input time of the first cycle to be a frame number too.
    _sampleTime = uint64_t{description.state.bufferFrameSize} +
                  description.state[HALDirection::Input].safetyOffsetFrames;
}

SimulatedDeviceDescription
SimulatedDevice::alter(const std::function<void(SimulatedDeviceDescription&)>& change)
{
    const Guard guard(*this);
    const double due = _ticksAt(_sampleTime);
    change(_description);
    if (_table) {
        _anchor(due); // a new rate counts from the next cycle on
        _prepare();
    }
    return _description;
}

SimulatedDeviceDescription SimulatedDevice::currentDescription() const
{
    const Guard guard(*this);
    return _description;
}

void SimulatedDevice::begin(const CXRef<HALIOProcTable>& table, uint64_t nowTicks)
{
    const Guard guard(*this);
    _table = table;
    _lost = 0;
    _prepare();
    _anchor(static_cast<double>(nowTicks) + _ticksPerFrame() * _description.state.bufferFrameSize);
}

void SimulatedDevice::end()
{
    const Guard guard(*this);
    if (_table && _description.sink) {
        const uint32_t channels = _description.state[HALDirection::Output].channelCount();
        _description.sink(_sampleTime, 0, channels, _description.state.nominalSampleRate, nullptr);
    }
    _table = nullptr;
}

uint64_t SimulatedDevice::nextCycleTicks() const
{
    const Guard guard(*this);
    return static_cast<uint64_t>(_ticksAt(_sampleTime));
}

uint64_t SimulatedDevice::cycleTicks() const
{
    const Guard guard(*this);
    return static_cast<uint64_t>(_ticksPerFrame() * _description.state.bufferFrameSize);
}

uint64_t SimulatedDevice::cycleCount() const
{
    const Guard guard(*this);
    return _cycles;
}

void SimulatedDevice::loseCycles(uint64_t count)
{
    const Guard guard(*this);
    _lost += count;
}

void SimulatedDevice::runCycle()
{
    const Guard guard(*this);
    if (!_table)
        return;
    const CXRef<HALIOProcTable> table = _table;
    const HALDeviceState& state = _description.state;
    if (_lost > 0) {
        _sampleTime += std::exchange(_lost, 0) * state.bufferFrameSize;
        table->reportOverload();
    }
    _hear();
    HALCycle cycle;
    const auto start = static_cast<double>(_sampleTime);
    cycle.frameCount = state.bufferFrameSize;
    cycle.now = _stampAt(start);
    cycle.inputTime = _stampAt(start - state.bufferFrameSize - state[HALDirection::Input].safetyOffsetFrames);
    cycle.outputTime =
        _stampAt(start + state.bufferFrameSize + state[HALDirection::Output].safetyOffsetFrames);
    cycle.input = _blocks[0];
    cycle.output = _blocks[1];

    const SimulatedDevice* outer = std::exchange(Guard::runningOnThisThread, this);
    table->runCycle(cycle);
    if (_table) // a callback may have ended it
        _play();
    Guard::runningOnThisThread = outer;

    _sampleTime += state.bufferFrameSize;
    ++_cycles;
}

void SimulatedDevice::_prepare()
{
    const HALDeviceState& state = _description.state;
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

AudioTimeStamp SimulatedDevice::_stampAt(double sampleTime) const
{
    AudioTimeStamp stamp{};
    stamp.sampleTime = sampleTime;
    const double ticks =
        _anchorTicks + (sampleTime - static_cast<double>(_anchorSampleTime)) * _ticksPerFrame();
    stamp.hostTime = ticks > 0.0 ? static_cast<uint64_t>(ticks) : 0;
    stamp.rateScalar = 1.0 / (1.0 + _description.driftPartsPerMillion * 1e-6);
    stamp.flags =
        kAudioTimeStampSampleTimeValid | kAudioTimeStampHostTimeValid | kAudioTimeStampRateScalarValid;
    return stamp;
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
