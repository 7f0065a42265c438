#include "Commands.h"

#include "DeviceArgument.h"

#include <cerrno>
#include <cstring>
#include <dxr/CXJSON.h>
#include <dxr/DXRDeviceManager.h>
#include <fstream>

namespace {

struct Options : DeviceArgument {
    explicit Options(CLI::App& command) : DeviceArgument(command, Sides::Both) {}
    bool asJSON = false;
};

using Fields = std::vector<std::pair<const char*, std::string>>;

void printFields(const Terminal& terminal, const Fields& fields)
{
    constexpr size_t indent = 18;
    for (const auto& [label, value] : fields)
        terminal.printLabelled(terminal.styled(fitLeft(label, indent), Style::Dim), indent,
                               value.empty() ? "-" : value);
}

std::string rangeText(const AudioValueRange& range)
{
    return formatRate(range.minimum) +
           (range.minimum == range.maximum ? "" : " to " + formatRate(range.maximum));
}

std::string volumeText(const std::optional<float>& volume)
{
    return volume ? formatPercent(double{*volume}) : "-";
}

std::string framesText(uint32_t frames, double rate)
{
    return formatCount(frames, "frame") +
           (rate > 0.0 ? formatText(" (%.1f ms)", 1000.0 * frames / rate) : "");
}

void addControls(Fields& fields, const DirectionReport& direction)
{
    if (const auto& stereo = direction.stereoChannels)
        fields.emplace_back("  Stereo on", formatText("channels %u and %u", (*stereo)[0], (*stereo)[1]));
    const bool isPerChannel = !direction.channelVolumes.empty();
    fields.emplace_back("  Volume", direction.volume ? volumeText(direction.volume)
                                    : isPerChannel   ? "per channel"
                                                     : "no control");
    if (isPerChannel)
        fields.emplace_back("  Channel volumes", joined(direction.channelVolumes, ", ", volumeText));
    fields.emplace_back("  Mute", !direction.isMuted ? "no control" : *direction.isMuted ? "on" : "off");
    const auto sourceText = [&](const DirectionReport::Source& source) {
        return singleLine(source.name) + formatText(" (%u)", source.sourceID) +
               (direction.currentSource == source.sourceID ? " *" : "");
    };
    if (!direction.sources.empty())
        fields.emplace_back("  Sources", joined(direction.sources, ", ", sourceText));
}

void printDirection(const Terminal& terminal, const DeviceReport& device, HALDirection which)
{
    const DirectionReport& direction = device[which];
    const bool isInput = which == HALDirection::Input;
    std::cout << "\n" << terminal.styled(isInput ? "Input" : "Output", Style::Bold);
    if (direction.streams.empty() && direction.channelCount == 0) {
        std::cout << "  none\n";
        return;
    }
    std::cout << (direction.isDefault ? "  default" : "")
              << (direction.isDefaultSystem ? "  default for sounds" : "") << "\n";
    const auto nameText = [](const std::string& name) { return name.empty() ? "-" : singleLine(name); };
    const auto streamText = [](const DirectionReport::Stream& stream) {
        return formatText("%u (%s)", stream.objectID, formatCount(stream.channelCount, "channel").c_str());
    };
    const auto frames = [&](uint32_t count) { return framesText(count, device.sampleRate); };
    Fields fields{{"  Channels", std::to_string(direction.channelCount) +
                                     (direction.channelNames.empty() ? "" : ": ") +
                                     joined(direction.channelNames, ", ", nameText)}};
    if (direction.device)
        fields.emplace_back("  Reference", singleLine(direction.device->reference()->string()));
    fields.emplace_back("  Streams", joined(direction.streams, ", ", streamText));
    addControls(fields, direction);
    fields.emplace_back("  Latency", frames(direction.latencyFrames));
    fields.emplace_back("  Safety offset", frames(direction.safetyOffsetFrames));
    // The latency that a runner reports if its blocks have the length of the device's cycles.
    fields.emplace_back(isInput ? "  Air to block" : "  Block to air",
                        frames(direction.latencyFrames + direction.safetyOffsetFrames +
                               (isInput ? 1 : 2) * device.bufferFrameSize));
    printFields(terminal, fields);
}

void info(Options& options)
{
    const DeviceReport device = options.report();
    const Terminal terminal;
    if (options.asJSON) {
        std::cout << jsonText(device.json(), 2, terminal.isLive()) << "\n";
        return;
    }
    const double measured = device.actualSampleRate;
    const Fields fields{
        {"ID", std::to_string(device.deviceID)},
        {"UID", singleLine(device.uid)},
        {"Manufacturer", singleLine(device.manufacturer)},
        {"Model", singleLine(device.modelUID)},
        {"Connected via", singleLine(device.transportName())},
        {"Hidden", device.isHidden ? "yes" : "no"},
        {"Running", device.isRunning ? "yes" : "no"},
        {"Clock domain", device.clockDomain ? std::to_string(device.clockDomain) : "its own"},
        {"Sample rate",
         formatRate(device.sampleRate) + (measured > 0.0 ? formatText(" (measured %.3f Hz)", measured) : "")},
        {"Possible rates", joined(device.sampleRates, ", ", rangeText)},
        {"Cycle", framesText(device.bufferFrameSize, device.sampleRate)},
        {"Possible cycles", formatText("%.0f to %.0f frames", device.bufferFrameSizeRange.minimum,
                                       device.bufferFrameSizeRange.maximum)},
    };
    std::cout << terminal.styled(singleLine(device.displayName()), Style::Bold) << "\n";
    printFields(terminal, fields);
    for (const HALDirection direction : halDirections)
        printDirection(terminal, device, direction);
}

// ---- archive, show, ref

struct ShowOptions : HardwareChoice {
    using HardwareChoice::HardwareChoice;
    std::string file;
    bool asJSON = false;
};

void archive(DeviceArgument& argument)
{
    const auto bytes = DXRDeviceManager::archiveForDevice(argument.device()).value();
    std::cout.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::string contentOf(const std::string& path, const std::string& shown)
{
    std::ifstream file(path, std::ios::binary);
    std::string content(CXJSONMaximumBytes + 1, '\0');
    if (!file || !file.read(content.data(), static_cast<std::streamsize>(content.size())).eof())
        throw ToolFailure(shown + ": " + (file ? "too large for a device archive" : std::strerror(errno)));
    content.resize(static_cast<size_t>(file.gcount()));
    return content;
}

void show(ShowOptions& options)
{
    const std::string shown = shortText(options.file, 60);
    const std::string content = contentOf(options.file, shown);
    const CXRef<DXRDevice> device =
        DXRDeviceManager::sharedDeviceManager().deviceFromArchive(std::as_bytes(std::span(content)));
    if (!device)
        throw ToolFailure(shown + ": not a device archive");
    const Terminal terminal;
    if (options.asJSON) {
        std::cout << jsonText(device->archive(), 2, terminal.isLive()) << "\n";
        return;
    }
    const Fields fields{
        {"Connected", device->isConnected() ? "yes, ID " + std::to_string(device->deviceID()) : "no"},
        {"Direction", device->isInput() ? "input" : "output"},
        {"UID", device->deviceUID()},
        {"Manufacturer", device->manufacturer()},
        {"Model", device->model()},
        {"Channels", std::to_string(device->channelCount())},
        {"Sample rate", formatRate(device->sampleRate())},
        {"Possible rates", joined(device->availableSampleRates(), ", ", formatRate)},
        {"Source", device->source()},
        {"Sources", joined(device->availableSources(), ", ")},
        {"Volume", device->hasVolume() ? formatPercent(device->volume()) : "no control"},
        {"Mute", !device->hasMute()  ? "no control"
                 : device->isMuted() ? "on"
                                     : "off"},
    };
    std::cout << terminal.styled(singleLine(device->displayName()), Style::Bold) << "\n";
    for (const auto& [label, value] : fields)
        std::cout << formatText("%-16s", label) << (value.empty() ? "-" : singleLine(value)) << "\n";
}

void printReference(DeviceArgument& argument)
{
    const Terminal terminal;
    const std::string text = argument.device()->reference()->string();
    std::cout << jsonText(CXPlist::parse(text, nullptr, false), -1, terminal.isLive()) << "\n";
}

} // namespace

void registerInfoCommand(CLI::App& app)
{
    const auto [command, options] = addCommand(app, "info", "Show all properties of a device", info);
    command.add_flag("--json", options.asJSON, "Print JSON");
}

void registerArchiveCommands(CLI::App& app)
{
    addCommand(app, "archive", "Write the description of a device for when it is disconnected", archive);
    addCommand(app, "ref", "Print the reference of a device, which names it in any port", printReference);
    const auto [command, options] =
        addCommand(app, "show", "Describe the device of an archive, connected or not", show);
    addRequired(command, "file", options.file, "A file written by 'dxr archive'");
    command.add_flag("--json", options.asJSON, "Print JSON");
}
