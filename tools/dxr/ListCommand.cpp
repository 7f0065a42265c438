#include "ListCommand.h"

#include "DeviceWatch.h"
#include "DisplayText.h"
#include "HardwareChoice.h"
#include "Interrupts.h"
#include "LiveLines.h"
#include "Table.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <algorithm>
#include <csignal>
#include <dxr/HALHardwareDriver.h>
#include <iostream>

namespace {

struct Options {
    explicit Options(CLI::App& command) : hardware(command) {}
    HardwareChoice hardware;
    bool all = false;
    bool json = false;
    bool watch = false;
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

std::vector<std::string> linesOf(const Options& options, const Terminal& terminal)
{
    const std::vector<DeviceReport> devices =
        DeviceReport::readAll(options.all ? DeviceReport::Hidden::Yes : DeviceReport::Hidden::No);
    if (const std::string reason = devices.empty() ? HALHardwareUnavailableReason() : ""; !reason.empty()) {
        if (!options.watch)
            throw ToolFailure(reason);
        return {"Waiting: " + singleLine(reason)};
    }
    if (options.json) {
        CXPlist list = CXPlist::array();
        for (const DeviceReport& device : devices)
            list.push_back(device.json());
        return {jsonText(list, options.watch ? -1 : 2, terminal.isLive())};
    }
    return devices.empty() ? std::vector<std::string>{"No audio devices."}
                           : deviceTable(devices, terminal.columns(), terminal);
}

/// Prints the list, and again whenever it is another one: over the one before on a terminal, else below it.
void watch(const Options& options, const Terminal& terminal)
{
    const Interrupts interrupts;
    std::signal(SIGPIPE, SIG_DFL); // the reader of the lines has gone; nothing is left to put in order
    LiveLines live(terminal);
    DeviceWatch changes(options.all);
    changes.begin();
    std::vector<std::string> shown;
    do {
        changes.next();
        std::vector<std::string> lines = linesOf(options, terminal);
        if (lines == shown)
            continue;
        if (terminal.isLive())
            live.draw(lines);
        else
            for (const std::string& line : lines)
                std::cout << line << std::endl;
        shown = std::move(lines);
    } while (interrupts.wait(terminal.isLive() ? 500 : -1, changes.fd())); // the terminal may change its size
}

void run(const Options& options)
{
    options.hardware.apply();
    const Terminal terminal;
    if (options.watch)
        return watch(options, terminal);
    for (const std::string& line : linesOf(options, terminal))
        std::cout << line << "\n";
}

} // namespace

std::vector<std::string> deviceTable(const std::vector<DeviceReport>& devices, size_t width,
                                     const Terminal& terminal)
{
    constexpr size_t leastName = 12;
    Table table({{"NAME", leastName, false, 9},
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
        row.cells = {name.empty() ? "(no name)" : name,
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
    command->add_flag("--watch", options->watch, "Again whenever something changes, until Ctrl-C");
    command->callback([options] { run(*options); });
}
