#pragma once

#include "CXExport.h"
#include "CXRealtime.h"

#include <stdint.h>

// A sample clock: a fixed straight line between host ticks and sample time, through an epoch pair at a sample
// rate. Exact integer arithmetic: it does not drift, however long it runs.
// Threads:   a clock never changes; any. To move the epoch or the rate, make another.
// Real time: everything but creating and destroying.

DXR_BEGIN_C

typedef struct auclock {
    uint64_t epoch_abstime;    ///< host ticks
    uint64_t epoch_sampletime; ///< frames
    double rate;               ///< Hz, as given
    // The rate and the host clock's frequency as fractions give samples per tick as num / den.
    int64_t abs_to_sample_num;  ///< rate numerator * frequency denominator
    int64_t abs_to_sample_den;  ///< rate denominator * frequency numerator
    int64_t abs_to_sample_bias; ///< half the rate's numerator
    int64_t sample_to_abs_bias; ///< half the frequency's numerator
} auclock;

/// A clock on which `epoch_sampletime` is the sample time at host time `epoch_abstime`, over the shared time
/// base. `rate` is in Hz, finite and above 0: with a rate of 0 no sample ever comes, and
/// auclock_sampletime_to_abstime divides by zero. The caller destroys it. Null when there is no memory.
DXR_NODISCARD DXR_EXPORT auclock* auclock_create(uint64_t epoch_abstime, uint64_t epoch_sampletime,
                                                 double rate) DXR_NOEXCEPT;
/// Another with the same values.
DXR_NODISCARD DXR_EXPORT auclock* auclock_create_copy(const auclock* clock) DXR_NOEXCEPT;
/// Null does nothing.
DXR_EXPORT void auclock_destroy(auclock* clock) DXR_NOEXCEPT;

DXR_EXPORT uint64_t auclock_epoch_abstime(const auclock* clock) DXR_NOEXCEPT CX_REALTIME;
DXR_EXPORT uint64_t auclock_epoch_sampletime(const auclock* clock) DXR_NOEXCEPT CX_REALTIME;
DXR_EXPORT double auclock_rate(const auclock* clock) DXR_NOEXCEPT CX_REALTIME;

/// The sample time at a host time. The numbers before the epoch mean nothing.
DXR_EXPORT uint64_t auclock_abstime_to_sampletime(const auclock* clock, uint64_t abstime) DXR_NOEXCEPT
    CX_REALTIME;
/// The host time at a sample time, half a sample's worth of ticks late. The numbers before the epoch mean
/// nothing.
DXR_EXPORT uint64_t auclock_sampletime_to_abstime(const auclock* clock, uint64_t sampletime) DXR_NOEXCEPT
    CX_REALTIME;

DXR_END_C
