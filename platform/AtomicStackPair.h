#pragma once

#include "AtomicStack.h"

namespace dxr {

/// A lock-free list of blocks that keeps threads out of one another's way: two stacks, and every thread stays
/// with one of them until it has a reason to change. A push that loses an exchange there goes to the other; a
/// pop that finds it empty tries the other, and the thread stays where there was something. So two threads
/// that both take and give back part after their first collision, and where one only gives back what another
/// takes, the taker empties one stack while the other fills.
/// Last in, first out for threads that do not collide: the stack that a thread is on lies on top of the
/// other, which it reaches only through its end.
/// Threads:   every call from any thread at once, each with a `Side` of its own.
/// Real time: yes; as AtomicStack.
class AtomicStackPair {
public:
    using Link = AtomicStack::Link;
    /// Which of the stacks the calling thread uses: 0 at first, then what the last call left there.
    using Side = uint8_t;

    /// Pushes blocks that the caller has linked from `first` to `last` in one step; `first` comes out first.
    void pushChain(Link* first, Link* last, Side& side) noexcept CX_REALTIME;
    /// The block pushed last, or null when at some moment of the call there was none on either stack.
    Link* pop(Side& side) noexcept CX_REALTIME;

private:
    Link* _popFromOther(Side& side) noexcept;

    // There is no protocol between the stacks but the order of looks in _popFromOther(): a block may move
    // from the one not yet looked at to the one already found empty, and then the result "none" would be
    // wrong though never fewer than one was there; a caller that keeps blocks in reserve relies on the
    // result. So the first stack is looked at again, and null is the result only if nothing came and went
    // there meanwhile.
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
