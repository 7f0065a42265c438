#pragma once

#include <CLI/CLI.hpp>

/// Adds `dxr archive DEVICE`, which writes what is needed to describe the device while it is absent, `dxr show FILE`,
/// which reads that, and `dxr ref DEVICE`, which prints the text that names the device for good.
void registerArchiveCommands(CLI::App& app);
