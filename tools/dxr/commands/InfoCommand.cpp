#include "Commands.h"

#include "DeviceArgument.h"
#include "DisplayText.h"
#include "Terminal.h"
#include "TextFormat.h"

#include <iostream>

namespace {

struct Options : DeviceArgument {
    explicit Options(CLI::App& command) : DeviceArgument(command, Sides::Both) {}
    bool asJSON = false;
};

void printField(const Terminal& terminal, const char* label, const std::string& value)
{
    constexpr size_t indent = 18;
    for (const std::string& line : labelled(terminal.styled(fitLeft(label, indent), Style::Dim), indent,
                                            value.empty() ? "-" : value, terminal.columns()))
        std::cout << line << "\n";
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

std::string streamText(const DirectionReport::Stream& stream)
{
    return formatText("%u (%s)", stream.objectID, formatCount(stream.channelCount, "channel").c_str());
}

void printControls(const Terminal& terminal, const DirectionReport& direction)
{
    if (direction.stereoChannels)
        printField(
            terminal, "  Stereo on",
            formatText("channels %u and %u", (*direction.stereoChannels)[0], (*direction.stereoChannels)[1]));
    const bool isPerChannel = !direction.channelVolumes.empty();
    printField(terminal, "  Volume",
               direction.volume ? volumeText(direction.volume)
               : isPerChannel   ? "per channel"
                                : "no control");
    if (isPerChannel)
        printField(terminal, "  Channel volumes", joined(direction.channelVolumes, ", ", volumeText));
    printField(terminal, "  Mute", !direction.isMuted ? "no control" : *direction.isMuted ? "on" : "off");
    if (!direction.sources.empty())
        printField(terminal, "  Sources",
                   joined(direction.sources, ", ", [&](const DirectionReport::Source& source) {
                       return singleLine(source.name) + formatText(" (%u)", source.sourceID) +
                              (direction.currentSource == source.sourceID ? " *" : "");
                   }));
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
    printField(terminal, "  Channels",
               std::to_string(direction.channelCount) + (direction.channelNames.empty() ? "" : ": ") +
                   joined(direction.channelNames, ", ", [](const std::string& name) {
                       return name.empty() ? std::string("-") : singleLine(name);
                   }));
    if (direction.device)
        printField(terminal, "  Reference", singleLine(direction.device->reference()->string()));
    printField(terminal, "  Streams", joined(direction.streams, ", ", streamText));
    printControls(terminal, direction);
    printField(terminal, "  Latency", framesText(direction.latencyFrames, device.sampleRate));
    printField(terminal, "  Safety offset", framesText(direction.safetyOffsetFrames, device.sampleRate));
    // The latency that a runner reports if its blocks have the length of the device's cycles.
    printField(terminal, isInput ? "  Air to block" : "  Block to air",
               framesText(direction.latencyFrames + direction.safetyOffsetFrames +
                              (isInput ? 1 : 2) * device.bufferFrameSize,
                          device.sampleRate));
}

void run(Options& options)
{
    const DeviceReport device = options.report();
    const Terminal terminal;
    if (options.asJSON) {
        std::cout << jsonText(device.json(), 2, terminal.isLive()) << "\n";
        return;
    }
    const double measured = device.actualSampleRate;
    const std::pair<const char*, std::string> fields[] = {
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
    for (const auto& [label, value] : fields)
        printField(terminal, label, value);
    for (const HALDirection direction : halDirections)
        printDirection(terminal, device, direction);
}

} // namespace

void registerInfoCommand(CLI::App& app)
{
    const auto [command, options] = addCommand(app, "info", "Show all properties of a device", run);
    command.add_flag("--json", options.asJSON, "Print JSON");
}
