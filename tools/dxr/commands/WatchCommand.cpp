#include "Commands.h"

#include "DeviceWatch.h"
#include "HardwareChoice.h"
#include "Interrupts.h"
#include "SimulatedVisitor.h"
#include "Terminal.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <csignal>
#include <ctime>
#include <iostream>
#include <memory>

namespace {

struct Options {
    explicit Options(CLI::App& command) : hardware(command) {}
    HardwareChoice hardware;
    bool all = false;
    bool json = false;
    bool identity = false;
};

std::string localTime(std::chrono::system_clock::time_point when)
{
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count();
    const std::time_t seconds = static_cast<std::time_t>(milliseconds / 1000);
    std::tm parts{};
    localtime_r(&seconds, &parts);
    return formatText("%02d:%02d:%02d.%03d", parts.tm_hour, parts.tm_min, parts.tm_sec,
                      static_cast<int>(milliseconds % 1000));
}

Style styleOf(DeviceWatch::Kind kind)
{
    switch (kind) {
    case DeviceWatch::Kind::Connected:
        return Style::Green;
    case DeviceWatch::Kind::Disconnected:
    case DeviceWatch::Kind::LostCycles:
        return Style::Red;
    case DeviceWatch::Kind::Changed:
        return Style::Yellow;
    case DeviceWatch::Kind::Default:
        return Style::Cyan;
    case DeviceWatch::Kind::Present:
        break;
    }
    return Style::Plain;
}

void print(const std::vector<DeviceWatch::Event>& events, const Options& options, const Terminal& terminal)
{
    for (const DeviceWatch::Event& event : events) {
        const std::string identity = options.identity ? event.identity() : "";
        if (options.json) {
            CXPlist line = event.json();
            if (options.identity)
                line["identity"] = identity;
            std::cout << jsonText(line, -1, terminal.isLive()) << std::endl;
        } else {
            std::cout << terminal.styled(localTime(event.when), Style::Dim) << "  "
                      << terminal.styled(event.text(), styleOf(event.kind))
                      << (identity.empty() ? "" : "  [" + identity + "]") << std::endl;
        }
        if (!std::cout)
            throw ToolFailure("cannot write to standard output");
    }
}

void run(const Options& options)
{
    const CXRef<SimulatedHardware> simulated = options.hardware.apply();
    const Terminal terminal;
    DeviceWatch watch(options.all);
    print(watch.begin(), options, terminal);
    const std::unique_ptr<SimulatedVisitor> visitor =
        simulated ? std::make_unique<SimulatedVisitor>(simulated) : nullptr;
    const Interrupts interrupts;
    std::signal(SIGPIPE, SIG_DFL); // the reader of the lines has gone
    constexpr int forever = -1;
    while (interrupts.wait(forever, watch.fd()))
        print(watch.next(), options, terminal);
}

} // namespace

void registerWatchCommand(CLI::App& app)
{
    CLI::App* command =
        app.add_subcommand("watch", "Report devices that connect, disconnect or change, until Ctrl-C");
    const auto options = std::make_shared<Options>(*command);
    command->add_flag("--all", options->all, "Hidden devices too");
    command->add_flag("--json", options->json, "A JSON object per line");
    command->add_flag("--identity", options->identity,
                      "Which objects stand for each device: the same after a replug");
    command->callback([options] { run(*options); });
}
