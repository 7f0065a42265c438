#pragma once

#include <CLI/CLI.hpp>

/// Adds `dxr watch`, which prints a line whenever a device comes, goes or changes, until Ctrl-C.
void registerWatchCommand(CLI::App& app);
