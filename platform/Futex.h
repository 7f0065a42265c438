#pragma once

#include "CXRealtime.h"

#include <atomic>
#include <cstdint>

namespace dxr {

/// Sleeps on a 32-bit word of this process until another thread changes it.
/// Threads:   any.
/// Real time: wakeOne(); it enters the kernel but never waits.
class Futex {
public:
    static constexpr uint64_t noDeadline = UINT64_MAX;

    /// Sleeps while `word` equals `expected`, until the host clock reaches `deadlineTicks`. May return early:
    /// the caller checks the word again. Returns false if the deadline has passed.
    static bool wait(const std::atomic<uint32_t>& word, uint32_t expected,
                     uint64_t deadlineTicks = noDeadline) noexcept;
    /// Wakes one sleeping thread. `word` may have been destroyed: the call does nothing if no thread sleeps
    /// on the address.
    static void wakeOne(const std::atomic<uint32_t>* word) noexcept CX_REALTIME;
};

} // namespace dxr
