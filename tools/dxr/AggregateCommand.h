#pragma once

#include <CLI/CLI.hpp>

/// Adds `dxr aggregate create`, which joins devices to one for as long as it runs, and shows how their clocks do.
void registerAggregateCommand(CLI::App& app);
