#pragma once

#include "HardwareChoice.h"

/// Adds a command to `parent`. Its options are constructed with it, if they can be, and passed to `run`, with
/// the hardware selected.
template <class Options>
std::pair<CLI::App&, Options&> addCommand(CLI::App& parent, const char* name, const char* about,
                                          void (*run)(Options&))
{
    CLI::App* const command = parent.add_subcommand(name, about);
    std::shared_ptr<Options> options;
    if constexpr (std::is_constructible_v<Options, CLI::App&>)
        options = std::make_shared<Options>(*command);
    else
        options = std::make_shared<Options>();
    command->callback([options, run] {
        if constexpr (std::is_base_of_v<HardwareChoice, Options>)
            options->apply();
        run(*options);
    });
    return {*command, *options};
}

// Each adds the commands of the file of its name.

void registerListCommand(CLI::App& app);
void registerWatchCommand(CLI::App& app);
void registerInfoCommand(CLI::App& app);
void registerSetCommand(CLI::App& app);
void registerRememberCommands(CLI::App& app); ///< remember, forget
void registerArchiveCommands(CLI::App& app);  ///< archive, show, ref
void registerLoopCommand(CLI::App& app);
void registerPlayCommand(CLI::App& app);
void registerRecordCommand(CLI::App& app);
void registerTraceCommand(CLI::App& app);
void registerMonitorCommand(CLI::App& app);
void registerDemoCommand(CLI::App& app);
void registerResampleCommand(CLI::App& app);
void registerPlotCommand(CLI::App& app); ///< plot response, plot drift
void registerPlotDriftCommand(CLI::App& plot);
void registerAggregateCommand(CLI::App& app);
/// manual, completion: about the commands of `app`, which must be registered before.
void registerPagesCommands(CLI::App& app);
