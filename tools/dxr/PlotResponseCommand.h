#pragma once

#include <CLI/CLI.hpp>

/// Adds `dxr plot response`, which measures the sampler between two rates and draws what it finds.
void registerPlotCommand(CLI::App& app);
