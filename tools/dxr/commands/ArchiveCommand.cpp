#include "Commands.h"

#include "DeviceArgument.h"
#include "DisplayText.h"
#include "Terminal.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <cerrno>
#include <cstring>
#include <dxr/CXJSON.h>
#include <dxr/DXRDeviceManager.h>
#include <fstream>
#include <iostream>

namespace {

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
    const std::pair<const char*, std::string> fields[] = {
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

void registerArchiveCommands(CLI::App& app)
{
    addCommand(app, "archive", "Write the description of a device for when it is disconnected", archive);
    addCommand(app, "ref", "Print the reference of a device, which names it in any port", printReference);
    const auto [command, options] =
        addCommand(app, "show", "Describe the device of an archive, connected or not", show);
    command.add_option("file", options.file, "A file written by 'dxr archive'")->required();
    command.add_flag("--json", options.asJSON, "Print JSON");
}
