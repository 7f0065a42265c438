#pragma once

#include "CXExport.h"
#include "CXRealtime.h"

#include <cstdint>

/// value * multiplier / divisor, formed exactly in 128 bits and cut towards zero; the low 64 bits of it. With
/// multiplier == divisor, `value` itself. A divisor of 0 gives 0: no clock has such a ratio.
/// Threads:   any.
/// Real time: yes.
DXR_EXPORT uint64_t _multiplyRatio(uint64_t value, uint32_t multiplier, uint32_t divisor) noexcept
    CX_REALTIME;
