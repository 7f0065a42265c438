#include "Commands.h"

#include "DeviceTable.h"
#include "DeviceWatch.h"
#include "DisplayText.h"
#include "HardwareChoice.h"
#include "Interrupts.h"
#include "LiveLines.h"
#include "SimulatedVisitor.h"
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
void watch(const Options& options, const Terminal& terminal, const CXRef<SimulatedHardware>& simulated)
{
    const Interrupts interrupts;
    std::signal(SIGPIPE, SIG_DFL); // the reader of the lines has gone
    LiveLines live(terminal);
    DeviceWatch changes(options.all);
    changes.begin();
    std::optional<SimulatedVisitor> visitor;
    if (simulated)
        visitor.emplace(simulated);
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
    const CXRef<SimulatedHardware> simulated = options.hardware.apply();
    const Terminal terminal;
    if (options.watch)
        return watch(options, terminal, simulated);
    for (const std::string& line : linesOf(options, terminal))
        std::cout << line << "\n";
}

} // namespace

void registerListCommand(CLI::App& app)
{
    CLI::App* command = app.add_subcommand("list", "Show the audio devices");
    const auto options = std::make_shared<Options>(*command);
    command->add_flag("--all", options->all, "Hidden devices too");
    command->add_flag("--json", options->json, "A JSON array with everything about each device");
    command->add_flag("--watch", options->watch, "Again whenever something changes, until Ctrl-C");
    command->callback([options] { run(*options); });
}
