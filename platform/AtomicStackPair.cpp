#include "AtomicStackPair.h"

namespace dxr {

AtomicStackPair::Link* AtomicStackPair::_popFromOther(Side& side) noexcept
{
    AtomicStack& here = _stacks[side];
    AtomicStack& other = _stacks[side ^ 1];
    for (;;) {
        const uint64_t popCount = here.popCount();
        if (Link* const block = here.pop())
            return block;
        if (Link* const block = other.pop()) {
            side ^= 1;
            return block;
        }
        if (here.isEmptySince(popCount))
            return nullptr;
    }
}

} // namespace dxr
