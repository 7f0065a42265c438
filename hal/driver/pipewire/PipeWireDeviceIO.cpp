#include "PipeWireDeviceIO.h"

#include "HALTimeStamp.h"
#include "HostClock.h"

#include <algorithm>
#include <cmath>
#include <pipewire/filter.h>
#include <pipewire/pipewire.h>

namespace {

constexpr double audibleRatioChange = 20e-6;         // smaller changes are measurement noise
constexpr uint64_t ratioNanoseconds = 1'000'000'000; // minimum between two reports of the ratio

// Each new port queues work for the audio thread, whose queue drops new work while it is full.
constexpr size_t portBatchSize = 64;

thread_local bool insideCycle __attribute__((tls_model("initial-exec"))) = false;

/// Writes channel `channel` of interleaved samples from one port's samples; silence if `from` is null.
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

} // namespace

struct PipeWireDeviceIO::Listener {
    spa_hook hook{};
};

bool PipeWireDeviceIO::isOnIOThread() noexcept
{
    return insideCycle;
}

PipeWireDeviceIO::PipeWireDeviceIO(PipeWireSession& session, const PipeWireWake& wake,
                                   const CXRef<HALIOProcTable>& table,
                                   std::span<const PipeWireChannels> members, const WantedTiming& wanted,
                                   uint32_t maxFrames, PipeWireTimeline& timeline)
    : _session(session), _wake(wake), _table(table), _maxFrames(maxFrames), _timeline(timeline),
      _listener(std::make_unique<Listener>())
{
    static const pw_filter_events events = [] {
        pw_filter_events all{};
        all.version = PW_VERSION_FILTER_EVENTS;
        all.state_changed = [](void* data, pw_filter_state, pw_filter_state now, const char*) {
            auto* self = static_cast<PipeWireDeviceIO*>(data);
            self->_hadCycles = self->_hadCycles || now == PW_FILTER_STATE_STREAMING;
            self->_wake.signal();
        };
        all.add_buffer = [](void*, void* port, pw_buffer* buffer) {
            PipeWireIOPort::of(port).addBuffer(*buffer);
        };
        all.remove_buffer = [](void* data, void* port, pw_buffer* buffer) {
            static_cast<PipeWireDeviceIO*>(data)->_removeBuffer(PipeWireIOPort::of(port), *buffer);
        };
        all.process = _process;
        return all;
    }();
    _addStreams(members);

    PipeWireProperties properties = _propertiesOf(wanted);
    properties.set(PW_KEY_MEDIA_TYPE, "Audio");
    properties.set(PW_KEY_MEDIA_CATEGORY, "Duplex");
    properties.set(PW_KEY_MEDIA_ROLE, "DSP");
    properties.set(PW_KEY_NODE_NAME, "dxr");
    properties.set(PW_KEY_NODE_AUTOCONNECT, "false");
    // A node without ports gets cycles only with this property.
    if (_inputs.empty() && _outputs.empty())
        properties.set(PW_KEY_NODE_ALWAYS_PROCESS, "true");
    _filter = session.isConnected() ? pw_filter_new(session.core(), "dxr", properties.copy()) : nullptr;
    if (!_filter)
        return;
    pw_filter_add_listener(_filter, &_listener->hook, &events, this);
    if (pw_filter_connect(_filter, PW_FILTER_FLAG_RT_PROCESS, nullptr, 0) < 0) { // its state may not show it
        spa_hook_remove(&_listener->hook);
        pw_filter_destroy(std::exchange(_filter, nullptr));
        return;
    }
    _addPorts(_inputs, "input_");
    _addPorts(_outputs, "output_");
}

PipeWireDeviceIO::~PipeWireDeviceIO()
{
    if (!_filter)
        return;
    spa_hook_remove(&_listener->hook); // ignores its last changes of state
    pw_filter_destroy(_filter);        // waits for the audio thread to leave it
}

/// Allocates the streams of all members, for the longest cycle: a new cycle length allocates nothing.
void PipeWireDeviceIO::_addStreams(std::span<const PipeWireChannels> members)
{
    pw_mempool* const pool = _session.isConnected() ? pw_core_get_mempool(_session.core()) : nullptr;
    const auto add = [this, pool](std::vector<Stream>& streams, std::vector<HALStreamBlock>& blocks,
                                  uint32_t channels) {
        if (channels == 0)
            return;
        Stream& stream = streams.emplace_back();
        for (uint32_t channel = 0; channel < channels; ++channel)
            stream.ports.push_back(std::make_unique<PipeWireIOPort>(pool, &streams == &_outputs));
        stream.samples.resize(size_t{channels} * _maxFrames);
        blocks.push_back({streams.back().samples.data(), channels});
    };
    size_t captureCount = 0;
    size_t playbackCount = 0;
    for (const PipeWireChannels& channels : members) {
        _members.push_back({channels, captureCount, playbackCount, {}, {}});
        captureCount += channels.capture;
        playbackCount += channels.playback;
        add(_inputs, _inputBlocks, channels.capture);
        add(_outputs, _outputBlocks, channels.playback);
    }
    const auto channelsOf = [](const std::vector<HALStreamBlock>& blocks) {
        std::vector<uint32_t> channels;
        channels.reserve(blocks.size());
        for (const HALStreamBlock& block : blocks)
            channels.push_back(block.channelCount);
        return channels;
    };
    _table->prepare(channelsOf(_inputBlocks), channelsOf(_outputBlocks), _maxFrames);
}

PipeWireProperties PipeWireDeviceIO::_propertiesOf(const WantedTiming& wanted)
{
    const std::string rate = std::to_string(std::lround(wanted.rate));
    PipeWireProperties properties;
    properties.set(PW_KEY_NODE_RATE, "1/" + rate);
    properties.set(PW_KEY_NODE_LATENCY, std::to_string(wanted.frameCount) + "/" + rate);
    properties.set(PW_KEY_NODE_FORCE_RATE, wanted.forcesRate ? rate : "0");
    properties.set(PW_KEY_NODE_FORCE_QUANTUM,
                   wanted.forcesFrameCount ? std::to_string(wanted.frameCount) : "0");
    return properties;
}

void PipeWireDeviceIO::setWantedTiming(const WantedTiming& wanted)
{
    if (!_filter)
        return;
    pw_properties* properties = _propertiesOf(wanted).copy();
    pw_filter_update_properties(_filter, nullptr, &properties->dict);
    pw_properties_free(properties);
}

void PipeWireDeviceIO::_addPorts(std::vector<Stream>& streams, const std::string& prefix)
{
    size_t count = 0;
    for (const Stream& stream : streams)
        for (const auto& port : stream.ports) {
            port->addTo(_filter, (prefix + std::to_string(++count)).c_str());
            if (count % portBatchSize == 0)
                _session.waitForAudioThread();
        }
}

/// Waits until the audio thread uses no buffer: PipeWire unmaps the buffer's memory after this call.
void PipeWireDeviceIO::_removeBuffer(PipeWireIOPort& port, pw_buffer& buffer)
{
    constexpr timespec pause{0, 50'000};
    port.close();
    while (_usesBuffers.load())
        nanosleep(&pause, nullptr);
    port.removeBuffer(buffer);
}

// ---- The node and its links

bool PipeWireDeviceIO::isAlive() const
{
    return _filter && pw_filter_get_state(_filter, nullptr) >= PW_FILTER_STATE_CONNECTING;
}

bool PipeWireDeviceIO::isPaused() const
{
    return _hadCycles && pw_filter_get_state(_filter, nullptr) == PW_FILTER_STATE_PAUSED;
}

bool PipeWireDeviceIO::isDamaged() const
{
    const auto hasLostMemory = [](const Stream& stream) {
        return std::ranges::any_of(stream.ports, [](const auto& port) { return port->hasLostMemory(); });
    };
    return _hasLostPort || std::ranges::any_of(_outputs, hasLostMemory);
}

std::optional<uint32_t> PipeWireDeviceIO::nodeID() const
{
    const uint32_t id = _filter ? pw_filter_get_node_id(_filter) : SPA_ID_INVALID;
    return id == SPA_ID_INVALID ? std::nullopt : std::optional(id);
}

void PipeWireDeviceIO::setOwnPorts(const std::vector<PipeWirePort>& own)
{
    const auto idsOf = [&own](const std::vector<Stream>& streams, bool isInput) {
        size_t count = 0;
        for (const Stream& stream : streams)
            count += stream.ports.size();
        std::vector<uint32_t> ids(count, SPA_ID_INVALID);
        for (const PipeWirePort& port : own)
            if (port.isInput == isInput && port.index < ids.size())
                ids[port.index] = port.id;
        return std::ranges::find(ids, SPA_ID_INVALID) == ids.end() ? ids : std::vector<uint32_t>();
    };
    if (!_ownInputs.empty() || !_ownOutputs.empty()) {
        _hasLostPort = own.size() < _ownInputs.size() + _ownOutputs.size();
        return;
    }
    std::vector<uint32_t> inputs = idsOf(_inputs, true);
    std::vector<uint32_t> outputs = idsOf(_outputs, false);
    if (inputs.empty() != _inputs.empty() || outputs.empty() != _outputs.empty())
        return; // some ports have not appeared yet
    _ownInputs = std::move(inputs);
    _ownOutputs = std::move(outputs);
    for (Member& member : _members)
        _link(member);
}

void PipeWireDeviceIO::setMember(size_t place, const std::optional<PipeWireEnds>& ends)
{
    Member& member = _members[place];
    member.links.reset(); // if the device has disappeared, the server has already destroyed them
    member.ends = ends;
    _link(member);
}

void PipeWireDeviceIO::_link(Member& member)
{
    if (!member.ends || (_ownInputs.empty() && _ownOutputs.empty()))
        return;
    std::vector<PipeWireLinks::Ends> links;
    for (size_t channel = 0; channel < member.channels.capture; ++channel)
        links.emplace_back(member.ends->capturePorts[channel], _ownInputs[member.firstCapture + channel]);
    for (size_t channel = 0; channel < member.channels.playback; ++channel)
        links.emplace_back(_ownOutputs[member.firstPlayback + channel], member.ends->playbackPorts[channel]);
    member.links = std::make_unique<PipeWireLinks>(_session, _wake, std::move(links));
}

void PipeWireDeviceIO::mendLinks()
{
    for (const Member& member : _members)
        if (member.links && member.links->isBroken())
            member.links->mend();
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
    const auto frameCount = static_cast<uint32_t>(std::min<uint64_t>(clock.duration, _maxFrames));
    const PipeWireTimeline::Step step = _timeline.advance(
        {clock.id, clock.position, clock.nsec, static_cast<uint32_t>(clock.duration), clock.rate.denom});
    if (step.wasCounted)
        return _skipCycle(frameCount);
    if (step.lostFrames)
        _noteOverload();
    _noteClock(position);

    const double ratio = clock.rate_diff > 0.5 && clock.rate_diff < 2.0 ? clock.rate_diff : 1.0;
    const auto sampleTime = static_cast<double>(step.sampleTime);
    const auto nanoseconds = static_cast<double>(clock.nsec);
    const double cycleNanoseconds = frameCount * 1e9 / (clock.rate.denom * ratio);
    HALCycle cycle;
    cycle.frameCount = frameCount;
    cycle.now = halTimeStamp(sampleTime, nanoseconds, ratio);
    // The input ended when this cycle began; the output is played from the next cycle on.
    cycle.inputTime = halTimeStamp(sampleTime - frameCount, nanoseconds - cycleNanoseconds, ratio);
    cycle.outputTime = halTimeStamp(sampleTime + frameCount, nanoseconds + cycleNanoseconds, ratio);
    _runProcs(cycle);
    // The device does not wait: output that is late is lost, although the clock's position shows no gap.
    if (!step.lostFrames && clock.next_nsec > clock.nsec && dxr::HostClock::nowTicks() > clock.next_nsec)
        _noteOverload();
}

/// Reads the input of all members, calls the IO callbacks and writes the members' output.
void PipeWireDeviceIO::_runProcs(HALCycle& cycle) noexcept
{
    const uint32_t frameCount = cycle.frameCount;
    _usesBuffers.store(true);
    for (Stream& stream : _inputs)
        for (size_t channel = 0; channel < stream.ports.size(); ++channel)
            interleave(stream.ports[channel]->samples(frameCount), stream.samples.data(), channel,
                       stream.ports.size(), frameCount);
    _usesBuffers.store(false);
    cycle.input = _inputBlocks;
    cycle.output = _outputBlocks;
    _table->runCycle(cycle);

    _usesBuffers.store(true);
    for (const Stream& stream : _outputs)
        for (size_t channel = 0; channel < stream.ports.size(); ++channel)
            if (float* samples = stream.ports[channel]->samples(frameCount))
                deinterleave(stream.samples.data(), samples, channel, stream.ports.size(), frameCount);
    _usesBuffers.store(false);
}

/// Discards the input and outputs silence.
void PipeWireDeviceIO::_skipCycle(uint32_t frameCount) noexcept
{
    _usesBuffers.store(true);
    for (const Stream& stream : _inputs)
        for (const auto& port : stream.ports)
            port->samples(frameCount);
    for (const Stream& stream : _outputs)
        for (const auto& port : stream.ports)
            if (float* samples = port->samples(frameCount))
                std::fill_n(samples, frameCount, 0.0F);
    _usesBuffers.store(false);
}

void PipeWireDeviceIO::_noteClock(const spa_io_position& position) noexcept
{
    const spa_io_clock& clock = position.clock;
    const auto frameCount = static_cast<uint32_t>(clock.duration);
    const uint64_t cycleCount = _cycleCount.load(std::memory_order_relaxed) + 1;
    _cycleCount.store(cycleCount, std::memory_order_relaxed);
    bool changed = cycleCount == 1 || _rate.load(std::memory_order_relaxed) != clock.rate.denom ||
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
    _wake.signal();
}

/// Reports lost frames to the table at once; the loop reports them to the members' own tables.
void PipeWireDeviceIO::_noteOverload() noexcept
{
    _table->reportOverload();
    _overloadCount.store(_overloadCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    _wake.signal();
}
