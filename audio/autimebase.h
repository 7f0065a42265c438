#pragma once

#include "CXExport.h"
#include "CXRealtime.h"

#include <stddef.h>
#include <stdint.h>

// The host clock's time base as a plain record. Absolute time counts host ticks; nanoseconds = ticks * numer
// / denom, exact in 128 bits and cut towards zero.
// Threads:   a record never changes; any.
// Real time: everything but creating and destroying.

DXR_BEGIN_C

typedef struct autimebase {
    double frequency; ///< ticks per second
    uint32_t numer;   ///< of the length of a tick in nanoseconds
    uint32_t denom;
} autimebase;

/// The process's one record, never freed.
DXR_EXPORT const autimebase* autimebase_get_shared(void) DXR_NOEXCEPT;
/// A new record over the host clock, freed by autimebase_destroy; null where there is no memory.
DXR_EXPORT autimebase* autimebase_create(void) DXR_NOEXCEPT;
/// Null does nothing.
DXR_EXPORT void autimebase_destroy(autimebase* timebase) DXR_NOEXCEPT;
/// Ticks per second.
DXR_EXPORT double autimebase_frequency(const autimebase* timebase) DXR_NOEXCEPT CX_REALTIME;
/// Now, in host ticks.
DXR_EXPORT uint64_t autimebase_abstime(void) DXR_NOEXCEPT CX_REALTIME;
/// Now, in nanoseconds.
DXR_EXPORT uint64_t autimebase_nanoseconds(const autimebase* timebase) DXR_NOEXCEPT CX_REALTIME;
DXR_EXPORT uint64_t autimebase_abstime_to_nanoseconds(const autimebase* timebase, uint64_t ticks) DXR_NOEXCEPT
    CX_REALTIME;
DXR_EXPORT uint64_t autimebase_nanoseconds_to_abstime(const autimebase* timebase,
                                                      uint64_t nanoseconds) DXR_NOEXCEPT CX_REALTIME;

DXR_END_C
