#pragma once

#include "BackOff.h"
#include "CXRealtime.h"

#include <cstdint>

namespace dxr {

/// A lock-free last-in-first-out list of memory blocks, linked through their first words.
/// Threads:   every function may be called on any thread, concurrently.
/// Real time: yes; a pop whose exchange fails waits a bounded time and tries again.
/// Blocks must stay mapped for the life of the process: a pop may read the first words of a block that
/// another thread has just taken. It discards that result.
class AtomicStack {
public:
    /// The first words of a block while it is on a stack. Not initialised: pushing writes them.
    struct Link {
        Link* next;
        // The address of a block that will probably be popped soon after this one; any address is allowed.
        // pop() prefetches it, because blocks that another thread pushed are in that thread's cache:
        // following `next` alone would cause one cache miss after another.
        void* later;

        void linkTo(Link* successor) noexcept { __atomic_store_n(&next, successor, __ATOMIC_RELAXED); }
    };

    constexpr AtomicStack() noexcept = default;
    AtomicStack(const AtomicStack&) = delete;
    AtomicStack& operator=(const AtomicStack&) = delete;

    /// Pushes the blocks that the caller has linked from `first` to `last`, in one step; `first` is popped
    /// first. Tries once, and returns false if another thread changed the stack meanwhile.
    bool tryPushChain(Link* first, Link* last) noexcept CX_REALTIME;
    /// Returns the block pushed last, or null if the stack is empty.
    Link* pop() noexcept CX_REALTIME;

    /// The number of pops so far. Read it before calling isEmptySince().
    uint64_t popCount() const noexcept CX_REALTIME { return __atomic_load_n(&_head.pops, __ATOMIC_ACQUIRE); }
    /// Returns true if the stack is empty and no block was popped since `popCount` was read. If the caller
    /// also saw the stack empty after reading `popCount`, it was empty the whole time: a block pushed
    /// meanwhile would still be here.
    bool isEmptySince(uint64_t popCount) const noexcept CX_REALTIME;

private:
    // The head and the number of pops so far; a pop changes both in one exchange. If other threads popped the
    // head and pushed it back since it was read, its successor may differ; the changed count makes the
    // exchange fail. A 64-bit count cannot wrap around between a thread's read and its exchange. A push
    // changes only the head: it does not use the head's successor, and a head can only reappear after a pop.
    //
    // The release order of the exchange that pushes pairs with the acquire load in pop(): the block's link is
    // written before other threads see the block. The two words are loaded separately; if they were never
    // current together, the count differs and the exchange fails.
    struct alignas(16) Head {
        Link* first = nullptr;
        uint64_t pops = 0;
    };

    Head _load() const noexcept;
    bool _exchange(const Head& expected, const Head& wanted) noexcept;
    static Link _linksOf(const Link* block) noexcept;

    // 128 bytes hold the cache line and its neighbour, which processors fetch with it: threads that use
    // different stacks do not slow one another down.
    alignas(128) Head _head;
};

// Inline, because two function calls would add half again to the cost of a push or pop.

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

/// Reads the links of a block that another thread may own by now and be writing to. The caller discards the
/// result in that case, so the race is harmless; it is hidden from the thread sanitizer.
DXR_HIDDEN_FROM_THREAD_SANITIZER AtomicStack::Link AtomicStack::_linksOf(const Link* block) noexcept
{
    return {__atomic_load_n(&block->next, __ATOMIC_RELAXED),
            __atomic_load_n(&block->later, __ATOMIC_RELAXED)};
}

inline AtomicStack::Head AtomicStack::_load() const noexcept
{
    Head head;
    // In this order, because a count older than the block can only make the exchange fail.
    head.pops = __atomic_load_n(&_head.pops, __ATOMIC_ACQUIRE);
    head.first = __atomic_load_n(&_head.first, __ATOMIC_ACQUIRE);
    return head;
}

inline bool AtomicStack::_exchange(const Head& expected, const Head& wanted) noexcept
{
#ifdef __SIZEOF_INT128__
    __extension__ using Word [[gnu::may_alias]] = unsigned __int128;
    static_assert(sizeof(Word) == sizeof(Head));
    // The __sync form is compiled inline; the __atomic form would call a library function that may take a
    // lock.
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
