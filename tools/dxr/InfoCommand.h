#pragma once

#include <CLI/CLI.hpp>

/// Adds `dxr info DEVICE`, which prints everything one device says of itself.
void registerInfoCommand(CLI::App& app);
