#include "AggregateCommand.h"
#include "ArchiveCommand.h"
#include "DemoCommand.h"
#include "InfoCommand.h"
#include "Interrupts.h"
#include "ListCommand.h"
#include "LoopCommand.h"
#include "MonitorCommand.h"
#include "PlayCommand.h"
#include "PlotResponseCommand.h"
#include "RecordCommand.h"
#include "RememberCommand.h"
#include "ResampleCommand.h"
#include "SetCommand.h"
#include "ToolFailure.h"
#include "TraceCommand.h"
#include "WatchCommand.h"

#include <CLI/CLI.hpp>
#include <clocale>
#include <cstdio>
#include <dxr/DXRVersion.h>
#include <iostream>

namespace {

void registerCommands(CLI::App& app)
{
    registerListCommand(app);
    registerWatchCommand(app);
    registerInfoCommand(app);
    registerSetCommand(app);
    registerRememberCommands(app);
    registerArchiveCommands(app);
    registerLoopCommand(app);
    registerPlayCommand(app);
    registerRecordCommand(app);
    registerTraceCommand(app);
    registerMonitorCommand(app);
    registerDemoCommand(app);
    registerResampleCommand(app);
    registerPlotCommand(app);
    registerAggregateCommand(app);
}

/// Parses the command line and runs its command. Answers the exit status.
int runCommandLine(CLI::App& app, int argc, char** argv)
{
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : ToolFailure::usageExitStatus;
    } catch (const std::exception& failure) {
        std::cout.flush();
        std::cerr << "dxr: " << failure.what() << "\n";
        return ToolFailure::exitStatus;
    }
    if (!std::cout.flush()) {
        std::cerr << "dxr: cannot write to standard output\n";
        return ToolFailure::exitStatus;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
try {
    std::setlocale(LC_CTYPE, "C.UTF-8"); // names are UTF-8, whatever the user's language
    CLI::App app{"Audio devices, found, followed and played together", "dxr"};
    app.set_version_flag("--version", std::string("dxr ") + DXRVersionString());
    app.require_subcommand(1);
    registerCommands(app);
    Interrupts::endProcess(runCommandLine(app, argc, argv));
} catch (...) { // not even the message of what was wrong could be put together
    std::fputs("dxr: out of memory\n", stderr);
    return ToolFailure::exitStatus;
}
