#include "Commands.h"

#include "DeviceTable.h"
#include "DeviceWatch.h"
#include "DisplayText.h"
#include "Interrupts.h"
#include "LiveLines.h"
#include "ToolFailure.h"

#include <csignal>
#include <dxr/HALHardwareDriver.h>
#include <iostream>

namespace {

struct Options : HardwareChoice {
    using HardwareChoice::HardwareChoice;
    bool withHidden = false, asJSON = false, watches = false;
};

std::vector<std::string> linesOf(const Options& options, const Terminal& terminal)
{
    const std::vector<DeviceReport> devices =
        DeviceReport::readAll(options.withHidden ? DeviceReport::Hidden::Yes : DeviceReport::Hidden::No);
    if (const std::string reason = devices.empty() ? HALHardwareUnavailableReason() : ""; !reason.empty()) {
        if (!options.watches)
            throw ToolFailure(reason);
        return {"Waiting: " + singleLine(reason)};
    }
    if (options.asJSON) {
        CXPlist list = CXPlist::array();
        for (const DeviceReport& device : devices)
            list.push_back(device.json());
        return {jsonText(list, options.watches ? -1 : 2, terminal.isLive())};
    }
    return devices.empty() ? std::vector<std::string>{"No audio devices."}
                           : deviceTable(devices, terminal.columns(), terminal);
}

/// Prints the list now and whenever it changes: on a terminal redrawn in place, else below the last one.
void watch(const Options& options, const Terminal& terminal)
{
    const Interrupts interrupts;
    std::signal(SIGPIPE, SIG_DFL); // ends the process when the reader of its output ends
    LiveLines live(terminal);
    DeviceWatch changes(options.withHidden);
    changes.begin();
    const auto visitor = options.visitor();
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
    } while (interrupts.wait(terminal.isLive() ? 500 : -1, DeviceWatch::fd())); // the terminal may be resized
}

void run(Options& options)
{
    const Terminal terminal;
    if (options.watches)
        return watch(options, terminal);
    for (const std::string& line : linesOf(options, terminal))
        std::cout << line << "\n";
}

} // namespace

void registerListCommand(CLI::App& app)
{
    const auto [command, options] = addCommand(app, "list", "Show the audio devices", run);
    command.add_flag("--all", options.withHidden, "Include hidden devices");
    command.add_flag("--json", options.asJSON, "Print a JSON array of all properties of the devices");
    command.add_flag("--watch", options.watches, "Print the list again whenever it changes, until Ctrl-C");
}
