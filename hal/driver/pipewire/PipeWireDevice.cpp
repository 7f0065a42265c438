#include "PipeWireDevice.h"

#include "PipeWireNaming.h"

#include <algorithm>
#include <cmath>
#include <pipewire/keys.h>
#include <unordered_map>
#include <utility>

namespace {

/// The terminal type of a stream, from the card's type of the port; 0 if unknown.
uint32_t terminalTypeOf(const std::string& portType)
{
    static constexpr std::array<std::pair<std::string_view, uint32_t>, 8> types{{
        {"speaker", CXFourCharCode("spkr")},
        {"headphones", CXFourCharCode("hdph")},
        {"headset", CXFourCharCode("hdph")},
        {"mic", CXFourCharCode("micr")},
        {"line", CXFourCharCode("line")},
        {"hdmi", CXFourCharCode("hdmi")},
        {"spdif", CXFourCharCode("spdf")},
        {"analog", CXFourCharCode("line")},
    }};
    const auto found =
        std::ranges::find(types, std::string_view(portType), &decltype(types)::value_type::first);
    return found == types.end() ? 0 : found->second;
}

std::string channelName(const std::string& position)
{
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 11> names{{
        {"MONO", "Mono"},
        {"FL", "Front Left"},
        {"FR", "Front Right"},
        {"FC", "Front Centre"},
        {"LFE", "Low Frequencies"},
        {"RL", "Rear Left"},
        {"RR", "Rear Right"},
        {"RC", "Rear Centre"},
        {"SL", "Side Left"},
        {"SR", "Side Right"},
        {"TC", "Top Centre"},
    }};
    const auto found =
        std::ranges::find(names, std::string_view(position), &decltype(names)::value_type::first);
    return found == names.end() ? pipeWireText(position) : std::string(found->second);
}

/// A number for each clock, constant for the life of the process.
uint32_t domainOfClock(const std::string& name)
{
    // Never destroyed: the loop's thread may still run while the process exits.
    static auto& domains = *new std::unordered_map<std::string, uint32_t>;
    return domains.try_emplace(name, static_cast<uint32_t>(domains.size() + 1)).first->second;
}

std::array<uint32_t, 2> stereoPair(const std::vector<const PipeWirePort*>& ports)
{
    const auto place = [&](std::string_view position, uint32_t otherwise) {
        const auto found = std::ranges::find(ports, position, &PipeWirePort::channel);
        return found == ports.end() ? otherwise : static_cast<uint32_t>(found - ports.begin() + 1);
    };
    if (ports.size() == 1)
        return {1, 1};
    const std::array pair{place("FL", 0), place("FR", 0)};
    return pair[0] != 0 && pair[1] != 0 ? pair : std::array<uint32_t, 2>{1, 2};
}

bool isOffered(const std::vector<AudioValueRange>& rates, double rate)
{
    return std::ranges::any_of(rates, [rate](const AudioValueRange& each) { return each.minimum == rate; });
}

/// The latency that a port reports, in frames, beyond the one cycle that every device has.
uint32_t latencyFrames(const PipeWireLatency& latency, double rate, uint32_t frameCount)
{
    const double frames = std::max(0.0, latency.quantums - 1.0) * frameCount + latency.frames +
                          static_cast<double>(latency.nanoseconds) * 1e-9 * rate;
    return static_cast<uint32_t>(std::lround(std::clamp(frames, 0.0, 1e9)));
}

} // namespace

PipeWireDevice::PipeWireDevice(const PipeWireMirror& mirror, const Parts& parts, std::string uid,
                               std::string sourceName, std::string sinkName)
    : _mirror(mirror), _parts(parts),
      _uid(std::move(uid)), _nodeNames{std::move(sourceName), std::move(sinkName)}
{}

PipeWireNode* PipeWireDevice::node(HALDirection direction) const
{
    const uint64_t serial = direction == HALDirection::Output ? _parts.sink : _parts.source;
    return serial == 0 ? nullptr : _mirror.node(serial);
}

bool PipeWireDevice::isPresent() const
{
    return std::ranges::all_of(std::array{_parts.sink, _parts.source}, [this](uint64_t serial) {
        return serial == 0 || _mirror.node(serial) != nullptr;
    });
}

std::vector<const PipeWirePort*> PipeWireDevice::_ports(HALDirection direction) const
{
    const PipeWireNode* half = node(direction);
    if (!half)
        return {};
    if (_parts.isMonitor)
        return half->monitorPorts();
    return direction == HALDirection::Output ? half->playbackPorts() : half->capturePorts();
}

PipeWireEnds PipeWireDevice::ends() const
{
    const auto ids = [this](HALDirection direction) {
        std::vector<uint32_t> all;
        for (const PipeWirePort* port : _ports(direction))
            all.push_back(port->id);
        return all;
    };
    return {ids(HALDirection::Input), ids(HALDirection::Output)};
}

PipeWireChannels PipeWireDevice::channels() const
{
    return {static_cast<uint32_t>(_ports(HALDirection::Input).size()),
            static_cast<uint32_t>(_ports(HALDirection::Output).size())};
}

/// Nonzero only for nodes that can follow another node's cycle: the server's virtual devices, and ALSA
/// devices, which then resample. A stream that drives its own graph does not keep pace as a follower.
uint32_t PipeWireDevice::groupDomain() const
{
    for (const HALDirection direction : halDirections) {
        const PipeWireNode* half = node(direction);
        if (!half)
            continue;
        const std::string& factory = half->properties()["factory.name"];
        if (factory != "support.null-audio-sink" && !factory.starts_with("api.alsa.pcm."))
            return 0;
    }
    return _clockDomain();
}

PipeWireDeviceIO::WantedTiming PipeWireDevice::wantedTiming(const PipeWireClockSettings& settings) const
{
    // While a client forces the rate, a running node's rate is temporary and must not be asked for.
    const bool followsOthers = settings.forcedRate == 0;
    const std::vector<AudioValueRange> rates = _sampleRates(settings);
    const double rate = !runs.empty()   ? runs.front()->wantedTiming().rate
                        : followsOthers ? _idleRate(settings, rates)
                                        : _defaultRate(settings, rates);
    return {wantedRate.value_or(rate), wantedFrameCount.value_or(settings.frameCount), wantedRate.has_value(),
            wantedFrameCount.has_value()};
}

bool PipeWireDevice::canRunAt(double rate, const PipeWireClockSettings& settings) const
{
    return wantedRate.value_or(rate) == rate && isOffered(_sampleRates(settings), rate);
}

uint32_t PipeWireDevice::maxFrames(const PipeWireClockSettings& settings) const
{
    uint32_t most = std::max({settings.maxFrames, settings.forcedFrameCount, 8192U});
    for (const HALDirection direction : halDirections)
        if (const PipeWireNode* half = node(direction))
            most = std::max(most, half->properties().number("clock.quantum-limit").value_or(0));
    return std::min(most, PipeWireClockSettings::longestCycle);
}

std::optional<uint32_t> PipeWireDevice::cardDevice(HALDirection direction) const
{
    const PipeWireNode* half = node(direction);
    return half && card() && !_parts.isMonitor ? half->properties().number("card.profile.device")
                                               : std::nullopt;
}

std::optional<PipeWireDevice::VolumePlace> PipeWireDevice::volumePlace(HALDirection direction) const
{
    const PipeWireNode* half = node(direction);
    // A duplex node has only one volume, which applies to its output.
    if (!half || _parts.isMonitor ||
        (half->kind() == PipeWireNode::Kind::Duplex && direction == HALDirection::Input))
        return std::nullopt;
    if (const std::optional<uint32_t> device = cardDevice(direction)) {
        const std::optional<PipeWireRoute> route =
            card()->activeRoute(*device, direction == HALDirection::Input);
        if (route && (route->props.isMuted || !route->props.amplitudes.empty()))
            return VolumePlace{route->props, route->index, *device};
    }
    return VolumePlace{half->volumeProps(), std::nullopt, 0};
}

void PipeWireDevice::joinRun(PipeWireDeviceRun& run)
{
    if (runs.empty())
        _useBefore = _otherUse();
    runs.push_back(&run);
}

// ---- Describing

HALDeviceState PipeWireDevice::describe(const PipeWireClockSettings& settings)
{
    HALDeviceState state;
    if (!isPresent())
        return state;
    const PipeWireNode* half = node(_parts.sink != 0 ? HALDirection::Output : HALDirection::Input);
    const PipeWireNodeProperties properties(half->properties(), card() ? &card()->properties() : nullptr);
    if (_isStalled() && std::ranges::any_of(runs, &PipeWireDeviceRun::hasStarted))
        _useBefore = {};
    state.uid = _uid;
    state.name = pipeWireDeviceName(properties, _parts.isWholeCard);
    state.manufacturer = pipeWireManufacturer(properties);
    state.modelUID = pipeWireModelUID(properties);
    state.transportType = pipeWireTransportType(properties);
    state.isHidden = pipeWireIsHidden(half->properties());
    if (_parts.isMonitor) {
        state.name = "Monitor of " + state.name;
        state.modelUID.reset(); // an input of another unit of the model must not replace a monitor
        state.isHidden = true;
    }
    state.clockDomain = _clockDomain();
    state.groupDomain = groupDomain();
    state.sampleRates = _sampleRates(settings);
    state.nominalSampleRate = _nominalRate(settings, state.sampleRates);
    state.bufferFrameSize = _frameCount(settings);
    state.bufferFrameSizeRange = {static_cast<double>(settings.minFrames),
                                  static_cast<double>(settings.maxFrames)};
    if (const PipeWireClockSeen clock = _runningClock(); clock.rate > 0.0)
        state.actualSampleRate = clock.rate * clock.rateRatio;
    state.isStalled = _isStalled();
    state.isRunningElsewhere = _otherUse().isRunning;
    for (const HALDirection direction : halDirections)
        state[direction] = _describe(direction, state);
    return state;
}

HALDirectionState PipeWireDevice::_describe(HALDirection direction, const HALDeviceState& device)
{
    HALDirectionState state;
    const PipeWireNode* half = node(direction);
    const std::vector<const PipeWirePort*> ports = _ports(direction);
    if (!half || ports.empty())
        return state;
    HALStreamState& stream = state.streams.emplace_back();
    stream.channelCount = static_cast<uint32_t>(ports.size());
    for (const PipeWirePort* port : ports)
        state.channelNames.push_back(channelName(port->channel));
    state.stereoChannels = stereoPair(ports);
    state.latencyFrames = latencyFrames(half->latency(direction == HALDirection::Output),
                                        device.nominalSampleRate, device.bufferFrameSize);
    if (state.latencyFrames == 0 && !_parts.isMonitor)
        state.latencyFrames = static_cast<uint32_t>(
            std::lround(std::min(10.0, pipeWireNetworkSeconds({half->properties(), nullptr})) *
                        device.nominalSampleRate));
    state.canBeDefault = !device.isHidden;
    _describeRoutes(direction, state);

    HALVolume& volume = _volumes[static_cast<size_t>(direction)];
    const VolumePlace place = volumePlace(direction).value_or(VolumePlace{});
    volume.setAmplitudes(place.props.amplitudes);
    state.mainVolume = volume.mainScalar();
    state.channelVolumes = volume.channelScalars();
    state.channelVolumes.resize(std::min(state.channelVolumes.size(), ports.size()));
    state.muted = place.props.isMuted;
    return state;
}

void PipeWireDevice::_describeRoutes(HALDirection direction, HALDirectionState& state) const
{
    const std::optional<uint32_t> device = cardDevice(direction);
    if (!device)
        return;
    const bool isInput = direction == HALDirection::Input;
    const std::optional<PipeWireRoute> active = card()->activeRoute(*device, isInput);
    bool activeIsListed = false;
    for (const PipeWireRoute& route : card()->routes(*device, isInput)) {
        state.dataSources.push_back({sourceID(route), pipeWireText(route.description)});
        activeIsListed = activeIsListed || (active && route.index == active->index);
    }
    if (!active)
        return;
    // An unplugged route that is still active goes on playing, and is listed until another is chosen.
    if (!activeIsListed)
        state.dataSources.push_back({sourceID(*active), pipeWireText(active->description)});
    state.dataSourceID = sourceID(*active);
    state.streams.front().terminalType = terminalTypeOf(active->portType);
}

std::vector<AudioValueRange> PipeWireDevice::_sampleRates(const PipeWireClockSettings& settings) const
{
    std::vector<uint32_t> allowed = settings.allowedRates;
    for (const HALDirection direction : halDirections) {
        const PipeWireNode* half = node(direction);
        const std::vector<PipeWireRateRange> rates = half ? half->rates() : std::vector<PipeWireRateRange>();
        if (!rates.empty())
            std::erase_if(allowed, [&](uint32_t rate) {
                return std::ranges::none_of(rates, [rate](const PipeWireRateRange& range) {
                    return range.lowest <= rate && rate <= range.highest;
                });
            });
    }
    if (allowed.empty()) // none is set, or the server converts between the device's rate and its own
        allowed.push_back(settings.rate);
    std::ranges::sort(allowed);
    allowed.erase(std::unique(allowed.begin(), allowed.end()),
                  allowed.end()); // clang 14 has no ranges::unique
    std::vector<AudioValueRange> ranges;
    ranges.reserve(allowed.size());
    for (const uint32_t rate : allowed)
        ranges.push_back({static_cast<double>(rate), static_cast<double>(rate)});
    return ranges;
}

PipeWireClockSeen PipeWireDevice::_runningClock() const
{
    for (const PipeWireDeviceRun* run : runs)
        if (run->clock().rate > 0.0)
            return run->clock();
    return {};
}

bool PipeWireDevice::_isStalled() const
{
    return !runs.empty() &&
           std::ranges::all_of(runs, [this](const PipeWireDeviceRun* run) { return run->isStalled(*this); });
}

double PipeWireDevice::_nominalRate(const PipeWireClockSettings& settings,
                                    const std::vector<AudioValueRange>& rates) const
{
    if (const PipeWireClockSeen clock = _runningClock(); clock.rate > 0.0)
        return clock.rate;
    if (wantedRate)
        return *wantedRate;
    return settings.forcedRate != 0 ? settings.forcedRate : _idleRate(settings, rates);
}

/// The rate of a device without IO of ours: the node's rate while other clients run it, else the rate that IO
/// will ask for. A stopped node still reports its last format, which is ignored.
double PipeWireDevice::_idleRate(const PipeWireClockSettings& settings,
                                 const std::vector<AudioValueRange>& rates) const
{
    for (const std::optional<uint32_t> rate : _otherUse().rates)
        if (rate && isOffered(rates, *rate))
            return *rate;
    return _defaultRate(settings, rates);
}

PipeWireDevice::Use PipeWireDevice::_otherUse() const
{
    if (!runs.empty() || isEndingIO)
        return _useBefore;
    Use use;
    for (const HALDirection direction : halDirections) {
        const PipeWireNode* half = node(direction);
        if (!half || !half->isRunning())
            continue;
        use.isRunning = true;
        use.rates[static_cast<size_t>(direction)] = half->formatRate();
    }
    return use;
}

double PipeWireDevice::_defaultRate(const PipeWireClockSettings& settings,
                                    const std::vector<AudioValueRange>& rates)
{
    return isOffered(rates, settings.rate) ? settings.rate : rates.front().minimum;
}

uint32_t PipeWireDevice::_frameCount(const PipeWireClockSettings& settings) const
{
    if (const PipeWireClockSeen clock = _runningClock(); clock.frameCount > 0)
        return clock.frameCount;
    if (wantedFrameCount)
        return *wantedFrameCount;
    return settings.forcedFrameCount != 0 ? settings.forcedFrameCount : settings.frameCount;
}

uint32_t PipeWireDevice::_clockDomain() const
{
    for (const HALDirection direction : halDirections) {
        const PipeWireNode* half = node(direction);
        if (!half)
            continue;
        const std::string& name = half->properties()["clock.name"];
        if (!name.empty())
            return domainOfClock(name);
        // The server's virtual devices name no clock. They use the host's.
        if (half->properties()["factory.name"] == "support.null-audio-sink")
            return domainOfClock("clock.system.monotonic");
    }
    return 0;
}
