#include "Commands.h"

#include "DeviceLookup.h"
#include "DisplayText.h"
#include "HardwareChoice.h"
#include "Terminal.h"
#include "TextFormat.h"

#include <algorithm>
#include <iostream>

namespace {

struct Options {
    explicit Options(CLI::App& command) : hardware(command) {}
    HardwareChoice hardware;
    std::string device;
    bool json = false;
};

constexpr size_t labelColumns = 18;

/// Prints "label  value", with what does not fit on further lines under the value.
void printField(const Terminal& terminal, const char* label, const std::string& value)
{
    const size_t room = std::max<size_t>(terminal.columns(), labelColumns + 20) - labelColumns;
    std::string left = terminal.styled(fitLeft(label, labelColumns), Style::Dim);
    std::string rest = value.empty() ? "-" : value;
    while (!rest.empty()) {
        std::string piece(fittingStart(rest, room));
        if (const size_t space = piece.find_last_of(' ');
            piece.size() < rest.size() && space != std::string::npos)
            piece.erase(space + 1);
        std::cout << left << piece << "\n";
        rest.erase(0, piece.size());
        left = std::string(labelColumns, ' ');
    }
}

template <class Items, class Text> std::string joined(const Items& items, Text text)
{
    std::string line;
    for (const auto& item : items)
        line += (line.empty() ? "" : ", ") + text(item);
    return line;
}

std::string rangeText(const AudioValueRange& range)
{
    if (range.minimum == range.maximum)
        return formatRate(range.minimum);
    return formatRate(range.minimum) + " to " + formatRate(range.maximum);
}

std::string volumeText(const DirectionReport& direction)
{
    if (direction.volume)
        return formatPercent(double{*direction.volume});
    return direction.channelVolumes.empty() ? "no control" : "per channel";
}

std::string framesText(uint32_t frames, double rate)
{
    const std::string text = formatCount(frames, "frame", "frames");
    return rate > 0.0 ? text + formatText(" (%.1f ms)", 1000.0 * frames / rate) : text;
}

void printDirection(const Terminal& terminal, const DeviceReport& device, HALDirection which)
{
    const DirectionReport& direction = device[which];
    std::cout << "\n" << terminal.styled(which == HALDirection::Input ? "Input" : "Output", Style::Bold);
    if (direction.streams.empty() && direction.channelCount == 0) {
        std::cout << "  none\n";
        return;
    }
    std::cout << (direction.isDefault ? "  default" : "")
              << (direction.isDefaultSystem ? "  default for sounds" : "") << "\n";
    printField(terminal, "  Channels",
               std::to_string(direction.channelCount) + (direction.channelNames.empty() ? "" : ": ") +
                   joined(direction.channelNames, [](const std::string& name) {
                       return name.empty() ? std::string("-") : singleLine(name);
                   }));
    if (direction.device)
        printField(terminal, "  Reference", singleLine(direction.device->reference()->string()));
    printField(terminal, "  Streams", joined(direction.streams, [](const DirectionReport::Stream& stream) {
                   return formatText("%u (%s)", stream.objectID,
                                     formatCount(stream.channelCount, "channel", "channels").c_str());
               }));
    if (direction.stereoChannels)
        printField(
            terminal, "  Stereo on",
            formatText("channels %u and %u", (*direction.stereoChannels)[0], (*direction.stereoChannels)[1]));
    printField(terminal, "  Volume", volumeText(direction));
    if (!direction.channelVolumes.empty())
        printField(terminal, "  Channel volumes", joined(direction.channelVolumes, [](const auto& volume) {
                       return volume ? formatPercent(double{*volume}) : std::string("-");
                   }));
    printField(terminal, "  Mute", !direction.isMuted ? "no control" : *direction.isMuted ? "on" : "off");
    if (!direction.sources.empty())
        printField(terminal, "  Sources",
                   joined(direction.sources, [&](const DirectionReport::Source& source) {
                       return singleLine(source.name) + formatText(" (%u)", source.sourceID) +
                              (direction.currentSource == source.sourceID ? " *" : "");
                   }));
    printField(terminal, "  Latency", framesText(direction.latencyFrames, device.sampleRate));
    printField(terminal, "  Safety offset", framesText(direction.safetyOffsetFrames, device.sampleRate));
    // What a runner with the device's own cycles reports.
    const bool isInput = which == HALDirection::Input;
    printField(terminal, isInput ? "  Air to block" : "  Block to air",
               framesText(direction.latencyFrames + direction.safetyOffsetFrames +
                              (isInput ? 1 : 2) * device.bufferFrameSize,
                          device.sampleRate));
}

void run(const Options& options)
{
    options.hardware.apply();
    const DeviceReport device = DeviceLookup::find(options.device);
    const Terminal terminal;
    if (options.json) {
        std::cout << jsonText(device.json(), 2, terminal.isLive()) << "\n";
        return;
    }
    std::cout << terminal.styled(singleLine(device.displayName()), Style::Bold) << "\n";
    printField(terminal, "ID", std::to_string(device.deviceID));
    printField(terminal, "UID", singleLine(device.uid));
    printField(terminal, "Manufacturer", singleLine(device.manufacturer));
    printField(terminal, "Model", singleLine(device.modelUID));
    printField(terminal, "Connected via", singleLine(device.transportName()));
    printField(terminal, "Hidden", device.isHidden ? "yes" : "no");
    printField(terminal, "Running", device.isRunning ? "yes" : "no");
    printField(terminal, "Clock domain", device.clockDomain ? std::to_string(device.clockDomain) : "its own");
    printField(terminal, "Sample rate",
               formatRate(device.sampleRate) +
                   (device.actualSampleRate > 0.0 ? formatText(" (measured %.3f Hz)", device.actualSampleRate)
                                                  : ""));
    printField(terminal, "Possible rates", joined(device.sampleRates, rangeText));
    printField(terminal, "Cycle", framesText(device.bufferFrameSize, device.sampleRate));
    printField(terminal, "Possible cycles",
               formatText("%.0f to %.0f frames", device.bufferFrameSizeRange.minimum,
                          device.bufferFrameSizeRange.maximum));
    for (const HALDirection direction : halDirections)
        printDirection(terminal, device, direction);
}

} // namespace

void registerInfoCommand(CLI::App& app)
{
    CLI::App* command = app.add_subcommand("info", "Show everything about one device");
    const auto options = std::make_shared<Options>(*command);
    command->add_option("device", options->device, "Its ID, UID, reference, or a part of its name")
        ->required();
    command->add_flag("--json", options->json, "As JSON");
    command->callback([options] { run(*options); });
}
