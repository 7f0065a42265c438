#pragma once

#include "CXExport.h"
#include "CXRealtime.h"

#include <cstdint>

/// Returns value * multiplier / divisor, computed exactly in 128 bits, truncated, and reduced to the low 64
/// bits. If multiplier == divisor, returns `value`. If the divisor is 0, returns 0: no clock has such a
/// ratio.
/// Threads:   any.
/// Real time: yes.
DXR_EXPORT uint64_t _multiplyRatio(uint64_t value, uint32_t multiplier, uint32_t divisor) noexcept
    CX_REALTIME;
