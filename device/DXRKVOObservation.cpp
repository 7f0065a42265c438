#include "DXRKVOObservation.h"

DXRKVOObservation::Block DXRKVOObservation::Registration::block() const
{
    const std::scoped_lock lock(_mutex);
    return _block;
}

void DXRKVOObservation::Registration::end()
{
    Block ended; // destroyed without the lock, because it may hold the last reference to any object
    const std::scoped_lock lock(_mutex);
    std::swap(ended, _block);
}
