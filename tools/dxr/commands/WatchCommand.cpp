#include "Commands.h"

#include "DeviceWatch.h"
#include "Interrupts.h"
#include "Terminal.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <csignal>
#include <iostream>

namespace {

struct Options : HardwareChoice {
    using HardwareChoice::HardwareChoice;
    bool withHidden = false, asJSON = false, withIdentity = false;
};

// Indexed by DeviceWatch::Kind.
constexpr Style styles[] = {Style::Plain, Style::Green, Style::Red, Style::Yellow, Style::Red, Style::Cyan};

std::string lineOf(const DeviceWatch::Event& event, const Options& options, const Terminal& terminal)
{
    const std::string identity = options.withIdentity ? event.identity() : "";
    if (!options.asJSON)
        return terminal.styled(formatLocalTime(event.when), Style::Dim) + "  " +
               terminal.styled(event.text(), styles[static_cast<size_t>(event.kind)]) +
               (identity.empty() ? "" : "  [" + identity + "]");
    CXPlist line = event.json();
    if (options.withIdentity)
        line["identity"] = identity;
    return jsonText(line, -1, terminal.isLive());
}

void print(const std::vector<DeviceWatch::Event>& events, const Options& options, const Terminal& terminal)
{
    for (const DeviceWatch::Event& event : events)
        if (!(std::cout << lineOf(event, options, terminal) << std::endl))
            throw ToolFailure("cannot write to standard output");
}

void run(Options& options)
{
    const Terminal terminal;
    DeviceWatch watch(options.withHidden);
    print(watch.begin(), options, terminal);
    const auto visitor = options.visitor();
    const Interrupts interrupts;
    std::signal(SIGPIPE, SIG_DFL); // ends the process when the reader of its output ends
    constexpr int forever = -1;
    while (interrupts.wait(forever, DeviceWatch::fd()))
        print(watch.next(), options, terminal);
}

} // namespace

void registerWatchCommand(CLI::App& app)
{
    const auto [command, options] =
        addCommand(app, "watch", "Report devices that connect, disconnect or change, until Ctrl-C", run);
    command.add_flag("--all", options.withHidden, "Include hidden devices");
    command.add_flag("--json", options.asJSON, "Print a JSON object per line");
    command.add_flag("--identity", options.withIdentity,
                     "Print the objects of each device, which stay the same when it is connected again");
}
