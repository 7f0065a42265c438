#pragma once

#include "DeviceReport.h"
#include "Terminal.h"

/// Returns the table of `dxr list` as lines of up to `width` columns.
std::vector<std::string> deviceTable(const std::vector<DeviceReport>& devices, size_t width,
                                     const Terminal& terminal);
