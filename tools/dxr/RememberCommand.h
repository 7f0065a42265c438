#pragma once

#include <CLI/CLI.hpp>

/// Adds `dxr remember DEVICE [KEY VALUE]` and `dxr forget DEVICE [KEY]`: settings of a device that all applications of
/// the user share.
void registerRememberCommands(CLI::App& app);
