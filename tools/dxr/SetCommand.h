#pragma once

#include <CLI/CLI.hpp>

/// Adds `dxr set DEVICE`, which changes volume, mute, source or rate of a device, or makes it a default, and
/// waits until the device has taken the change over.
void registerSetCommand(CLI::App& app);
