#pragma once

#include "CXExport.h"
#include "CXRealtime.h"

#include <stdint.h>

// A sample clock: a fixed linear relation between host ticks and sample time, given by an epoch (a pair of
// both) and a sample rate. It uses exact integer arithmetic and does not drift, however long it runs.
// Threads:   any; a clock is immutable. To change the epoch or the rate, create another clock.
// Real time: everything except creation and destruction.

DXR_BEGIN_C

typedef struct auclock {
    uint64_t epoch_abstime;    ///< host ticks
    uint64_t epoch_sampletime; ///< frames
    double rate;               ///< Hz, as given
    // The samples per tick are num / den, from the rate and the host clock's frequency as fractions.
    int64_t abs_to_sample_num;  ///< rate numerator * frequency denominator
    int64_t abs_to_sample_den;  ///< rate denominator * frequency numerator
    int64_t abs_to_sample_bias; ///< half the rate's numerator
    int64_t sample_to_abs_bias; ///< half the frequency's numerator
} auclock;

/// Creates a clock whose sample time is `epoch_sampletime` at host time `epoch_abstime`; it uses the shared
/// time base. `rate` is in Hz, finite and above 0: with a rate of 0 the sample time never changes, and
/// auclock_sampletime_to_abstime divides by zero. The caller destroys the clock. Returns null if memory
/// cannot be allocated.
DXR_NODISCARD DXR_EXPORT auclock* auclock_create(uint64_t epoch_abstime, uint64_t epoch_sampletime,
                                                 double rate) DXR_NOEXCEPT;
/// Creates a copy of the clock.
DXR_NODISCARD DXR_EXPORT auclock* auclock_create_copy(const auclock* clock) DXR_NOEXCEPT;
/// Does nothing if `clock` is null.
DXR_EXPORT void auclock_destroy(auclock* clock) DXR_NOEXCEPT;

DXR_EXPORT uint64_t auclock_epoch_abstime(const auclock* clock) DXR_NOEXCEPT CX_REALTIME;
DXR_EXPORT uint64_t auclock_epoch_sampletime(const auclock* clock) DXR_NOEXCEPT CX_REALTIME;
DXR_EXPORT double auclock_rate(const auclock* clock) DXR_NOEXCEPT CX_REALTIME;

/// The sample time at a host time. The result is undefined before the epoch.
DXR_EXPORT uint64_t auclock_abstime_to_sampletime(const auclock* clock, uint64_t abstime) DXR_NOEXCEPT
    CX_REALTIME;
/// The host time at a sample time, plus half the length of a sample. The result is undefined before the
/// epoch.
DXR_EXPORT uint64_t auclock_sampletime_to_abstime(const auclock* clock, uint64_t sampletime) DXR_NOEXCEPT
    CX_REALTIME;

DXR_END_C
