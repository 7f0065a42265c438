#include "DXRKVOObservation.h"

void DXRKVOObservation::end()
{
    Block ended; // destroyed without the lock: it may hold the last reference to anything
    const std::scoped_lock lock(_mutex);
    std::swap(ended, _block);
}

void DXRKVOObservation::_call(DXRKVOChange change) const
{
    Block block;
    {
        const std::scoped_lock lock(_mutex);
        block = _block;
    }
    if (block)
        block(_key, change);
}
