#include "DeviceReport.h"

#include "DeviceProperties.h"
#include "Table.h"

#include <algorithm>
#include <cstdlib>
#include <dxr/CXFourCharCode.h>
#include <dxr/CXValue.h>
#include <dxr/DXRDeviceManager.h>
#include <dxr/QDL.h>
#include <set>

using Property = DXRPropertyAddress;

namespace {

AudioValueRange rangeOf(const CXRef<DXRValueRange>& range)
{
    return range ? AudioValueRange{range->min(), range->max()} : AudioValueRange{};
}

void readChannels(AudioObjectID deviceID, uint32_t scope, DirectionReport& report)
{
    for (uint32_t channel = 1; channel <= report.channelCount; ++channel) {
        const CXRef<CXValue> name =
            CXRefCast<CXValue>(Property::objectElementName(scope, channel)->objectForObjectID(deviceID));
        report.channelNames.push_back(name ? name->string() : "");
        report.channelVolumes.push_back(
            Property::deviceVolumeScalar(scope, channel)->floatForObjectID(deviceID));
    }
    if (std::ranges::all_of(report.channelNames, &std::string::empty))
        report.channelNames.clear();
    if (std::ranges::none_of(report.channelVolumes, &std::optional<float>::has_value))
        report.channelVolumes.clear();
    const std::vector<uint32_t> stereo =
        Property::devicePreferredStereoChannels(scope)->uint32ArrayForObjectID(deviceID);
    if (stereo.size() == 2)
        report.stereoChannels = {stereo[0], stereo[1]};
}

DirectionReport readDirection(AudioObjectID deviceID, HALDirection direction)
{
    const bool isInput = direction == HALDirection::Input;
    const uint32_t scope = scopeOf(direction);
    DirectionReport report;
    report.channelCount = QDLAudioDeviceChannelCount(deviceID, isInput);
    if (report.channelCount > 0)
        report.device = DXRDeviceManager::sharedDeviceManager().deviceWithDeviceID(deviceID, isInput);
    if (report.device)
        report.displayName = report.device->displayName();
    readChannels(deviceID, scope, report);
    for (const AudioObjectID streamID : Property::deviceStreams(scope)->uint32ArrayForObjectID(deviceID)) {
        const CXRef<DXRBasicStream> format =
            Property::streamVirtualFormat(kAudioObjectPropertyScopeGlobal)->basicStreamForObjectID(streamID);
        report.streams.push_back({streamID, format ? format->channelCount() : 0});
    }
    for (const uint32_t sourceID :
         Property::deviceAvailableDataSources(scope)->uint32ArrayForObjectID(deviceID))
        report.sources.push_back({sourceID, QDLSourceNameFromDataSource(deviceID, sourceID, isInput)});
    report.currentSource = Property::deviceDataSource(scope)->uint32ForObjectID(deviceID);
    report.volume = Property::deviceVolumeScalar(scope, 0)->floatForObjectID(deviceID);
    if (const std::optional<uint32_t> muted = Property::deviceMute(scope, 0)->uint32ForObjectID(deviceID))
        report.isMuted = *muted != 0;
    report.latencyFrames = Property::deviceLatency(scope)->uint32ForObjectID(deviceID).value_or(0);
    report.safetyOffsetFrames = Property::deviceSafetyOffset(scope)->uint32ForObjectID(deviceID).value_or(0);
    report.isDefault =
        deviceID == (isInput ? QDLAudioDeviceDefaultInputDeviceID() : QDLAudioDeviceDefaultOutputDeviceID());
    report.isDefaultSystem = !isInput && deviceID == QDLAudioDeviceDefaultSystemOutputDeviceID();
    return report;
}

template <class Value> CXPlist orNull(const std::optional<Value>& value)
{
    return value ? CXPlist(*value) : CXPlist(nullptr);
}

CXPlist orNull(const std::string& text)
{
    return text.empty() ? CXPlist(nullptr) : CXPlist(text);
}

/// Rounds the volume so that 0.7F is printed as 0.7 and not as 0.699999988.
CXPlist volumeJSON(const std::optional<float>& volume)
{
    return volume ? CXPlist(std::round(double{*volume} * 1e6) / 1e6) : CXPlist(nullptr);
}

CXPlist rangeJSON(const AudioValueRange& range)
{
    return {{"minimum", range.minimum}, {"maximum", range.maximum}};
}

CXPlist sourceJSON(const DirectionReport::Source& source)
{
    return {{"id", source.sourceID}, {"name", source.name}};
}

CXPlist directionJSON(const DirectionReport& report)
{
    const auto streamJSON = [](const DirectionReport::Stream& stream) {
        return CXPlist{{"id", stream.objectID}, {"channels", stream.channelCount}};
    };
    return {{"channels", report.channelCount},
            {"channel_names", report.channelNames},
            {"display_name", report.device ? CXPlist(report.displayName) : CXPlist(nullptr)},
            {"reference", report.device ? CXPlist(report.device->reference()->string()) : CXPlist(nullptr)},
            {"streams", arrayOf(report.streams, streamJSON)},
            {"sources", arrayOf(report.sources, sourceJSON)},
            {"source", report.currentSource ? sourceJSON({*report.currentSource, report.currentSourceName()})
                                            : CXPlist(nullptr)},
            {"volume", volumeJSON(report.volume)},
            {"channel_volumes", arrayOf(report.channelVolumes, volumeJSON)},
            {"mute", orNull(report.isMuted)},
            {"stereo_channels", orNull(report.stereoChannels)},
            {"latency_frames", report.latencyFrames},
            {"safety_offset_frames", report.safetyOffsetFrames}};
}

/// The volume of the output if the device has one, else of the input: the main volume, or else that of the
/// loudest channel.
std::string volumeText(const DeviceReport& device)
{
    const DirectionReport& direction = device[device.direction(std::nullopt)];
    if (direction.isMuted.value_or(false))
        return "muted";
    std::optional<float> volume = direction.volume;
    if (!volume && !direction.channelVolumes.empty())
        volume = std::ranges::max(direction.channelVolumes); // null is below any value
    return volume ? formatPercent(double{*volume}) : "-";
}

std::string defaultText(const DeviceReport& device)
{
    const DirectionReport& output = device[HALDirection::Output];
    std::vector<std::string> marks;
    if (device[HALDirection::Input].isDefault)
        marks.emplace_back("in");
    if (output.isDefault)
        marks.emplace_back("out");
    if (output.isDefaultSystem)
        marks.emplace_back("sys");
    return joined(marks, "+");
}

} // namespace

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
    report.isRunning = Property::deviceIsRunning()->uint32ForObjectID(deviceID).value_or(0) != 0;
    report.clockDomain = Property::deviceClockDomain()->uint32ForObjectID(deviceID).value_or(0);
    report.sampleRate = Property::deviceSampleRate()->doubleForObjectID(deviceID).value_or(0.0);
    report.actualSampleRate = Property::deviceActualSampleRate()->doubleForObjectID(deviceID).value_or(0.0);
    for (const auto& range : Property::deviceAvailableSampleRates()->valueRangeArrayForObjectID(deviceID))
        report.sampleRates.push_back(rangeOf(range));
    report.bufferFrameSize = Property::deviceBufferFrameSize()->uint32ForObjectID(deviceID).value_or(0);
    report.bufferFrameSizeRange =
        rangeOf(Property::deviceBufferFrameSizeRange()->valueRangeForObjectID(deviceID));
    for (const HALDirection direction : halDirections)
        report.directions[static_cast<size_t>(direction)] = readDirection(deviceID, direction);
    // If the device has disconnected, some of the values may not have been read.
    return Property::deviceDeviceUID()->getSize(nullptr, deviceID) ? std::optional(report) : std::nullopt;
}

std::vector<DeviceReport> DeviceReport::readAll(Hidden hidden)
{
    std::set<AudioObjectID> devices;
    for (const CXRef<DXRDevice>& device : DXRDeviceManager::sharedDeviceManager().connectedDevices())
        devices.insert(device->deviceID()); // 0 if it has just disconnected
    if (hidden == Hidden::Yes) {
        uint32_t count = 0;
        AudioObjectID* list = QDLAudioDeviceIDList(&count);
        devices.insert(list, list + count);
        std::free(list);
    }
    std::vector<DeviceReport> reports;
    for (const AudioObjectID deviceID : devices)
        if (std::optional<DeviceReport> report = read(deviceID))
            reports.push_back(*std::move(report));
    return reports;
}

CXRef<DXRDevice> DeviceReport::device(std::optional<HALDirection> chosen) const
{
    const HALDirection shown = direction(chosen);
    const CXRef<DXRDevice>& found = (*this)[shown].device;
    if (!found)
        throw ToolFailure(shortName() + " has no " + nameOf(shown) + " channels");
    return found;
}

std::string DeviceReport::transportName() const
{
    constexpr std::pair<uint32_t, const char*> names[] = {
        {kAudioDeviceTransportTypeUnknown, "unknown"},
        {kAudioDeviceTransportTypeBuiltIn, "built-in"},
        {kAudioDeviceTransportTypeAggregate, "aggregate"},
        {kAudioDeviceTransportTypeVirtual, "virtual"},
        {kAudioDeviceTransportTypePCI, "pci"},
        {kAudioDeviceTransportTypeUSB, "usb"},
        {kAudioDeviceTransportTypeFireWire, "firewire"},
        {kAudioDeviceTransportTypeBluetooth, "bluetooth"},
        {kAudioDeviceTransportTypeHDMI, "hdmi"},
        {kAudioDeviceTransportTypeDisplayPort, "displayport"},
        {kAudioDeviceTransportTypeAirPlay, "airplay"},
        {kAudioDeviceTransportTypeNetwork, "network"},
    };
    for (const auto& [type, text] : names)
        if (type == transportType)
            return text;
    return stringWithFourCharCode(transportType);
}

CXPlist DeviceReport::json() const
{
    const DirectionReport &input = (*this)[HALDirection::Input], &output = (*this)[HALDirection::Output];
    return {{"schema", jsonSchema},
            {"id", deviceID},
            {"uid", uid},
            {"name", name},
            {"manufacturer", orNull(manufacturer)},
            {"model", orNull(modelUID)},
            {"transport", transportName()},
            {"hidden", isHidden},
            {"running", isRunning},
            {"clock_domain", clockDomain},
            {"sample_rate", sampleRate},
            {"sample_rates", arrayOf(sampleRates, rangeJSON)},
            {"buffer_frames", bufferFrameSize},
            {"buffer_frames_range", rangeJSON(bufferFrameSizeRange)},
            {"default_input", input.isDefault},
            {"default_output", output.isDefault},
            {"default_system_output", output.isDefaultSystem},
            {"inputs", directionJSON(input)},
            {"outputs", directionJSON(output)}};
}

std::string jsonText(const CXPlist& json, int indent, bool onTerminal)
{
    return json.dump(indent, ' ', onTerminal, CXPlist::error_handler_t::replace);
}

std::vector<std::string> deviceTable(const std::vector<DeviceReport>& devices, size_t width,
                                     const Terminal& terminal)
{
    constexpr size_t minName = 12;
    Table table({{"NAME", minName, false, 9},
                 {"VIA", 4, false, 3},
                 {"IN", 0, true, 7},
                 {"OUT", 0, true, 8},
                 {"RATE", 0, true, 6},
                 {"VOLUME", 0, true, 5},
                 {"DEFAULT", 0, false, 4},
                 {"UID", minName, false, 1}});
    for (const DeviceReport& device : devices) {
        const auto channels = [&](HALDirection direction) {
            const uint32_t count = device[direction].channelCount;
            return count == 0 ? "-" : std::to_string(count);
        };
        const std::string name = singleLine(device.displayName());
        table.add({name.empty() ? "(no name)" : name, singleLine(device.transportName()),
                   channels(HALDirection::Input), channels(HALDirection::Output),
                   formatRate(device.sampleRate), volumeText(device), defaultText(device),
                   singleLine(device.uid)},
                  device.isHidden ? Style::Dim : Style::Plain);
    }
    if (table.naturalWidth() > width)
        table.moveLastColumnToNotes();
    return table.lines(width, terminal);
}
