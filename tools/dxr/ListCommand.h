#pragma once

#include "DeviceReport.h"
#include "Terminal.h"

#include <CLI/CLI.hpp>

/// Adds `dxr list`, which prints a table of the devices, or their JSON, and ends.
void registerListCommand(CLI::App& app);

/// The table that `dxr list` prints, line by line, for a terminal `width` columns wide.
std::vector<std::string> deviceTable(const std::vector<DeviceReport>& devices, size_t width,
                                     const Terminal& terminal);
