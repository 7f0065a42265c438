#include "ListCommand.h"

#include "DisplayText.h"
#include "HardwareChoice.h"
#include "Table.h"
#include "TextFormat.h"

#include <algorithm>
#include <iostream>

namespace {

struct Options {
    explicit Options(CLI::App& command) : hardware(command) {}
    HardwareChoice hardware;
    bool all = false;
    bool json = false;
};

std::string channelsText(const DirectionReport& direction)
{
    return direction.channelCount == 0 ? "-" : std::to_string(direction.channelCount);
}

/// The volume of the direction users turn: the output's, else the input's.
std::string volumeText(const DeviceReport& device)
{
    const HALDirection shown =
        device[HALDirection::Output].channelCount > 0 ? HALDirection::Output : HALDirection::Input;
    const DirectionReport& direction = device[shown];
    if (direction.isMuted.value_or(false))
        return "muted";
    const std::optional<float> volume = direction.shownVolume();
    return volume ? formatPercent(double{*volume}) : "-";
}

std::string defaultText(const DeviceReport& device)
{
    const DirectionReport& output = device[HALDirection::Output];
    std::string text = device[HALDirection::Input].isDefault ? "in" : "";
    const auto add = [&text](const char* mark) { text += (text.empty() ? "" : "+") + std::string(mark); };
    if (output.isDefault)
        add("out");
    if (output.isDefaultSystem)
        add("sys");
    return text;
}

void run(const Options& options)
{
    options.hardware.apply();
    const std::vector<DeviceReport> devices =
        DeviceReport::readAll(options.all ? DeviceReport::Hidden::Yes : DeviceReport::Hidden::No);
    const Terminal terminal;
    if (options.json) {
        CXPlist list = CXPlist::array();
        for (const DeviceReport& device : devices)
            list.push_back(device.json());
        std::cout << jsonText(list, 2, terminal.isLive()) << "\n";
        return;
    }
    if (devices.empty()) {
        std::cout << "No audio devices.\n";
        return;
    }
    for (const std::string& line : deviceTable(devices, terminal.columns(), terminal))
        std::cout << line << "\n";
}

} // namespace

std::vector<std::string> deviceTable(const std::vector<DeviceReport>& devices, size_t width,
                                     const Terminal& terminal)
{
    constexpr size_t leastName = 12;
    Table table({{"ID", 0, true, 10},
                 {"NAME", leastName, false, 9},
                 {"VIA", 4, false, 3},
                 {"IN", 0, true, 7},
                 {"OUT", 0, true, 8},
                 {"RATE", 0, true, 6},
                 {"VOLUME", 0, true, 5},
                 {"DEFAULT", 0, false, 4},
                 {"UID", leastName, false, 1}});
    for (const DeviceReport& device : devices) {
        const std::string name = singleLine(device.displayName());
        const std::string uid = singleLine(device.uid);
        Table::Row row;
        row.cells = {std::to_string(device.deviceID),
                     name.empty() ? "(no name)" : name,
                     singleLine(device.transportName()),
                     channelsText(device[HALDirection::Input]),
                     channelsText(device[HALDirection::Output]),
                     formatRate(device.sampleRate),
                     volumeText(device),
                     defaultText(device),
                     uid};
        row.style = device.isHidden ? Style::Dim : Style::Plain;
        table.add(row);
    }
    if (table.naturalWidth() > width)
        table.moveLastColumnToNotes();
    return table.lines(width, terminal);
}

void registerListCommand(CLI::App& app)
{
    CLI::App* command = app.add_subcommand("list", "Show the audio devices");
    const auto options = std::make_shared<Options>(*command);
    command->add_flag("--all", options->all, "Hidden devices too");
    command->add_flag("--json", options->json, "A JSON array with everything about each device");
    command->callback([options] { run(*options); });
}
