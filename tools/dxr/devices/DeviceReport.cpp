#include "DeviceReport.h"

#include "DeviceProperties.h"
#include "DisplayText.h"
#include "ToolFailure.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <dxr/CXFourCharCode.h>
#include <dxr/DXRDeviceManager.h>
#include <dxr/QDL.h>
#include <set>

namespace {

std::set<AudioObjectID> deviceIDs(DeviceReport::Hidden hidden)
{
    std::set<AudioObjectID> devices;
    for (const CXRef<DXRDevice>& device : DXRDeviceManager::sharedDeviceManager().connectedDevices())
        devices.insert(device->deviceID());
    devices.erase(kAudioObjectUnknown); // one that went meanwhile
    if (hidden == DeviceReport::Hidden::Yes) {
        uint32_t count = 0;
        AudioObjectID* list = QDLAudioDeviceIDList(&count);
        devices.insert(list, list + count);
        std::free(list);
    }
    return devices;
}

void readManaged(AudioObjectID deviceID, bool input, DirectionReport& report)
{
    report.device = DXRDeviceManager::sharedDeviceManager().deviceWithDeviceID(deviceID, input);
    if (report.device)
        report.displayName = report.device->displayName();
}

std::vector<DirectionReport::Stream> readStreams(AudioObjectID deviceID, HALDirection direction)
{
    std::vector<DirectionReport::Stream> streams;
    for (const AudioObjectID streamID :
         readList<AudioObjectID>(deviceID, addressOf(kAudioDevicePropertyStreams, direction))) {
        const auto format =
            readValue<AudioStreamBasicDescription>(streamID, addressOf(kAudioStreamPropertyVirtualFormat));
        streams.push_back({streamID, format ? format->channelsPerFrame : 0});
    }
    return streams;
}

std::vector<std::string> readChannelNames(AudioObjectID deviceID, HALDirection direction,
                                          uint32_t channelCount)
{
    std::vector<std::string> names;
    for (uint32_t channel = 1; channel <= channelCount; ++channel)
        names.push_back(readString(deviceID, addressOf(kAudioObjectPropertyElementName, direction, channel))
                            .value_or(""));
    if (std::ranges::all_of(names, &std::string::empty))
        names.clear();
    return names;
}

std::vector<DirectionReport::Source> readSources(AudioObjectID deviceID, HALDirection direction)
{
    const bool input = direction == HALDirection::Input;
    std::vector<DirectionReport::Source> sources;
    for (const uint32_t sourceID :
         readList<uint32_t>(deviceID, addressOf(kAudioDevicePropertyDataSources, direction)))
        sources.push_back({sourceID, QDLSourceNameFromDataSource(deviceID, sourceID, input)});
    return sources;
}

std::vector<std::optional<float>> readChannelVolumes(AudioObjectID deviceID, HALDirection direction,
                                                     uint32_t channelCount)
{
    std::vector<std::optional<float>> volumes;
    for (uint32_t channel = 1; channel <= channelCount; ++channel)
        volumes.push_back(
            readValue<float>(deviceID, addressOf(kAudioDevicePropertyVolumeScalar, direction, channel)));
    if (std::ranges::none_of(volumes, [](const auto& volume) { return volume.has_value(); }))
        volumes.clear();
    return volumes;
}

DirectionReport readDirection(AudioObjectID deviceID, HALDirection direction)
{
    const bool input = direction == HALDirection::Input;
    const auto word = [&](uint32_t selector) {
        return readValue<uint32_t>(deviceID, addressOf(selector, direction));
    };
    DirectionReport report;
    report.channelCount = QDLAudioDeviceChannelCount(deviceID, input);
    if (report.channelCount > 0)
        readManaged(deviceID, input, report);
    report.channelNames = readChannelNames(deviceID, direction, report.channelCount);
    report.streams = readStreams(deviceID, direction);
    report.sources = readSources(deviceID, direction);
    report.currentSource = word(kAudioDevicePropertyDataSource);
    report.volume = readValue<float>(deviceID, addressOf(kAudioDevicePropertyVolumeScalar, direction));
    report.channelVolumes = readChannelVolumes(deviceID, direction, report.channelCount);
    if (const std::optional<uint32_t> muted = word(kAudioDevicePropertyMute))
        report.isMuted = *muted != 0;
    report.stereoChannels = readValue<std::array<uint32_t, 2>>(
        deviceID, addressOf(kAudioDevicePropertyPreferredChannelsForStereo, direction));
    report.latencyFrames = word(kAudioDevicePropertyLatency).value_or(0);
    report.safetyOffsetFrames = word(kAudioDevicePropertySafetyOffset).value_or(0);
    report.isDefault =
        deviceID == (input ? QDLAudioDeviceDefaultInputDeviceID() : QDLAudioDeviceDefaultOutputDeviceID());
    report.isDefaultSystem = !input && deviceID == QDLAudioDeviceDefaultSystemOutputDeviceID();
    return report;
}

template <class Value> CXPlist orNull(const std::optional<Value>& value)
{
    return value ? CXPlist(*value) : CXPlist(nullptr);
}

/// A volume as it was meant: 0.7, not the nearest float's 0.699999988.
CXPlist volumeJSON(const std::optional<float>& volume)
{
    return volume ? CXPlist(std::round(double{*volume} * 1e6) / 1e6) : CXPlist(nullptr);
}

CXPlist rangeJSON(const AudioValueRange& range)
{
    return {{"minimum", range.minimum}, {"maximum", range.maximum}};
}

CXPlist directionJSON(const DirectionReport& report)
{
    CXPlist streams = CXPlist::array();
    for (const DirectionReport::Stream& stream : report.streams)
        streams.push_back({{"id", stream.objectID}, {"channels", stream.channelCount}});
    CXPlist sources = CXPlist::array();
    for (const DirectionReport::Source& source : report.sources)
        sources.push_back({{"id", source.sourceID}, {"name", source.name}});
    CXPlist current = nullptr;
    if (report.currentSource)
        current = {{"id", *report.currentSource}, {"name", report.currentSourceName()}};
    CXPlist channelVolumes = CXPlist::array();
    for (const std::optional<float>& volume : report.channelVolumes)
        channelVolumes.push_back(volumeJSON(volume));
    return {{"channels", report.channelCount},
            {"channel_names", report.channelNames},
            {"display_name", report.device ? CXPlist(report.displayName) : CXPlist(nullptr)},
            {"reference", report.device ? CXPlist(report.device->reference()->string()) : CXPlist(nullptr)},
            {"streams", streams},
            {"sources", sources},
            {"source", current},
            {"volume", volumeJSON(report.volume)},
            {"channel_volumes", channelVolumes},
            {"mute", orNull(report.isMuted)},
            {"stereo_channels", orNull(report.stereoChannels)},
            {"latency_frames", report.latencyFrames},
            {"safety_offset_frames", report.safetyOffsetFrames}};
}

} // namespace

std::optional<float> DirectionReport::shownVolume() const
{
    std::optional<float> shown = volume;
    for (const std::optional<float>& each : channelVolumes)
        if (!volume && each)
            shown = std::max(shown.value_or(0.0F), *each);
    return shown;
}

std::string DirectionReport::currentSourceName() const
{
    for (const Source& source : sources)
        if (currentSource == source.sourceID)
            return source.name;
    return {};
}

std::optional<DeviceReport> DeviceReport::read(AudioObjectID deviceID)
{
    const std::optional<std::string> uid = QDLAudioDeviceUIDFromDeviceID(deviceID);
    if (!uid)
        return std::nullopt;
    DeviceReport report;
    report.deviceID = deviceID;
    report.uid = *uid;
    report.name = QDLAudioDeviceNameFromDeviceID(deviceID).value_or("");
    report.manufacturer = QDLAudioDeviceManufacturerFromDeviceID(deviceID).value_or("");
    report.modelUID = QDLAudioDeviceModelUIDFromDeviceID(deviceID).value_or("");
    report.transportType = QDLAudioDeviceTransportTypeFromDeviceID(deviceID);
    report.isHidden = QDLAudioDeviceIsHidden(deviceID);
    const auto word = [deviceID](uint32_t selector) {
        return readValue<uint32_t>(deviceID, addressOf(selector)).value_or(0);
    };
    report.isRunning = word(kAudioDevicePropertyDeviceIsRunning) != 0;
    report.clockDomain = word(kAudioDevicePropertyClockDomain);
    report.sampleRate =
        readValue<double>(deviceID, addressOf(kAudioDevicePropertyNominalSampleRate)).value_or(0.0);
    report.actualSampleRate =
        readValue<double>(deviceID, addressOf(kAudioDevicePropertyActualSampleRate)).value_or(0.0);
    report.sampleRates =
        readList<AudioValueRange>(deviceID, addressOf(kAudioDevicePropertyAvailableNominalSampleRates));
    report.bufferFrameSize = word(kAudioDevicePropertyBufferFrameSize);
    report.bufferFrameSizeRange =
        readValue<AudioValueRange>(deviceID, addressOf(kAudioDevicePropertyBufferFrameSizeRange))
            .value_or(AudioValueRange{});
    for (const HALDirection direction : halDirections)
        report.directions[static_cast<size_t>(direction)] = readDirection(deviceID, direction);
    // What was read while the device went is not worth telling.
    return isThere(deviceID) ? std::optional(report) : std::nullopt;
}

std::vector<DeviceReport> DeviceReport::readAll(Hidden hidden)
{
    std::vector<DeviceReport> reports;
    for (const AudioObjectID deviceID : deviceIDs(hidden))
        if (std::optional<DeviceReport> report = read(deviceID))
            reports.push_back(std::move(*report));
    return reports;
}

const std::string& DeviceReport::displayName() const
{
    for (const HALDirection direction : {HALDirection::Output, HALDirection::Input}) {
        if ((*this)[direction].device)
            return (*this)[direction].displayName;
    }
    return name;
}

CXRef<DXRDevice> DeviceReport::device(std::optional<HALDirection> direction) const
{
    const HALDirection shown = direction.value_or(
        (*this)[HALDirection::Output].channelCount > 0 ? HALDirection::Output : HALDirection::Input);
    const CXRef<DXRDevice>& found = (*this)[shown].device;
    if (!found)
        throw ToolFailure(shortName() + " has no " + nameOf(shown) + " channels");
    return found;
}

std::string DeviceReport::shortName() const
{
    constexpr size_t columns = 40;
    const std::string shown = clipToWidth(singleLine(displayName()), columns);
    return shown.empty() ? "(no name)" : shown;
}

std::string DeviceReport::transportName() const
{
    switch (transportType) {
    case kAudioDeviceTransportTypeUnknown:
        return "unknown";
    case kAudioDeviceTransportTypeBuiltIn:
        return "built-in";
    case kAudioDeviceTransportTypeAggregate:
        return "aggregate";
    case kAudioDeviceTransportTypeVirtual:
        return "virtual";
    case kAudioDeviceTransportTypePCI:
        return "pci";
    case kAudioDeviceTransportTypeUSB:
        return "usb";
    case kAudioDeviceTransportTypeFireWire:
        return "firewire";
    case kAudioDeviceTransportTypeBluetooth:
        return "bluetooth";
    case kAudioDeviceTransportTypeHDMI:
        return "hdmi";
    case kAudioDeviceTransportTypeDisplayPort:
        return "displayport";
    case kAudioDeviceTransportTypeAirPlay:
        return "airplay";
    case kAudioDeviceTransportTypeNetwork:
        return "network";
    default:
        return stringWithFourCharCode(transportType);
    }
}

CXPlist DeviceReport::json() const
{
    CXPlist rates = CXPlist::array();
    for (const AudioValueRange& range : sampleRates)
        rates.push_back(rangeJSON(range));
    const auto text = [](const std::string& value) {
        return value.empty() ? CXPlist(nullptr) : CXPlist(value);
    };
    return {{"schema", jsonSchema},
            {"id", deviceID},
            {"uid", uid},
            {"name", name},
            {"manufacturer", text(manufacturer)},
            {"model", text(modelUID)},
            {"transport", transportName()},
            {"hidden", isHidden},
            {"running", isRunning},
            {"clock_domain", clockDomain},
            {"sample_rate", sampleRate},
            {"sample_rates", rates},
            {"buffer_frames", bufferFrameSize},
            {"buffer_frames_range", rangeJSON(bufferFrameSizeRange)},
            {"default_input", (*this)[HALDirection::Input].isDefault},
            {"default_output", (*this)[HALDirection::Output].isDefault},
            {"default_system_output", (*this)[HALDirection::Output].isDefaultSystem},
            {"inputs", directionJSON((*this)[HALDirection::Input])},
            {"outputs", directionJSON((*this)[HALDirection::Output])}};
}

std::string jsonText(const CXPlist& json, int indent, bool onTerminal)
{
    return json.dump(indent, ' ', onTerminal, CXPlist::error_handler_t::replace);
}
