#pragma once

#include "AdaptiveSpin.h"
#include "Futex.h"

#include <atomic>
#include <cstdint>

namespace dxr {

/// The reply to one request, on the stack of the thread that waits for it.
/// Threads:   wait() on the thread that made it, once; send() on any other, once.
/// Real time: send().
class Reply {
public:
    /// Returns when send() has been called.
    void wait() noexcept;
    /// Lets the waiting thread go on. This object may be gone before the call returns.
    void send() noexcept CX_REALTIME;

private:
    static constexpr uint32_t pending = 0;
    static constexpr uint32_t sleeping = 1;
    static constexpr uint32_t sent = 2;
    // What the reply refers to is written before `sent` is stored and read after it is seen. The sender
    // touches nothing after its exchange but the address, which it may wake though nobody sleeps there any
    // more.
    std::atomic<uint32_t> _state{pending};
};

} // namespace dxr
