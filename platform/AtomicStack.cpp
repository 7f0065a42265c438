#include "AtomicStack.h"

#include "BackOff.h"

#if defined(__SANITIZE_THREAD__)
#define DXR_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define DXR_THREAD_SANITIZER 1
#endif
#endif

namespace platform {

namespace {

/// The successor of a block that may no longer be ours to read: its new owner may be writing there. What is
/// read then is thrown away, so the race is harmless and hidden from the thread sanitizer.
#ifdef DXR_THREAD_SANITIZER
__attribute__((no_sanitize("thread"), noinline))
#endif
AtomicStack::Link*
successorOf(const AtomicStack::Link* block) noexcept
{
    return __atomic_load_n(reinterpret_cast<AtomicStack::Link* const*>(&block->next), __ATOMIC_RELAXED);
}

} // namespace

AtomicStack::Head AtomicStack::_load() const noexcept
{
    Head head;
    // In this order: a count older than the block can only make the exchange fail.
    head.changes = __atomic_load_n(&_head.changes, __ATOMIC_ACQUIRE);
    head.first = __atomic_load_n(&_head.first, __ATOMIC_ACQUIRE);
    return head;
}

bool AtomicStack::_exchange(const Head& expected, const Head& wanted) noexcept
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

void AtomicStack::pushChain(Link* first, Link* last) noexcept
{
    BackOff backOff;
    for (;;) {
        const Head head = _load();
        last->next.store(head.first, std::memory_order_relaxed); // published by the exchange
        if (_exchange(head, {first, head.changes + 1}))
            return;
        backOff.wait();
    }
}

AtomicStack::Link* AtomicStack::pop() noexcept
{
    BackOff backOff;
    for (;;) {
        const Head head = _load();
        if (!head.first)
            return nullptr;
        if (_exchange(head, {successorOf(head.first), head.changes + 1}))
            return head.first;
        backOff.wait();
    }
}

} // namespace platform
