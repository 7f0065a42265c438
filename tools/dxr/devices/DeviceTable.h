#pragma once

#include "DeviceReport.h"
#include "Terminal.h"

/// The table that `dxr list` prints, line by line, for a terminal `width` columns wide.
std::vector<std::string> deviceTable(const std::vector<DeviceReport>& devices, size_t width,
                                     const Terminal& terminal);
