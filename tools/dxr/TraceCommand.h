#pragma once

#include <CLI/CLI.hpp>

/// Adds `dxr trace`: the times of every cycle of a run, as a file for trace viewers and as a picture.
void registerTraceCommand(CLI::App& app);
