#pragma once

#include "CXRealtime.h"

#include <atomic>
#include <cstdint>

namespace dxr {

/// Sleeping on a 32-bit word of this process until somebody changes it.
/// Threads:   any.
/// Real time: wakeOne(); it enters the kernel but never waits.
class Futex {
public:
    static constexpr uint64_t noDeadline = UINT64_MAX;

    /// Sleeps while `word` is `expected`, at the longest until the host clock reads `deadlineTicks`. Returns
    /// early now and then: the caller looks at the word again. False when the deadline has passed.
    static bool wait(const std::atomic<uint32_t>& word, uint32_t expected,
                     uint64_t deadlineTicks = noDeadline) noexcept;
    /// Wakes one sleeper. `word` may be gone by now: an address where nobody sleeps does nothing.
    static void wakeOne(const std::atomic<uint32_t>* word) noexcept CX_REALTIME;
};

} // namespace dxr
