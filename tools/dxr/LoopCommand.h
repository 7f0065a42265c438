#pragma once

#include <CLI/CLI.hpp>

/// Adds `dxr loop`, which carries one device's input to another's output until Ctrl-C or for so many seconds.
void registerLoopCommand(CLI::App& app);
