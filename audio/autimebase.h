#pragma once

#include "CXExport.h"
#include "CXRealtime.h"

#include <stdint.h>

// The host clock's time base as a plain record. Absolute time counts host ticks; nanoseconds = ticks * numer
// / denom, exact in 128 bits and cut towards zero.
// Threads:   a record never changes; any.
// Real time: everything but creating and destroying.

extern "C" {

struct autimebase {
    double frequency; ///< ticks per second
    uint32_t numer;   ///< of the length of a tick in nanoseconds
    uint32_t denom;
};

/// The process's one record, never freed.
DXR_EXPORT const autimebase* autimebase_get_shared() noexcept;
/// A new record over the host clock, freed by autimebase_destroy; null where there is no memory.
DXR_EXPORT autimebase* autimebase_create() noexcept;
/// Null does nothing.
DXR_EXPORT void autimebase_destroy(autimebase* timebase) noexcept;
/// Ticks per second.
DXR_EXPORT double autimebase_frequency(const autimebase* timebase) noexcept CX_REALTIME;
/// Now, in host ticks.
DXR_EXPORT uint64_t autimebase_abstime() noexcept CX_REALTIME;
/// Now, in nanoseconds.
DXR_EXPORT uint64_t autimebase_nanoseconds(const autimebase* timebase) noexcept CX_REALTIME;
DXR_EXPORT uint64_t autimebase_abstime_to_nanoseconds(const autimebase* timebase, uint64_t ticks) noexcept
    CX_REALTIME;
DXR_EXPORT uint64_t autimebase_nanoseconds_to_abstime(const autimebase* timebase,
                                                      uint64_t nanoseconds) noexcept CX_REALTIME;

} // extern "C"
