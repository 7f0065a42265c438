#pragma once

#include "BackOff.h"
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
    // The head and the number of pops so far. A pop changes both together: the count is what tells it that
    // the head it read was taken and put back meanwhile, its successor no longer what it was. At 64 bits it
    // cannot come round while a thread sleeps between its read and its exchange. A push changes the head
    // alone; it does not look behind it, and a head can only come back after a pop.
    //
    // Release in the exchange that pushes pairs with the acquiring load in pop(): the link in the block is
    // written before the block is seen. The two words are read one by one; a pair that was never there
    // together differs from the head in its count, and the exchange fails.
    struct alignas(16) Head {
        Link* first = nullptr;
        uint64_t pops = 0;
    };

    Head _load() const noexcept;
    bool _exchange(const Head& expected, const Head& wanted) noexcept;
    static Link* _successorOf(const Link* block) noexcept;

    alignas(64) Head _head; // a line of its own: sizes do not slow one another down
};

// In the header: two calls would cost half as much again as what they do.

#if defined(__SANITIZE_THREAD__)
#define DXR_HIDDEN_FROM_THREAD_SANITIZER inline __attribute__((no_sanitize("thread"), noinline))
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define DXR_HIDDEN_FROM_THREAD_SANITIZER inline __attribute__((no_sanitize("thread"), noinline))
#endif
#endif
#ifndef DXR_HIDDEN_FROM_THREAD_SANITIZER
#define DXR_HIDDEN_FROM_THREAD_SANITIZER inline
#endif

/// The successor of a block that may no longer be ours to read: its new owner may be writing there. What is
/// read then is thrown away, so the race is harmless and hidden from the thread sanitizer.
DXR_HIDDEN_FROM_THREAD_SANITIZER AtomicStack::Link* AtomicStack::_successorOf(const Link* block) noexcept
{
    return __atomic_load_n(reinterpret_cast<Link* const*>(&block->next), __ATOMIC_RELAXED);
}

inline AtomicStack::Head AtomicStack::_load() const noexcept
{
    Head head;
    // In this order: a count older than the block can only make the exchange fail.
    head.pops = __atomic_load_n(&_head.pops, __ATOMIC_ACQUIRE);
    head.first = __atomic_load_n(&_head.first, __ATOMIC_ACQUIRE);
    return head;
}

inline bool AtomicStack::_exchange(const Head& expected, const Head& wanted) noexcept
{
#ifdef __SIZEOF_INT128__
    __extension__ using Word [[gnu::may_alias]] = unsigned __int128;
    static_assert(sizeof(Word) == sizeof(Head));
    // The __sync form is compiled in place; the __atomic one would call a library that may take a lock.
    return __sync_bool_compare_and_swap(reinterpret_cast<Word*>(&_head), __builtin_bit_cast(Word, expected),
                                        __builtin_bit_cast(Word, wanted));
#else
#error "a double-word compare-and-swap is needed"
#endif
}

inline void AtomicStack::pushChain(Link* first, Link* last) noexcept
{
    BackOff backOff;
    for (;;) {
        Link* head = __atomic_load_n(&_head.first, __ATOMIC_RELAXED);
        last->next.store(head, std::memory_order_relaxed); // published by the exchange
        if (__atomic_compare_exchange_n(&_head.first, &head, first, false, __ATOMIC_RELEASE,
                                        __ATOMIC_RELAXED))
            return;
        backOff.wait();
    }
}

inline AtomicStack::Link* AtomicStack::pop() noexcept
{
    BackOff backOff;
    for (;;) {
        const Head head = _load();
        if (!head.first)
            return nullptr;
        Link* const successor = _successorOf(head.first);
        if (_exchange(head, {successor, head.pops + 1})) {
            // The next pop reads its link; another processor may have written that, or nobody for long.
            __builtin_prefetch(successor);
            return head.first;
        }
        backOff.wait();
    }
}

} // namespace platform
