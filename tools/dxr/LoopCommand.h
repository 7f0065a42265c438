#pragma once

#include <CLI/CLI.hpp>

/// Adds `dxr loop`, which plays what devices hear on other devices, until Ctrl-C or for so many seconds.
void registerLoopCommand(CLI::App& app);
