#pragma once

#include "CXExport.h"

#include <string_view>

/// Names the calling thread; cut to the whole characters that fit into the kernel's 15 bytes.
DXR_EXPORT void vt_setThreadName(std::string_view name);
