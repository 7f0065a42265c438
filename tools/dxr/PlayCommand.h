#pragma once

#include <CLI/CLI.hpp>

/// Adds `dxr play FILE.wav`, which plays a sound file on devices, to its last frame.
void registerPlayCommand(CLI::App& app);
