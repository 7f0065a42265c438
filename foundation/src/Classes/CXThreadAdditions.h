#pragma once

#include "CXExport.h"

#include <string_view>

/// Sets the calling thread's name, cut to at most 15 bytes (the kernel's limit) without splitting a
/// character.
DXR_EXPORT void vt_setThreadName(std::string_view name);
