#pragma once

#include "AdaptiveSpin.h"
#include "Futex.h"

#include <atomic>
#include <cstdint>

namespace dxr {

/// The reply to one request, stored on the stack of the thread that waits for it.
/// Threads:   wait() once on the thread that created it; send() once on any other thread.
/// Real time: send().
class Reply {
public:
    /// Waits until send() is called.
    void wait() noexcept;
    /// Lets the waiting thread continue. This object may be destroyed before the call returns.
    void send() noexcept CX_REALTIME;

private:
    static constexpr uint32_t pending = 0;
    static constexpr uint32_t sleeping = 1;
    static constexpr uint32_t sent = 2;
    // The sender writes the reply's data before it stores `sent`; the waiting thread reads the data after it
    // sees `sent`. After its exchange the sender uses only the address, not the object: it may wake an
    // address on which no thread sleeps any more.
    std::atomic<uint32_t> _state{pending};
};

} // namespace dxr
