#include "PipeWireDeviceIO.h"

#include "HostClock.h"

#include <algorithm>
#include <cmath>
#include <pipewire/filter.h>
#include <pipewire/pipewire.h>

namespace {

constexpr double audibleRatioChange = 20e-6;         // smaller ones are noise of the measurement
constexpr uint64_t ratioNanoseconds = 1'000'000'000; // between two announcements

constexpr size_t portsAtOnce =
    64; // each is work for the audio thread, whose queue loses what it has no room for

thread_local bool insideCycle __attribute__((tls_model("initial-exec"))) = false;

/// Channel `channel` of interleaved samples, from one port's block; silence without one.
void interleave(const float* from, float* to, size_t channel, size_t channelCount,
                uint32_t frameCount) noexcept
{
    float* sample = to + channel;
    for (uint32_t frame = 0; frame < frameCount; ++frame, sample += channelCount)
        *sample = from ? from[frame] : 0.0F;
}

void deinterleave(const float* from, float* to, size_t channel, size_t channelCount,
                  uint32_t frameCount) noexcept
{
    const float* sample = from + channel;
    for (uint32_t frame = 0; frame < frameCount; ++frame, sample += channelCount)
        to[frame] = *sample;
}

/// The samples of a port in this cycle; null when it has none, or not enough.
float* portSamples(void* port, uint32_t frameCount, bool isOutput) noexcept
{
    pw_buffer* buffer = pw_filter_dequeue_buffer(port);
    if (!buffer)
        return nullptr;
    spa_data& data = buffer->buffer->datas[0];
    const size_t bytes = size_t{frameCount} * sizeof(float);
    float* samples = nullptr;
    if (isOutput) {
        const bool fits = data.data && bytes <= data.maxsize;
        data.chunk->offset = 0;
        data.chunk->stride = sizeof(float);
        data.chunk->size = fits ? static_cast<uint32_t>(bytes) : 0;
        samples = fits ? static_cast<float*>(data.data) : nullptr;
    } else if (data.data && data.chunk->offset <= data.maxsize &&
               bytes <= data.maxsize - data.chunk->offset && bytes <= data.chunk->size) {
        samples = reinterpret_cast<float*>(static_cast<std::byte*>(data.data) + data.chunk->offset);
    }
    pw_filter_queue_buffer(port, buffer); // goes out with the end of the cycle
    return samples;
}

AudioTimeStamp timeStamp(double sampleTime, double nanoseconds, double rateRatio) noexcept
{
    AudioTimeStamp time{};
    time.sampleTime = sampleTime;
    time.hostTime = nanoseconds > 0.0 ? static_cast<uint64_t>(nanoseconds) : 0;
    time.rateScalar = 1.0 / rateRatio;
    time.flags =
        kAudioTimeStampSampleTimeValid | kAudioTimeStampHostTimeValid | kAudioTimeStampRateScalarValid;
    return time;
}

} // namespace

struct PipeWireDeviceIO::Listener {
    spa_hook hook{};
};

bool PipeWireDeviceIO::isOnIOThread() noexcept
{
    return insideCycle;
}

PipeWireDeviceIO::PipeWireDeviceIO(PipeWireSession& session, const CXRef<HALIOProcTable>& table,
                                   PipeWireEnds ends, const Wishes& wishes, uint32_t mostFrames,
                                   PipeWireTimeline& timeline, PipeWireLoop::Work changed)
    : _session(session), _table(table), _ends(std::move(ends)), _mostFrames(mostFrames), _timeline(timeline),
      _changed(std::move(changed)),
      _wake(pw_loop_add_event(
          session.loop().get(),
          [](void* self, uint64_t) { static_cast<PipeWireDeviceIO*>(self)->_changed(); }, this)),
      _listener(std::make_unique<Listener>()), _links(session),
      _inputSamples(_ends.capturePorts.size() * mostFrames),
      _outputSamples(_ends.playbackPorts.size() * mostFrames)
{
    static const pw_filter_events events = [] {
        pw_filter_events all{};
        all.version = PW_VERSION_FILTER_EVENTS;
        all.state_changed = [](void* self, pw_filter_state, pw_filter_state, const char*) {
            if (!static_cast<PipeWireDeviceIO*>(self)->_isEnding)
                static_cast<PipeWireDeviceIO*>(self)->_changed();
        };
        all.process = _process;
        return all;
    }();
    const auto channels = [](size_t count) {
        return count > 0 ? std::vector{static_cast<uint32_t>(count)} : std::vector<uint32_t>();
    };
    _table->prepare(channels(_ends.capturePorts.size()), channels(_ends.playbackPorts.size()), _mostFrames);

    PipeWireProperties properties = _propertiesOf(wishes);
    properties.set(PW_KEY_MEDIA_TYPE, "Audio");
    properties.set(PW_KEY_MEDIA_CATEGORY, "Duplex");
    properties.set(PW_KEY_MEDIA_ROLE, "DSP");
    properties.set(PW_KEY_NODE_NAME, "dxr");
    properties.set(PW_KEY_NODE_AUTOCONNECT, "false");
    // Without a port to be driven through, only this gives it cycles.
    if (_ends.capturePorts.empty() && _ends.playbackPorts.empty())
        properties.set(PW_KEY_NODE_ALWAYS_PROCESS, "true");
    _filter = pw_filter_new(session.core(), "dxr", properties.copy());
    if (!_filter)
        return;
    pw_filter_add_listener(_filter, &_listener->hook, &events, this);
    pw_filter_connect(_filter, PW_FILTER_FLAG_RT_PROCESS, nullptr, 0);
    _addPorts(_inputPorts, true, _ends.capturePorts.size());
    _addPorts(_outputPorts, false, _ends.playbackPorts.size());
}

PipeWireDeviceIO::~PipeWireDeviceIO()
{
    _isEnding = true;
    if (_filter)
        pw_filter_destroy(_filter); // waits for the audio thread to leave it
    pw_loop_destroy_source(_session.loop().get(), _wake);
}

PipeWireProperties PipeWireDeviceIO::_propertiesOf(const Wishes& wishes)
{
    const std::string rate = std::to_string(std::lround(wishes.rate));
    PipeWireProperties properties;
    properties.set(PW_KEY_NODE_RATE, "1/" + rate);
    properties.set(PW_KEY_NODE_LATENCY, std::to_string(wishes.frameCount) + "/" + rate);
    properties.set(PW_KEY_NODE_FORCE_RATE, wishes.forcesRate ? rate : "0");
    properties.set(PW_KEY_NODE_FORCE_QUANTUM,
                   wishes.forcesFrameCount ? std::to_string(wishes.frameCount) : "0");
    return properties;
}

void PipeWireDeviceIO::setWishes(const Wishes& wishes)
{
    if (!_filter)
        return;
    pw_properties* properties = _propertiesOf(wishes).copy();
    pw_filter_update_properties(_filter, nullptr, &properties->dict);
    pw_properties_free(properties);
}

void PipeWireDeviceIO::_addPorts(std::vector<void*>& ports, bool inputs, size_t count)
{
    for (size_t channel = 0; channel < count; ++channel) {
        const PipeWireProperties properties{
            {PW_KEY_FORMAT_DSP, "32 bit float mono audio"},
            {PW_KEY_PORT_NAME, (inputs ? "input_" : "output_") + std::to_string(channel + 1)}};
        ports.push_back(pw_filter_add_port(_filter, inputs ? PW_DIRECTION_INPUT : PW_DIRECTION_OUTPUT,
                                           PW_FILTER_PORT_FLAG_MAP_BUFFERS, 0, properties.copy(), nullptr,
                                           0));
        if (channel % portsAtOnce == portsAtOnce - 1)
            _session.waitForAudioThread();
    }
}

std::optional<uint32_t> PipeWireDeviceIO::nodeID() const
{
    const uint32_t id = _filter ? pw_filter_get_node_id(_filter) : SPA_ID_INVALID;
    return id == SPA_ID_INVALID ? std::nullopt : std::optional(id);
}

void PipeWireDeviceIO::linkPorts(const std::vector<PipeWirePort>& own)
{
    std::vector<uint32_t> inputs(_ends.capturePorts.size());
    std::vector<uint32_t> outputs(_ends.playbackPorts.size());
    size_t known = 0;
    for (const PipeWirePort& port : own) {
        std::vector<uint32_t>& ids = port.isInput ? inputs : outputs;
        if (port.index < ids.size()) {
            ids[port.index] = port.id;
            ++known;
        }
    }
    if (_isLinked || known < inputs.size() + outputs.size())
        return;
    _isLinked = true;
    std::vector<PipeWireLinks::Ends> links;
    for (size_t channel = 0; channel < inputs.size(); ++channel)
        links.emplace_back(_ends.capturePorts[channel], inputs[channel]);
    for (size_t channel = 0; channel < outputs.size(); ++channel)
        links.emplace_back(outputs[channel], _ends.playbackPorts[channel]);
    _links.make(std::move(links));
}

PipeWireClockSeen PipeWireDeviceIO::clock() const
{
    return {static_cast<double>(_rate.load(std::memory_order_relaxed)),
            _frameCount.load(std::memory_order_relaxed), _rateRatio.load(std::memory_order_relaxed)};
}

// ---- The audio thread

void PipeWireDeviceIO::_process(void* data, spa_io_position* position)
{
    if (!position)
        return;
    const CXRealtimeScope realtime;
    insideCycle = true;
    static_cast<PipeWireDeviceIO*>(data)->_cycle(*position);
    insideCycle = false;
}

void PipeWireDeviceIO::_cycle(const spa_io_position& position) noexcept
{
    const spa_io_clock& clock = position.clock;
    if (clock.rate.denom == 0 || clock.duration == 0)
        return;
    const auto frameCount = static_cast<uint32_t>(std::min<uint64_t>(clock.duration, _mostFrames));
    const PipeWireTimeline::Step step = _timeline.advance(
        {clock.id, clock.position, clock.nsec, static_cast<uint32_t>(clock.duration), clock.rate.denom});
    if (step.wasCounted)
        return _skipCycle(frameCount);
    if (step.lostFrames)
        _table->reportOverload();
    _noteClock(position);

    const double ratio = clock.rate_diff > 0.5 && clock.rate_diff < 2.0 ? clock.rate_diff : 1.0;
    const auto sampleTime = static_cast<double>(step.sampleTime);
    const auto nanoseconds = static_cast<double>(clock.nsec);
    const double cycleNanoseconds = frameCount * 1e9 / (clock.rate.denom * ratio);
    const size_t inputCount = _inputPorts.size();
    const size_t outputCount = _outputPorts.size();
    for (size_t channel = 0; channel < inputCount; ++channel)
        interleave(portSamples(_inputPorts[channel], frameCount, false), _inputSamples.data(), channel,
                   inputCount, frameCount);

    const HALStreamBlock input{_inputSamples.data(), static_cast<uint32_t>(inputCount)};
    const HALStreamBlock output{_outputSamples.data(), static_cast<uint32_t>(outputCount)};
    HALCycle cycle;
    cycle.frameCount = frameCount;
    cycle.now = timeStamp(sampleTime, nanoseconds, ratio);
    // What was captured ended as this cycle began; what is given now is heard from the next on.
    cycle.inputTime = timeStamp(sampleTime - frameCount, nanoseconds - cycleNanoseconds, ratio);
    cycle.outputTime = timeStamp(sampleTime + frameCount, nanoseconds + cycleNanoseconds, ratio);
    cycle.input = std::span(&input, inputCount > 0 ? 1 : 0);
    cycle.output = std::span(&output, outputCount > 0 ? 1 : 0);
    _table->runCycle(cycle);

    for (size_t channel = 0; channel < outputCount; ++channel)
        if (float* samples = portSamples(_outputPorts[channel], frameCount, true))
            deinterleave(_outputSamples.data(), samples, channel, outputCount, frameCount);
    // The device did not wait: what was given too late is lost, though the clock's count shows no gap.
    if (!step.lostFrames && clock.next_nsec > clock.nsec && platform::HostClock::nowTicks() > clock.next_nsec)
        _table->reportOverload();
}

/// Takes what has come, and gives silence.
void PipeWireDeviceIO::_skipCycle(uint32_t frameCount) noexcept
{
    for (void* const port : _inputPorts)
        portSamples(port, frameCount, false);
    for (void* const port : _outputPorts)
        if (float* samples = portSamples(port, frameCount, true))
            std::fill_n(samples, frameCount, 0.0F);
}

void PipeWireDeviceIO::_noteClock(const spa_io_position& position) noexcept
{
    const spa_io_clock& clock = position.clock;
    const auto frameCount = static_cast<uint32_t>(clock.duration);
    bool changed = _rate.load(std::memory_order_relaxed) != clock.rate.denom ||
                   _frameCount.load(std::memory_order_relaxed) != frameCount;
    const double ratio = _rateRatio.load(std::memory_order_relaxed);
    if (std::abs(clock.rate_diff - ratio) > audibleRatioChange && clock.rate_diff > 0.5 &&
        clock.rate_diff < 2.0 && clock.nsec > _ratioNanoseconds + ratioNanoseconds) {
        _ratioNanoseconds = clock.nsec;
        _rateRatio.store(clock.rate_diff, std::memory_order_relaxed);
        changed = true;
    }
    if (!changed)
        return;
    _rate.store(clock.rate.denom, std::memory_order_relaxed);
    _frameCount.store(frameCount, std::memory_order_relaxed);
    _table->setTiming(clock.rate.denom, frameCount);
    const CXRealtimeExemption exemption("writes to a counter of the kernel's, which never waits");
    pw_loop_signal_event(_session.loop().get(), _wake);
}
