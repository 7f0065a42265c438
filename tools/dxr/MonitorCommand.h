#pragma once

#include <CLI/CLI.hpp>

/// Adds `dxr monitor`, which shows on the whole terminal what devices and cycles are like, until the user has seen enough.
void registerMonitorCommand(CLI::App& app);
