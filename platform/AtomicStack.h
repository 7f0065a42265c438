#pragma once

#include "CXRealtime.h"

#include <atomic>
#include <cstdint>

namespace platform {

/// A lock-free last-in-first-out list of blocks of memory, linked through their own first word.
/// Threads:   every call from any thread at once.
/// Real time: yes; a thread that loses an exchange waits a bounded moment and tries again.
/// Blocks must stay mapped for the life of the process: a pop may read the first word of a block that another
/// thread has just taken, and throws away what it read.
class AtomicStack {
public:
    /// The first word of a block that is on a stack.
    struct Link {
        std::atomic<Link*> next;
    };

    constexpr AtomicStack() noexcept = default;
    AtomicStack(const AtomicStack&) = delete;
    AtomicStack& operator=(const AtomicStack&) = delete;

    void push(Link* block) noexcept CX_REALTIME { pushChain(block, block); }
    /// Pushes blocks that the caller has linked from `first` to `last` in one step; `first` comes out first.
    void pushChain(Link* first, Link* last) noexcept CX_REALTIME;
    /// The block pushed last, or null.
    Link* pop() noexcept CX_REALTIME;

private:
    // The head and the number of pops and pushes so far, changed together. The count is what tells a pop that
    // the head it read was taken and put back meanwhile, its successor no longer what it was: at 64 bits it
    // cannot come round while a thread sleeps between its read and its exchange.
    //
    // Release in the exchange that pushes pairs with the acquiring load in pop(): the link in the block is
    // written before the block is seen. The two words are read one by one; a pair that was never there
    // together differs from the head in its count, and the exchange fails.
    struct alignas(16) Head {
        Link* first = nullptr;
        uint64_t changes = 0;
    };

    Head _load() const noexcept;
    bool _exchange(const Head& expected, const Head& wanted) noexcept;

    alignas(64) Head _head; // a line of its own: sizes do not slow one another down
};

} // namespace platform
