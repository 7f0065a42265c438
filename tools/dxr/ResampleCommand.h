#pragma once

#include <CLI/CLI.hpp>

/// Adds `dxr resample`, which converts a sound file to another sample rate.
void registerResampleCommand(CLI::App& app);
