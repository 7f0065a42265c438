#include "Commands.h"

#include "DeviceArgument.h"
#include "DisplayText.h"
#include "Terminal.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <cerrno>
#include <cstring>
#include <dxr/DXRDeviceManager.h>
#include <fstream>
#include <iostream>

namespace {

constexpr size_t longestArchive = 1U << 20; // bytes; an archive takes some hundreds

struct ShowOptions {
    explicit ShowOptions(CLI::App& command) : hardware(command) {}
    HardwareChoice hardware;
    std::string file;
    bool json = false;
};

void archive(const DeviceArgument& argument)
{
    const auto bytes = DXRDeviceManager::archiveForDevice(argument.find()).value();
    std::cout.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::string contentOf(const std::string& path)
{
    const std::string shown = clipToWidth(singleLine(path), 60);
    std::ifstream file(path, std::ios::binary);
    std::string content(longestArchive + 1, '\0');
    if (!file || !file.read(content.data(), static_cast<std::streamsize>(content.size())).eof())
        throw ToolFailure(shown + ": " + (file ? "too large for a device's archive" : std::strerror(errno)));
    content.resize(static_cast<size_t>(file.gcount()));
    return content;
}

void show(const ShowOptions& options)
{
    options.hardware.apply();
    const std::string content = contentOf(options.file);
    const CXRef<DXRDevice> device =
        DXRDeviceManager::sharedDeviceManager().deviceFromArchive(std::as_bytes(std::span(content)));
    if (!device)
        throw ToolFailure(clipToWidth(singleLine(options.file), 60) + ": not a device's archive");
    const Terminal terminal;
    if (options.json) {
        std::cout << jsonText(device->archive(), 2, terminal.isLive()) << "\n";
        return;
    }
    std::string rates;
    for (const double rate : device->availableSampleRates())
        rates += (rates.empty() ? "" : ", ") + formatRate(rate);
    std::string sources;
    for (const std::string& source : device->availableSources())
        sources += (sources.empty() ? "" : ", ") + source;
    const std::pair<const char*, std::string> fields[] = {
        {"Connected", device->isConnected() ? "yes, ID " + std::to_string(device->deviceID()) : "no"},
        {"Direction", device->isInput() ? "input" : "output"},
        {"UID", device->deviceUID()},
        {"Manufacturer", device->manufacturer()},
        {"Model", device->model()},
        {"Channels", std::to_string(device->channelCount())},
        {"Sample rate", formatRate(device->sampleRate())},
        {"Possible rates", rates},
        {"Source", device->source()},
        {"Sources", sources},
        {"Volume", device->hasVolume() ? formatPercent(device->volume()) : "no control"},
        {"Mute", !device->hasMute()  ? "no control"
                 : device->isMuted() ? "on"
                                     : "off"},
    };
    std::cout << terminal.styled(singleLine(device->displayName()), Style::Bold) << "\n";
    for (const auto& [label, value] : fields)
        std::cout << formatText("%-16s", label) << (value.empty() ? "-" : singleLine(value)) << "\n";
}

void printReference(const DeviceArgument& argument)
{
    const Terminal terminal;
    const std::string text = argument.find()->reference()->string();
    std::cout << jsonText(CXPlist::parse(text, nullptr, false), -1, terminal.isLive()) << "\n";
}

} // namespace

void registerArchiveCommands(CLI::App& app)
{
    CLI::App* command = app.add_subcommand("archive", "Write what describes a device while it is absent");
    const auto archived = std::make_shared<DeviceArgument>(*command);
    command->callback([archived] { archive(*archived); });

    command = app.add_subcommand("show", "Describe the device of an archive, absent or not");
    const auto shown = std::make_shared<ShowOptions>(*command);
    command->add_option("file", shown->file, "What 'dxr archive' has written")->required();
    command->add_flag("--json", shown->json, "As JSON");
    command->callback([shown] { show(*shown); });

    command = app.add_subcommand("ref", "Print the reference that names a device wherever it is plugged in");
    const auto referred = std::make_shared<DeviceArgument>(*command);
    command->callback([referred] { printReference(*referred); });
}
