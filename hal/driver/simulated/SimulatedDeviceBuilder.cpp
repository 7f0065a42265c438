#include "SimulatedDeviceBuilder.h"

#include "SimulatedDeviceDescription.h"

#include <cmath>

SimulatedDeviceBuilder::SimulatedDeviceBuilder()
    : _description(std::make_unique<SimulatedDeviceDescription>())
{
    HALDeviceState& state = _description->state;
    state.uid = "device";
    state.name = "Device";
    state.transportType = kAudioDeviceTransportTypeVirtual;
    sampleRates({44100.0, 48000.0, 88200.0, 96000.0, 176400.0, 192000.0});
}

SimulatedDeviceBuilder::SimulatedDeviceBuilder(const SimulatedDeviceDescription& description)
    : _description(std::make_unique<SimulatedDeviceDescription>(description))
{}

SimulatedDeviceBuilder::SimulatedDeviceBuilder(const SimulatedDeviceBuilder& other)
    : _description(std::make_unique<SimulatedDeviceDescription>(*other._description))
{}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::operator=(const SimulatedDeviceBuilder& other)
{
    *_description = *other._description;
    return *this;
}

SimulatedDeviceBuilder::~SimulatedDeviceBuilder() = default;

SimulatedDeviceBuilder& SimulatedDeviceBuilder::uid(std::string uid)
{
    _description->state.uid = std::move(uid);
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::name(std::string name)
{
    _description->state.name = std::move(name);
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::manufacturer(std::string manufacturer)
{
    _description->state.manufacturer = std::move(manufacturer);
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::modelUID(std::string modelUID)
{
    _description->state.modelUID = std::move(modelUID);
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::transport(uint32_t transportType)
{
    _description->state.transportType = transportType;
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::hidden(bool isHidden)
{
    _description->state.isHidden = isHidden;
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::canBeDefault(bool canBe)
{
    for (const HALDirection direction : halDirections)
        _description->state[direction].canBeDefault = canBe;
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::inputs(uint32_t channelCount)
{
    _description->state[HALDirection::Input].streams.push_back({.channelCount = channelCount});
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::outputs(uint32_t channelCount)
{
    _description->state[HALDirection::Output].streams.push_back({.channelCount = channelCount});
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::noStreams(HALDirection direction)
{
    _description->state[direction].streams.clear();
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::sampleRate(double rate)
{
    _description->state.nominalSampleRate = rate;
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::sampleRates(std::initializer_list<double> rates)
{
    _description->state.sampleRates.clear();
    for (const double rate : rates)
        sampleRateRange(rate, rate);
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::sampleRateRange(double minimum, double maximum)
{
    _description->state.sampleRates.push_back({minimum, maximum});
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::bufferFrameSize(uint32_t frameCount)
{
    _description->state.bufferFrameSize = frameCount;
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::bufferFrameSizeRange(uint32_t minimum, uint32_t maximum)
{
    _description->state.bufferFrameSizeRange = {static_cast<double>(minimum), static_cast<double>(maximum)};
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::volume(HALDirection direction, float scalar)
{
    _description->state[direction].mainVolume = scalar;
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::channelVolumes(HALDirection direction,
                                                               std::initializer_list<float> scalars)
{
    HALDirectionState& state = _description->state[direction];
    state.mainVolume.reset();
    state.channelVolumes.clear();
    for (const float scalar : scalars)
        state.channelVolumes.push_back(std::isnan(scalar) ? std::nullopt : std::optional(scalar));
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::channelNames(HALDirection direction,
                                                             std::vector<std::string> names)
{
    _description->state[direction].channelNames = std::move(names);
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::mute(HALDirection direction, bool isMuted)
{
    _description->state[direction].muted = isMuted;
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::source(HALDirection direction, uint32_t sourceID,
                                                       std::string name)
{
    HALDirectionState& state = _description->state[direction];
    state.dataSources.push_back({sourceID, std::move(name)});
    if (!state.dataSourceID)
        state.dataSourceID = sourceID;
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::currentSource(HALDirection direction, uint32_t sourceID)
{
    _description->state[direction].dataSourceID = sourceID;
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::stereoChannels(HALDirection direction, uint32_t left,
                                                               uint32_t right)
{
    _description->state[direction].stereoChannels = std::array{left, right};
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::latency(HALDirection direction, uint32_t frameCount,
                                                        uint32_t safetyOffset)
{
    _description->state[direction].latencyFrames = frameCount;
    _description->state[direction].safetyOffsetFrames = safetyOffset;
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::clockDomain(uint32_t domain)
{
    _description->state.clockDomain = domain;
    _description->state.groupDomain = domain;
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::drift(double partsPerMillion)
{
    _description->driftPartsPerMillion = partsPerMillion;
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::lateness(double seconds)
{
    _description->latenessSeconds = seconds;
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::hears(SimulatedSource source)
{
    _description->source = std::move(source);
    _description->loopsBack = false;
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::loopsBack()
{
    _description->source = nullptr;
    _description->loopsBack = true;
    return *this;
}

SimulatedDeviceBuilder& SimulatedDeviceBuilder::playsInto(SimulatedSink sink)
{
    _description->sink = std::move(sink);
    return *this;
}

SimulatedDeviceBuilder aDevice()
{
    return {};
}
