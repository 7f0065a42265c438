#pragma once

#include <CLI/CLI.hpp>

/// Adds `dxr record FILE.wav`, which writes what devices hear to a WAV file until Ctrl-C or for so many
/// seconds.
void registerRecordCommand(CLI::App& app);
