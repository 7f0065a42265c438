#pragma once

#include "DeviceReport.h"
#include "Terminal.h"

/// The lines of the table of `dxr list`, `width` columns wide.
std::vector<std::string> deviceTable(const std::vector<DeviceReport>& devices, size_t width,
                                     const Terminal& terminal);
