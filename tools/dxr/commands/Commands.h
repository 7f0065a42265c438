#pragma once

#include <CLI/CLI.hpp>

// Each adds one or a few commands to the command line; their files have their names.

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
/// manual, completion: made from the commands that `app` has; the last to be registered.
void registerPagesCommands(CLI::App& app);
