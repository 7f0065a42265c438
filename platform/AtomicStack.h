#pragma once

#include "BackOff.h"
#include "CXRealtime.h"

#include <cstdint>

namespace dxr {

/// A lock-free last-in-first-out list of blocks of memory, linked through their own first words.
/// Threads:   every call from any thread at once.
/// Real time: yes; a pop that loses an exchange waits a bounded moment and tries again.
/// Blocks must stay mapped for the life of the process: a pop may read the first words of a block that
/// another thread has just taken, and throws away what it read.
class AtomicStack {
public:
    /// The first words of a block that is on a stack. Made without values: the push writes them.
    struct Link {
        Link* next;
        // A block that will be popped a little after this one, as far as the pushing thread knows; any
        // address will do. A thread that takes what another gave back finds every block in the other's cache:
        // along the links alone it would wait for one after the other.
        void* later;

        void linkTo(Link* successor) noexcept { __atomic_store_n(&next, successor, __ATOMIC_RELAXED); }
    };

    constexpr AtomicStack() noexcept = default;
    AtomicStack(const AtomicStack&) = delete;
    AtomicStack& operator=(const AtomicStack&) = delete;

    /// Pushes blocks that the caller has linked from `first` to `last` in one step; `first` comes out first.
    /// One attempt: false when another thread was faster.
    bool tryPushChain(Link* first, Link* last) noexcept CX_REALTIME;
    /// The block pushed last, or null.
    Link* pop() noexcept CX_REALTIME;

    /// How many pops there have been, read before isEmptySince().
    uint64_t popCount() const noexcept CX_REALTIME { return __atomic_load_n(&_head.pops, __ATOMIC_ACQUIRE); }
    /// Whether the stack is empty and has not been popped from since `popCount` was read. If it was seen
    /// empty after that reading too, it has been empty all the time between: what was pushed would still be
    /// here.
    bool isEmptySince(uint64_t popCount) const noexcept CX_REALTIME;

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
    static Link _linksOf(const Link* block) noexcept;

    // A line of its own, and the one that the processor likes to fetch with it: what has no stack in common
    // does not slow one another down.
    alignas(128) Head _head;
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

/// The links of a block that may no longer be ours to read: its new owner may be writing there. What is read
/// then is thrown away, so the race is harmless and hidden from the thread sanitizer.
DXR_HIDDEN_FROM_THREAD_SANITIZER AtomicStack::Link AtomicStack::_linksOf(const Link* block) noexcept
{
    return {__atomic_load_n(&block->next, __ATOMIC_RELAXED),
            __atomic_load_n(&block->later, __ATOMIC_RELAXED)};
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

inline bool AtomicStack::tryPushChain(Link* first, Link* last) noexcept
{
    Link* head = __atomic_load_n(&_head.first, __ATOMIC_RELAXED);
    last->linkTo(head); // published by the exchange
    return __atomic_compare_exchange_n(&_head.first, &head, first, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED);
}

inline AtomicStack::Link* AtomicStack::pop() noexcept
{
    BackOff backOff;
    for (;;) {
        const Head head = _load();
        if (!head.first)
            return nullptr;
        const Link links = _linksOf(head.first);
        if (_exchange(head, {links.next, head.pops + 1})) {
            __builtin_prefetch(links.later);
            return head.first;
        }
        backOff.wait();
    }
}

inline bool AtomicStack::isEmptySince(uint64_t popCount) const noexcept
{
    return !__atomic_load_n(&_head.first, __ATOMIC_ACQUIRE) && this->popCount() == popCount;
}

} // namespace dxr
