#pragma once

#include "AtomicStack.h"

namespace dxr {

/// A lock-free list of blocks that reduces contention. It has two stacks, and each thread keeps using one of
/// them (its side). A push whose exchange fails switches to the other stack. A pop that finds its stack empty
/// tries the other one, and the thread switches to it if it had a block. So two threads that both push and
/// pop use different stacks after their first collision; and if one thread only pushes and another only pops,
/// the second empties one stack while the first fills the other.
/// Without collisions the order is last in, first out: a thread reaches the other stack only when its own is
/// empty.
/// Threads:   every function may be called on any thread, concurrently; each thread has its own `Side`.
/// Real time: yes; as AtomicStack.
class AtomicStackPair {
public:
    using Link = AtomicStack::Link;
    /// The stack that the calling thread uses: initially 0, afterwards the value that the last call stored.
    using Side = uint8_t;

    /// Pushes the blocks that the caller has linked from `first` to `last`, in one step; `first` is popped
    /// first.
    void pushChain(Link* first, Link* last, Side& side) noexcept CX_REALTIME;
    /// Returns the block pushed last, or null if both stacks were empty at the same moment during the call.
    Link* pop(Side& side) noexcept CX_REALTIME;

private:
    Link* _popFromOther(Side& side) noexcept;

    // The stacks are independent; only the order of the checks in _popFromOther() connects them. A block may
    // move from the stack that is not yet checked to the one already found empty. Returning null would then
    // be wrong, because at least one block was on the stacks all the time, and a caller that keeps blocks in
    // reserve relies on the result. So the first stack is checked again, and null is returned only if no
    // block was pushed and popped there meanwhile.
    AtomicStack _stacks[2];
};

inline void AtomicStackPair::pushChain(Link* first, Link* last, Side& side) noexcept
{
    if (_stacks[side].tryPushChain(first, last)) [[likely]]
        return;
    BackOff backOff;
    for (;;) {
        side ^= 1;
        if (_stacks[side].tryPushChain(first, last))
            return;
        backOff.wait();
    }
}

inline AtomicStackPair::Link* AtomicStackPair::pop(Side& side) noexcept
{
    Link* const block = _stacks[side].pop();
    return block ? block : _popFromOther(side);
}

} // namespace dxr
