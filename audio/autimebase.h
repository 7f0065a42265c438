#pragma once

#include "CXExport.h"
#include "CXRealtime.h"

#include <stddef.h>
#include <stdint.h>

// The host clock's time base as a plain record. Absolute time counts host ticks; nanoseconds = ticks * numer
// / denom, computed exactly in 128 bits and truncated.
// Threads:   any; a record is immutable.
// Real time: everything except creation and destruction.

DXR_BEGIN_C

typedef struct autimebase {
    double frequency; ///< ticks per second
    uint32_t numer;   ///< a tick is numer / denom nanoseconds
    uint32_t denom;
} autimebase;

/// The process's shared record; never freed.
DXR_EXPORT const autimebase* autimebase_get_shared(void) DXR_NOEXCEPT;
/// Creates a record for the host clock, to be freed by autimebase_destroy. Returns null if memory cannot be
/// allocated.
DXR_EXPORT autimebase* autimebase_create(void) DXR_NOEXCEPT;
/// Does nothing if `timebase` is null.
DXR_EXPORT void autimebase_destroy(autimebase* timebase) DXR_NOEXCEPT;
/// Ticks per second.
DXR_EXPORT double autimebase_frequency(const autimebase* timebase) DXR_NOEXCEPT CX_REALTIME;
/// The current time in host ticks.
DXR_EXPORT uint64_t autimebase_abstime(void) DXR_NOEXCEPT CX_REALTIME;
/// The current time in nanoseconds.
DXR_EXPORT uint64_t autimebase_nanoseconds(const autimebase* timebase) DXR_NOEXCEPT CX_REALTIME;
DXR_EXPORT uint64_t autimebase_abstime_to_nanoseconds(const autimebase* timebase, uint64_t ticks) DXR_NOEXCEPT
    CX_REALTIME;
DXR_EXPORT uint64_t autimebase_nanoseconds_to_abstime(const autimebase* timebase,
                                                      uint64_t nanoseconds) DXR_NOEXCEPT CX_REALTIME;

DXR_END_C
