#pragma once

#include <CLI/CLI.hpp>

/// `dxr plot drift`: simulates two devices whose clocks differ, and draws what is done about it. `plot` is the command
/// that it belongs to.
void registerPlotDriftCommand(CLI::App& plot);
