#include "Commands.h"

#include "DeviceWatch.h"
#include "Interrupts.h"

#include <csignal>
#include <dxr/HALHardwareDriver.h>

namespace {

struct Options : HardwareChoice {
    using HardwareChoice::HardwareChoice;
    bool withHidden = false, asJSON = false;
    bool watches = false;      // of list
    bool withIdentity = false; // of watch
};

/// Calls `use` with the events at the start, after each change and twice a second: the terminal may be resized,
/// and a server without devices may end.
template <class Use> void follow(const Options& options, Use use)
{
    constexpr int milliseconds = 500;
    const Interrupts interrupts;
    std::signal(SIGPIPE, SIG_DFL); // ends the process when the reader of its output ends
    DeviceWatch watch(options.withHidden);
    use(watch.begin());
    const std::jthread visitor = options.visitor();
    while (interrupts.wait(milliseconds, DeviceWatch::fd()))
        use(watch.next());
}

void print(const std::string& line)
{
    if (!(std::cout << line << std::endl))
        throw ToolFailure("cannot write to standard output");
}

// ---- list

std::vector<std::string> linesOf(const Options& options, const Terminal& terminal)
{
    const std::vector<DeviceReport> devices =
        DeviceReport::readAll(options.withHidden ? DeviceReport::Hidden::Yes : DeviceReport::Hidden::No);
    if (const std::string reason = devices.empty() ? HALHardwareUnavailableReason() : ""; !reason.empty()) {
        if (!options.watches)
            throw ToolFailure(reason);
        return {"Waiting: " + singleLine(reason)};
    }
    if (options.asJSON)
        return {jsonText(arrayOf(devices, &DeviceReport::json), options.watches ? -1 : 2, terminal.isLive())};
    return devices.empty() ? std::vector<std::string>{"No audio devices."}
                           : deviceTable(devices, terminal.columns(), terminal);
}

void list(Options& options)
{
    Terminal terminal;
    std::vector<std::string> shown;
    const auto show = [&](const auto&) {
        std::vector<std::string> lines = linesOf(options, terminal);
        if (lines == shown)
            return;
        if (options.watches && terminal.isLive())
            terminal.draw(lines);
        else
            print(joined(lines, "\n"));
        shown = std::move(lines);
    };
    if (options.watches)
        follow(options, show);
    else
        show(shown);
}

// ---- watch

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

void watch(Options& options)
{
    const Terminal terminal;
    std::string reason;
    follow(options, [&](const std::vector<DeviceWatch::Event>& events) {
        const std::string before = std::exchange(reason, HALHardwareUnavailableReason());
        if (reason != before && !reason.empty())
            std::cerr << "Waiting: " << singleLine(reason) << "\n"; // each line of the output is an event
        for (const DeviceWatch::Event& event : events)
            print(lineOf(event, options, terminal));
    });
}

} // namespace

void registerListCommands(CLI::App& app)
{
    const auto [command, options] = addCommand(app, "list", "Show the audio devices", list);
    command.add_flag("--all", options.withHidden, "Include hidden devices");
    command.add_flag("--json", options.asJSON, "Print a JSON array of all properties of the devices");
    command.add_flag("--watch", options.watches, "Print the list again whenever it changes, until Ctrl-C");

    const auto [watchCommand, watchOptions] =
        addCommand(app, "watch", "Report devices that connect, disconnect or change, until Ctrl-C", watch);
    watchCommand.add_flag("--all", watchOptions.withHidden, "Include hidden devices");
    watchCommand.add_flag("--json", watchOptions.asJSON, "Print a JSON object per line");
    watchCommand.add_flag("--identity", watchOptions.withIdentity,
                          "Print the objects of each device, which stay the same when it is connected again");
}
